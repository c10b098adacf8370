// The record of an event of metrics with what it says.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "searchthing/base/st_timeval.h"

namespace veldar {

struct st_metric_measure_t {
    std::string_view name;  // of the metric: the term without " metric_name::"
    double value;
};

// One event; what it points to is valid for the call that hands it out. A set's views are the same for all events of
// the set in one slice.
struct st_metric_event_t {
    st_time_t time;
    uint32_t nanoseconds;  // whole milliseconds; 0 in directories that keep seconds
    uint64_t set;          // of its dimensions and metrics: equal numbers are equal sets, within one slice of the walk
    std::span<const std::string_view> dimensions;   // terms, "host::web01" for " host::web01", in their order
    std::span<const st_metric_measure_t> measures;  // ascending by name, at least one
};

}  // namespace veldar
