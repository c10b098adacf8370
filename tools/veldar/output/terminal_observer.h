// What the commands say on standard error while they work: messages, and on a terminal a line that shows how far they
// are.
#pragma once

#include "tools/libveldar/store/observer.h"

namespace veldar::tool {

struct terminal_observer {
    bool is_terminal = false;
    bool shows_progress = true;  // on a terminal
    bool has_line = false;       // of progress, which a message removes
};

// An observer that prints; the record must outlive it, and belongs to the thread that works.
observer terminal_observer_open(terminal_observer* terminal);

}  // namespace veldar::tool
