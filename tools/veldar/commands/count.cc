// veldar count: the number of events that a query finds.

#include "tools/libveldar/query/event_count.h"
#include "tools/libveldar/query/query_hints.h"
#include "tools/libveldar/query/query_input.h"
#include "tools/libveldar/store/store.h"
#include "tools/veldar/commands/command.h"
#include "tools/veldar/commands/spread.h"
#include "tools/veldar/output/text_output.h"

namespace veldar::tool {

namespace {

struct count_options {
    query_options query;
    spread_options spread;
};

int count_run(const tool_context& context, const count_options& options) {
    if (spread_is_wanted(options.spread)) {
        return spread_run(context.store, options.spread, question_of_query("count", options.query), {});
    }
    const prepared_query query = query_prepare(options.query);
    const std::string path = store_choose(context.store);
    troubles trouble;
    const uint64_t total = count_events(path, query, &trouble);
    text_output out;
    output_open(&out, "never");
    output_put(&out, std::to_string(total) + "\n");
    output_flush(&out);
    if (!trouble.incomplete) {
        hint_comparisons(path, query);
        hint_more(path, query, total);
    }
    return answer_status(total > 0, trouble);
}

}  // namespace

void add_count_command(const command& veldar) {
    static count_options options;
    const command count = veldar.subcommand("count", "Print how many events a query finds");
    add_query_options(count, &options.query);
    add_spread_options(count, &options.spread);
    add_budget_options(count, &options.spread);
    count.run([](const tool_context& context) { return count_run(context, options); });
}

}  // namespace veldar::tool
