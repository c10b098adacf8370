#include "tools/veldar/store/tool_failure.h"

#include <cstring>

namespace veldar::tool {

void fail_io(const std::string& message, int errno_value) {
    throw tool_failure{EXIT_IO, message + ": " + std::strerror(errno_value)};
}

}  // namespace veldar::tool
