// Metrics in CSV (RFC 4180): a header line that names the columns, then one time with one or several values a record.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "tools/libveldar/formats/log_time.h"
#include "tools/libveldar/formats/metric_record.h"

namespace veldar::tool {

struct metric_csv_options {
    char separator = ',';
    std::string time;                 // column; empty: one with a usual name
    std::string time_input = "time";  // what messages call that option
    std::vector<std::string> values;  // columns; empty: "value"
    std::vector<std::string> dims;    // columns that become labels of their names
    // Of the one value column: the metric, else its column's name. Of several columns: what stands before theirs, with
    // a '_' between.
    std::string name;
    log_zone zone;  // of times without one
};

struct metric_csv {
    metric_csv_options options;
    size_t columns = 0, time = 0;
    std::vector<size_t> values, dims;
    std::vector<std::string> names;  // of the metrics, by value column
    std::vector<std::string_view> fields;
};

// Takes the header line. `file_name` names the metric when nothing but a column "value" does. False with a message that
// names the columns there are.
bool metric_csv_open(metric_csv* csv, std::span<char> header, const std::string& file_name, std::string* error);
// Whether a quote is open at the end of the text, so that the record goes on in the next line.
bool metric_csv_goes_on(std::string_view record);
// Reads one record without its last newline, which it changes. An empty field is no measure and no label; an empty line
// is no record. Returns null or what is wrong; the measures beside a wrong one are in the record all the same.
const char* metric_csv_parse(metric_csv* csv, std::span<char> line, metric_record* record);

}  // namespace veldar::tool
