// The slices that a command reads: those of a store, of one index directory, or a single file.
//
// The slices of a directory are read through its handle, as one snapshot of all directories (tsidx_snapshot.h). A slice
// that has gone when it is to be opened was merged into another or deleted; then the command begins again with a new
// listing, so that no answer mixes two moments unknowingly.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "searchthing/reading/tsidx_snapshot.h"
#include "searchthing/search/query.h"
#include "searchthing/slice/warmslice.h"
#include "tools/libveldar/store/troubles.h"

namespace veldar::tool {

struct slice_directory {
    std::string path;
    std::string name;              // its last component
    bool has_sources = false;      // a source map lies in it, so raw events can be read
    std::shared_ptr<TSIDX> tsidx;  // open for reading; null beside a file given by its path
};

struct slice_set {
    std::string path;                                  // what was listed
    std::string store;                                 // that the directories belong to; empty for others
    std::vector<slice_directory> directories;          // oldest first; the sources of the snapshot
    std::shared_ptr<std::vector<std::string>> errors;  // directories of a store that could not be listed, and why
    std::shared_ptr<tsidx_snapshot> slices;            // latest time descending; goes before the handles
};

// Lists the slices at `path`; says on standard error when a directory has none, if it `tells_empty`. Throws failure_t: OUTCOME_USAGE when
// nothing of the kind is there, OUTCOME_IO when it cannot be read.
slice_set slices_list(const std::string& path, bool tells_empty = true);
// The same with the metrics of a store, for the commands that look inside of slices.
slice_set slices_list_all(const std::string& path);
// None of them.
slice_set slices_none();
// The directories, or the file, for cursors.
std::vector<cursor_source_t> slices_sources(const slice_set& set);
// Tells of the directories that could not be listed: the command ends with OUTCOME_IO when it has answered what it can.
void slices_tell_errors(const slice_set& set, troubles* trouble);
// Runs `work`, which returns TSIDX_VANISHED when a slice has gone, over new listings until one of them holds; what the
// lists lack is told to `trouble`, and that none of them held. Throws failure_t when memory is short.
void slices_hold(const slice_set& set, troubles* trouble, const std::function<int64_t()>& work);

// The times of the slices within a query's bounds, in seconds, inclusive. A slice whose name tells nothing is asked
// itself; one that cannot be opened is left out here, and told when it is read.
struct slice_times {
    int64_t earliest_s = INT64_MAX, latest_s = INT64_MIN;
    bool is_empty() const { return earliest_s > latest_s; }
};
slice_times slices_times(const slice_set& set, const st_query_spec& bounds);

// Whether a slice's name allows events within the query's bounds.
bool slice_meets_bounds(const slice_set& set, size_t i, const st_query_spec& query);

enum slice_state_t { SLICE_OPEN, SLICE_VANISHED, SLICE_UNREADABLE };
// Opens a slice. SLICE_UNREADABLE comes with a message that names it. Throws failure_t when memory is short.
slice_state_t slice_open(const slice_set& set, size_t i, snapshot_slice_ptr* warm, std::string* error);

// "PATH: what the status says", for messages.
std::string slice_error(const std::string& path, const warm_rc_t& rc);
// Throws failure_t for what no answer can do without: memory, and that it is wanted still (work_stops).
void slice_fail_unless_told(const warm_rc_t& rc);
// Tells that a slice cannot be read. Throws as above.
void slice_tell(const std::string& path, const warm_rc_t& rc, troubles* trouble);
inline cursor_failure_fn slices_hear(troubles* trouble) {
    return [trouble](const std::string& path, const warm_rc_t& rc) { slice_tell(path, rc, trouble); };
}

}  // namespace veldar::tool
