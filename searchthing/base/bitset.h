// Bit sets: words, arrays of words, and the size of a bitmap over a range.
#pragma once

#include <cstdint>
#include <span>

#include "libzero/resource.h"

namespace veldar {

// Bit sets of one word. A bit beyond the word is a broken caller (asserted).
using bmap32_t = uint32_t;
using bmap64_t = uint64_t;
void bmap32_set(bmap32_t* set, uint32_t bit);
void bmap64_set(bmap64_t* set, uint32_t bit);
int bmap32_is_set(bmap32_t set, uint32_t bit);  // 0 or 1
int bmap64_is_set(bmap64_t set, uint32_t bit);

// An array of bit sets of one width.
struct bmap_array_t {
    bool narrow = false;  // 32-bit entries when set, 64-bit otherwise
    buffer<uint32_t> entries32;
    buffer<uint64_t> entries64;
};
[[nodiscard]] int bmap_array_alloc(bmap_array_t* array, bool narrow,
                                   uint64_t count);  // 1, or 0 when memory is short; all bits clear
void bmap_array_set(bmap_array_t* array, uint64_t entry, uint32_t bit);
int bmap_array_is_set(const bmap_array_t* array, uint64_t entry, uint32_t bit);
void bmap_array_entry_as_bmap64(const bmap_array_t* array, uint64_t entry, bmap64_t* out);
void bmap_array_free(bmap_array_t* array);

// Bytes for the bits begin to end, both included.
uint64_t _calc_bitmap_size(uint32_t begin, uint32_t end);
uint32_t st_get_num_bits_set(uint32_t word);
// How many bits of the bytes are set, with the processor's own instruction where it has one.
uint64_t bits_count(std::span<const uint8_t> bytes);

}  // namespace veldar
