#include "searchthing/postings/range_bitmap.h"

#include <algorithm>
#include <cstring>

#include "libzero/assertions.h"
#include "libzero/endian.h"
#include "searchthing/base/bitset.h"

namespace veldar {

namespace {

size_t bitmap_bytes(const id_range_t& range) {
    return _calc_bitmap_size(range.begin, range.end);
}

void clear_tail(uint8_t* bitmap, const id_range_t& range) {
    const size_t whole = range.size() / 8;
    const uint32_t rest = range.size() % 8;
    const size_t bytes = bitmap_bytes(range);
    ST_ASSERT(whole < bytes);  // the bitmap covers bit `end`
    bitmap[whole] = static_cast<uint8_t>(bitmap[whole] & ((1U << rest) - 1));
    for (size_t i = whole + 1; i < bytes; i++) bitmap[i] = 0;
}

// Runs `op` over both bitmaps eight bytes at a time; the tail byte by byte.
template <typename Op>
void combine(uint8_t* into, const uint8_t* other, const id_range_t& range, Op op) {
    const size_t bytes = bitmap_bytes(range);
    size_t i = 0;
    for (; i + 8 <= bytes; i += 8) store_le64(into + i, op(load_le64(into + i), load_le64(other + i)));
    for (; i < bytes; i++) into[i] = static_cast<uint8_t>(op(into[i], other[i]));
}

// Runs `op` over a bitmap of the range and the range's bits of a bitmap over all numbers.
template <typename Op>
void combine_part(uint8_t* into, std::span<const uint8_t> all, const id_range_t& range, Op op) {
    const size_t bytes = bitmap_bytes(range), first = range.begin / 8;
    const uint32_t shift = range.begin % 8;
    size_t i = 0;
    for (; shift == 0 && i + 8 <= bytes && first + i + 8 <= all.size(); i += 8) {
        store_le64(into + i, op(load_le64(into + i), load_le64(all.data() + first + i)));
    }
    // A word and the byte behind it hold the 64 bits from any bit of its first byte on.
    for (; i + 8 <= bytes && first + i + 9 <= all.size(); i += 8) {
        const uint8_t* const from = all.data() + first + i;
        const uint64_t part = load_le64(from) >> shift | uint64_t{from[8]} << 1 << (63 - shift);
        store_le64(into + i, op(load_le64(into + i), part));
    }
    const auto byte = [&](size_t at) -> uint32_t { return at < all.size() ? all[at] : 0; };
    for (; i < bytes; i++) {
        into[i] = static_cast<uint8_t>(op(into[i], (byte(first + i) | byte(first + i + 1) << 8) >> shift));
    }
}

}  // namespace

int range_bitmap_alloc(buffer<uint8_t>* bitmap, const id_range_t& range, warm_rc_t* rc) {
    if (!bitmap->alloc(bitmap_bytes(range))) return _set_rc_msg(rc, WARM_RC_NO_MEMORY, "bitmap of an id range");
    return 0;
}

void range_bitmap_fill(uint8_t* bitmap, const id_range_t& range) {
    std::memset(bitmap, 0xFF, bitmap_bytes(range));
    clear_tail(bitmap, range);
}

void range_bitmap_complement(uint8_t* bitmap, const id_range_t& range) {
    const size_t bytes = bitmap_bytes(range);
    for (size_t i = 0; i < bytes; i++) bitmap[i] = static_cast<uint8_t>(~bitmap[i]);
    clear_tail(bitmap, range);
}

void range_bitmap_and(uint8_t* into, const uint8_t* other, const id_range_t& range) {
    combine(into, other, range, [](uint64_t a, uint64_t b) { return a & b; });
}

void range_bitmap_and_not(uint8_t* into, const uint8_t* other, const id_range_t& range) {
    combine(into, other, range, [](uint64_t a, uint64_t b) { return a & ~b; });
}

void range_bitmap_and_part(uint8_t* into, std::span<const uint8_t> all, const id_range_t& range) {
    combine_part(into, all, range, [](uint64_t a, uint64_t b) { return a & b; });
}

void range_bitmap_clear(uint8_t* into, std::span<const uint8_t> all, const id_range_t& range) {
    combine_part(into, all, range, [](uint64_t a, uint64_t b) { return a & ~b; });
}

void range_bitmap_or_part(uint8_t* into, std::span<const uint8_t> all, const id_range_t& range) {
    combine_part(into, all, range, [](uint64_t a, uint64_t b) { return a | b; });
    clear_tail(into, range);
}

void range_bitmap_or(uint8_t* into, const uint8_t* other, const id_range_t& range) {
    combine(into, other, range, [](uint64_t a, uint64_t b) { return a | b; });
}

bool range_bitmap_empty(const uint8_t* bitmap, const id_range_t& range) {
    const size_t bytes = bitmap_bytes(range);
    return std::all_of(bitmap, bitmap + bytes, [](uint8_t byte) { return byte == 0; });
}

uint64_t range_bitmap_count(const uint8_t* bitmap, const id_range_t& range) {
    const uint64_t count = bits_count({bitmap, bitmap_bytes(range)});
    ST_ASSERT(count <= range.size());
    return count;
}

uint32_t _filter_values(uint32_t* list, uint32_t count, const uint8_t* bitmap, const id_range_t& range, bool keep) {
    uint32_t kept = 0;
    for (uint32_t i = 0; i < count; i++) {
        const uint32_t bit = list[i] - range.begin;
        const bool set = (bitmap[bit / 8] >> (bit % 8) & 1) != 0;
        list[kept] = list[i];
        kept += set == keep ? 1 : 0;
    }
    return kept;
}

}  // namespace veldar
