#include "tools/libveldar/load/stats_ask.h"

#include <algorithm>
#include <set>

#include "tools/libveldar/load/stats_events.h"
#include "tools/libveldar/query/event_count.h"
#include "tools/libveldar/query/query_hints.h"

namespace veldar::tool {

namespace {

// Values with a unit are no numbers, but those of the field beside theirs are, and count.
void count_refused(const stats_request& request, const select_table_t& table, select_report_t* report) {
    std::set<size_t> projections;
    for (const stats_column& column : request.columns) projections.insert(column.unit_projection);
    projections.erase(NO_PROJECTION);
    const size_t width = request.spec.projections.size();
    for (size_t row = 0; row < table.rows.size(); row++) {
        for (const size_t projection : projections) {
            report->refused -= std::min(report->refused, table.cells[row * width + projection].numbers);
        }
    }
}

std::vector<std::string> numeric_fields(const stats_request& request) {
    std::vector<std::string> fields;
    for (const stats_column& column : request.columns) {
        if (column.unit_projection != NO_PROJECTION)
            fields.push_back(request.spec.projections[column.projection].field);
    }
    return fields;
}

}  // namespace

void stats_ask(const slice_set& slices, const prepared_query& query, const stats_question& question,
               stats_result* result, troubles* trouble) {
    stats_request& request = result->request = stats_request_parse(question.by, question.aggregates);
    result->by_records = !query_needs_index_only(query);
    result->grid = stats_grid_make(question.bins, slices, query, &request.spec);
    if (result->by_records) {
        stats_select_events(slices, query, result->grid, request.spec, question.keeps_missing, &result->table,
                            &result->report, trouble);
    } else {
        st_query_spec spec = query_of_plan(query, query.plans.front());
        spec.opt_b = question.keeps_missing ? SELECT_KEEPS_MISSING : 0;
        stats_select(slices, spec, result->grid, request.spec, &result->table, &result->report, trouble);
    }
    count_refused(request, result->table, &result->report);
    if (result->report.refused > 0) result->no_number = no_number_example(slices.path, numeric_fields(request));
}

}  // namespace veldar::tool
