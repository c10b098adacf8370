// The slices that a command reads: those of a store, of one index directory, or a single file.
//
// Which files of an index directory count, the engine says (searchthing/tsidx_list.h). A file that is gone when it is
// to be opened makes the caller list again.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "searchthing/query.h"
#include "searchthing/warmslice.h"

namespace veldar {

struct slice_file {
    std::string path;
    uint32_t directory = 0;              // index in slice_set::directories
    st_time_t earliest = 0, latest = 0;  // of the name; all time when the name does not tell
};

struct slice_directory {
    std::string path;
    std::string name;          // its last component
    bool has_sources = false;  // a source map lies in it, so raw events can be read
};

struct slice_set {
    std::string store;                         // the store that the directories belong to; empty for others
    std::vector<slice_directory> directories;  // oldest first
    std::vector<slice_file> files;             // latest time descending
    std::vector<std::string> errors;           // directories of a store that could not be listed, and why
};

// Lists the slices at `path`; says on standard error when a directory has none. Throws tool_failure: EXIT_USAGE when
// nothing of the kind is there, EXIT_IO when it cannot be read.
slice_set slices_list(const std::string& path);

// Whether the file's name allows events within the query's bounds.
bool slice_meets_bounds(const slice_file& file, const st_query_spec& query);

struct warm_close {
    void operator()(WARM* warm) const { st_warm_slice_close(warm); }
};
using warm_ptr = std::unique_ptr<WARM, warm_close>;

enum slice_state_t { SLICE_OPEN, SLICE_VANISHED, SLICE_UNREADABLE };
// Opens a slice read-only. SLICE_UNREADABLE comes with a message that names it.
slice_state_t slice_open(const slice_file& file, warm_ptr* warm, std::string* error);
// "PATH: what the status says", for messages.
std::string slice_error(const slice_file& file, const warm_rc_t& rc);

}  // namespace veldar
