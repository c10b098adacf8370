// Snapshots of a directory, for tsidx*.cc only.
#pragma once

#include <cerrno>
#include <cstdint>
#include <limits>
#include <new>
#include <string>
#include <vector>

#include "searchthing/directory/tsidx_handle.h"
#include "searchthing/reading/tsidx_snapshot.h"
#include "searchthing/search/parsed_query.h"

namespace veldar {

inline constexpr st_time_t TSIDX_FIRST_TIME = std::numeric_limits<st_time_t>::min();
inline constexpr st_time_t TSIDX_LAST_TIME = std::numeric_limits<st_time_t>::max();

// The result of a step that found a listed slice gone; no status and no count.
inline constexpr int64_t TSIDX_VANISHED = std::numeric_limits<int64_t>::min();

// The live slices of one moment and those of them that are open.
class tsidx_snapshot {
  public:
    explicit tsidx_snapshot(TSIDX* tsidx) : tsidx_(tsidx) {}
    ~tsidx_snapshot() { close_all(); }
    tsidx_snapshot(const tsidx_snapshot&) = delete;
    tsidx_snapshot& operator=(const tsidx_snapshot&) = delete;

    // Lists the directory: 0 or a failure, recorded in the directory's handle. May throw std::bad_alloc, as may open.
    int take();

    size_t size() const { return slices_.size(); }
    const tsidx_slice_name_t& slice(size_t i) const { return slices_[i]; }
    std::string path(size_t i) const { return tsidx_->path + "/" + slices_[i].name; }
    bool overlaps(size_t i, st_time_t earliest, st_time_t latest) const {
        return slices_[i].meta.latest >= earliest && slices_[i].meta.earliest <= latest;
    }

    // Opens a slice that is not open in this snapshot; it stays open until `close` or the snapshot's end. 0,
    // TSIDX_VANISHED, or a failure, recorded and logged.
    int64_t open(size_t i);
    // The same without a record or a log line of the failure, whose reason is in `rc`.
    int64_t try_open(size_t i, warm_rc_t* rc);
    WARM* warm(size_t i) const { return warms_[i]; }
    void close(size_t i);
    void close_all();

    // Records and logs the failure of reading a slice; returns its code.
    int fail(size_t i, const warm_rc_t& rc) const;

  private:
    TSIDX* tsidx_;
    tsidx_listing_t slices_;
    std::vector<WARM*> warms_;  // by slice; null while not open here
};

// What comes before every read: own events become a slice. 0 or TSIDX_SYNC_FAILED.
int tsidx_begin_read(TSIDX* tsidx);
// Waits for whoever is changing the directory: 1 ms at the first try, twice as long at every further one, up to 100 ms.
void tsidx_pause(int tries);
int tsidx_fail_no_memory(TSIDX* tsidx);
int tsidx_fail_vanishing(TSIDX* tsidx);

// Runs `work(snapshot)` over new snapshots until one of them holds: its result (not TSIDX_VANISHED), or a failure,
// recorded. The work begins afresh every time.
template <typename Work>
int64_t tsidx_over_snapshot(TSIDX* tsidx, Work work) {
    constexpr int MAX_SNAPSHOTS = 16;
    try {
        ST_TRY(tsidx_begin_read(tsidx));
        for (int i = 0; i < MAX_SNAPSHOTS; i++) {
            tsidx_snapshot snapshot(tsidx);
            ST_TRY(snapshot.take());
            const int64_t result = work(snapshot);
            if (result != TSIDX_VANISHED) return result;
            tsidx_pause(i);
        }
    } catch (const std::bad_alloc&) {
        return tsidx_fail_no_memory(tsidx);
    }
    return tsidx_fail_vanishing(tsidx);
}

// Runs `step(i)` over the open slices that overlap the bounds, newest first, one open at a time, until a step returns
// something else than 0; that is the result. A failure of the step has been recorded by it.
template <typename Step>
int64_t tsidx_each_slice(tsidx_snapshot& snapshot, st_time_t earliest, st_time_t latest, Step step) {
    for (size_t i = 0; i < snapshot.size(); i++) {
        if (!snapshot.overlaps(i, earliest, latest)) continue;
        if (const int64_t opened = snapshot.open(i); opened != 0) return opened;
        if (const int64_t result = step(i); result != 0) return result;
        snapshot.close(i);
    }
    return 0;
}

// What the operations that take a query or look for times share (tsidx_query.cc).

// Reads the query, with the bounds that it has. A text that is no query is refused whatever the directory holds: 0 or
// its status, recorded.
int tsidx_parse_query(TSIDX* tsidx, const st_query_spec* query, parsed_query_t* parsed);
bool tsidx_is_empty_range(const st_query_spec& query);
// The first value of a slice, from `low` on, that is not later than `time`; the number of values when all are.
int tsidx_first_not_later(WARM* warm, uint32_t low, st_time_t time, uint32_t* first, warm_rc_t* rc);

// Opens every slice that overlaps the bounds, for walks that cannot begin again once the caller has seen a part.
int64_t tsidx_open_all(tsidx_snapshot& snapshot, st_time_t earliest, st_time_t latest);

// Hands every event that `walk(warm, query, call, &rc)` finds to the caller's function, slice by slice from the newest
// on; the walk goes on while `call(event)` is true. The total of the function's results, -1 when that stopped the walk,
// or a failure, recorded.
template <typename Event, typename Walk>
int64_t tsidx_apply_matches(TSIDX* tsidx, const st_query_spec* query, int (*fn)(const Event*, void*), void* context,
                            Walk walk) {
    parsed_query_t parsed;
    ST_TRY(tsidx_parse_query(tsidx, query, &parsed));
    const st_query_spec& bounded = parsed.spec;
    if (tsidx_is_empty_range(bounded)) return 0;
    return tsidx_over_snapshot(tsidx, [&](tsidx_snapshot& snapshot) -> int64_t {
        const int64_t opened = tsidx_open_all(snapshot, bounded.earliest.time_s, bounded.latest.time_s);
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
            warm_rc_t rc;
            if (walk(snapshot.warm(i), parsed, call, &rc) != 0) return snapshot.fail(i, rc);
            snapshot.close(i);
        }
        return stopped ? -1 : total;
    });
}

}  // namespace veldar
