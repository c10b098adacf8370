// Runs of value numbers, and bitmaps and lists over them.
//
// Bit i of byte i / 8, least significant first, stands for value number begin + i. Bitmaps are allocated with
// _calc_bitmap_size(begin, end), which covers bit `end`, and every bit from `end` on is 0 at all times.
#pragma once

#include <cstdint>
#include <span>

#include "libzero/resource.h"
#include "searchthing/base/warm_rc.h"

namespace veldar {

// A run of value numbers.
struct id_range_t {
    uint32_t begin = 0;
    uint32_t end = 0;             // exclusive
    uint32_t begin_preamble = 0;  // position among the value preambles of a metric slice
    bool computed = false;
    bool empty() const { return begin >= end; }
    uint32_t size() const { return empty() ? 0 : end - begin; }
};

// A zeroed bitmap over the range; 0, or WARM_RC_NO_MEMORY in rc.
[[nodiscard]] int range_bitmap_alloc(buffer<uint8_t>* bitmap, const id_range_t& range, warm_rc_t* rc);
// Sets every bit of the range.
void range_bitmap_fill(uint8_t* bitmap, const id_range_t& range);
// Flips every bit of the range.
void range_bitmap_complement(uint8_t* bitmap, const id_range_t& range);
// The set operations, into the first bitmap; both cover the same range.
void range_bitmap_and(uint8_t* into, const uint8_t* other, const id_range_t& range);
void range_bitmap_and_not(uint8_t* into, const uint8_t* other, const id_range_t& range);
// Clears the bits that are set in a bitmap over all ids, from 0 on; what it is too short for is not set there.
void range_bitmap_clear(uint8_t* into, std::span<const uint8_t> all, const id_range_t& range);
// Sets them instead, or keeps those alone.
void range_bitmap_or_part(uint8_t* into, std::span<const uint8_t> all, const id_range_t& range);
void range_bitmap_and_part(uint8_t* into, std::span<const uint8_t> all, const id_range_t& range);
void range_bitmap_or(uint8_t* into, const uint8_t* other, const id_range_t& range);
// Whether no bit is set, and how many are.
bool range_bitmap_empty(const uint8_t* bitmap, const id_range_t& range);
uint64_t range_bitmap_count(const uint8_t* bitmap, const id_range_t& range);

// Keeps the ids of the list whose bit is set (or, with `keep` false, clear); returns how many are left.
uint32_t _filter_values(uint32_t* list, uint32_t count, const uint8_t* bitmap, const id_range_t& range, bool keep);

}  // namespace veldar
