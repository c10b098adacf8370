// Loads samples of metrics into a metric directory.
//
// Samples are written in batches. Each becomes whole slices, and these and the notes of how far the files are loaded
// (metric_notes.h) count from one moment on (metric_staging.h): each sample comes once, however often the load is killed
// and begun again.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/libveldar/formats/metric_csv.h"
#include "tools/libveldar/load/load_files.h"
#include "tools/libveldar/load/metric_batch.h"
#include "tools/libveldar/load/metric_notes.h"
#include "tools/libveldar/load/metric_staging.h"
#include "tools/libveldar/store/line_reader.h"
#include "tools/libveldar/store/troubles.h"

namespace veldar::tool {

struct metric_load_options {
    std::vector<std::string> files;
    std::vector<std::string> labels;  // "name=value", for samples without a label of that name
    std::string format;               // openmetrics, prometheus, csv; empty: as the file looks
    std::string zone_name = "UTC";    // of csv.zone
    std::string time;                 // of samples that have none; in CSV the column of the times
    metric_csv_options csv;           // without the time's column
    uint64_t batch_samples = uint64_t{1} << 18;
    bool strict = false;    // end at the first malformed line
    bool again = false;     // load what is noted as loaded too
    bool flush = false;     // take the last line of a file that changed just now, though it has no end
    bool in_store = false;  // the directory is a store's: nothing else writes to it
    bool no_fsync = false;
    bool no_optimize = false;
};

struct metric_loader : load_report {
    const metric_load_options* options = nullptr;
    std::string directory;
    unique_fd lock;
    metric_notes notes;
    metric_staging staging;
    index_writer writer;        // open when there has been something to write
    bool milliseconds = false;  // of the writer
    metric_batch batch;
    std::vector<metric_note> done;     // of files whose last samples are in the batch
    std::vector<metric_label> labels;  // of the options
    st_timeval_t now;
    troubles trouble;
    uint64_t pipe_loaded = 0, pipe_in_batch = 0;  // bytes of a pipe whose samples are in slices, and with this batch
};

// Opens the directory, making it when it does not exist, and waits until no other load into it runs. Throws
// failure_t, as all of these do for the directory's own failures.
void metric_loader_open(metric_loader* load, const std::string& directory, const metric_load_options& options);
// Loads what is new in a file ("-": standard input). False with a message when not all of it could be read; what could
// be is loaded. A strict loader throws at a malformed line, when all before it is in the index.
bool metric_loader_load(metric_loader* load, const std::string& path, std::string* error);
// Writes what is left and closes.
void metric_loader_close(metric_loader* load);
// What the user can do after a failure. Throws std::bad_alloc at most.
std::string metric_loader_give_up(const metric_loader& load);

}  // namespace veldar::tool
