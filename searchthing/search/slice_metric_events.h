// The events of a metric slice with what they say: dimensions and measures.
#pragma once

#include <cstdint>
#include <functional>
#include <string_view>

#include "searchthing/base/warm_rc.h"
#include "searchthing/search/parsed_query.h"
#include "searchthing/values/st_tsval.h"

namespace veldar {

struct st_warm_slice;
using WARM = st_warm_slice;

// Receives an event; false ends the walk.
using metric_event_visitor = std::function<bool(const st_metric_event_t&)>;

// Whether the measures of a metric are wanted, by its name.
using metric_choice = std::function<bool(std::string_view name)>;

// Hands out the events that match exactly and have a measure that is wanted, with those alone (null: all), newest first.
// Columns that nothing is wanted of are not read. 0; WARM_RC_UNSUPPORTED for a slice without runs and column store,
// WARM_RC_MINIFIED for a minified one, WARM_RC_CORRUPT for damage, or a status of the search. Throws std::bad_alloc.
[[nodiscard]] int warm_slice_metric_events(WARM* warm, const parsed_query_t& query, const metric_choice& wanted,
                                           const metric_event_visitor& visit, warm_rc_t* rc);

// Bytes of measures, those of the column store; none in a slice without. 0, or the failure to open it.
[[nodiscard]] int warm_slice_measure_size(WARM* warm, uint64_t* bytes, warm_rc_t* rc);

}  // namespace veldar
