#include "tools/libveldar/store/failure.h"

#include <cstring>

namespace veldar::tool {

void fail_io(const std::string& message, const std::string& file, int errno_value) {
    throw failure_t{OUTCOME_IO, message + (file.empty() ? "" : " ") + file + ": " + std::strerror(errno_value), file};
}

}  // namespace veldar::tool
