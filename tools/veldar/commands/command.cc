#include "tools/veldar/commands/command.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <exception>
#include <new>
#include <utility>

#include "tools/libveldar/query/query_input.h"
#include "tools/libveldar/query/suggestion.h"
#include "tools/libveldar/store/failure.h"
#include "tools/libveldar/store/observer.h"
#include "tools/libveldar/store/store.h"
#include "tools/veldar/commands/command_tree.h"
#include "tools/veldar/commands/completion.h"
#include "tools/veldar/commands/examples.h"
#include "tools/veldar/commands/manual.h"
#include "tools/veldar/commands/number_input.h"

namespace veldar::tool {

namespace {

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

// A line for the first argument that a failed parse left over; empty when there is none or nothing resembles it.
std::string suggest_meant(const CLI::App& app) {
    const std::vector<std::string> left = app.remaining(true);
    if (left.empty()) return {};
    const bool is_option = left.front().starts_with("--");
    const std::string word = left.front().substr(0, left.front().find(is_option ? "=" : "\n"));
    const std::string meant = nearest_name(word, is_option ? option_names(&reached(app)) : command_names(reached(app)));
    if (meant.empty()) return {};
    return "'" + word + "' is no " + (is_option ? "option" : "command") + "; did you mean '" + meant + "'?\n";
}

// Examples in the help, behind what else is said there.
void add_examples(CLI::App* app, const std::string& name) {
    std::string text;
    for (const command_example& example : command_examples()) {
        if (name == example.command) text += std::string("  veldar ") + example.line + "\n      " + example.does + "\n";
    }
    const std::string before = app->get_footer();
    if (!text.empty()) app->footer(before + (before.empty() ? "" : "\n\n") + "Examples:\n" + text);
    for (CLI::App* const one : app->get_subcommands([](const CLI::App*) { return true; })) {
        add_examples(one, name + (name.empty() ? "" : " ") + one->get_name());
    }
}

// What the shells and the build ask for, as words that no command has; false for anything else.
bool answer_unlisted(const CLI::App& app, const std::vector<std::string>& arguments, const std::string& version) {
    if (arguments.size() == 3 && arguments[0] == "__manual") {
        manual_write(command_tree(app), version.substr(0, version.find('\n')), arguments[1], arguments[2]);
    } else if (!arguments.empty() && arguments[0] == "__complete") {
        for (const std::string& one : completion_of(command_tree(app), {arguments.begin() + 1, arguments.end()})) {
            std::puts(one.c_str());
        }
    } else {
        return false;
    }
    return true;
}

}  // namespace

std::string tool_context::path_or_store(const std::string& path) const {
    return path.empty() ? store_choose(store) : path;
}

const command_option& command_option::required() const {
    option->required();
    return *this;
}

const command_option& command_option::with_default() const {
    option->capture_default_str();
    return *this;
}

const command_option& command_option::hidden() const {
    option->group("");
    return *this;
}

const command_option& command_option::one_of(const std::vector<std::string>& values) const {
    option->check(CLI::IsMember(values));
    return *this;
}

const command_option& command_option::checked(std::function<std::string(const std::string&)> fault) const {
    option->check(std::move(fault));
    return *this;
}

const command_option& command_option::comma_separated() const {
    option->delimiter(',');
    return *this;
}

const command_option& command_option::one_each() const {
    option->type_size(1);
    return *this;
}

command command::subcommand(const char* name, const char* help) const {
    CLI::App* const added = app->add_subcommand(name, help);
    if (heading != nullptr) added->group(heading);
    return {added, chosen};
}

void command::footer(const char* text) const {
    app->footer(text);
}

void command::group() const {
    app->require_subcommand(1);
}

void command::flag(const char* names, bool* value, const char* help) const {
    app->add_flag(names, *value, help);
}

command_option command::text(const char* names, std::string* value, const std::string& help) const {
    return {app->add_option(names, *value, help)};
}

command_option command::text(const char* names, std::vector<std::string>* values, const std::string& help) const {
    return {app->add_option(names, *values, help)};
}

template <typename T>
command_option command::number(const char* names, T* value, uint64_t least, uint64_t most, const char* help) const {
    return {app->add_option(names, *value, help)->transform(whole_number(least, most))};
}
template command_option command::number(const char*, int*, uint64_t, uint64_t, const char*) const;
template command_option command::number(const char*, uint32_t*, uint64_t, uint64_t, const char*) const;
template command_option command::number(const char*, uint64_t*, uint64_t, uint64_t, const char*) const;

command_option command::size(const char* names, uint64_t* bytes, const char* help) const {
    const auto digits_first = [](std::string& size) {
        const bool number = size[0] >= '1' && size[0] <= '9' && size.size() < 20;
        return number ? std::string() : "'" + size + "' is no size such as 500MB";
    };
    // What is added last comes first.
    return {app->add_option(names, *bytes, help)
                ->transform(CLI::AsSizeValue(false))
                ->transform(CLI::Validator(digits_first, ""))};
}

void command::run(std::function<int(const tool_context&)> work) const {
    app->callback([work = std::move(work), out = chosen] { *out = work; });
}

void add_bounds_options(const command& to, const char* events, std::string* since, std::string* until,
                        std::string* zone) {
    const std::string only = std::string("Only ") + events;
    to.text("--since", since, only + "from this time on: 2015-05-17T10:05, 10:05, 2h, yesterday, \"3 days ago\" ...");
    to.text("--until", until, only + "before this time");
    add_zone_option(to, zone);
}

void add_zone_option(const command& to, std::string* zone) {
    to.text("--tz", zone,
            "Zone in which times are read and printed: UTC, local, +02:00, Europe/Berlin ... (else the machine's on a "
            "terminal, and UTC)");
}

void add_query_options(const command& to, query_options* options, bool is_required) {
    const command_option query =
        to.text("QUERY", &options->words, "Words, word~ (inside of words), field=value, \"phrases\", *, OR, NOT, ( )");
    if (is_required) query.required();
    add_bounds_options(to, "events ", &options->since, &options->until, &options->zone);
    to.flag("--native", &options->native, "QUERY is in bracket notation: [AND a [NOT b]]");
}

command_call command_line_parse(std::span<const command_group> groups, std::vector<std::string> arguments,
                                const char* version) {
    CLI::App app("Veldar: an index for logs and other events with a time.", "veldar");
    tool_context context;
    std::function<int(const tool_context&)> chosen;
    app.add_option(
        "-s,--store", context.store,
        "The store (else $VELDAR_STORE, else .veldar here or above); to ask, also an index directory or a slice");
    app.set_version_flag("--version", version);
    app.fallthrough();  // -s may stand behind the subcommand too
    for (const command_group& group : groups) {
        for (const auto add : group.commands) add({&app, &chosen, group.heading});
    }
    if (answer_unlisted(app, arguments, version)) return {};
    add_examples(&app, "");
    try {
        query_protect_words(&arguments);
        std::reverse(arguments.begin(), arguments.end());  // as the parser takes them
        app.parse(std::move(arguments));
    } catch (const CLI::ParseError& error) {
        if (app.exit(error) == 0) return {};
        std::fputs(suggest_meant(app).c_str(), stderr);
        return {OUTCOME_USAGE, nullptr};
    }
    if (chosen != nullptr) return {OUTCOME_DONE, [work = std::move(chosen), context] { return work(context); }};
    std::fputs("a subcommand is required\nRun with --help for more information.\n", stderr);
    return {OUTCOME_USAGE, nullptr};
}

int command_line_run(std::span<const command_group> groups, std::vector<std::string> arguments, const char* version) {
    const command_call call = command_line_parse(groups, std::move(arguments), version);
    return call.run == nullptr ? call.status : call.run();
}

namespace {

int run_and_tell(std::span<const command_group> groups, std::vector<std::string> arguments, const char* version) {
    try {
        return command_line_run(groups, std::move(arguments), version);
    } catch (const failure_t& failure) {
        say_trouble(failure.message);
        return failure.status;
    }
}

}  // namespace

int command_line_main(std::span<const command_group> groups, const char* const* arguments, size_t count,
                      std::string (*version)()) noexcept {
    try {
        return run_and_tell(groups, {arguments, arguments + count}, version().c_str());
    } catch (const std::bad_alloc&) {
        std::fputs("veldar: out of memory\n", stderr);
    } catch (const std::exception& error) {  // the parser's own and the library's, thread or locale
        std::fprintf(stderr, "veldar: %s\n", error.what());
    }
    return OUTCOME_IO;
}

}  // namespace veldar::tool
