// A batch of metrics on its way into its directory. A sample has no address that tells it from its twin, so slices and
// the notes of what they hold become part of the index in one moment.
//
//   metrics.batch/                  while a batch is written; of one user at a time
//     *.tsidx, *.tsidx.seal         its slices, which nobody else sees
//     commit                        once they are all there: the batch counts
//
// `commit` is lines of text: "slice NAME" for each slice, then "note " and a line for metrics.loaded (metric_notes.h) for
// each. After it the slices get their names in the index, one by one, each leaving the directory as it does; then the
// notes are added, and `commit` goes. What a killed load left is finished by the next one when there is a commit, and
// removed when there is none.
#pragma once

#include <string>
#include <vector>

#include "tools/libveldar/load/metric_notes.h"

namespace veldar::tool {

struct metric_staging {
    std::string target;  // the index directory
    std::string path;    // where the batch's slices are written
    bool durable = true;
};

// Names the place in `directory` and finishes or removes what is there, for who holds the lock of the load. Throws
// failure_t, as all of these do.
metric_staging metric_staging_settle(const std::string& directory, metric_notes* notes, bool durable);
// Makes the place.
void metric_staging_make(const metric_staging& staging);
// The slices that lie there become part of the index, with these notes.
void metric_staging_commit(const metric_staging& staging, const std::vector<metric_note>& added, metric_notes* notes);
// Whether what lies there is to become part of the index, now or when it is settled.
bool metric_staging_is_committed(const metric_staging& staging);
// Removes the place and what is left in it.
void metric_staging_remove(const metric_staging& staging);

}  // namespace veldar::tool
