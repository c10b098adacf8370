// OpenMetrics and the Prometheus text format, a line at a time.
//
//   name{label="value",other="value"} 12.5 1398865440.25 # {trace_id="x"} 1
//   {"any name","any label"="value"} NaN
//
// Taken together: a sample has a name before or inside the braces (or in the label __name__), a value, perhaps a time,
// and perhaps an exemplar, which is passed over like every other line that begins with '#'. Blanks may stand between
// the parts. Unquoted names are letters, digits, '_', ':', '.' and '-'. In quotes \n, \" and \\ stand for a newline,
// a quote and a backslash; other backslashes stand for themselves.
#pragma once

#include <span>

#include "tools/libveldar/formats/metric_record.h"

namespace veldar::tool {

// Reads one line without its newline, which it changes. The record has one measure, or none for a line without a
// sample. Returns null or what is wrong with the line.
const char* metric_text_parse(std::span<char> line, metric_time_unit unit, metric_record* record);

// Appends a sample as a line with its newline.
void metric_text_put(std::string* out, std::string_view name, std::span<const metric_label> labels, double value,
                     st_time_t seconds, uint32_t nanoseconds);
// Appends the name and the labels: name{label="value"}.
void metric_text_put_series(std::string* out, std::string_view name, std::span<const metric_label> labels);
// Appends the name, quoted where it has to be, as "# TYPE" lines have it.
void metric_text_put_name(std::string* out, std::string_view name);

}  // namespace veldar::tool
