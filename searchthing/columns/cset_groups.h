// Packed numbers of a block, in groups of 128 of which the last may have fewer. A group has a width w and a base; the
// few numbers that do not fit keep the bits above w apart, as patches.
//
// In the block's stream of bits:
//
//   6 bits            b: bits of a group's base, 0 to 56
//   for each group    b bits base; 6 bits w, 0 to 56; 7 bits p: patches
//                     if p > 0: 6 bits h - 1, 0 to 55; p x 7 bits places within the group; p x h bits high parts, signed
//
// Then, on bytes, for each group its numbers in w bits each, the last group's ended by a whole byte. A number is base +
// its w bits + 2^w x its high part, modulo 2^64.
//
//   5, 6, 4, 1000: base 4, w = 2, packed 1, 2, 0, 0; one patch: place 3, high part 249 in 9 bits.
#pragma once

#include <cstdint>
#include <span>

#include "searchthing/columns/cset_bits.h"
#include "searchthing/columns/cset_codec.h"

namespace veldar {

inline constexpr uint32_t CSET_GROUP = 128;
inline constexpr uint32_t CSET_MAX_GROUPS = CSET_BLOCK_ELEMENTS / CSET_GROUP;

struct cset_group_t {
    uint64_t base;
    uint32_t width;
    uint32_t high_bits;  // 0 without patches
    uint32_t patches;
    uint64_t places_at;  // read: where the bits of the places begin
};
struct cset_groups_t {
    uint32_t count = 0;  // numbers
    uint32_t base_bits = 0;
    uint64_t head_bits = 0;    // planned: bits of all heads
    uint64_t packed_size = 0;  // bytes of the packed arrays
    cset_group_t groups[CSET_MAX_GROUPS];
};

// How up to 512 numbers below 2^56 are packed.
void cset_groups_plan(std::span<const uint64_t> numbers, cset_groups_t* groups);
void cset_groups_put_heads(std::span<const uint64_t> numbers, const cset_groups_t& groups, cset_bit_sink* sink);
// Writes packed_size bytes.
void cset_groups_put_packed(std::span<const uint64_t> numbers, const cset_groups_t& groups, uint8_t* out);

// Reads the heads of `count` numbers; false when they are impossible.
[[nodiscard]] bool cset_groups_get(cset_bit_source* source, uint32_t count, cset_groups_t* groups);
// The numbers, each plus `low`. Eight bytes behind the packed arrays can be read. False for a patch of no number.
[[nodiscard]] bool cset_groups_unpack(const cset_groups_t& groups, const cset_bit_source& source, const uint8_t* packed,
                                      uint64_t low, uint64_t* out);

}  // namespace veldar
