// The events of a metric slice with what they say: dimensions and measures.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string_view>

#include "searchthing/search/parsed_query.h"
#include "searchthing/slice/warmslice.h"

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
// Receives an event; false ends the walk.
using metric_event_visitor = std::function<bool(const st_metric_event_t&)>;

// Hands out the events that match exactly, newest first. 0; -17 for a slice without runs and column store, -44 for a
// minified one, -12 for damage, or a status of the search. Throws std::bad_alloc.
[[nodiscard]] int warm_slice_metric_events(WARM* warm, const parsed_query_t& query, const metric_event_visitor& visit,
                                           warm_rc_t* rc);

// Bytes of measures, those of the column store; none in a slice without. 0, or the failure to open it.
[[nodiscard]] int warm_slice_measure_size(WARM* warm, uint64_t* bytes, warm_rc_t* rc);

}  // namespace veldar
