#include "tools/libveldar/store/troubles.h"

#include <algorithm>

namespace veldar::tool {

namespace {

constexpr size_t MESSAGES_MAX = 20;  // one message a missing file is useful, one an event is not

}  // namespace

void troubles_add(troubles* list, const std::string& message, outcome_t status) {
    list->incomplete = true;
    list->status = std::max(list->status, status);
    if (list->is_silent) return;
    if (list->said.size() > MESSAGES_MAX || !list->said.insert(message).second) return;
    say_trouble(list->said.size() > MESSAGES_MAX ? "further messages are left out" : message);
}

outcome_t answer_status(bool found, const troubles& list) {
    if (list.incomplete) return list.status;
    return found ? OUTCOME_DONE : OUTCOME_NOT_FOUND;
}

}  // namespace veldar::tool
