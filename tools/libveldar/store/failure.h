// How a piece of work ends, and the failure that ends it early.
#pragma once

#include <cstdint>
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
    std::string message;           // all of it, for people
    std::string file = {};         // which one it is about; empty for none
    uint64_t line = 0;             // of the file, from 1
    uint64_t offset = UINT64_MAX;  // byte of the file, or of a query's text
    std::string next_step = {};    // that may help
};
// "message file: text of errno_value" with status OUTCOME_IO; the file may be empty.
[[noreturn]] void fail_io(const std::string& message, const std::string& file, int errno_value);

}  // namespace veldar::tool
