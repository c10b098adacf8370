// What the operations that take a query or look for times share.
#pragma once

#include <cstdint>

#include "searchthing/reading/tsidx_snapshot_walk.h"
#include "searchthing/search/parsed_query.h"

namespace veldar {

// Reads the query, with the bounds that it has. A text that is no query is refused whatever the directory holds: 0 or
// its status, recorded.
[[nodiscard]] int tsidx_parse_query(TSIDX* tsidx, const st_query_spec* query, parsed_query_t* parsed);
bool tsidx_is_empty_range(const st_query_spec& query);
// The first value of a slice, from `low` on, that is not later than `time`; the number of values when all are.
[[nodiscard]] int tsidx_first_not_later(WARM* warm, uint32_t low, st_time_t time, uint32_t* first, warm_rc_t* rc);

// Hands every event that `walk(warm, query, call, &rc)` finds to the caller's function, slice by slice from the newest
// on; the walk goes on while `call(event)` is true. The total of the function's results, -1 when that stopped the walk,
// or a failure, recorded.
template <typename Event, typename Walk>
[[nodiscard]] int64_t tsidx_apply_matches(TSIDX* tsidx, const st_query_spec* query, int (*fn)(const Event*, void*),
                                          void* context, Walk walk) {
    parsed_query_t parsed;
    ST_TRY(tsidx_parse_query(tsidx, query, &parsed));
    const st_query_spec& bounded = parsed.spec;
    if (tsidx_is_empty_range(bounded)) return 0;
    return tsidx_over_snapshot(tsidx, [&](tsidx_snapshot& snapshot) -> int64_t {
        warm_rc_t* const rc = &tsidx->last_failure;
        const int64_t opened = snapshot.open_all(bounded.earliest.time_s, bounded.latest.time_s, rc);
        if (opened != 0) return opened;
        int64_t total = 0;
        bool stopped = false;
        const auto call = [&](const Event& event) {
            const int result = fn(&event, context);
            stopped = result == -1;
            if (!stopped) total += result;
            return !stopped;
        };
        for (size_t i = 0; i < snapshot.size() && !stopped; i++) {
            if (snapshot.warm(i) == nullptr) continue;
            warm_rc_t why;
            if (walk(snapshot.warm(i), parsed, call, &why) != 0) return snapshot.fail(i, why, rc);
            snapshot.close(i);
        }
        return stopped ? -1 : total;
    });
}

}  // namespace veldar
