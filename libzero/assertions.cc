#include "libzero/assertions.h"

#include <cstdio>
#include <cstdlib>

namespace veldar {

void assertion_failed(const char* expression, const char* function, const char* file, int line) noexcept {
    std::fprintf(stderr, "ASSERTION FAILED: %s in %s at %s:%d\n", expression, function, file, line);
    std::abort();
}

}  // namespace veldar
