// Statistics of events: from the index alone where it knows all that is asked, else from the events one by one.
#pragma once

#include <string>

#include "tools/libveldar/query/stats_input.h"
#include "tools/libveldar/query/stats_read.h"

namespace veldar::tool {

struct stats_question {
    std::string by, aggregates;  // as people write them (stats_request_parse)
    bool keeps_missing = false;  // events that lack a field of `by`, under no value
    stats_grid_request bins;
};

struct stats_result {
    stats_request request;
    stats_grid grid;
    select_table_t table;    // finished
    select_report_t report;  // what was read for it
    bool by_records = false;
    std::string no_number;  // such a value that an aggregate left out, and its field; empty when none did
};

// What cannot be read is told to `trouble`. Throws failure_t.
void stats_ask(const slice_set& slices, const prepared_query& query, const stats_question& question,
               stats_result* result, troubles* trouble);

}  // namespace veldar::tool
