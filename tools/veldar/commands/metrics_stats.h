// veldar metrics query --every, --agg, --by, --rate: statistics instead of the samples.
#pragma once

#include <string>

#include "tools/libveldar/query/metric_ask.h"
#include "tools/veldar/commands/stats.h"

namespace veldar::tool {

struct metrics_stats_options {
    std::string by, aggregates, fill = "none";
    bool keeps_missing = false, rate = false;
    stats_view view;  // its format is that of the command
    bool are_wanted() const;
};
void add_metrics_stats_options(const command& to, metrics_stats_options* options);
// What is asked for, with bins of the zone.
metric_stats_question metrics_stats_question(const metrics_stats_options& options, const std::string& zone);
// "none", "zero" or "last".
stats_fill stats_fill_of(const std::string& name);

int metrics_stats_run(const std::string& directory, const metric_question& question,
                      const metrics_stats_options& options);

}  // namespace veldar::tool
