// The subcommands of the tool and what they share: the options before the subcommand, the exit status.
#pragma once

#include <string>

#include "tools/veldar/store/tool_failure.h"

namespace CLI {
class App;
}

namespace veldar::tool {

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

}  // namespace veldar::tool
