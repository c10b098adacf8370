// Prints samples of metrics: as text, csv, jsonl or OpenMetrics.
#pragma once

#include <string>
#include <string_view>

#include "tools/libveldar/query/metric_points.h"
#include "tools/veldar/output/text_output.h"

namespace veldar::tool {

struct sample_output {
    text_output out;
    std::string format;
    std::string last;  // the series that is split: its name and its labels, a NUL behind each
    bool has_last = false;
    metric_series series;
    std::string series_text;
};

// Prints the names of columns, where the format has them.
void samples_begin(sample_output* output);
void sample_put(sample_output* output, std::string_view series, int64_t time_ms, double value);

}  // namespace veldar::tool
