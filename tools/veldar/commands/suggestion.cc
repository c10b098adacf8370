#include "tools/veldar/commands/suggestion.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <numeric>
#include <vector>

namespace veldar::tool {

namespace {

// How many letters have to be put in, left out, replaced or swapped with their neighbour to make one word the other.
size_t distance(const std::string& a, const std::string& b) {
    std::vector<size_t> before, above(b.size() + 1), row(b.size() + 1);
    std::iota(above.begin(), above.end(), size_t{0});
    for (size_t i = 0; i < a.size(); i++) {
        row[0] = i + 1;
        for (size_t j = 0; j < b.size(); j++) {
            row[j + 1] = std::min({above[j + 1] + 1, row[j] + 1, above[j] + (a[i] == b[j] ? 0 : 1)});
            const bool swapped = i > 0 && j > 0 && a[i] == b[j - 1] && a[i - 1] == b[j];
            if (swapped) row[j + 1] = std::min(row[j + 1], before[j - 1] + 1);
        }
        before = above;
        std::swap(above, row);
    }
    return above[b.size()];
}

// The nearest name, when it is near enough; empty otherwise.
std::string nearest(const std::string& word, const std::vector<std::string>& names) {
    std::string best;
    size_t least = std::min<size_t>(3, word.size() / 3 + 1) + 1;
    for (const std::string& name : names) {
        const size_t far = name.starts_with(word) && word.size() > 1 ? 1 : distance(word, name);
        if (far < least) {
            least = far;
            best = name;
        }
    }
    return best;
}

// The command that the arguments reached, of a group the innermost.
const CLI::App& reached(const CLI::App& app) {
    const std::vector<CLI::App*> parsed = app.get_subcommands();
    return parsed.empty() ? app : reached(*parsed.back());
}

std::vector<std::string> command_names(const CLI::App& app) {
    std::vector<std::string> names = {"--help", "--version"};  // as commands elsewhere
    for (const CLI::App* one : app.get_subcommands([](const CLI::App*) { return true; })) {
        names.push_back(one->get_name());
    }
    return names;
}

std::vector<std::string> option_names(const CLI::App* app) {
    std::vector<std::string> names;
    for (; app != nullptr; app = app->get_parent()) {
        for (const CLI::Option* option : app->get_options()) {
            for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
        }
    }
    return names;
}

}  // namespace

std::string suggest_meant(const CLI::App& app) {
    const std::vector<std::string> left = app.remaining(true);
    if (left.empty()) return {};
    const CLI::App& command = reached(app);
    const bool is_option = left.front().starts_with("--");
    const std::string word = left.front().substr(0, left.front().find(is_option ? "=" : "\n"));
    const std::string meant = nearest(word, is_option ? option_names(&command) : command_names(command));
    if (meant.empty()) return {};
    return "'" + word + "' is no " + (is_option ? "option" : "command") + "; did you mean '" + meant + "'?\n";
}

}  // namespace veldar::tool
