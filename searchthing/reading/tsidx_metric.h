// Reading the events of a metric directory with what they say: dimensions and measures.
//
// The rules of tsidx_read.h hold: snapshots, failures, inclusive time bounds, results of callbacks. The same event in
// two slices is two events.
#pragma once

#include <cstdint>

#include "searchthing/directory/tsidx.h"
#include "searchthing/search/query.h"
#include "searchthing/search/st_metric_event.h"

namespace veldar {

using tsidx_metric_event_fn = int (*)(const st_metric_event_t* event, void* context);

// Hands out every event that matches exactly (null query: all), slice by slice from the newest on, newest first in a
// slice. The total of the results, -1, WARM_RC_UNSUPPORTED for a slice without runs and column store (events, and
// metrics of older generations), WARM_RC_CORRUPT for damage, or a status as st_tsidx_query's. Dimensions are looked up
// once a set, and measures are read in stretches: memory is about 150 bytes a matching set, and 32 MiB.
[[nodiscard]] int64_t st_tsidx_apply_metric_events(TSIDX* tsidx, const st_query_spec* query, tsidx_metric_event_fn fn,
                                                   void* context);

// Bytes of measures: the sum of the slices' column stores. 0 or a status.
[[nodiscard]] int st_tsidx_measure_size(TSIDX* tsidx, uint64_t* bytes);

}  // namespace veldar
