// The checker: the values, their times and addresses against the header's, and the d array.
#include <fmt/format.h>

#include <algorithm>
#include <bit>

#include "libzero/endian.h"
#include "tools/libveldar/check/fsck_internal.h"

namespace veldar::tool {

namespace {

constexpr uint64_t PLAIN_BITS = 64;  // of a plain value, and of a preamble

uint64_t value_bit(const fsck_values& values, uint32_t id) {
    const uint64_t width = values.time_nbits + values.addr_nbits;
    if (values.encoding == TSVAL_PLAIN) return PLAIN_BITS * id;
    if (values.encoding == TSVAL_PACKED) return width * id;
    if (id < values.preambles) return PLAIN_BITS * id;
    return PLAIN_BITS * values.preambles + width * (id - values.preambles);
}

void open_values(fsck_state* fsck) {
    const st_warm_slice_body& h = fsck->image->header;
    fsck_values& values = fsck->values;
    values.bytes = slice_section_bytes(*fsck->image, IN_VALUES);
    values.encoding = tsval_encoding(&h);
    values.count = h.num_values.get();
    values.preambles = values.encoding == TSVAL_WITH_PREAMBLES ? h.num_dimsets.get() : 0;
    if (values.encoding != TSVAL_PLAIN) {
        values.time_nbits = warm_header_meta_time_nbits(&h);
        values.addr_nbits = warm_header_seek_addr_nbits(&h);
        values.time_base = h.earliest.get();
        const bool milliseconds = warm_header_is_enabled(&h, WARM_FLAG_PREAMBLES);
        values.addr_base = warm_header_is_rev1(&h) && !milliseconds ? h.seek_addr_min.get() : 0;
    }
    if (!slice_section_whole(*fsck->image, IN_VALUES) || !tsval_counts_agree(&h)) return;
    const uint64_t bits = value_bit(values, values.count);
    values.readable = bits <= uint64_t{values.bytes.size()} * 8;
    if (!values.readable) {
        fsck_add(fsck, IN_VALUES, fsck->image->sections[IN_VALUES].offset, "packed values beyond 2^32 bits",
                 fmt::format("{} values of {} bits", values.count, values.time_nbits + values.addr_nbits));
    }
}

// What a value must lie within; all there is where the header does not say.
struct value_bounds {
    st_time_t earliest = INT32_MIN, latest = INT32_MAX;
    uint32_t address_min = 0, address_max = UINT32_MAX;
};

value_bounds bounds_of(const st_warm_slice_body& h) {
    value_bounds bounds;
    if (!warm_header_is_legacy(&h)) {
        bounds.earliest = static_cast<st_time_t>(h.earliest.get());
        bounds.latest = static_cast<st_time_t>(h.latest.get());
    }
    if (warm_header_is_rev1(&h) && h.seek_addr_min.get() <= h.seek_addr_max.get()) {
        bounds.address_min = h.seek_addr_min.get();
        bounds.address_max = h.seek_addr_max.get();
    }
    return bounds;
}

void check_value(fsck_state* fsck, uint32_t id, st_time_t time, uint32_t address, const value_bounds& bounds) {
    const auto add = [&](const char* what, int64_t got, int64_t low, int64_t high) {
        fsck_add(fsck, IN_VALUES, fsck_value_offset(fsck->values, *fsck->image, id), what,
                 fmt::format("value {}: {}, {} to {}", id, got, low, high));
    };
    if (time < bounds.earliest || time > bounds.latest) {
        add("time outside the header's", time, bounds.earliest, bounds.latest);
    }
    if (address < bounds.address_min || address > bounds.address_max) {
        add("address outside the header's", address, bounds.address_min, bounds.address_max);
    }
}

void check_each(fsck_state* fsck) {
    const fsck_values& values = fsck->values;
    const value_bounds bounds = bounds_of(fsck->image->header);
    // Values without bytes are all the same one.
    const uint32_t count = values.bytes.empty() ? 1 : values.count;
    st_time_t before = INT32_MAX;
    for (uint32_t id = 0; id < count; id++) {
        const st_time_t time = fsck_value_time(values, id);
        check_value(fsck, id, time, fsck_value_address(values, id), bounds);
        if (time > before) {
            fsck_add(fsck, IN_VALUES, fsck_value_offset(values, *fsck->image, id), "values are not newest first",
                     fmt::format("value {} at {} behind {}", id, time, before));
        }
        before = time;
    }
    fsck->report->has_times = true;
    fsck->report->latest = fsck_value_time(values, 0);
    fsck->report->earliest = before;
}

// The header's times are those of the first and the last value.
void check_header_times(fsck_state* fsck) {
    const st_warm_slice_body& h = fsck->image->header;
    const auto check = [&](const char* what, const be32& field, uint64_t offset, st_time_t value) {
        const auto stored = static_cast<st_time_t>(field.get());
        if (stored != value) fsck_add(fsck, IN_HEADER, offset, what, fmt::format("{}, value {}", stored, value));
    };
    check("earliest is not the last value's time", h.earliest, offsetof(st_warm_slice_body, earliest),
          fsck->report->earliest);
    check("latest is not the first value's time", h.latest, offsetof(st_warm_slice_body, latest), fsck->report->latest);
}

uint64_t count_deleted(const slice_image& image) {
    const std::span<const uint8_t> bits = slice_section_bytes(image, IN_D);
    uint64_t count = 0;
    for (const uint8_t byte : bits) count += static_cast<uint64_t>(std::popcount(byte));
    return std::min<uint64_t>(count, image.header.num_values.get());
}

}  // namespace

st_time_t fsck_value_time(const fsck_values& values, uint32_t id) {
    const uint64_t bit = value_bit(values, id);
    if (values.encoding == TSVAL_PLAIN) return static_cast<st_time_t>(load_be32(values.bytes.data() + bit / 8));
    if (id < values.preambles) return static_cast<st_time_t>(load_le32(values.bytes.data() + bit / 8));
    return static_cast<st_time_t>(values.time_base + packed_bits(values.bytes, bit, values.time_nbits));
}

uint32_t fsck_value_address(const fsck_values& values, uint32_t id) {
    const uint64_t bit = value_bit(values, id);
    if (values.encoding == TSVAL_PLAIN) return load_be32(values.bytes.data() + bit / 8 + 4);
    if (id < values.preambles) return load_le32(values.bytes.data() + bit / 8 + 4);
    return values.addr_base + packed_bits(values.bytes, bit + values.time_nbits, values.addr_nbits);
}

uint64_t fsck_value_offset(const fsck_values& values, const slice_image& image, uint32_t id) {
    return image.sections[IN_VALUES].offset + value_bit(values, id) / 8;
}

void fsck_check_values(fsck_state* fsck) {
    open_values(fsck);
    fsck->report->deleted = fsck->metric ? 0 : count_deleted(*fsck->image);
    // The values of metrics are ordered by dimension set.
    if (!fsck->values.readable || fsck->values.count == 0 || fsck->metric) return;
    check_each(fsck);
    if (!warm_header_is_legacy(&fsck->image->header)) check_header_times(fsck);
}

}  // namespace veldar::tool
