// The slices of a store, an index directory or a single file, with what is in them.
#pragma once

#include <climits>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/libveldar/store/slices.h"

namespace veldar::tool {

struct slice_row {
    std::string name;
    std::string path;    // of a slice
    std::string format;  // the magic; of a directory how many slices it has
    bool has_times = false;
    st_time_t earliest = INT_MAX, latest = INT_MIN;
    bool readable = true;  // else nothing but times and bytes is known
    uint64_t slices = 0, events = 0, deleted = 0, terms = 0, bytes = 0;
};

// One row a slice, newest first, or one a directory, oldest first. A slice that is gone is left out; what cannot be read
// is told to `trouble`. Throws failure_t.
std::vector<slice_row> slice_rows_read(const slice_set& set, bool buckets, troubles* trouble);

}  // namespace veldar::tool
