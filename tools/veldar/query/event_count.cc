#include "tools/veldar/query/event_count.h"

#include "searchthing/search/warmslice_search.h"
#include "tools/veldar/query/event_source.h"
#include "tools/veldar/store/slices.h"
#include "tools/veldar/store/tool_failure.h"

namespace veldar::tool {

namespace {

// Adds up what the slices count; false when one of them vanished meanwhile.
bool count_slices(const slice_set& slices, const prepared_query& query, troubles* trouble, uint64_t* total) {
    *total = 0;
    for (const slice_file& file : slices.files) {
        if (!slice_meets_bounds(file, query.bounds)) continue;
        warm_ptr warm;
        std::string error;
        const slice_state_t state = slice_open(file, &warm, &error);
        if (state == SLICE_VANISHED) return false;
        if (state == SLICE_UNREADABLE) {
            troubles_add(trouble, error);
            continue;
        }
        const st_query_spec spec = query_of_plan(query, query.plans.front());
        uint64_t found = 0;
        warm_rc_t rc;
        const int status = warm_slice_count(warm.get(), &spec, &found, nullptr, &rc);
        if (status == WARM_RC_NO_MEMORY) throw tool_failure{EXIT_IO, "out of memory"};
        if (status != 0) troubles_add(trouble, slice_error(file, rc));
        *total += found;
    }
    return true;
}

// The index alone can count a query of one plan; each slice holds other events.
uint64_t count_by_slices(const std::string& path, const prepared_query& query, troubles* trouble) {
    uint64_t total = 0;
    slices_visit(path, trouble, [&](const slice_set& slices) { return count_slices(slices, query, trouble, &total); });
    return total;
}

// Plans overlap, and raw records have to be read: the events are gone through one by one.
uint64_t count_by_events(const std::string& path, const prepared_query& query, troubles* trouble) {
    const slice_set slices = slices_list(path);
    event_source source;
    event_source_open(&source, &slices, trouble);
    const event_cursor_ptr events = events_open(query, 0, &source);
    uint64_t total = 0;
    event_t event;
    while (events_next(events.get(), &event)) total++;
    return total;
}

}  // namespace

bool query_needs_index_only(const prepared_query& query) {
    return query.plans.size() == 1 && !query.needs_raw() && !query.cuts_a_second();
}

uint64_t count_events(const std::string& path, const prepared_query& query, troubles* trouble) {
    return (query_needs_index_only(query) ? count_by_slices : count_by_events)(path, query, trouble);
}

}  // namespace veldar::tool
