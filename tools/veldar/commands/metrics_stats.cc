#include "tools/veldar/commands/metrics_stats.h"

#include "tools/libveldar/query/metric_rates.h"
#include "tools/libveldar/store/index_handle.h"

namespace veldar::tool {

namespace {

// The rates of the metrics, from the samples themselves.
void select_rates(const slice_set& slices, const prepared_query& query, const std::vector<std::string>& patterns,
                  const stats_request& request, const stats_grid& grid, bool keeps_missing, select_table_t* table) {
    TSIDX* const tsidx = slices.directories.empty() ? nullptr : slices.directories[0].tsidx.get();
    if (tsidx == nullptr) throw failure_t{OUTCOME_USAGE, slices.path + " is not a directory of metrics"};
    metric_points points;
    points.wanted = [&](std::string_view name) { return metric_name_matches(name, patterns); };
    if (metric_points_read(tsidx, query_of_plan(query, query.plans.front()), &points) != 0) {
        throw failure_t{OUTCOME_IO, slices.path + ": " + index_failure_text(tsidx)};
    }
    warm_rc_t rc;
    if (metric_rates_select(&points, request, grid.bins, keeps_missing, table, &rc) != 0) stats_fail(slices, grid, rc);
}

stats_fill fill_of(const std::string& name) {
    return name == "zero" ? stats_fill::zero : name == "last" ? stats_fill::last : stats_fill::none;
}

}  // namespace

bool metrics_stats_options::are_wanted() const {
    return !view.every.empty() || !aggregates.empty() || !by.empty() || rate || view.plot || view.shape.top != 0;
}

void add_metrics_stats_options(const command& to, metrics_stats_options* options) {
    to.text("--by", &options->by, "Statistics for each value of this label, or of several; metric_name is the name");
    to.text("--agg", &options->aggregates, "Which statistics: avg,max,min,sum,count,p95,median,dc,values (avg)");
    to.flag("--missing", &options->keeps_missing, "Keep series that lack a label of --by, under no value");
    to.flag("--rate", &options->rate, "Of counters: the growth in a second of each series, resets recognised");
    to.text("--fill", &options->fill,
            "Bins without samples: none leaves them out, zero and last give 0 or the bin before")
        .one_of({"none", "zero", "last"});
    add_stats_view_options(to, &options->view);
}

int metrics_stats_run(const std::string& directory, const prepared_query& query,
                      const std::vector<std::string>& patterns, const std::string& zone,
                      const metrics_stats_options& options) {
    const std::string aggregates = options.aggregates.empty() ? "avg" : options.aggregates;
    stats_request request = stats_request_parse_metrics(options.by, aggregates, patterns);
    const slice_set slices = slices_list(directory);
    const stats_grid grid = stats_grid_make(stats_view_grid(options.view, zone), slices, query, &request.spec);
    troubles trouble;
    select_table_t table;
    select_report_t report;
    if (options.rate) {
        select_rates(slices, query, patterns, request, grid, options.keeps_missing, &table);
    } else {
        st_query_spec spec = query_of_plan(query, query.plans.front());
        spec.opt_b = options.keeps_missing ? SELECT_KEEPS_MISSING : 0;
        stats_select(slices, spec, grid, request.spec, &table, &report, &trouble);
    }
    stats_view view = options.view;
    view.shape.fill = fill_of(options.fill);
    return answer_status(stats_show(view, request, &table, grid, report), trouble);
}

}  // namespace veldar::tool
