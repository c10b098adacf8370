// Statistics of a query that the index alone cannot answer: the events are gone through one by one, and each is counted
// by the terms of its raw record.
#pragma once

#include "tools/libveldar/query/event_source.h"
#include "tools/libveldar/query/stats_read.h"

namespace veldar::tool {

// Fills a finished table, the same as stats_select of a query that finds these events. Events whose record cannot be
// read are left out and told. Throws failure_t.
void stats_select_events(const slice_set& slices, const prepared_query& query, const stats_grid& grid,
                         const select_spec_t& spec, bool keeps_missing, select_table_t* table, select_report_t* report,
                         troubles* trouble);

}  // namespace veldar::tool
