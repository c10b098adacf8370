// veldar new: terms whose first event is not older than a time.
#include <algorithm>
#include <ctime>
#include <vector>

#include "tools/libveldar/query/query_input.h"
#include "tools/libveldar/query/term_input.h"
#include "tools/libveldar/query/time_input.h"
#include "tools/libveldar/store/store.h"
#include "tools/veldar/commands/command.h"
#include "tools/veldar/output/event_output.h"
#include "tools/veldar/output/table_output.h"

namespace veldar::tool {

namespace {

struct new_options {
    std::string since, zone, pattern, format;
    uint64_t limit = 0;  // 0: all
};

struct new_term {
    term_totals_t totals;
    std::string term;
    bool operator<(const new_term& other) const {
        if (totals.earliest != other.totals.earliest) return totals.earliest > other.totals.earliest;
        return term < other.term;
    }
};

// A bare name is a field's.
term_choice_t choice_of(const std::string& pattern) {
    if (pattern.empty() || pattern.find_first_of("=*") != std::string::npos ||
        pattern.find("::") != std::string::npos) {
        return term_choice_of(term_pattern_from_text(pattern));
    }
    term_choice_t choice;
    choice.prefix = term_pattern_from_text(pattern + "=").needle;
    return choice;
}

int new_run(const tool_context& context, const new_options& options) {
    st_query_spec bounds;
    st_query_init(&bounds);
    query_set_bounds(options.since, "", options.zone, &bounds);
    // Metadata have whole seconds.
    const int64_t since = int64_t{bounds.earliest.time_s} + (bounds.earliest.time_ns > 0 ? 1 : 0);
    std::vector<new_term> found;
    const auto visit = [&](std::string_view term, const term_totals_t& totals) {
        if (totals.count == 0 || totals.earliest < since) return true;
        found.push_back({totals, std::string(term)});
        std::push_heap(found.begin(), found.end());
        if (options.limit == 0 || found.size() <= options.limit) return true;
        std::pop_heap(found.begin(), found.end());
        found.pop_back();
        return true;
    };
    troubles trouble;
    walk_terms(store_choose(context.store), choice_of(options.pattern), visit, &trouble);
    std::sort(found.begin(), found.end());
    text_output out;
    output_open(&out, "never");
    out.zone = time_zone_of(options.zone);
    table_output table;
    table.out = &out;
    table.format = table_format_from_name(options.format);
    table.columns = {{"first", false}, {"count", true}, {"term", false}};
    table_begin(&table);
    for (const new_term& one : found) {
        if (out.closed) break;
        table_put_row(&table, {text_cell(event_time_text(one.totals.earliest, 0, out.zone)),
                               count_cell(one.totals.count), text_cell(term_query_text(one.term))});
    }
    table_end(&table);
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
    fresh.run([](const tool_context& context) { return new_run(context, options); });
}

}  // namespace veldar::tool
