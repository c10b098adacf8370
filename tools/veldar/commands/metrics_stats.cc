#include "tools/veldar/commands/metrics_stats.h"

namespace veldar::tool {

stats_fill stats_fill_of(const std::string& name) {
    return name == "zero" ? stats_fill::zero : name == "last" ? stats_fill::last : stats_fill::none;
}

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

metric_stats_question metrics_stats_question(const metrics_stats_options& options, const std::string& zone) {
    return {options.by, options.aggregates, options.keeps_missing, options.rate, stats_view_grid(options.view, zone)};
}

int metrics_stats_run(const std::string& directory, const metric_question& question,
                      const metrics_stats_options& options) {
    metric_stats_result result;
    troubles trouble;
    metric_stats_ask(directory, question, metrics_stats_question(options, question.zone), &result, &trouble);
    stats_view view = options.view;
    view.shape.fill = stats_fill_of(options.fill);
    return answer_status(stats_show(view, result.request, &result.table, result.grid, result.report), trouble);
}

}  // namespace veldar::tool
