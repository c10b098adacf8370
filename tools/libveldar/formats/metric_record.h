// Samples of metrics as the parsers hand them over, and the spelling of values, times and dimension terms.
//
// A label "job" with the value "web" is the dimension term " job::web"; the blank is part of it. Values stand as they
// are. Label names end at the first "::", so '%' and ':' in them are percent-encoded, and so is the first byte of
// "metric_name", "_catalog" and "_dims", which mean something else to the index. The metric "up" is the term
// " metric_name::up". Terms have no NUL byte and at most 2047 bytes.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "searchthing/base/st_timeval.h"
#include "searchthing/format/metric_terms.h"

namespace veldar::tool {

struct metric_label {
    std::string_view name, value;
};
struct metric_measure {
    std::string_view name;
    double value = 0;
};

// What was measured at one time of one set of labels. The texts lie in the line that was parsed.
struct metric_record {
    bool has_time = false;
    st_timeval_t time;                     // whole milliseconds
    std::vector<metric_label> labels;      // ascending by name, each name once, no empty value
    std::vector<metric_measure> measures;  // in the order of the line
};

// Units of times that are written as a number. GUESS tells by the size: integers from 1e11 on are milliseconds, from
// 1e14 on microseconds, from 1e17 on nanoseconds, anything else is seconds.
enum class metric_time_unit { guess, seconds, milliseconds };

// The parsers of a text return null or what is wrong with it, as a literal.

// A time as a decimal number; what is finer than a millisecond is cut off.
const char* metric_time_parse(std::string_view text, metric_time_unit unit, st_timeval_t* time);
// A double: decimal or with an exponent, NaN, Inf, +Inf, -Inf (in any case).
const char* metric_value_parse(std::string_view text, double* value);
// Sorts the labels and drops those without a value.
const char* metric_labels_settle(std::vector<metric_label>* labels);

// Appends the shortest text that gives the very double back; NaN, +Inf, -Inf.
void metric_value_put(std::string* out, double value);
// Appends seconds with up to three decimals: "1398865440.25".
void metric_time_put(std::string* out, st_time_t seconds, uint32_t nanoseconds);

// Appends the dimension term of a label, blank first.
void metric_term_put(std::string* out, std::string_view label, std::string_view value);
// Takes a dimension term apart, without its blank. A term without "::" is a label whose value is empty.
void metric_term_split(std::string_view term, std::string* label, std::string_view* value);

}  // namespace veldar::tool
