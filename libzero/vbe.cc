#include "libzero/vbe.h"

#include <bit>

#include "libzero/assertions.h"

namespace veldar {

uint32_t st_encode_to_vbe(uint8_t* out, uint32_t value) {
    uint32_t length = 0;
    while (value >= 0x80) {
        out[length++] = static_cast<uint8_t>(value | 0x80);
        value >>= 7;
    }
    out[length++] = static_cast<uint8_t>(value);
    return length;
}

uint32_t st_decode_from_vbe(uint32_t* value, const uint8_t* in) {
    const uint32_t used = vbe_decode_bounded(value, in, in + VBE_MAX_BYTES);
    return used == 0 ? ~uint32_t{0} : used;
}

void encode_to_byte_str(uint8_t* bytes, uint32_t value, uint32_t index, uint32_t width) {
    ST_ASSERT(width <= 32);
    const uint32_t position = index * width;
    const uint32_t shift = position % 8;
    uint64_t mask = ((uint64_t{1} << width) - 1) << shift;
    uint64_t bits = (uint64_t{value} << shift) & mask;
    for (uint8_t* at = bytes + position / 8; mask != 0; at++, mask >>= 8, bits >>= 8) {
        *at = static_cast<uint8_t>((*at & ~mask) | (bits & 0xFF));
    }
}

uint32_t decode_from_byte_str(const uint8_t* bytes, uint32_t index, uint32_t width) {
    // The mask's shift count is width modulo 32, so only that many bits of the field can show.
    const uint32_t kept = width % 32;
    const uint32_t position = index * width;
    const uint32_t shift = position % 8;
    const uint8_t* at = bytes + position / 8;
    uint64_t bits = 0;
    for (uint32_t i = 0; i * 8 < shift + kept; i++) bits |= uint64_t{at[i]} << (8 * i);
    return static_cast<uint32_t>(bits >> shift) & ((uint32_t{1} << kept) - 1);
}

uint64_t round_up_to_power_of_two(uint64_t value) {
    constexpr uint64_t LAST = uint64_t{1} << 63;
    return value == 0 || value > LAST ? 0 : std::bit_ceil(value);
}

}  // namespace veldar
