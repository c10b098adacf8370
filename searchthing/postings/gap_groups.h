// Gaps of RLE lists several at a time, by the vectors of processors that have AVX2.
//
// A group is 8 bytes, or 16 where gaps are only passed. One look at all of its bytes tells whether it is made of gaps of
// one and two bytes and of runs of one event and nothing else; then a shuffle that the pattern of their first bytes picks
// from a table splits them, and shifts add them up (after Plaisance, Kurz and Lemire, Vectorized VByte Decoding, 2015).
// Any other group is left to the reader's own loop: longer gaps and runs, numbers that do not decode, events at or after
// a bound. So no byte is taken here that the loop would refuse, and without AVX2 nothing is taken at all.
#pragma once

#include <cstdint>

namespace veldar {

// Tests turn the groups off to compare.
inline bool gap_groups_are_off = false;
// Whether there is any sense in calling the functions below.
bool gap_groups_usable();

// Undecoded bytes of a list, at the beginning of an item. The functions take whole items from the front, which moves
// `at`, and leave in `last` the last event taken. They begin no group at or after `stop` and touch no byte from `end`
// on.
struct gap_span {
    const uint8_t* at;
    const uint8_t* stop;
    const uint8_t* end;
    uint32_t last;
};
// Passes events; true when the last one is the first at or after `target`, which lies below `num_values`. The other
// functions take events below `bound`, in whole groups.
[[nodiscard]] bool gap_groups_seek(gap_span* span, uint32_t target, uint32_t num_values);
// Writes the events to `out`, which has room for so many, and tells their number.
uint64_t gap_groups_copy(gap_span* span, uint64_t bound, uint32_t* out, uint64_t room);
// Sets bit id - begin for every event; `last` is at least `begin`. No byte of the bitmap is touched that does not lie,
// as a whole word of 64 bits from the bitmap's beginning, below `bound`.
void gap_groups_set_bits(gap_span* span, uint64_t bound, uint8_t* bitmap, uint32_t begin);

}  // namespace veldar
