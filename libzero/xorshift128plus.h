// The xorshift128+ generator (S. Vigna, "Further scramblings of Marsaglia's xorshift generators", shifts 23, 17, 26),
// seeded through the splitmix64 finaliser. Not for cryptography.
#pragma once

#include <cstddef>
#include <cstdint>

namespace veldar {

struct xorshift128plus_state {
    uint64_t s0 = 0;
    uint64_t s1 = 0;
};

void xorshift128plus_init(xorshift128plus_state* state);
void xorshift128plus_init_with_seed(xorshift128plus_state* state, uint64_t seed);
void xorshift128plus_init_with_mixers(xorshift128plus_state* state, uint64_t m0, uint64_t m1);
void xorshift128plus_mix_in_initial_seed(xorshift128plus_state* state);
uint64_t xorshift128plus_next(xorshift128plus_state* state);
double xorshift128plus_get_ratio(xorshift128plus_state* state);
void xorshift128plus_fill_memory(xorshift128plus_state* state, void* out, size_t size);

}  // namespace veldar
