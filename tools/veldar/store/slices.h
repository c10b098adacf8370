// The slices that a command reads: those of a store, of one index directory, or a single file.
//
// The slices of a directory are read through its handle: a list is a snapshot of every directory (tsidx_snapshot.h),
// and what the handles have open is open for the next list too. A slice that has gone when it is to be opened was
// merged into another or deleted; then the caller lists again, so that no answer mixes two moments unknowingly.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "searchthing/reading/tsidx_snapshot.h"
#include "searchthing/search/query.h"
#include "searchthing/slice/warmslice.h"
#include "tools/veldar/store/troubles.h"

namespace veldar::tool {

struct slice_snapshot;  // of one directory, with the directory's handle

struct slice_file {
    std::string path;
    uint32_t directory = 0;                    // index in slice_set::directories
    st_time_t earliest = 0, latest = 0;        // of the name; all time when the name does not tell
    std::shared_ptr<slice_snapshot> snapshot;  // null for a file given by its path
    size_t number = 0;                         // in the snapshot
};

struct slice_directory {
    std::string path;
    std::string name;              // its last component
    bool has_sources = false;      // a source map lies in it, so raw events can be read
    std::shared_ptr<TSIDX> tsidx;  // open for reading; null beside a file given by its path
};

struct slice_set {
    std::string path;                          // what was listed
    bool with_metrics = false;                 // of a store its metrics too
    std::string store;                         // the store that the directories belong to; empty for others
    std::vector<slice_directory> directories;  // oldest first; one that was listed keeps its index
    std::vector<slice_file> files;             // latest time descending
    std::vector<std::string> errors;           // directories of a store that could not be listed, and why
};

// Lists the slices at `path`; says on standard error when a directory has none. Throws tool_failure: EXIT_USAGE when
// nothing of the kind is there, EXIT_IO when it cannot be read.
slice_set slices_list(const std::string& path);
// The same with the metrics of a store, for the commands that look inside of slices.
slice_set slices_list_all(const std::string& path);
// Tells of the directories that could not be listed: the command ends with EXIT_IO when it has answered what it can.
void slices_tell_errors(const slice_set& set, troubles* trouble);
// Lists them once more, after a pause of 1 ms at the first try in a row, twice as long at every further one, up to 100
// ms. The files of the set are new ones; slices that are open stay so.
void slices_list_again(slice_set* set, int tries);

inline constexpr int SLICES_MAX_TRIES = 16;
// Runs `work(slices)`, which returns false when a slice has gone, over new lists until one of them holds; what the
// lists lack is told to `trouble`, and that none of them held. Throws tool_failure.
void slices_visit(const std::string& path, troubles* trouble, const std::function<bool(const slice_set&)>& work);

// Whether the file's name allows events within the query's bounds.
bool slice_meets_bounds(const slice_file& file, const st_query_spec& query);

// Gives a slice back to the snapshot it came from, or closes it.
struct warm_close {
    std::shared_ptr<slice_snapshot> snapshot;
    size_t number = 0;
    void operator()(WARM* warm) const;
};
using warm_ptr = std::unique_ptr<WARM, warm_close>;

enum slice_state_t { SLICE_OPEN, SLICE_VANISHED, SLICE_UNREADABLE };
// Opens a slice read-only, one of a directory at most once at a time. SLICE_UNREADABLE comes with a message that names
// it. Throws tool_failure when memory is short.
slice_state_t slice_open(const slice_file& file, warm_ptr* warm, std::string* error);

struct opened_slice {
    const slice_file* file;
    warm_ptr warm;
};
// Opens every slice of the list, for reads that cannot begin again once a part of them has been shown; those that
// cannot be read are told and left out. False when one has gone.
bool slices_open_all(const slice_set& set, std::vector<opened_slice>* slices, troubles* trouble);

// "PATH: what the status says", for messages.
std::string slice_error(const std::string& path, const warm_rc_t& rc);
inline std::string slice_error(const slice_file& file, const warm_rc_t& rc) {
    return slice_error(file.path, rc);
}

}  // namespace veldar::tool
