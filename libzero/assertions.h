// Assertions for broken invariants of our own: on in every build type, never reachable by a byte of a file, a character
// of a query, a file name, an environment variable or an event's field. Those are tested first and answered by a
// status.
#pragma once

namespace veldar {

// Prints the expression, the function's signature and the source position to standard error and aborts.
[[noreturn]] void assertion_failed(const char* expression, const char* function, const char* file, int line) noexcept;

}  // namespace veldar

#define ST_ASSERT(expr) \
    ((expr) ? static_cast<void>(0) : ::veldar::assertion_failed(#expr, __PRETTY_FUNCTION__, __FILE__, __LINE__))
