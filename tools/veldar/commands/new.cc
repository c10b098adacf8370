// veldar new: terms whose first event is not older than a time.
#include <vector>

#include "tools/libveldar/query/query_input.h"
#include "tools/libveldar/query/term_input.h"
#include "tools/libveldar/query/time_input.h"
#include "tools/libveldar/store/store.h"
#include "tools/veldar/commands/command.h"
#include "tools/veldar/commands/spread.h"
#include "tools/veldar/output/term_output.h"

namespace veldar::tool {

namespace {

struct new_options {
    std::string since, zone, pattern, format;
    uint64_t limit = 0;  // 0: all
    spread_options spread;
};

int new_run(const tool_context& context, const new_options& options) {
    if (spread_is_wanted(options.spread)) {
        return spread_run(context.store, options.spread,
                          question_of_new(options.pattern, options.since, options.zone, options.limit),
                          {.format = options.format, .zone = options.zone});
    }
    st_query_spec bounds;
    st_query_init(&bounds);
    query_set_bounds(options.since, "", options.zone, &bounds);
    troubles trouble;
    const term_walk walk = terms_at(store_choose(context.store), terms_of_field_or_pattern(options.pattern), &trouble);
    const std::vector<counted_term> found = terms_new_since(walk, bounds.earliest, options.limit);
    text_output out;
    output_open(&out, "never");
    out.zone = time_zone_of(options.zone);
    new_terms_print(found, options.format, &out);
    output_flush(&out);
    return answer_status(!found.empty(), trouble);
}

}  // namespace

void add_new_command(const command& veldar) {
    static new_options options;
    const command fresh = veldar.subcommand("new", "List terms that were never seen before a time, the newest first");
    fresh.footer("Ends with 0 when there are any, with 1 when there are none.");
    fresh.text("PATTERN", &options.pattern, "A field, such as host; or field=value, word* as for 'terms'; else all");
    fresh.text("--since", &options.since, "The time: 2015-05-17T10:05, 10:05, -2h, ...").required();
    add_zone_option(fresh, &options.zone);
    fresh.number("-n,--limit", &options.limit, 1, UINT64_MAX, "At most this many, the newest ones");
    fresh.text("--format", &options.format, "table, tsv, csv or jsonl").one_of(TABLE_FORMATS);
    add_spread_options(fresh, &options.spread);
    fresh.run([](const tool_context& context) { return new_run(context, options); });
}

}  // namespace veldar::tool
