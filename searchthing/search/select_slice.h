// A selection over one slice: its rows are added to a table.
//
// Slices of events: values lie newest first, so a bin is one stretch of value numbers, and the posting lists of a field
// say which values lie in which group. Which way is taken is chosen by what the metadata say: counts from metadata
// where a list counts as a whole; lists intersected with the match as bitmaps and counted by words; probed where the
// match is small; or, for several fields, decoded into one ordinal a value, 2^20 values at a time.
//
// Slices of metrics: the runs that the query selects, cut to the time bounds and at the bins; blocks of measures that
// lie in one bin as a whole are known from their headers.
#pragma once

#include <cstdint>

#include "searchthing/base/warm_rc.h"
#include "searchthing/search/parsed_query.h"
#include "searchthing/search/select_spec.h"
#include "searchthing/search/select_table.h"

namespace veldar {

struct st_warm_slice;
using WARM = st_warm_slice;

// Adds the slice's rows. 0; WARM_RC_MINIFIED "warm slice select" for a minified slice; WARM_RC_UNSUPPORTED for metric
// slices without columns or runs, WARM_RC_LEGACY_PROJECTION for projections over them that are not grouped by
// "metric_name"; WARM_RC_NO_MEMORY "select cells" beyond the table's limits; WARM_RC_CAPACITY for a group field with
// more texts than allowed; or the failure of a read. After a failure the table is worth nothing. Projections that want
// numbers count in the query's accounting record what is none (st_query_info_s::refused).
[[nodiscard]] int warm_slice_select(WARM* warm, const parsed_query_t& query, const select_spec_t& spec,
                                    const select_bins_t& bins, select_table_t* table, select_report_t* report,
                                    warm_rc_t* rc);

}  // namespace veldar
