// veldar metrics query and dump: the samples themselves.
#include <algorithm>
#include <bit>
#include <tuple>
#include <utility>

#include "searchthing/search/query.h"
#include "tools/libveldar/formats/metric_text.h"
#include "tools/libveldar/query/metric_ask.h"
#include "tools/libveldar/query/metric_catalog.h"
#include "tools/libveldar/query/query_input.h"
#include "tools/libveldar/query/time_input.h"
#include "tools/libveldar/store/index_handle.h"
#include "tools/veldar/commands/metrics.h"
#include "tools/veldar/commands/metrics_stats.h"
#include "tools/veldar/commands/spread.h"
#include "tools/veldar/output/sample_output.h"

namespace veldar::tool {

namespace {

constexpr uint64_t DUMP_POINTS = uint64_t{1} << 22;  // of one pass, unless a single metric has more

struct points_options {
    metric_question question;
    std::string format = "text";
    uint64_t limit = 0;
    bool oldest_first = false;
    metrics_stats_options stats;
    spread_options spread;
};

// By series and time ascending; equal values of equal times do not depend on the slices that hold them.
void sort_by_series(metric_points* points) {
    const std::vector<uint32_t> ranks = metric_series_ranks(*points);
    std::sort(points->points.begin(), points->points.end(), [&](const metric_point& a, const metric_point& b) {
        return std::tuple(ranks[a.series], a.time_ms, std::bit_cast<uint64_t>(a.value)) <
               std::tuple(ranks[b.series], b.time_ms, std::bit_cast<uint64_t>(b.value));
    });
}

// "text" is what each of the two ways of asking prints when nothing is said.
int stats_run(const std::string& directory, const points_options& options) {
    if (options.limit != 0 || options.oldest_first || options.format == "openmetrics") {
        throw failure_t{OUTCOME_USAGE,
                        "--limit, --reverse and --format openmetrics are for samples: expected none of them with "
                        "--every, --agg, --by or --rate"};
    }
    metrics_stats_options stats = options.stats;
    stats.view.format = options.format == "text" ? "" : options.format;
    return metrics_stats_run(directory, options.question, stats);
}

int query_spread(const tool_context& context, const std::string& directory, const points_options& options) {
    merged_view view;
    view.format = options.format == "text" && options.stats.are_wanted() ? "" : options.format;
    view.zone = options.question.zone;
    view.oldest_first = options.oldest_first;
    view.stats = options.stats.view;
    view.fill = options.stats.fill;
    const question asked =
        options.stats.are_wanted()
            ? question_of_metric_stats(options.question, metrics_stats_question(options.stats, options.question.zone),
                                       options.stats.view.shape.top)
            : question_of_metrics(options.question, options.limit);
    return spread_run(context.path_or_store(directory), options.spread, asked, view);
}

int query_run(const tool_context& context, const std::string& given, const points_options& options) {
    if (!options.stats.are_wanted() && (options.format == "table" || options.format == "tsv")) {
        throw failure_t{OUTCOME_USAGE, "--format " + options.format + " goes with --every, --agg, --by or --rate"};
    }
    if (spread_is_wanted(options.spread)) return query_spread(context, given, options);
    const std::string directory = metrics_directory(context, given);
    if (options.stats.are_wanted()) return stats_run(directory, options);
    metric_points points;
    metric_samples_read(directory, options.question, options.limit, options.oldest_first, &points);
    sample_output printer;
    printer.format = options.format;
    output_open(&printer.out, "never");
    printer.out.zone = time_zone_of(options.question.zone);
    samples_begin(&printer);
    for (const metric_point& point : points.points) {
        if (!printer.out.closed) sample_put(&printer, *points.series.texts[point.series], point.time_ms, point.value);
    }
    output_flush(&printer.out);
    return points.points.empty() ? OUTCOME_NOT_FOUND : OUTCOME_DONE;
}

// Prints the metrics of one pass.
void dump_names(const std::string& directory, TSIDX* tsidx, const st_query_spec& query, const metric_catalog& catalog,
                const std::string& first, const std::string& last, sample_output* printer) {
    metric_points points;
    points.wanted = [&](std::string_view name) {
        return name >= first && name <= last && catalog.names.contains(std::string(name));
    };
    if (metric_points_read(tsidx, query, &points) != 0) {
        throw failure_t{OUTCOME_IO, directory + ": " + index_failure_text(tsidx)};
    }
    sort_by_series(&points);
    uint32_t at_hand = UINT32_MAX;
    std::string name;
    for (const metric_point& point : points.points) {
        const std::string& text = *points.series.texts[point.series];
        const std::string_view here = std::string_view(text).substr(0, text.find('\0'));
        if (std::exchange(at_hand, point.series) != point.series && here != name) {
            name = here;
            output_put(&printer->out, "# TYPE ");
            metric_text_put_name(&printer->out.bytes, name);
            output_put(&printer->out, " unknown\n");
        }
        sample_put(printer, text, point.time_ms, point.value);
        if (printer->out.closed) return;
    }
}

int dump_run(const tool_context& context, const std::string& given, const points_options& options) {
    const std::string directory = metrics_directory(context, given);
    troubles trouble;
    metric_catalog catalog = metric_catalog_read(directory, &trouble);
    if (trouble.incomplete) return trouble.status;
    if (!options.question.names.empty()) {
        std::erase_if(catalog.names,
                      [&](const auto& entry) { return !metric_name_matches(entry.first, options.question.names); });
    }
    const std::string text = "[AND]";
    st_query_spec query;
    st_query_init(&query);
    query_set_bounds(options.question.since, options.question.until, options.question.zone, &query);
    query.lispy = text.c_str();
    const std::shared_ptr<TSIDX> tsidx = metric_directory_open(directory);
    sample_output printer;
    printer.format = "openmetrics";
    output_open(&printer.out, "never");
    printer.out.zone = time_zone_of(options.question.zone);
    for (auto first = catalog.names.begin(); first != catalog.names.end() && !printer.out.closed;) {
        auto last = first;
        uint64_t sum = first->second.points;
        for (auto next = std::next(first); next != catalog.names.end(); last = next++) {
            sum += next->second.points;
            if (sum > DUMP_POINTS) break;
        }
        dump_names(directory, tsidx.get(), query, catalog, first->first, last->first, &printer);
        first = std::next(last);
    }
    output_put(&printer.out, "# EOF\n");
    output_flush(&printer.out);
    return OUTCOME_DONE;
}

}  // namespace

void add_metrics_query_command(const command& metrics, const std::string* directory) {
    static points_options options;
    const command query = metrics.subcommand("query", "Print the samples of metrics, or statistics of them");
    query.footer("In names and values * stands for any characters; host=* asks for samples that have the label.");
    query.text("NAME", &options.question.names, "Metrics").required();
    query.text("-w,--where", &options.question.where, "LABEL=VALUE or LABEL!=VALUE; all must hold").one_each();
    add_bounds_options(query, "", &options.question.since, &options.question.until, &options.question.zone);
    query.number("-n,--limit", &options.limit, 1, UINT64_MAX, "At most this many samples, the newest ones");
    query.flag("-r,--reverse", &options.oldest_first, "Print the oldest of them first");
    query.text("--format", &options.format, "text, csv, jsonl or openmetrics; of statistics table, tsv, csv or jsonl")
        .one_of({"text", "csv", "jsonl", "openmetrics", "table", "tsv"})
        .with_default();
    add_metrics_stats_options(query, &options.stats);
    add_spread_options(query, &options.spread);
    add_budget_options(query, &options.spread);
    query.run([directory](const tool_context& context) { return query_run(context, *directory, options); });
}

void add_metrics_dump_command(const command& metrics, const std::string* directory) {
    static points_options options;
    const command dump = metrics.subcommand("dump", "Print all samples as OpenMetrics, which 'metrics load' reads");
    dump.text("NAME", &options.question.names, "Only these metrics; * stands for any characters");
    add_bounds_options(dump, "", &options.question.since, &options.question.until, &options.question.zone);
    dump.run([directory](const tool_context& context) { return dump_run(context, *directory, options); });
}

}  // namespace veldar::tool
