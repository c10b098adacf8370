#include "tools/veldar/commands/command_tree.h"

#include <CLI/CLI.hpp>
#include <algorithm>

namespace veldar::tool {

namespace {

// A check of choices tells them as "TEXT:{a,b}".
void split_choices(std::string* type, std::vector<std::string>* choices) {
    const size_t open = type->find(":{"), close = type->rfind('}');
    if (open == std::string::npos || close == std::string::npos) return;
    std::string one;
    for (const char c : type->substr(open + 2, close - open - 2) + ",") {
        if (c != ',') {
            one += c;
            continue;
        }
        choices->push_back(one);
        one.clear();
    }
    type->resize(open);
}

option_text text_of(const CLI::Option& option) {
    option_text text;
    text.is_positional = option.get_positional();
    for (const std::string& name : option.get_snames()) text.names.push_back("-" + name);
    for (const std::string& name : option.get_lnames()) text.names.push_back("--" + name);
    if (text.is_positional) text.names = {option.get_name(true)};
    if (option.get_items_expected_max() > 0) text.type = option.get_type_name();
    split_choices(&text.type, &text.choices);
    text.help = option.get_description();
    text.default_value = option.get_default_str();
    text.is_required = option.get_required();
    text.is_repeated = option.get_items_expected_max() > 1;
    return text;
}

command_text tree_of(const CLI::App& app, const std::string& before) {
    command_text text;
    text.name = before;
    text.heading = app.get_group();
    text.help = app.get_description();
    text.footer = app.get_footer();
    for (const CLI::Option* const option : app.get_options()) {
        const bool is_help = option == app.get_help_ptr();
        if (!is_help && !option->get_group().empty()) text.options.push_back(text_of(*option));
    }
    for (const CLI::App* const one : app.get_subcommands([](const CLI::App*) { return true; })) {
        if (one->get_group().empty()) continue;
        text.subcommands.push_back(tree_of(*one, before + (before.empty() ? "" : " ") + one->get_name()));
    }
    return text;
}

}  // namespace

command_text command_tree(const CLI::App& app) {
    return tree_of(app, "");
}

const command_text* command_find(const command_text& tree, const std::string& name) {
    if (tree.name == name) return &tree;
    for (const command_text& one : tree.subcommands) {
        if (const command_text* const found = command_find(one, name); found != nullptr) return found;
    }
    return nullptr;
}

}  // namespace veldar::tool
