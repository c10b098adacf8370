// What kept an answer from being complete.
#pragma once

#include <set>
#include <string>

#include "tools/libveldar/store/failure.h"
#include "tools/libveldar/store/observer.h"

namespace veldar::tool {

// What kept an answer from being complete. Each message is said once.
struct troubles {
    bool incomplete = false;
    outcome_t status = OUTCOME_DONE;  // of a command that found something all the same
    std::set<std::string> said;
    bool is_silent = false;  // nothing is said
};
void troubles_add(troubles* list, const std::string& message, outcome_t status = OUTCOME_INCOMPLETE);
// The exit status of a command that found something, or nothing, and may have missed some.
outcome_t answer_status(bool found, const troubles& list);

}  // namespace veldar::tool
