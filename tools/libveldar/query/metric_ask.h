// Questions to metrics: the samples of some series, and statistics of them.
#pragma once

#include <string>
#include <vector>

#include "tools/libveldar/query/metric_points.h"
#include "tools/libveldar/query/query_input.h"
#include "tools/libveldar/query/stats_input.h"
#include "tools/libveldar/query/stats_read.h"

namespace veldar::tool {

struct metric_question {
    std::vector<std::string> names;  // patterns; "*" stands for any characters
    std::vector<std::string> where;  // LABEL=VALUE or LABEL!=VALUE; all must hold
    std::string since, until, zone;  // see query_set_bounds
};

// Where the metrics of a store lie; any other path is a metric directory itself. Throws failure_t.
std::string metric_directory_of(const std::string& path);
// A query of one plan. Throws failure_t with OUTCOME_USAGE.
prepared_query metric_query_of(const metric_question& question);
// The samples, newest first or, with `oldest_first`, oldest first; with a limit other than 0 only the newest. Throws
// failure_t.
void metric_samples_read(const std::string& directory, const metric_question& question, uint64_t limit,
                         bool oldest_first, metric_points* points);
// The series in the order of their texts, which is that of their names first: by number, their places.
std::vector<uint32_t> metric_series_ranks(const metric_points& points);

struct metric_stats_question {
    std::string by, aggregates;  // stats_request_parse_metrics; no aggregates: the average
    bool keeps_missing = false;  // series that lack a label of `by`, under no value
    bool rate = false;           // of counters: the growth in a second of each series
    stats_grid_request bins;
};
struct metric_stats_result {
    stats_request request;
    stats_grid grid;
    select_table_t table;  // finished
    select_report_t report;
};
// An empty `directory` has no metrics. What cannot be read is told to `trouble`. Throws failure_t.
void metric_stats_ask(const std::string& directory, const metric_question& question,
                      const metric_stats_question& wanted, metric_stats_result* result, troubles* trouble);

}  // namespace veldar::tool
