// How a piece of work ends, and the failure that ends it early.
#pragma once

#include <string>

namespace veldar::tool {

// The command line has these as its exit statuses.
enum outcome_t : int {
    OUTCOME_DONE = 0,
    OUTCOME_NOT_FOUND = 1,
    OUTCOME_USAGE = 2,
    OUTCOME_INCOMPLETE = 3,  // some input or source could not be read; what could be done has been done
    OUTCOME_DAMAGED = 4,
    OUTCOME_IO = 5,  // disk or memory
    OUTCOME_INTERRUPTED = 130,
};

// Thrown above the engine to end the work; each face catches it: main prints the message and returns the status. No
// function of the engine is on the stack when it is thrown.
struct failure_t {
    outcome_t status;
    std::string message;
};
// "message: text of errno_value" with status OUTCOME_IO.
[[noreturn]] void fail_io(const std::string& message, int errno_value);

}  // namespace veldar::tool
