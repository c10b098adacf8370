// Streams of bits within a block's data: bit k is bit k % 8 of byte k / 8, a field's least significant bit first.
#pragma once

#include <cstdint>

#include "libzero/endian.h"

namespace veldar {

// A field of this width at any bit of a byte lies within the eight bytes from there.
inline constexpr uint32_t CSET_MAX_WIDTH = 56;
static_assert(7 + CSET_MAX_WIDTH <= 64);

// The lowest bits, fewer than 64.
inline uint64_t cset_low_bits(uint32_t width) {
    return (uint64_t{1} << width) - 1;
}

// Writes fields of up to 56 bits from `at` on. Up to seven bytes behind the last one are overwritten with zeros.
struct cset_bit_sink {
    uint8_t* at;
    uint64_t word = 0;
    uint32_t used = 0;

    void put(uint64_t value, uint32_t nbits) {
        word |= value << used;
        used += nbits;
        if (used < 64) return;
        store_le64(at, word);
        at += 8;
        used -= 64;
        word = used == 0 ? 0 : value >> (nbits - used);
    }
    // Ends the last byte and returns what lies behind it.
    uint8_t* finish() {
        store_le64(at, word);
        return at + (used + 7) / 8;
    }
};

// Reads fields of up to 56 bits; eight bytes behind the stream can be read. Reading past its end is remembered.
struct cset_bit_source {
    const uint8_t* bytes;
    uint64_t size;  // in bits
    uint64_t at = 0;
    bool is_short = false;

    // The field at a bit of the stream.
    uint64_t field(uint64_t bit, uint32_t nbits) const {
        return (load_le64(bytes + bit / 8) >> (bit % 8)) & cset_low_bits(nbits);
    }
    // Passes so many bits, and tells where they begin.
    uint64_t skip(uint64_t nbits) {
        const uint64_t begin = at;
        is_short |= nbits > size - at;
        at = is_short ? size : at + nbits;
        return begin;
    }
    // The next field; 0 when the stream ends before it does.
    uint64_t get(uint32_t nbits) {
        const uint64_t begin = skip(nbits);
        return is_short ? 0 : field(begin, nbits);
    }
};

}  // namespace veldar
