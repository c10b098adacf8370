// What the subcommands of the tool share: the options before the subcommand, the exit status, how a command fails.
#pragma once

#include <string>

namespace CLI {
class App;
}

namespace veldar {

enum exit_status_t : int {
    EXIT_DONE = 0,
    EXIT_NOT_FOUND = 1,
    EXIT_USAGE = 2,
    EXIT_INCOMPLETE = 3,  // some input or source could not be read; what could be done has been done
    EXIT_DAMAGED = 4,
    EXIT_IO = 5,  // disk or memory
    EXIT_INTERRUPTED = 130,
};

// Thrown by the tool's own code to end the command; main prints the message and returns the status. The engine never
// throws it, and no function of the engine is on the stack when it is thrown.
struct tool_failure {
    exit_status_t status;
    std::string message;
};
// "message: text of errno_value" with status EXIT_IO.
[[noreturn]] void fail_io(const std::string& message, int errno_value);

struct tool_context {
    std::string store;       // -s, empty when not given
    int status = EXIT_DONE;  // set by the subcommand that ran
};

// Each adds its subcommand, whose callback fills context->status or throws tool_failure.
void add_put_command(CLI::App* app, tool_context* context);
void add_load_command(CLI::App* app, tool_context* context);
void add_search_command(CLI::App* app, tool_context* context);
void add_count_command(CLI::App* app, tool_context* context);
void add_terms_command(CLI::App* app, tool_context* context);
void add_fields_command(CLI::App* app, tool_context* context);
void add_seen_command(CLI::App* app, tool_context* context);
void add_explain_command(CLI::App* app, tool_context* context);
void add_fsck_command(CLI::App* app, tool_context* context);
void add_info_command(CLI::App* app, tool_context* context);
void add_ls_command(CLI::App* app, tool_context* context);
void add_dump_command(CLI::App* app, tool_context* context);
void add_delete_command(CLI::App* app, tool_context* context);
void add_health_command(CLI::App* app, tool_context* context);
void add_optimize_command(CLI::App* app, tool_context* context);
void add_metrics_command(CLI::App* app, tool_context* context);

}  // namespace veldar
