// Examples of every command, for its help and its manual page.
#pragma once

#include <span>

namespace veldar::tool {

struct command_example {
    const char* command;  // "metrics load"
    const char* line;     // what is typed, behind "veldar "
    const char* does;     // what that does
};

// Two and more a command, in the order of the help. Those of one command stand together.
std::span<const command_example> command_examples();

}  // namespace veldar::tool
