// Samples read from a metric directory, gathered by series.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "searchthing/directory/tsidx.h"
#include "searchthing/search/query.h"
#include "tools/libveldar/formats/metric_record.h"
#include "tools/libveldar/formats/text_table.h"
#include "tools/libveldar/store/slices.h"

namespace veldar::tool {

struct metric_point {
    int64_t time_ms = 0;
    double value = 0;
    uint32_t series = 0;  // number of its text
};

struct metric_points {
    std::function<bool(std::string_view)> wanted;  // by name; null takes all
    uint64_t limit = 0;                            // only as many, the newest; 0 takes all
    text_table series;                             // the name and the dimension terms, a NUL behind each
    std::vector<metric_point> points;
};

// Takes the samples of the events that the query finds. 0 or a status of st_tsidx_apply_metric_events; may throw
// std::bad_alloc.
int metric_points_read(TSIDX* tsidx, const st_query_spec& query, metric_points* points);

// A series taken apart; its texts are the table's and this record's.
struct metric_series {
    std::string_view name;
    std::vector<std::string> label_names;
    std::vector<metric_label> labels;
};
void metric_series_split(std::string_view text, metric_series* series);

// Opens a metric directory for reading. Throws failure_t when there is none.
std::shared_ptr<TSIDX> metric_directory_open(const std::string& directory);
// Whether the text is the pattern, in which `*` stands for any characters.
bool metric_name_matches(std::string_view text, std::string_view pattern);
bool metric_name_matches(std::string_view text, const std::vector<std::string>& patterns);  // one of them

}  // namespace veldar::tool
