// What the encoder and the decoder of blocks share.
#pragma once

#include <bit>
#include <cstdint>
#include <iterator>

#include "searchthing/columns/cset_codec.h"

namespace veldar {

// The powers of ten that a double holds exactly, so that k / 10^e is the double nearest to the decimal number.
inline constexpr double CSET_POWERS[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,  1e8,  1e9,  1e10, 1e11,
                                         1e12, 1e13, 1e14, 1e15, 1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
inline constexpr uint32_t CSET_MAX_EXPONENT = 22;
static_assert(std::size(CSET_POWERS) == CSET_MAX_EXPONENT + 1);
inline constexpr uint32_t CSET_MAX_SHIFT = 63;
// A field of this width at any bit of a byte lies within the eight bytes from there.
inline constexpr uint32_t CSET_MAX_WIDTH = 56;
static_assert(7 + CSET_MAX_WIDTH <= 64);
inline constexpr uint32_t CSET_MAX_RESIDUAL_BITS = 4;
inline constexpr uint32_t CSET_EXCEPTION_SIZE = 10;
static_assert(CSET_BLOCK_MAX_SIZE == 16 + CSET_BLOCK_ELEMENTS * (CSET_MAX_WIDTH + 1 + CSET_MAX_RESIDUAL_BITS) / 8 +
                                         CSET_BLOCK_ELEMENTS * CSET_EXCEPTION_SIZE + 8);

// Bytes of the words that hold so many bits.
inline uint64_t cset_words_size(uint64_t bits) {
    return (bits + 63) / 64 * 8;
}
inline uint64_t cset_low_bits(uint32_t width) {
    return (uint64_t{1} << width) - 1;
}

}  // namespace veldar
