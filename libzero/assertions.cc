#include "libzero/assertions.h"

#include <cstdio>
#include <cstdlib>

#include "libzero/create-crash-dump.h"

namespace veldar {

void assertion_failed(const char* expression, const char* function, const char* file, int line) noexcept {
    std::fprintf(stderr, "ASSERTION FAILED: %s in %s at %s:%d\n", expression, function, file, line);
    crash_log_assertion(expression, function, file, line);
    std::abort();
}

}  // namespace veldar
