// What the encoder and the decoder of blocks share.
#pragma once

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <iterator>
#include <limits>

#include "searchthing/columns/cset_bits.h"
#include "searchthing/columns/cset_codec.h"

namespace veldar {

// The powers of ten that a double holds exactly, so that k / 10^e is the double nearest to the decimal number.
inline constexpr double CSET_POWERS[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,  1e8,  1e9,  1e10, 1e11,
                                         1e12, 1e13, 1e14, 1e15, 1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
inline constexpr uint32_t CSET_MAX_EXPONENT = 22;
static_assert(std::size(CSET_POWERS) == CSET_MAX_EXPONENT + 1);
inline constexpr uint32_t CSET_MAX_SHIFT = 63;
inline constexpr uint32_t CSET_MAX_RESIDUAL_BITS = 4;
inline constexpr uint32_t CSET_EXCEPTION_SIZE = 10;
inline constexpr uint32_t CSET_COUNT_BITS = 10, CSET_INDEX_BITS = 9;
static_assert(CSET_BLOCK_ELEMENTS == 1u << CSET_INDEX_BITS);
// How far two sums of a block's elements may be apart that were rounded in different ways.
inline double cset_sum_tolerance(const cset_block_t& block) {
    const double largest = std::max(std::fabs(block.minimum), std::fabs(block.maximum));
    return largest * std::numeric_limits<double>::epsilon() * block.count * block.count;
}

// Bytes of the words that hold so many bits.
inline uint64_t cset_words_size(uint64_t bits) {
    return (bits + 63) / 64 * 8;
}
// The double that is a decimal number, moved by a residual.
inline double cset_decimal(int64_t k, uint32_t exponent, int64_t residual) {
    const double exact = static_cast<double>(k) / CSET_POWERS[exponent];
    return std::bit_cast<double>(std::bit_cast<uint64_t>(exact) + static_cast<uint64_t>(residual));
}
// k of an element at an exponent and the bits that its residual takes: 0 for none, CSET_UNFIT for one that is too large.
inline constexpr uint32_t CSET_UNFIT = CSET_MAX_RESIDUAL_BITS + 1;
inline constexpr double CSET_MAX_K = 0x1p53;
inline uint32_t cset_to_decimal(double value, uint32_t exponent, int64_t* k, int64_t* residual) {
    const double scaled = value * CSET_POWERS[exponent];
    if (!(std::fabs(scaled) <= CSET_MAX_K)) return CSET_UNFIT;
    *k = static_cast<int64_t>(scaled + std::copysign(0.5, scaled));
    const double back = static_cast<double>(*k) / CSET_POWERS[exponent];
    // Unsigned: two values of different signs are farther apart than an int64 holds.
    const uint64_t distance = std::bit_cast<uint64_t>(value) - std::bit_cast<uint64_t>(back);
    *residual = static_cast<int64_t>(distance);
    if (distance == 0) return 0;
    const uint64_t magnitude = *residual < 0 ? 0 - distance : distance;
    return std::min(static_cast<uint32_t>(std::bit_width(magnitude - 1)) + 1, CSET_UNFIT);
}

}  // namespace veldar
