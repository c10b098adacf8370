// One block of a column set in stores of version 1, which are read but no longer written: 1 to 512 doubles.
//
// Header, 40 bytes, little-endian; headers of a column set lie together, apart from the data:
//
//   offset  size  field
//   0       4     first_ordinal   elements of the column set before this block
//   4       2     count           1 to 512
//   6       1     codec           below
//   7       1     exponent        e: decimals, 0 to 22; for BITS a shift, 0 to 63
//   8       1     width           w: bits of a packed number, 0 to 56
//   9       1     residual_bits   r: 0 to 4
//   10      2     exceptions      x
//   12      4     data_offset     of the block's bytes within the column set's data, in 8-byte units
//   16      8     minimum         of the elements that are numbers; +infinity when there are none
//   24      8     maximum         -infinity when there are none
//   32      8     sum             in the order of elements, from 0; NaN when any element is NaN
//
// Data, n = count. Packed arrays are those of bitpack.h and end with a whole word; the whole ends with the XXH32 of the
// bytes before it in a word of its own, upper half zero.
//
//   codec      data
//   0 CONST    f64 value
//   1 RAW      n x f64
//   2 DECIMAL  i64 base; n x w bits k - base; corrections
//   3 DELTA    i64 first k; i64 base; (n - 1) x w bits (k - previous k) - base; corrections
//   4 BITS     u64 base; n x w bits (bits of the double - base) / 2^e
//
//   corrections  only if r > 0: n x 1 bit, set for an element with a residual; r bits for each such element
//                x times {u16 index, f64 value}, ascending; zeros to a multiple of 8
//
// What the codecs and the corrections mean is told in cset_codec.h.
//
//   51.846000000000004 and 44.508: e = 3, base = 44508, w = 13, packed 7338 and 0, r = 1, bitmap 1, residual bit 1.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "searchthing/columns/cset_codec.h"

namespace veldar {

inline constexpr uint32_t CSET_BLOCK1_ELEMENTS = 512;
static_assert(CSET_BLOCK1_ELEMENTS <= CSET_BLOCK_ELEMENTS);
// No block is longer: every array of DELTA at its widest.
inline constexpr uint64_t CSET_BLOCK1_MAX_SIZE =
    16 + CSET_BLOCK1_ELEMENTS * (56 + 1 + 4) / 8 + CSET_BLOCK1_ELEMENTS * 10 + 8;

struct cset_block1_t {  // as it lies in the file
    uint32_t first_ordinal;
    uint16_t count;
    uint8_t codec;
    uint8_t exponent;
    uint8_t width;
    uint8_t residual_bits;
    uint16_t exceptions;
    uint32_t data_offset;
    double minimum;
    double maximum;
    double sum;
};
static_assert(sizeof(cset_block1_t) == 40 && offsetof(cset_block1_t, minimum) == 16);

// Whether a header says nothing impossible.
bool cset_block1_is_sound(const cset_block1_t* block);

// Decodes a block whose header is sound (asserted) from its data, checksum included; `values` has room for `count`
// elements. False, with any content of `values`, when the data are damaged.
[[nodiscard]] bool cset_block1_decode(const cset_block1_t* block, std::span<const uint8_t> data, double* values);

}  // namespace veldar
