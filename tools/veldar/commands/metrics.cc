// veldar metrics: the group of commands, and which directory they work on.
#include "tools/veldar/commands/metrics.h"

#include "tools/libveldar/store/store.h"

namespace veldar::tool {

std::string metrics_directory(const tool_context& context, const std::string& directory) {
    if (!directory.empty()) return directory;
    const std::string store = store_choose(context.store);
    return context.store.empty() || store_is(store) ? store + "/" + STORE_METRICS : store;
}

void add_metrics_command(const command& veldar) {
    static std::string directory;
    const command metrics = veldar.subcommand("metrics", "Load metrics, and ask for them");
    metrics.group();
    metrics.text("--dir", &directory, "The metric directory, instead of the one in the store");
    add_metrics_load_command(metrics, &directory);
    add_metrics_ls_command(metrics, &directory);
    add_metrics_query_command(metrics, &directory);
    add_metrics_cardinality_command(metrics, &directory);
    add_metrics_dump_command(metrics, &directory);
}

}  // namespace veldar::tool
