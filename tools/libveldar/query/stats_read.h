// Statistics from the index alone: the bins that slices and bounds call for, and the selection over them.
#pragma once

#include <string>

#include "searchthing/reading/tsidx_select.h"
#include "tools/libveldar/query/query_input.h"
#include "tools/libveldar/query/stats_input.h"
#include "tools/libveldar/query/time_bins.h"
#include "tools/libveldar/store/slices.h"
#include "tools/libveldar/store/troubles.h"

namespace veldar::tool {

// The bins of an answer. Without --every one, which has no time.
struct stats_grid {
    bool has_bins = false;
    log_zone zone;
    std::string every;   // as it was asked for, or what auto chose
    select_bins_t bins;  // where the engine cuts
    st_timeval_t span;   // for st_query_spec::opt_span, beside the offset and the starts
};

struct stats_grid_request {
    std::string every;     // empty: no bins
    std::string zone;      // see time_zone_of
    uint64_t wanted = 80;  // bins, of auto
};

// What is wrong with a text for --every; empty for nothing.
std::string every_fault(const std::string& every);

// Decides the bins and writes them where the selection finds them; auto takes the times of the events that the index finds. Throws
// failure_t.
stats_grid stats_grid_make(const stats_grid_request& request, const slice_set& slices, const prepared_query& query,
                           select_spec_t* spec);

// The same for an answer whose rows begin from the one to the other time inclusive, in seconds; `every` is no auto.
stats_grid stats_grid_over(const stats_grid_request& request, int64_t earliest_s, int64_t latest_s,
                           select_spec_t* spec);

// Asks the engine. What cannot be read is told to `trouble`. Throws failure_t.
void stats_select(const slice_set& slices, const st_query_spec& query, const stats_grid& grid,
                  const select_spec_t& spec, select_table_t* table, select_report_t* report, troubles* trouble);
// Throws failure_t for a failure of a selection over bins.
[[noreturn]] void stats_fail(const slice_set& slices, const stats_grid& grid, const warm_rc_t& rc);

}  // namespace veldar::tool
