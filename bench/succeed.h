// A benchmark of calls that fail would measure nothing.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace veldar {

// Ends the program when the result of a call is negative.
inline void succeed(int64_t result) {
    if (result >= 0) return;
    std::fprintf(stderr, "a call failed: %lld\n", static_cast<long long>(result));
    std::abort();
}

}  // namespace veldar
