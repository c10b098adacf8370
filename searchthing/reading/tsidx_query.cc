// Events of a directory: the newest answers over all slices, counts, walks.
#include <algorithm>
#include <array>
#include <climits>
#include <vector>

#include "libzero/assertions.h"
#include "searchthing/reading/cursors.h"
#include "searchthing/reading/tsidx_query_walk.h"
#include "searchthing/reading/tsidx_read.h"
#include "searchthing/search/slice_events.h"
#include "searchthing/search/warmslice_search.h"
#include "searchthing/slice/warmslice_values.h"

namespace veldar {

namespace {

constexpr char ALL_EVENTS[] = "[AND]";
constexpr uint64_t LAST_NANOSECOND = 999999999;

// Writes the newest events that the cursor of these options gives. Their number, or a failure, recorded.
int newest_events(TSIDX* tsidx, event_cursor_options_t options, const st_query_spec& query, st_tsval* answers,
                  uint32_t capacity) {
    ST_ASSERT(answers != nullptr || capacity == 0);
    capacity = std::min<uint32_t>(capacity, INT_MAX);
    if (capacity == 0 || tsidx_is_empty_range(query)) return 0;
    std::array<event_t, 128> events;
    uint32_t held = 0;
    warm_rc_t rc;
    int found = 0;
    try {
        options.sources = {{.tsidx = tsidx, .path = {}}};
        options.queries = {query};
        options.limit = capacity;
        const event_cursor_ptr cursor = event_cursor_open(options, &rc);
        if (cursor == nullptr) found = rc.warm_rc;
        do {
            const auto wanted = std::min<size_t>(events.size(), capacity - held);
            if (cursor != nullptr) found = event_cursor_next(cursor.get(), std::span(events).first(wanted), &rc);
            for (int i = 0; i < found; i++) answers[held++] = events[static_cast<size_t>(i)].value;
        } while (found > 0 && held < capacity);
    } catch (const std::bad_alloc&) {
        return tsidx_fail_no_memory(tsidx);
    }
    ST_ASSERT(held <= capacity);
    if (found >= 0) return static_cast<int>(held);
    return found == TSIDX_SYNC_FAILED ? found : _cpy_rc(&tsidx->last_failure, &rc);
}

int count_parsed(tsidx_snapshot* snapshot, const parsed_query_t& parsed, bool needs_terms, uint64_t* count,
                 warm_rc_t* rc) {
    const st_query_spec& bounded = parsed.spec;
    if (tsidx_is_empty_range(bounded)) return 0;
    uint64_t total = 0;
    const auto add_slice = [&](size_t i, warm_rc_t* why) {
        uint64_t matches = 0;
        if (needs_terms && !st_warm_slice_has_fclex(snapshot->warm(i))) {
            return _set_rc_msg(why, WARM_RC_MINIFIED, "minified slice");
        }
        ST_TRY(warm_slice_count(snapshot->warm(i), parsed, &matches, nullptr, why));
        total += matches;
        return 0;
    };
    const auto add_all = [&]() -> int64_t {
        total = 0;
        return snapshot->each(bounded.earliest.time_s, bounded.latest.time_s, add_slice, rc);
    };
    ST_TRY(static_cast<int>(snapshot->hold(add_all, rc)));
    *count = total;
    return 0;
}

st_query_spec query_of_times(st_time_t earliest, st_time_t latest) {
    st_query_spec query;
    query.earliest = {earliest, 0};
    query.latest = {latest, LAST_NANOSECOND};
    query.opt_flag = QUERY_BOUNDED;
    return query;
}

// Hands the matching events of one slice to `visit`, newest first, until it returns false. 0 or a status; may throw
// std::bad_alloc.
template <typename Visit>
int visit_matches(WARM* warm, const parsed_query_t& query, Visit visit, warm_rc_t* rc) {
    constexpr uint32_t BATCH = 1024;
    const event_walk_ptr walk = event_walk_open(warm, query, query.spec.latest, UINT64_MAX, true);
    std::vector<st_tsval> events(BATCH);
    for (uint32_t count = BATCH; count == BATCH;) {
        const int found = event_walk_next(walk.get(), events.data(), BATCH, rc);
        if (found < 0) return found;
        count = static_cast<uint32_t>(found);
        for (uint32_t i = 0; i < count; i++) {
            if (!visit(events[i])) return 0;
        }
    }
    return 0;
}

}  // namespace

bool tsidx_is_empty_range(const st_query_spec& query) {
    const st_timeval_t& a = query.earliest;
    const st_timeval_t& b = query.latest;
    return a.time_s != b.time_s ? a.time_s > b.time_s : a.time_ns > b.time_ns;
}

int tsidx_parse_query(TSIDX* tsidx, const st_query_spec* query, parsed_query_t* parsed) {
    ST_ASSERT(tsidx != nullptr && query != nullptr);
    return parse_query(query_with_bounds(*query), parsed, &tsidx->last_failure);
}

int tsidx_first_not_later(WARM* warm, uint32_t low, st_time_t time, uint32_t* first, warm_rc_t* rc) {
    uint32_t high = st_warm_slice_values(warm);
    ST_ASSERT(low <= high);
    while (low < high) {
        const uint32_t middle = low + (high - low) / 2;
        st_time_t seconds = 0;
        uint64_t subseconds = 0;
        ST_TRY(get_tsval_timestamp(warm, middle, &seconds, &subseconds, rc));
        if (seconds > time) {
            low = middle + 1;
        } else {
            high = middle;
        }
    }
    *first = low;
    return 0;
}

int st_tsidx_query(TSIDX* tsidx, const st_query_spec* query, st_tsval* answers, uint32_t capacity, int is_exact) {
    ST_ASSERT(tsidx != nullptr && query != nullptr);
    const st_query_spec bounded = query_with_bounds(*query);
    parsed_query_t parsed;
    if (capacity == 0 || tsidx_is_empty_range(bounded)) return tsidx_parse_query(tsidx, query, &parsed);
    event_cursor_options_t options;
    options.is_exact = is_exact != 0;
    return newest_events(tsidx, std::move(options), bounded, answers, capacity);
}

int st_tsidx_get(TSIDX* tsidx, const char* term, st_time_t earliest, st_time_t latest, st_tsval* answers,
                 uint32_t capacity) {
    ST_ASSERT(tsidx != nullptr);
    if (term == nullptr) return _set_rc_msg(&tsidx->last_failure, WARM_RC_INVALID_ARGUMENT, "no term");
    event_cursor_options_t options;
    options.term = term;
    return newest_events(tsidx, std::move(options), query_of_times(earliest, latest), answers, capacity);
}

int st_tsidx_all_events(TSIDX* tsidx, st_time_t earliest, st_time_t latest, st_tsval* answers, uint32_t capacity) {
    st_query_spec query;
    query.earliest = {earliest, 0};
    query.latest = {latest, LAST_NANOSECOND};
    query.lispy = ALL_EVENTS;
    return st_tsidx_query(tsidx, &query, answers, capacity, 1);
}

int st_tsidx_event_count(TSIDX* tsidx, const st_query_spec* query, uint64_t* count) {
    ST_ASSERT(tsidx != nullptr && count != nullptr);
    *count = 0;
    if (query == nullptr) {
        tsidx_meta_t meta;
        ST_TRY(st_tsidx_meta(tsidx, &meta));
        *count = meta.events - std::min(meta.deleted, meta.events);
        return 0;
    }
    try {
        tsidx_snapshot snapshot({{.tsidx = tsidx, .path = {}}}, nullptr);
        return snapshot_event_count(&snapshot, *query, count, &tsidx->last_failure);
    } catch (const std::bad_alloc&) {
        return tsidx_fail_no_memory(tsidx);
    }
}

int snapshot_event_count(tsidx_snapshot* snapshot, const st_query_spec& query, uint64_t* count, warm_rc_t* rc) {
    *count = 0;
    parsed_query_t parsed;
    ST_TRY(parse_query(query_with_bounds(query), &parsed, rc));
    return count_parsed(snapshot, parsed, false, count, rc);
}

int st_tsidx_term_count(TSIDX* tsidx, const char* term, st_time_t earliest, st_time_t latest, uint64_t* count) {
    ST_ASSERT(tsidx != nullptr && count != nullptr);
    *count = 0;
    if (term == nullptr) return _set_rc_msg(&tsidx->last_failure, WARM_RC_INVALID_ARGUMENT, "no term");
    try {
        tsidx_snapshot snapshot({{.tsidx = tsidx, .path = {}}}, nullptr);
        const parsed_query_t parsed = query_for_term(query_of_times(earliest, latest), term);
        return count_parsed(&snapshot, parsed, true, count, &tsidx->last_failure);
    } catch (const std::bad_alloc&) {
        return tsidx_fail_no_memory(tsidx);
    }
}

int64_t st_tsidx_apply_events(TSIDX* tsidx, const st_query_spec* query, tsidx_event_fn fn, void* context) {
    return tsidx_apply_matches(tsidx, query, fn, context,
                               [](WARM* warm, const parsed_query_t& parsed, const auto& call, warm_rc_t* rc) {
                                   return visit_matches(warm, parsed, call, rc);
                               });
}

}  // namespace veldar
