// How a command ends: its exit status, and the failure that ends it early.
#pragma once

#include <string>

namespace veldar::tool {

enum exit_status_t : int {
    EXIT_DONE = 0,
    EXIT_NOT_FOUND = 1,
    EXIT_USAGE = 2,
    EXIT_INCOMPLETE = 3,  // some input or source could not be read; what could be done has been done
    EXIT_DAMAGED = 4,
    EXIT_IO = 5,  // disk or memory
    EXIT_INTERRUPTED = 130,
};

// Thrown by the tool's own code to end the command; main prints the message and returns the status. The engine never
// throws it, and no function of the engine is on the stack when it is thrown.
struct tool_failure {
    exit_status_t status;
    std::string message;
};
// "message: text of errno_value" with status EXIT_IO.
[[noreturn]] void fail_io(const std::string& message, int errno_value);

}  // namespace veldar::tool
