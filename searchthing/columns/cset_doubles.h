// Arrays of decimal numbers as doubles.
#pragma once

#include <cstdint>

namespace veldar {

// Tests turn the vectors of newer processors off to compare.
inline bool cset_vectors_are_off = false;

// out[i] = k[i] / 10^exponent, rounded to the nearest double; the k are signed. With `is_delta` each k but the first is
// the one before plus what stands in its place.
void cset_to_doubles(const uint64_t* k, uint32_t count, uint32_t exponent, bool is_delta, double* out);

}  // namespace veldar
