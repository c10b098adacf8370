#include "tools/libveldar/load/forget_events.h"

#include <algorithm>
#include <vector>

#include "searchthing/upkeep/tsidx_upkeep.h"
#include "tools/libveldar/query/event_source.h"
#include "tools/libveldar/store/failure.h"
#include "tools/libveldar/store/index_handle.h"

namespace veldar::tool {

namespace {

constexpr uint32_t WRITE_LEVEL = 4;  // of the handle; a delete writes no slice

struct address_range {
    uint64_t begin = 0, end = 0;
};

std::vector<address_range> ranges_of(const source_map& map, uint32_t number) {
    std::vector<address_range> ranges;
    for (size_t i = 0; i < map.stretches.size(); i++) {
        const source_stretch& stretch = map.stretches[i];
        const uint64_t end = stretch.base + (source_map_stretch_end(map, i) - stretch.offset);
        if (stretch.number == number && end > stretch.base) ranges.push_back({stretch.base, end});
    }
    return ranges;
}

bool holds(const std::vector<address_range>& ranges, uint64_t address) {
    const auto behind = std::upper_bound(ranges.begin(), ranges.end(), address,
                                         [](uint64_t a, const address_range& range) { return a < range.begin; });
    return behind != ranges.begin() && address < (behind - 1)->end;
}

}  // namespace

uint64_t forget_events(const store_bucket& bucket, uint32_t number) {
    const std::vector<address_range> ranges = ranges_of(bucket.map, number);
    if (ranges.empty()) return 0;
    troubles trouble;
    const slice_set slices = slices_list(bucket.directory, false);
    event_source source;
    event_source_open(&source, &slices, &trouble);
    query_options all;
    all.words = {"*"};
    const prepared_query query = query_prepare(all);
    std::vector<st_tsval_encoded> keys;
    event_t event;
    const event_cursor_ptr events = events_open(query, 0, &source);
    while (events_next(events.get(), &event)) {
        if (holds(ranges, event.value.address)) keys.push_back({event.value.time, event.value.address});
    }
    if (trouble.incomplete) {
        throw failure_t{OUTCOME_INCOMPLETE,
                        bucket.directory + ": not all of it could be read: nothing of it was deleted"};
    }
    const tsidx_ptr tsidx = index_handle_open(bucket.directory, WRITE_LEVEL);
    const int64_t count = st_tsidx_delete_by_key(tsidx.get(), keys.data(), keys.size());
    if (count < 0) throw failure_t{OUTCOME_IO, bucket.directory + ": " + index_failure_text(tsidx.get())};
    return static_cast<uint64_t>(count);
}

}  // namespace veldar::tool
