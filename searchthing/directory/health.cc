#include "searchthing/directory/health.h"

#include <algorithm>
#include <limits>
#include <memory>
#include <new>

#include "libzero/assertions.h"
#include "searchthing/directory/tsidx_handle.h"

namespace veldar {

namespace {

constexpr uint32_t MANY_SLICES = 11;

// Seconds from one time to another; any two times are fewer than 2^32 apart.
uint32_t seconds_between(st_time_t from, st_time_t to) {
    return static_cast<uint32_t>(to) - static_cast<uint32_t>(from);
}

int add_slices(TSIDX* tsidx, health_stat* stat) {
    health_stat_init(stat);
    tsidx_listing_t slices;
    ST_TRY(tsidx_list(tsidx->path.c_str(), &slices, &tsidx->last_failure));
    for (const tsidx_slice_name_t& slice : slices) {
        health_add_range(stat, slice.meta.earliest, slice.meta.latest);
    }
    // The number of all seconds does not fit the histogram's 32 bits. One less makes the same buckets.
    const bool all_time = seconds_between(stat->most_earliest, stat->most_latest) == UINT32_MAX;
    if (all_time && !slices.empty()) stat->most_latest--;
    return 0;
}

}  // namespace

void health_stat_init(health_stat* stat) {
    stat->count = 0;
    stat->most_earliest = std::numeric_limits<st_time_t>::max();
    stat->most_latest = std::numeric_limits<st_time_t>::min();
}

int health_add_range(health_stat* stat, st_time_t earliest, st_time_t latest) {
    const uint32_t index = stat->count++;
    if (index >= HEALTH_MAX_RANGES) return -1;
    stat->ranges[index] = {earliest, latest};
    stat->most_earliest = std::min(stat->most_earliest, earliest);
    stat->most_latest = std::max(stat->most_latest, latest);
    return 0;
}

void health_histogram(const health_stat* hs, uint32_t* histogram, uint32_t hist_size) {
    std::fill_n(histogram, hist_size, 0u);
    ST_ASSERT(hist_size > 0 && hs->most_latest >= hs->most_earliest);
    const uint32_t seconds = std::max(seconds_between(hs->most_earliest, hs->most_latest) + 1, 1u);
    const uint32_t width = seconds / hist_size + (seconds % hist_size != 0 ? 1 : 0);
    for (uint32_t i = 0; i < std::min(hs->count, HEALTH_MAX_RANGES); i++) {
        if (hs->ranges[i].latest < hs->ranges[i].earliest) continue;
        const uint32_t first = seconds_between(hs->most_earliest, hs->ranges[i].earliest) / width;
        const uint32_t last = seconds_between(hs->most_earliest, hs->ranges[i].latest) / width;
        for (uint64_t j = first; j <= last; j++) {
            ST_ASSERT(j < hist_size);
            histogram[j]++;
        }
    }
}

uint32_t health_histogram_rating(const health_stat* stat, const uint32_t* histogram, uint32_t size) {
    if (stat->count < 2 || size == 0) return 0;
    uint32_t crowded = 0;
    for (uint32_t i = 0; i < size; i++) crowded += histogram[i] == 0 ? 0 : histogram[i] - 1;
    return crowded * 1000 / ((stat->count - 1) * size);
}

int tsidx_health_histogram(TSIDX* tsidx, health_stat* stat, uint32_t* histogram) {
    ST_ASSERT(tsidx != nullptr);
    std::fill_n(histogram, HEALTH_BUCKETS, 0u);
    try {
        if (add_slices(tsidx, stat) != 0) return -1;
    } catch (const std::bad_alloc&) {
        _set_rc(&tsidx->last_failure, WARM_RC_NO_MEMORY);
        return -1;
    }
    // Names may all be reversed.
    if (stat->most_latest >= stat->most_earliest) health_histogram(stat, histogram, HEALTH_BUCKETS);
    const uint32_t rating = health_histogram_rating(stat, histogram, HEALTH_BUCKETS);
    const uint32_t share = stat->count < MANY_SLICES ? 0 : (1000 - 10000 / stat->count) >> 1;
    ST_ASSERT(rating <= 1000 && share <= 500);
    return static_cast<int>(rating + share);
}

int st_tsidx_health(TSIDX* tsidx) {
    ST_ASSERT(tsidx != nullptr);
    const std::unique_ptr<health_stat> stat(new (std::nothrow) health_stat);
    if (stat == nullptr) {
        _set_rc(&tsidx->last_failure, WARM_RC_NO_MEMORY);
        return -1;
    }
    uint32_t histogram[HEALTH_BUCKETS];
    return tsidx_health_histogram(tsidx, stat.get(), histogram);
}

}  // namespace veldar
