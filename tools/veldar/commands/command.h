// The command line: the subcommands, how they declare their options, and what they share. Only command.cc knows the
// parser, whose header takes longer to compile than most commands.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "tools/libveldar/store/failure.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace veldar::tool {

struct query_options;

// The options before the subcommand.
struct tool_context {
    std::string store;  // -s, empty when not given
    // The directory or file to work on: this one when given, else the store.
    std::string path_or_store(const std::string& path) const;
};

// An option while it is declared; what is said of it can be strung together.
struct command_option {
    CLI::Option* option;
    const command_option& required() const;
    const command_option& with_default() const;  // which the help shows
    const command_option& hidden() const;        // the help does not show it
    const command_option& one_of(const std::vector<std::string>& values) const;
    // `fault` gives what is wrong with a value, empty for nothing.
    const command_option& checked(std::function<std::string(const std::string&)> fault) const;
    const command_option& comma_separated() const;  // several values in one argument
    const command_option& one_each() const;         // one value each time it is given, and not all words behind it
};

// A subcommand while it is declared. Names are such as "-n,--limit", or "FILE" for an argument without a name. What the
// values go into has to outlive the run.
struct command {
    CLI::App* app;
    std::function<int(const tool_context&)>* chosen;  // what the arguments ask for
    const char* heading = nullptr;                    // under which the help lists its subcommands

    command subcommand(const char* name, const char* help) const;
    void footer(const char* text) const;
    void group() const;  // one of its own subcommands is to follow
    void flag(const char* names, bool* value, const char* help) const;
    command_option text(const char* names, std::string* value, const std::string& help) const;
    command_option text(const char* names, std::vector<std::string>* values, const std::string& help) const;
    // A whole number in digits; T is int, uint32_t or uint64_t.
    template <typename T>
    command_option number(const char* names, T* value, uint64_t least, uint64_t most, const char* help) const;
    command_option size(const char* names, uint64_t* bytes, const char* help) const;  // 500MB
    // What the subcommand does; its result is the exit status.
    void run(std::function<int(const tool_context&)> work) const;
};

// --since, --until and --tz; `events` is what they bound.
void add_bounds_options(const command& to, const char* events, std::string* since, std::string* until,
                        std::string* zone);
// --tz, for a command that prints times (time_zone_of).
void add_zone_option(const command& to, std::string* zone);
// QUERY, the bounds and --native. Without a QUERY that need not be there every event is meant.
void add_query_options(const command& to, query_options* options, bool is_required = true);

// Each adds its subcommand.
void add_put_command(const command& veldar);
void add_load_command(const command& veldar);
void add_forget_command(const command& veldar);
void add_search_command(const command& veldar);
void add_count_command(const command& veldar);
void add_stats_command(const command& veldar);
void add_top_command(const command& veldar);
void add_new_command(const command& veldar);
void add_diff_command(const command& veldar);
void add_terms_command(const command& veldar);
void add_fields_command(const command& veldar);
void add_seen_command(const command& veldar);
void add_merge_answers_command(const command& veldar);
void add_sql_command(const command& veldar);
void add_explain_command(const command& veldar);
void add_fsck_command(const command& veldar);
void add_seal_command(const command& veldar);
void add_salvage_command(const command& veldar);
void add_rebuild_command(const command& veldar);
void add_info_command(const command& veldar);
void add_ls_command(const command& veldar);
void add_dump_command(const command& veldar);
void add_delete_command(const command& veldar);
void add_health_command(const command& veldar);
void add_optimize_command(const command& veldar);
void add_retain_command(const command& veldar);
void add_gc_command(const command& veldar);
void add_watch_command(const command& veldar);
void add_metrics_command(const command& veldar);
void add_completion_command(const command& veldar);

// Commands that the help lists together.
struct command_group {
    const char* heading;
    std::span<void (*const)(const command&)> commands;
};

// What the arguments (without the program's name) ask for; nothing when all is said, with the exit status.
struct command_call {
    int status = 0;
    std::function<int()> run;
};
command_call command_line_parse(std::span<const command_group> groups, std::vector<std::string> arguments,
                                const char* version);
// Runs the subcommand that the arguments (without the program's name) ask for and returns the exit status. Throws what
// the subcommand throws.
int command_line_run(std::span<const command_group> groups, std::vector<std::string> arguments, const char* version);
// The same for main: failures are told and become the exit status.
int command_line_main(std::span<const command_group> groups, const char* const* arguments, size_t count,
                      std::string (*version)()) noexcept;

}  // namespace veldar::tool
