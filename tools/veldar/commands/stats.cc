// veldar stats and top: counts and aggregates by time and by fields.
#include "tools/veldar/commands/stats.h"

#include <fmt/format.h>
#include <unistd.h>

#include "tools/libveldar/load/stats_ask.h"
#include "tools/libveldar/query/event_count.h"
#include "tools/libveldar/query/query_hints.h"
#include "tools/libveldar/query/query_input.h"
#include "tools/libveldar/store/observer.h"
#include "tools/libveldar/store/store.h"
#include "tools/veldar/commands/spread.h"
#include "tools/veldar/output/stats_output.h"
#include "tools/veldar/output/stats_plot.h"

namespace veldar::tool {

namespace {

struct stats_options {
    query_options query;
    std::string by, aggregates;
    bool keeps_missing = false;
    stats_view view;
    spread_options spread;
};

std::string plural(uint64_t count, const std::string& one) {
    return std::to_string(count) + " " + one + (count == 1 ? "" : "s");
}

void say_report(const select_report_t& report, bool by_records) {
    std::string text = plural(report.events, "event") + " found in " + plural(report.slices, "slice");
    text += by_records ? " and read one by one, as the query asks for more than the index knows\n" : "\n";
    text += "posting lists: " + std::to_string(report.lists_from_metadata) + " told by metadata, " +
            std::to_string(report.lists_counted) + " counted by words of bits, " +
            std::to_string(report.lists_decoded) + " decoded, " + std::to_string(report.lists_probed) + " probed\n";
    text += "measures: " + std::to_string(report.columns_summed) + " stretches summed from block headers, " +
            std::to_string(report.columns_read) + " decoded\n";
    text += plural(report.refused, "value") + " refused as no number\n";
    std::fputs(text.c_str(), stderr);
}

int stats_spread(const tool_context& context, const stats_options& options, const stats_question& wanted) {
    if (options.view.explain) {
        throw failure_t{OUTCOME_USAGE,
                        "--explain tells of one whole answer: expected none of --partial, --on, --deadline, --max-read "
                        "and --cursor with it"};
    }
    question asked = question_of_query("stats", options.query);
    question_set_stats(&asked, wanted, options.view.shape.top);
    return spread_run(context.store, options.spread, asked,
                      {.format = options.view.format, .zone = options.query.zone, .stats = options.view});
}

int stats_run(const tool_context& context, const stats_options& options) {
    const stats_question wanted = {options.by, options.aggregates, options.keeps_missing,
                                   stats_view_grid(options.view, options.query.zone)};
    if (spread_is_wanted(options.spread)) return stats_spread(context, options, wanted);
    const prepared_query query = query_prepare(options.query);
    const slice_set slices = slices_list(store_choose(context.store));
    troubles trouble;
    stats_result result;
    stats_ask(slices, query, wanted, &result, &trouble);
    stats_view view = options.view;
    view.no_number = result.no_number;
    view.by_records = result.by_records;
    view.shape.fill = result.request.group_names.empty() ? stats_fill::empty : stats_fill::none;
    const bool found = stats_show(view, result.request, &result.table, result.grid, result.report);
    if (!found && !trouble.incomplete && hint_fields(slices.path, result.request.spec.groups)) {
        hint_more(slices.path, query, count_events(slices.path, query, &trouble));
    }
    return answer_status(found, trouble);
}

}  // namespace

void add_stats_view_options(const command& to, stats_view* view) {
    to.text("--every", &view->every,
            "A row for each bin of time, cut in the zone: 10s, 5m, 1h, 1d, 1w, 1mo, 1y, or auto")
        .checked(every_fault);
    to.number("--top", &view->shape.top, 1, UINT64_MAX, "Only the groups with the most of the first aggregate");
    to.flag("--plot", &view->plot, "Draw, also into a pipe");
    to.text("--color", &view->colour, "Of drawings: auto, always or never").one_of({"auto", "always", "never"});
    to.flag("--explain", &view->explain, "Tell on standard error what was read for the answer");
}

stats_grid_request stats_view_grid(const stats_view& view, const std::string& zone) {
    return {view.every, zone, stats_draw_width()};
}

bool stats_show(const stats_view& view, const stats_request& request, select_table_t* table, const stats_grid& grid,
                const select_report_t& report) {
    const bool is_empty = table->rows.empty();
    stats_add_row_of_nothing(request, grid, table);
    text_output out;
    output_open(&out, view.colour);
    const bool shows = view.plot || (out.terminal && view.format.empty());
    const bool draws = shows && grid.has_bins;
    stats_shape shape = view.shape;
    shape.needs_totals |= draws;
    stats_answer answer;
    stats_answer_make(request, *table, grid, shape, &answer);
    if (draws) {
        stats_draw(answer, &out);
    } else {
        const bool bars = shows && !request.group_names.empty() && request.columns.front().kind != stats_kind::values;
        stats_put_rows(answer, table_format_from_name(view.format), bars, &out);
    }
    output_flush(&out);
    if (answer.groups_left_out > 0) say_trouble(plural(answer.groups_left_out, "further group") + " left out");
    if (report.refused > 0)
        say_trouble(plural(report.refused, "value") + " left out of aggregates: no number" +
                    (view.no_number.empty() ? "" : ", such as " + view.no_number));
    if (view.explain) say_report(report, view.by_records);
    return !is_empty && !answer.entries.empty();
}

void add_stats_command(const command& veldar) {
    static stats_options options;
    const command stats = veldar.subcommand("stats", "Count events and aggregate fields, by time and by other fields");
    add_query_options(stats, &options.query, false);
    stats.text("--by", &options.by, "A row for each value of this field, or of several: host,status");
    stats.text("--agg", &options.aggregates, "What to tell of each row, such as count,avg(bytes),p99(latency)");
    stats.flag("--missing", &options.keeps_missing, "Keep events that lack a field of --by, under no value");
    add_stats_view_options(stats, &options.view);
    stats.text("--format", &options.view.format, "table, tsv, csv or jsonl; without it --every draws on a terminal")
        .one_of(TABLE_FORMATS);
    stats.footer(fmt::format("Aggregates: {}.", STATS_AGGREGATES).c_str());
    add_spread_options(stats, &options.spread);
    add_budget_options(stats, &options.spread);
    stats.run([](const tool_context& context) { return stats_run(context, options); });
}

void add_top_command(const command& veldar) {
    static stats_options options;
    options.view.shape.top = 10;
    const command top = veldar.subcommand("top", "The most frequent values of a field");
    top.text("FIELD", &options.by, "The field, or several: host,status").required();
    add_query_options(top, &options.query, false);
    top.number("-n,--limit", &options.view.shape.top, 1, UINT64_MAX, "How many").with_default();
    top.text("--format", &options.view.format, "table, tsv, csv or jsonl").one_of(TABLE_FORMATS);
    add_spread_options(top, &options.spread);
    add_budget_options(top, &options.spread);
    top.run([](const tool_context& context) { return stats_run(context, options); });
}

}  // namespace veldar::tool
