#include "tools/libveldar/store/failure.h"

#include <cstring>

namespace veldar::tool {

void fail_io(const std::string& message, int errno_value) {
    throw failure_t{OUTCOME_IO, message + ": " + std::strerror(errno_value)};
}

}  // namespace veldar::tool
