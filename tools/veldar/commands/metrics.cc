// veldar metrics: the group of commands, and which directory they work on.
#include "tools/veldar/commands/metrics.h"

#include <CLI/CLI.hpp>

#include "tools/veldar/store/store.h"

namespace veldar::tool {

std::string metrics_directory(const tool_context& context, const std::string& directory) {
    if (!directory.empty()) return directory;
    const std::string store = store_choose(context.store);
    return context.store.empty() || store_is(store) ? store + "/" + STORE_METRICS : store;
}

void add_metrics_command(CLI::App* app, tool_context* context) {
    static std::string directory;
    CLI::App* metrics = app->add_subcommand("metrics", "Load metrics, and ask for them");
    metrics->require_subcommand(1);
    metrics->add_option("--dir", directory, "The metric directory, instead of the one in the store");
    add_metrics_load_command(metrics, context, &directory);
    add_metrics_ls_command(metrics, context, &directory);
    add_metrics_query_command(metrics, context, &directory);
    add_metrics_cardinality_command(metrics, context, &directory);
    add_metrics_dump_command(metrics, context, &directory);
}

}  // namespace veldar::tool
