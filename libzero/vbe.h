// Variable-length integers (VBE), bit fields in byte strings, and the integer logarithm and rounding that size them.
//
// VBE: an unsigned 32-bit value in 1 to 5 bytes, least significant 7-bit group first; the top bit of a byte tells that
// another follows. This is unsigned LEB128 limited to 32-bit values.
//
//   value            bytes
//   0x7F             7F
//   0x80             80 01
//   0xFFFFFFFF       FF FF FF FF 0F
#pragma once

#include <cstddef>
#include <cstdint>

namespace veldar {

inline constexpr size_t VBE_MAX_BYTES = 5;
static_assert(7 * VBE_MAX_BYTES >= 32 && 7 * (VBE_MAX_BYTES - 1) < 32, "the groups that 32 bits take, and no more");

// Writes `value` at `out` (room for 5 bytes); returns the length, 1 to 5.
uint32_t st_encode_to_vbe(uint8_t* out, uint32_t value);

// Reads a number whose 5 bytes may all be touched; returns the bytes used, or all-ones when a fifth byte has its top
// bit set.
uint32_t st_decode_from_vbe(uint32_t* value, const uint8_t* in);

// Reads a number from [in, end) without touching a byte at or past `end`; returns the bytes used, 0 when the number is
// damaged or runs past `end`.
inline uint32_t vbe_decode_bounded(uint32_t* value, const uint8_t* in, const uint8_t* end) {
    if (in < end && in[0] < 0x80) {
        *value = in[0];
        return 1;
    }
    uint32_t result = 0;
    for (uint32_t i = 0; i < VBE_MAX_BYTES && in + i < end; i++) {
        result |= static_cast<uint32_t>(in[i] & 0x7F) << (7 * i);
        if (in[i] < 0x80) {
            *value = result;
            return i + 1;
        }
    }
    return 0;
}

// The length that st_encode_to_vbe writes.
inline uint32_t vbe_length(uint32_t value) {
    return value < 0x80 ? 1 : value < 0x4000 ? 2 : value < 0x200000 ? 3 : value < 0x10000000 ? 4 : 5;
}

// Field `index` of a packed bit string occupies bits index * width to index * width + width - 1; bit k of the string is
// bit k % 8 of byte k / 8, least significant bit of the value first. The bit position is computed in unsigned 32-bit
// arithmetic, and the decoder masks with a 32-bit shift whose count is taken modulo 32, so a width of 32 decodes as 0:
// both are properties of files that exist. A width of 0 encodes nothing and decodes as 0. The caller bounds the byte
// string.
void encode_to_byte_str(uint8_t* bytes, uint32_t value, uint32_t index, uint32_t width);
uint32_t decode_from_byte_str(const uint8_t* bytes, uint32_t index, uint32_t width);

// The number of bits needed to write the value: floor(log2 v) + 1, and 1 for 0.
inline uint32_t log2n(uint32_t value) {
    return value == 0 ? 1 : 32 - static_cast<uint32_t>(__builtin_clz(value));
}

// The number of binary digits of the value, 0 for 0.
inline uint32_t bit_length(uint32_t value) {
    return value == 0 ? 0 : log2n(value);
}

// The smallest power of two not below the value; 0 for 0 (and for values above 2^63, whose power does not fit).
uint64_t round_up_to_power_of_two(uint64_t value);

}  // namespace veldar
