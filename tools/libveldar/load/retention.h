// Keeping what is young, or what fits: whole slices go, by the times in their names, and then single events.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "searchthing/base/st_timeval.h"

namespace veldar::tool {

struct retention {
    std::optional<st_time_t> before;   // events of times before it go
    std::optional<uint64_t> max_size;  // bytes that the slices may have together; the oldest go first, as a whole
};

struct retained {
    uint64_t slices = 0, slice_events = 0, bytes = 0;  // whole slices, and what they held
    uint64_t uncounted = 0;                            // of these slices: could not be read, and may have held more
    uint64_t events = 0;                               // deleted one by one, in slices that stay
    uint64_t metric_slices = 0;  // of metrics, which begin before the time and stay, as they have no deletes
};

// In all of these index directories together. Events that loads put into a store are noted as loaded, so that they do
// not come back. With `dry_run` nothing is changed. Throws failure_t; what went before is gone.
retained retain_in(const std::vector<std::string>& directories, const retention& rule, bool dry_run);

}  // namespace veldar::tool
