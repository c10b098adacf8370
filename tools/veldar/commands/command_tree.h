// The command line as data, for whoever tells of it: the manual and completion.
#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace veldar::tool {

struct option_text {
    std::vector<std::string> names;  // "-n", "--limit"; of an argument without a name "FILE" alone
    std::string type;                // "TEXT"; empty for a flag
    std::string help;
    std::string default_value;  // when it is shown
    std::vector<std::string> choices;
    bool is_positional = false, is_required = false, is_repeated = false;
};

struct command_text {
    std::string name;  // with those of its groups before it: "metrics load"
    std::string heading, help, footer;
    std::vector<option_text> options;  // those that the help shows, without --help
    std::vector<command_text> subcommands;
};

command_text command_tree(const CLI::App& app);
// The command of a name, such as "metrics load"; null when there is none.
const command_text* command_find(const command_text& tree, const std::string& name);

}  // namespace veldar::tool
