#include "searchthing/merge/merge_values.h"

#include <algorithm>
#include <numeric>
#include <tuple>
#include <vector>

#include "libzero/assertions.h"
#include "searchthing/merge/merge_leader.h"
#include "searchthing/values/values_writer.h"

namespace veldar {

namespace {

// Compares as descending order asks for: the later time first, then the larger address, then the companions.
int compare_records(const st_tsval& a, const st_tsval& b) {
    if (a.time != b.time) return a.time > b.time ? -1 : 1;
    if (a.address != b.address) return a.address > b.address ? -1 : 1;
    const auto companions = [](const st_tsval& v) { return std::tuple(v.measure, v.s, v.st, v.h); };
    if (companions(a) == companions(b)) return 0;
    return companions(a) > companions(b) ? -1 : 1;
}

// Looks at every value once. `sorted` tells whether they are in the target's order, which needs more than the order of
// times that every slice has.
int scan_source(warm_merge_t* merge, merge_source_t* source, value_ranges_t* ranges, bool* sorted, warm_rc_t* rc) {
    *sorted = true;
    st_tsval before = {}, value = {};
    for (uint32_t number = 0; number < source->num_values; number++) {
        ST_TRY(merge->stop.after(1, rc));
        ST_TRY(merge_decode_value(merge, source, number, &value, rc));
        ranges->add(value);
        if (value.s != ST_DELETED_SOURCE) source->num_kept++;
        if (number > 0 && value.time > before.time) {
            return _set_rc_verbose(rc, WARM_RC_CORRUPT, number, "values are not newest first");
        }
        if (number > 0 && compare_records(before, value) > 0) *sorted = false;
        before = value;
    }
    return 0;
}

// Puts the numbers of each second's values in the target's order.
int sort_source(warm_merge_t* merge, merge_source_t* source, warm_rc_t* rc) {
    const uint32_t count = source->num_values;
    std::vector<uint32_t> addresses(count);
    source->order.resize(count);
    uint32_t* const order = source->order.data();
    std::iota(order, order + count, 0u);
    const auto before = [&](uint32_t a, uint32_t b) {
        if (addresses[a] != addresses[b]) return addresses[a] > addresses[b];
        st_tsval x, y;
        warm_rc_t ignored;  // both have been decoded before
        const bool decoded = merge_decode_value(merge, source, a, &x, &ignored) == 0 &&
                             merge_decode_value(merge, source, b, &y, &ignored) == 0;
        const int compared = decoded ? compare_records(x, y) : 0;
        return compared != 0 ? compared < 0 : a < b;
    };
    uint32_t begin = 0;
    st_time_t second = 0;
    for (uint32_t number = 0; number < count; number++) {
        st_tsval value;
        ST_TRY(merge->stop.after(1, rc));
        ST_TRY(merge_decode_value(merge, source, number, &value, rc));
        addresses[number] = value.address;
        if (number > 0 && value.time != second) {
            std::sort(order + begin, order + number, before);
            begin = number;
        }
        second = value.time;
    }
    std::sort(order + begin, order + count, before);
    return 0;
}

// Takes the deleted values out of the order; of all sources none when no value would be left.
int drop_deleted(warm_merge_t* merge, warm_rc_t* rc) {
    uint64_t kept = 0;
    for (const merge_source_t& source : merge->sources) kept += source.num_kept;
    for (merge_source_t& source : merge->sources) {
        if (!merge->options.drop_deleted || kept == 0) source.num_kept = source.num_values;
        if (source.num_kept == source.num_values) continue;
        std::vector<uint32_t> order;
        order.reserve(source.num_kept);
        for (uint32_t i = 0; i < source.num_values; i++) {
            const uint32_t number = source.order.empty() ? i : source.order[i];
            st_tsval value;
            ST_TRY(merge->stop.after(1, rc));
            ST_TRY(merge_decode_value(merge, &source, number, &value, rc));
            if (value.s != ST_DELETED_SOURCE) order.push_back(number);
        }
        ST_ASSERT(order.size() == source.num_kept);
        source.order = std::move(order);
    }
    return 0;
}

struct value_cursor {
    merge_source_t* source;
    uint32_t position;  // in the target's order of this source
    uint32_t number;    // of the value at the position
    st_tsval value;
};

int load_cursor(warm_merge_t* merge, value_cursor* cursor, warm_rc_t* rc) {
    const merge_source_t& source = *cursor->source;
    ST_ASSERT(cursor->position < source.num_kept);
    ST_TRY(merge->stop.after(1, rc));
    cursor->number = source.order.empty() ? cursor->position : source.order[cursor->position];
    return merge_decode_value(merge, cursor->source, cursor->number, &cursor->value, rc);
}

// Visits the values of all sources in the order that `before` (of two cursors) gives.
template <typename Before, typename Visit>
int walk_values(warm_merge_t* merge, Before before, Visit visit, warm_rc_t* rc) {
    std::vector<value_cursor> cursors;
    std::vector<value_cursor*> live;
    cursors.reserve(merge->sources.size());
    live.reserve(merge->sources.size());
    for (merge_source_t& source : merge->sources) {
        if (source.num_kept == 0) continue;
        cursors.push_back({.source = &source, .position = 0, .number = 0, .value = {}});
        ST_TRY(load_cursor(merge, &cursors.back(), rc));
        merge_place(&live, &cursors.back(), before);
    }
    return merge_by_leader(&live, before, [&](value_cursor* cursor, bool* ended) {
        ST_TRY(visit(*cursor));
        *ended = ++cursor->position == cursor->source->num_kept;
        return *ended ? 0 : load_cursor(merge, cursor, rc);
    });
}

// A source whose values stay together needs no map.
void drop_plain_map(merge_source_t* source) {
    if (source->num_kept < source->num_values) return;
    const uint32_t base = source->num_values == 0 ? 0 : source->map[0];
    for (uint32_t number = 0; number < source->num_values; number++) {
        if (source->map[number] != base + number) return;
    }
    source->base = base;
    source->map.reset();
}

// The target's times are those of the values kept, which lie inside the sources' headers' times.
int narrow_times(warm_merge_t* merge, warm_rc_t* rc) {
    const auto keeps_all = [](const merge_source_t& source) { return source.num_kept == source.num_values; };
    if (std::all_of(merge->sources.begin(), merge->sources.end(), keeps_all)) return 0;
    ST_ASSERT(merge->totals.values > 0);
    const st_time_t earliest = merge->times[merge->totals.values - 1], latest = merge->times[0];
    ST_ASSERT(earliest <= latest);
    merge->totals.earliest = earliest;
    merge->totals.latest = latest;
    st_warm_slice_body* const header = &merge->header;
    if (warm_header_is_legacy(header)) return 0;
    if (earliest < static_cast<st_time_t>(header->earliest.get()) ||
        latest > static_cast<st_time_t>(header->latest.get())) {
        return _set_rc_msg(rc, WARM_RC_TIME_MISMATCH, "values lie outside the header's times");
    }
    header->earliest.set(static_cast<uint32_t>(earliest));
    header->latest.set(static_cast<uint32_t>(latest));
    return 0;
}

int number_values(warm_merge_t* merge, warm_rc_t* rc) {
    uint64_t most = 0;
    for (merge_source_t& source : merge->sources) {
        if (!source.map.alloc(source.num_values)) return _set_rc_msg(rc, WARM_RC_NO_MEMORY, "value map");
        std::fill(source.map.begin(), source.map.end(), MERGE_DROPPED);
        most += source.num_kept;
    }
    if (!merge->times.alloc(most)) return _set_rc_msg(rc, WARM_RC_NO_MEMORY, "value times");
    uint32_t next = 0;
    st_tsval last = {};
    const merge_source_t* last_source = nullptr;
    const auto before = [](const value_cursor& a, const value_cursor& b) {
        const int compared = compare_records(a.value, b.value);
        return compared != 0 ? compared < 0 : a.source < b.source;
    };
    const auto visit = [&](const value_cursor& cursor) {
        if (next == 0 || compare_records(last, cursor.value) != 0) {
            merge->times[next++] = cursor.value.time;
            last = cursor.value;
        } else if (last_source == cursor.source) {
            cursor.source->repeats = true;
        }
        last_source = cursor.source;
        cursor.source->map[cursor.number] = next - 1;
        return 0;
    };
    ST_TRY(walk_values(merge, before, visit, rc));
    ST_ASSERT(next <= most);
    for (merge_source_t& source : merge->sources) drop_plain_map(&source);
    merge->totals.values = next;
    return narrow_times(merge, rc);
}

int fill_header(warm_merge_t* merge, const value_ranges_t& ranges, warm_rc_t* rc) {
    st_warm_slice_body* header = &merge->header;
    const uint32_t values = merge->totals.values;
    ST_TRY(values_set_header(header, values, values_companion_widths(ranges), rc));
    if (merge->options.mapper != nullptr && warm_header_is_rev1(header)) {
        header->seek_addr_min.set(ranges.address_min);
        header->seek_addr_max.set(ranges.address_max);
    }
    // Readers take the size of a packed section modulo 2^32 bits.
    if (warm_header_is_enabled(header, WARM_FLAG_VALUES_PACKED)) {
        const uint64_t width = warm_header_meta_time_nbits(header) + warm_header_seek_addr_nbits(header);
        if (width * values + 63 > merge->seams.packed_bits_max)
            warm_header_set_flag(header, WARM_FLAG_VALUES_PACKED, false);
    }
    return 0;
}

}  // namespace

int merge_values_plan(warm_merge_t* merge, warm_rc_t* rc) {
    value_ranges_t ranges;
    for (merge_source_t& source : merge->sources) {
        bool sorted = true;
        ST_TRY(scan_source(merge, &source, &ranges, &sorted, rc));
        if (!sorted) ST_TRY(sort_source(merge, &source, rc));
    }
    ST_TRY(drop_deleted(merge, rc));
    ST_TRY(number_values(merge, rc));
    return fill_header(merge, ranges, rc);
}

int merge_values_write(warm_merge_t* merge, int fd, warm_rc_t* rc) {
    values_writer_t out;
    ST_TRY(values_writer_open(&out, &merge->header, fd, nullptr, rc));
    uint32_t next = 0;
    const auto new_number = [](const value_cursor& cursor) { return merge_new_number(*cursor.source, cursor.number); };
    const auto before = [&](const value_cursor& a, const value_cursor& b) { return new_number(a) < new_number(b); };
    const auto visit = [&](const value_cursor& cursor) {
        if (new_number(cursor) < next) return 0;  // one of several equal records
        ST_ASSERT(new_number(cursor) == next);
        next++;
        return values_writer_put(&out, cursor.value, rc);
    };
    ST_TRY(walk_values(merge, before, visit, rc));
    ST_ASSERT(next == merge->totals.values);
    return values_writer_close(&out, rc);
}

}  // namespace veldar
