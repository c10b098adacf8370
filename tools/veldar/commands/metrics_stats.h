// veldar metrics query --every, --agg, --by, --rate: statistics instead of the samples.
#pragma once

#include <string>
#include <vector>

#include "tools/libveldar/query/query_input.h"
#include "tools/veldar/commands/stats.h"

namespace veldar::tool {

struct metrics_stats_options {
    std::string by, aggregates, fill = "none";
    bool keeps_missing = false, rate = false;
    stats_view view;  // its format is that of the command
    bool are_wanted() const;
};
void add_metrics_stats_options(const command& to, metrics_stats_options* options);

// Statistics of the metrics that the patterns name, in the samples that the query, of one plan, finds.
int metrics_stats_run(const std::string& directory, const prepared_query& query,
                      const std::vector<std::string>& patterns, const std::string& zone,
                      const metrics_stats_options& options);

}  // namespace veldar::tool
