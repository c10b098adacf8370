// The events of a store against the logs that they came from: each raw record is read by its address and cut into terms
// as the load did, and time and terms compared with what the index has.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/libveldar/load/event_terms.h"
#include "tools/libveldar/store/slices.h"

namespace veldar::tool {

struct source_check {
    uint64_t every = 1;  // one in so many events is compared
    event_source source;
    event_terms terms;
    uint64_t compared = 0, unreadable = 0, differing = 0;
    std::vector<std::string> lines;  // of the first that differ
    uint32_t most_lines = 10;
};

// `slices` and `trouble` must outlive the record.
void source_check_open(source_check* check, const slice_set* slices, troubles* trouble);
// Compares the events of one slice, but for the deleted ones. 0 or the status of a read of the slice; may throw
// std::bad_alloc.
[[nodiscard]] int source_check_slice(source_check* check, WARM* warm, uint32_t directory, warm_rc_t* rc);

}  // namespace veldar::tool
