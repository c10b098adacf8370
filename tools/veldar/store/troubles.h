// What kept an answer from being complete.
#pragma once

#include <set>
#include <string>

#include "tools/veldar/store/tool_failure.h"

namespace veldar::tool {

// Prints "veldar: message" on standard error; on a terminal the control characters of names in it are visible.
void say_trouble(const std::string& message);

// What kept an answer from being complete. Each message is said once, on standard error.
struct troubles {
    bool incomplete = false;
    exit_status_t status = EXIT_DONE;  // of a command that found something all the same
    std::set<std::string> said;
    bool is_silent = false;  // nothing is said
};
void troubles_add(troubles* list, const std::string& message, exit_status_t status = EXIT_INCOMPLETE);
// The exit status of a command that found something, or nothing, and may have missed some.
exit_status_t answer_status(bool found, const troubles& list);

}  // namespace veldar::tool
