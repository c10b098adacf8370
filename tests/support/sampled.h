// How many cases a test of many random ones runs: all of them optimised, where answers are compared, one in so many
// under the sanitizers, which are several times slower and see a fault of memory in any case that takes the code's way.
#pragma once

#include <cstdint>

namespace veldar {

#ifdef VELDAR_SANITIZED
inline constexpr uint64_t SANITIZED_PART = 4;
#else
inline constexpr uint64_t SANITIZED_PART = 1;
#endif

}  // namespace veldar
