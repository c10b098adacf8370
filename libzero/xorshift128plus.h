// The xorshift128+ generator (S. Vigna, "Further scramblings of Marsaglia's xorshift generators", shifts 23, 17, 26),
// seeded through the splitmix64 finaliser. Not for cryptography.
#pragma once

#include <cstddef>
#include <cstdint>

namespace veldar {

// Owned by whoever embeds it; used by one thread at a time. The all-zero state yields zeros for ever.
struct xorshift128plus_state {
    uint64_t s0 = 0;
    uint64_t s1 = 0;
};

// Seeds from the clock, the time-stamp counter, the process id and the addresses of `state` and of the thread's errno.
void xorshift128plus_init(xorshift128plus_state* state);
// Seeds from one number alone: the same seed gives the same sequence. Seed 0 gives the all-zero state, on purpose.
void xorshift128plus_init_with_seed(xorshift128plus_state* state, uint64_t seed);
// Seeds from the clock and two words of the caller.
void xorshift128plus_init_with_mixers(xorshift128plus_state* state, uint64_t m0, uint64_t m1);
// Stirs fresh entropy into a state that is already in use.
void xorshift128plus_mix_in_initial_seed(xorshift128plus_state* state);

// One step: the next 64-bit number.
uint64_t xorshift128plus_next(xorshift128plus_state* state);
// One step: a number in [0, 1) with 52 random bits.
double xorshift128plus_get_ratio(xorshift128plus_state* state);
// Fills `size` bytes with consecutive outputs in little-endian order; ceil(size / 8) steps, none for 0.
void xorshift128plus_fill_memory(xorshift128plus_state* state, void* out, size_t size);

}  // namespace veldar
