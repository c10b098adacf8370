#include "searchthing/merge/merge_values.h"

#include <algorithm>
#include <numeric>
#include <tuple>
#include <vector>

#include "libzero/assertions.h"
#include "libzero/endian.h"
#include "libzero/vbe.h"
#include "searchthing/slice/warmslice_values.h"

namespace veldar {

namespace {

// An entry of 32 bits decodes as 0, so no companion array is made that wide.
constexpr uint32_t MAX_COMPANION_NBITS = 31;
constexpr uint32_t COMPANION_WORDS = 4096;
constexpr uint32_t PLAIN_VALUES_BUFFERED = 8192;
constexpr uint32_t PLAIN_VALUE_BYTES = 8;

// Compares as descending order asks for: the later time first, then the larger address, then the companions.
int compare_records(const st_tsval& a, const st_tsval& b) {
    if (a.time != b.time) return a.time > b.time ? -1 : 1;
    if (a.address != b.address) return a.address > b.address ? -1 : 1;
    const auto companions = [](const st_tsval& v) { return std::tuple(v.measure, v.s, v.st, v.h); };
    if (companions(a) == companions(b)) return 0;
    return companions(a) > companions(b) ? -1 : 1;
}

struct value_ranges {
    uint32_t measure = 0, s = 0, st = 0, h = 0;  // the largest; s without that of deleted events
    uint32_t address_min = UINT32_MAX, address_max = 0;

    void add(const st_tsval& value) {
        measure = std::max(measure, tsval_clamp_measure(value.measure));
        if (value.s != ST_DELETED_SOURCE) s = std::max(s, value.s);
        st = std::max(st, value.st);
        h = std::max(h, value.h);
        address_min = std::min(address_min, value.address);
        address_max = std::max(address_max, value.address);
    }
};

// Looks at every value once. `sorted` tells whether they are in the target's order, which needs more than the order of
// times that every slice has.
int scan_source(warm_merge_t* merge, merge_source_t* source, value_ranges* ranges, bool* sorted, warm_rc_t* rc) {
    *sorted = true;
    st_tsval before = {}, value = {};
    for (uint32_t number = 0; number < source->num_values; number++) {
        ST_TRY(merge_decode_value(merge, source, number, &value, rc));
        ranges->add(value);
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
    buffer<uint32_t> addresses;
    if (!source->order.alloc(count) || !addresses.alloc(count))
        return _set_rc_msg(rc, WARM_RC_NO_MEMORY, "value order");
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

struct value_cursor {
    merge_source_t* source;
    uint32_t position;  // in the target's order of this source
    uint32_t number;    // of the value at the position
    st_tsval value;
};

int load_cursor(const warm_merge_t* merge, value_cursor* cursor, warm_rc_t* rc) {
    const merge_source_t& source = *cursor->source;
    cursor->number = source.order.empty() ? cursor->position : source.order[cursor->position];
    return merge_decode_value(merge, cursor->source, cursor->number, &cursor->value, rc);
}

// Visits the values of all sources in the order that `before` (of two cursors) gives. Sources seldom overlap much, so
// the cursors stay in an array and the first one goes on until it passes the second.
template <typename Before, typename Visit>
int walk_values(warm_merge_t* merge, Before before, Visit visit, warm_rc_t* rc) {
    std::vector<value_cursor> cursors;
    std::vector<value_cursor*> live;
    cursors.reserve(merge->sources.size());
    live.reserve(merge->sources.size());
    const auto place = [&](value_cursor* cursor) {
        live.insert(std::find_if(live.begin(), live.end(), [&](auto* other) { return before(*cursor, *other); }),
                    cursor);
    };
    for (merge_source_t& source : merge->sources) {
        if (source.num_values == 0) continue;
        cursors.push_back({.source = &source, .position = 0, .number = 0, .value = {}});
        ST_TRY(load_cursor(merge, &cursors.back(), rc));
        place(&cursors.back());
    }
    while (!live.empty()) {
        value_cursor* const cursor = live.front();
        for (;;) {
            ST_TRY(visit(*cursor));
            if (++cursor->position == cursor->source->num_values) {
                live.erase(live.begin());
                break;
            }
            ST_TRY(load_cursor(merge, cursor, rc));
            if (live.size() == 1 || before(*cursor, *live[1])) continue;
            live.erase(live.begin());
            place(cursor);
            break;
        }
    }
    return 0;
}

// A source whose values stay together needs no map.
void drop_plain_map(merge_source_t* source) {
    const uint32_t base = source->num_values == 0 ? 0 : source->map[0];
    for (uint32_t number = 0; number < source->num_values; number++) {
        if (source->map[number] != base + number) return;
    }
    source->base = base;
    source->map.reset();
}

int number_values(warm_merge_t* merge, warm_rc_t* rc) {
    uint64_t most = 0;
    for (merge_source_t& source : merge->sources) {
        if (!source.map.alloc(source.num_values)) return _set_rc_msg(rc, WARM_RC_NO_MEMORY, "value map");
        most += source.num_values;
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
    for (merge_source_t& source : merge->sources) drop_plain_map(&source);
    merge->totals.values = next;
    return 0;
}

uint32_t width_of(uint32_t largest) {
    return std::min(log2n(largest), MAX_COMPANION_NBITS);
}

int fill_header(warm_merge_t* merge, const value_ranges& ranges, warm_rc_t* rc) {
    st_warm_slice_body* header = &merge->header;
    const uint32_t values = merge->totals.values;
    header->num_values.set(values);
    ST_TRY(warm_slice_set_companion(&header->m_size, &header->m_nbits, values, width_of(ranges.measure), rc));
    ST_TRY(warm_slice_set_companion(&header->s_size, &header->s_nbits, values, width_of(ranges.s), rc));
    ST_TRY(warm_slice_set_companion(&header->st_size, &header->st_nbits, values, width_of(ranges.st), rc));
    ST_TRY(warm_slice_set_companion(&header->h_size, &header->h_nbits, values, width_of(ranges.h), rc));
    ST_TRY(warm_slice_set_companion(&header->d_size, &header->d_nbits, values, 1, rc));
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

struct companion_writer {
    bitpack_writer_t bits;
    uint32_t nbits = 0;
};

// The sections of values in the making.
struct value_sections {
    bool packed = false;
    tsval_writer_t packed_values;
    array_writer_t plain_values;
    buffer<uint64_t> words;  // of the companions, COMPANION_WORDS each
    companion_writer m, s, st, h, d;
};

void open_companion(value_sections* out, companion_writer* writer, uint32_t slot, int fd, uint64_t offset,
                    uint32_t nbits) {
    ST_ASSERT(offset % sizeof(uint64_t) == 0);
    bp_writer_open(&writer->bits, fd, out->words.data() + size_t{slot} * COMPANION_WORDS, COMPANION_WORDS,
                   offset / sizeof(uint64_t));
    writer->nbits = nbits;
}

int open_sections(value_sections* out, const st_warm_slice_body* header, int fd, warm_rc_t* rc) {
    const warm_section_offsets_t at = warm_header_section_offsets(header);
    out->packed = tsval_encoding(header) == TSVAL_PACKED;
    if (out->packed) {
        ST_TRY(tsval_writer_open(fd, &out->packed_values, header, rc));
    } else if (const int status =
                   _aw_open(&out->plain_values, fd, at.values, PLAIN_VALUE_BYTES, PLAIN_VALUES_BUFFERED)) {
        return _set_rc(rc, status);
    }
    if (!out->words.alloc(5 * COMPANION_WORDS)) return _set_rc_msg(rc, WARM_RC_NO_MEMORY, "companion buffers");
    open_companion(out, &out->m, 0, fd, at.m, header->m_nbits.get());
    open_companion(out, &out->s, 1, fd, at.s, header->s_nbits.get());
    open_companion(out, &out->st, 2, fd, at.st, header->st_nbits.get());
    open_companion(out, &out->h, 3, fd, at.host, header->h_nbits.get());
    open_companion(out, &out->d, 4, fd, at.d, header->d_nbits.get());
    return 0;
}

// Only the s of a deleted event has more bits than its array is wide; its d bit restores them.
int put_companion(companion_writer* writer, uint32_t value, warm_rc_t* rc) {
    const uint32_t mask = (uint32_t{1} << writer->nbits) - 1;
    return bp_writer_append(&writer->bits, value & mask, writer->nbits, rc);
}

int put_value(value_sections* out, const st_tsval& value, warm_rc_t* rc) {
    if (out->packed) {
        ST_TRY(tsval_writer_put(&out->packed_values, &value, rc));
    } else {
        uint8_t plain[PLAIN_VALUE_BYTES];
        store_be32(plain, static_cast<uint32_t>(value.time));
        store_be32(plain + 4, value.address);
        if (_aw_write(&out->plain_values, plain, sizeof plain) != 0) return _set_rc_msg(rc, WARM_RC_WRITE, "values");
    }
    ST_TRY(put_companion(&out->m, tsval_clamp_measure(value.measure), rc));
    ST_TRY(put_companion(&out->s, value.s, rc));
    ST_TRY(put_companion(&out->st, value.st, rc));
    ST_TRY(put_companion(&out->h, value.h, rc));
    return put_companion(&out->d, value.s == ST_DELETED_SOURCE ? 1 : 0, rc);
}

int close_sections(value_sections* out, warm_rc_t* rc) {
    if (out->packed) {
        ST_TRY(tsval_writer_close(&out->packed_values, rc));
    } else if (_aw_close(&out->plain_values) != 0) {
        return _set_rc_msg(rc, WARM_RC_WRITE, "values");
    }
    for (companion_writer* writer : {&out->m, &out->s, &out->st, &out->h, &out->d}) {
        ST_TRY(bp_writer_close(&writer->bits, rc));
    }
    return 0;
}

}  // namespace

int merge_values_plan(warm_merge_t* merge, warm_rc_t* rc) {
    value_ranges ranges;
    for (merge_source_t& source : merge->sources) {
        bool sorted = true;
        ST_TRY(scan_source(merge, &source, &ranges, &sorted, rc));
        if (!sorted) ST_TRY(sort_source(merge, &source, rc));
    }
    ST_TRY(number_values(merge, rc));
    return fill_header(merge, ranges, rc);
}

int merge_values_write(warm_merge_t* merge, int fd, warm_rc_t* rc) {
    if (merge->totals.values == 0) return 0;
    value_sections out;
    ST_TRY(open_sections(&out, &merge->header, fd, rc));
    uint32_t next = 0;
    const auto new_number = [](const value_cursor& cursor) { return merge_new_number(*cursor.source, cursor.number); };
    const auto before = [&](const value_cursor& a, const value_cursor& b) { return new_number(a) < new_number(b); };
    const auto visit = [&](const value_cursor& cursor) {
        if (new_number(cursor) < next) return 0;  // one of several equal records
        ST_ASSERT(new_number(cursor) == next);
        next++;
        return put_value(&out, cursor.value, rc);
    };
    ST_TRY(walk_values(merge, before, visit, rc));
    ST_ASSERT(next == merge->totals.values);
    return close_sections(&out, rc);
}

}  // namespace veldar
