#include "tools/libveldar/query/event_count.h"

#include "searchthing/reading/tsidx_read.h"
#include "tools/libveldar/query/event_source.h"
#include "tools/libveldar/store/slices.h"

namespace veldar::tool {

namespace {

// The index alone can count a query of one plan; each slice holds other events.
uint64_t count_by_slices(const std::string& path, const prepared_query& query, troubles* trouble) {
    const slice_set set = slices_list(path);
    slices_tell_errors(set, trouble);
    tsidx_snapshot slices(slices_sources(set), slices_hear(trouble));
    uint64_t total = 0;
    warm_rc_t rc;
    if (snapshot_event_count(&slices, query_of_plan(query, query.plans.front()), &total, &rc) != 0) {
        slice_tell(path, rc, trouble);
    }
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
