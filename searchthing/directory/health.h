// How much the time ranges of a directory's slices overlap, in one number: 0 when they are disjoint; a query of a short
// time range then reads few slices.
#pragma once

#include <array>
#include <cstdint>

#include "searchthing/base/st_timeval.h"
#include "searchthing/directory/tsidx.h"

namespace veldar {

inline constexpr uint32_t HEALTH_MAX_RANGES = 1024;

struct health_range_t {
    st_time_t earliest;
    st_time_t latest;
};

struct health_stat {
    std::array<health_range_t, HEALTH_MAX_RANGES> ranges;
    st_time_t most_earliest;  // the smallest earliest time that was added
    st_time_t most_latest;    // the largest latest time
    uint32_t count;           // ranges added, those included for which there was no room
};

void health_stat_init(health_stat* stat);
// 0, or -1 for a range that is only counted, because 1024 are stored.
int health_add_range(health_stat* stat, st_time_t earliest, st_time_t latest);
// Spreads the stored ranges over `size` buckets of equal width, from the earliest time to the latest: each bucket
// counts the ranges that touch it. A reversed range touches none. At least one range must have been added, and all of
// them together must not span all 2^32 seconds (both asserted).
void health_histogram(const health_stat* stat, uint32_t* histogram, uint32_t size);
// How crowded the buckets are, in thousandths: 0 when no bucket counts two ranges, 1000 when every bucket counts all of
// them. 0 for fewer than two ranges.
uint32_t health_histogram_rating(const health_stat* stat, const uint32_t* histogram, uint32_t size);

// The directory's health number: the rating of its live slices' name ranges over 128 buckets, and from 11 slices on a
// share for their number as well. 0 without slices; -1 when the directory cannot be listed.
[[nodiscard]] int st_tsidx_health(TSIDX* tsidx);
// The same with the histogram, for drawing; it has 128 buckets, all 0 when no range is the right way round.
inline constexpr uint32_t HEALTH_BUCKETS = 128;
static_assert(uint64_t{HEALTH_MAX_RANGES} * HEALTH_BUCKETS * 1000 <= UINT32_MAX, "the rating's numbers have 32 bits");
[[nodiscard]] int tsidx_health_histogram(TSIDX* tsidx, health_stat* stat, uint32_t* histogram);

}  // namespace veldar
