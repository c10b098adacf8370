// Civil times as logs write them, turned into seconds since the epoch; and the zones of times that are written without
// one.
#pragma once

#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

#include "searchthing/base/st_timeval.h"

namespace veldar::tool {

// The zone of local times. Default: UTC. A named zone remembers the span of local time in which the last offset holds,
// so that a run of log lines looks its zone up once; a record is for one thread, copies are independent.
struct log_zone {
    const void* named =
        nullptr;             // the zone's rules, owned by the zone library for the life of the process; null: fixed
    int64_t offset_s = 0;    // east of UTC
    int64_t holds_from = 0;  // named zones: offset_s is right for local seconds in [holds_from, holds_until)
    int64_t holds_until = 0;
};

// Takes "UTC", "Z", "+02:00", "-0530", "local" (the machine's zone) or a name such as "Europe/Berlin". False when the
// name is unknown or the machine has no zone data; `out` is then unchanged. Never throws.
[[nodiscard]] bool log_zone_from_name(std::string_view name, log_zone* out);

// The name under which the machine's zone is known, such as "Europe/Berlin".
std::string log_zone_local_name();

// Local seconds (a civil time counted as if it were UTC) to seconds since the epoch. A time that occurs twice is the
// first of the two, unless `last_s`, the moment of the line before, lies behind the change or a minute behind the first;
// one that a clock skipped counts on with the offset from before the change.
int64_t log_zone_to_epoch(log_zone* zone, int64_t local_s, int64_t last_s = std::numeric_limits<int64_t>::min());

// The offset, in seconds east of UTC, that holds at a moment, and since when (inclusive) and until when (exclusive) it
// does; without a change the bounds are those of int64_t. Seconds within 2^40 of the epoch.
struct log_zone_span {
    int64_t offset_s = 0;
    int64_t begin_s = 0, end_s = 0;
};
log_zone_span log_zone_at(const log_zone& zone, int64_t epoch_s);

// Stores the time when its seconds fit the engine's 32 bits; false otherwise.
[[nodiscard]] bool log_time_store(int64_t epoch_s, uint32_t nanoseconds, st_timeval_t* out);

}  // namespace veldar::tool
