// What can stand at a place of the command line: the shells' completion asks the tool itself, so that it knows what the
// tool knows, the store's fields and values included.
#pragma once

#include <string>
#include <vector>

#include "tools/veldar/commands/command_tree.h"

namespace veldar::tool {

// The words behind "veldar", the last of them unfinished and perhaps empty: what it can become. Nothing where only files
// are meant, or nobody knows. Never fails; asks a store for at most a second.
std::vector<std::string> completion_of(const command_text& tree, const std::vector<std::string>& words);
// The script that makes a shell ask: "bash", "zsh" or "fish".
const char* completion_script(const std::string& shell);

}  // namespace veldar::tool
