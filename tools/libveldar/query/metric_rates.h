// Rates of counters: by how much a series grew in a second, for each bin and series.
//
// A counter only grows. When a sample is smaller than the one before it, the counter began again at 0 meanwhile, and
// has grown by the whole sample since: so says Prometheus of rate() and increase() (Prometheus documentation, Query
// functions; promql/functions.go, extrapolatedRate). Unlike there nothing is extrapolated: the growth between two
// samples counts for the bin of the later one, and a bin's rate is its growth divided by the time from the first earlier
// to the last later sample. So no growth is lost between bins, and a bin is as exact as its samples.
#pragma once

#include "searchthing/search/select_spec.h"
#include "searchthing/search/select_table.h"
#include "tools/libveldar/query/metric_points.h"
#include "tools/libveldar/query/stats_input.h"

namespace veldar::tool {

// Fills a finished table with one value for each bin of a series that has a rate: a row's count is that of its series.
// NaN is no sample; of several samples at one time the greatest counts. `points` are put in order. 0 or a status of
// select_group, select_row and select_grow; may throw std::bad_alloc.
[[nodiscard]] int metric_rates_select(metric_points* points, const stats_request& request, const select_bins_t& bins,
                                      bool keeps_missing, select_table_t* table, warm_rc_t* rc);

}  // namespace veldar::tool
