// Events of a directory: the newest answers over all slices, counts, walks.
#include <algorithm>
#include <climits>
#include <vector>

#include "libzero/assertions.h"
#include "searchthing/reading/tsidx_query_walk.h"
#include "searchthing/reading/tsidx_read.h"
#include "searchthing/search/slice_events.h"
#include "searchthing/search/warmslice_search.h"
#include "searchthing/slice/warmslice_lists.h"
#include "searchthing/slice/warmslice_values.h"
#include "searchthing/values/tsval_order.h"

namespace veldar {

namespace {

constexpr char ALL_EVENTS[] = "[AND]";

bool same_event(const st_tsval& a, const st_tsval& b) {
    return a.time == b.time && a.address == b.address;
}
bool before(const st_tsval& a, const st_tsval& b) {
    return st_tsval_compare(&a, &b) < 0;
}

// Events of metrics are told apart by their dimension sets, which a value record does not hold.
bool may_repeat(const WARM* warm) {
    return !st_warm_slice_is_msidx(warm->body);
}

// The newest distinct events of several slices, in the caller's array. What slices add waits until it is a quarter of
// what is held, so that many small overlapping slices do not move a large answer for each of them.
class newest_events {
  public:
    newest_events(st_tsval* answers, uint32_t capacity) : answers_(answers), capacity_(capacity) {}

    bool full() const { return held_ == capacity_; }
    // Of the answers held; a lower bound of what the final answers reach back to once `full`.
    st_time_t oldest() const { return answers_[held_ - 1].time; }

    // Whether an event may lie in several slices from here on.
    void may_repeat(bool repeats) { repeats_ = repeats; }

    // Newest first, from a slice not newer than those before it.
    void add(const st_tsval* events, size_t count) {
        waiting_.insert(waiting_.end(), events, events + count);
        if (waiting_.size() * 4 >= held_ || held_ <= SMALL) flush();
    }

    uint32_t finish() {
        flush();
        return held_;
    }

  private:
    static constexpr uint32_t SMALL = 65536;

    // Stable everywhere, so that of equal events the one of the newest slice stays.
    void flush() {
        if (waiting_.empty()) return;
        std::stable_sort(waiting_.begin(), waiting_.end(), before);
        merged_.clear();
        const st_tsval* held = answers_;
        const st_tsval* const held_end = answers_ + held_;
        auto next = waiting_.begin();
        while (merged_.size() < capacity_ && (held != held_end || next != waiting_.end())) {
            const bool take_held = held != held_end && (next == waiting_.end() || !before(*next, *held));
            const st_tsval& event = take_held ? *held++ : *next++;
            const bool repeated = repeats_ && !merged_.empty() && same_event(merged_.back(), event);
            if (!repeated) merged_.push_back(event);
        }
        std::copy(merged_.begin(), merged_.end(), answers_);
        held_ = static_cast<uint32_t>(merged_.size());
        waiting_.clear();
    }

    st_tsval* answers_;
    uint32_t capacity_;
    uint32_t held_ = 0;
    bool repeats_ = true;
    std::vector<st_tsval> waiting_, merged_;
};

uint32_t count_distinct(const st_tsval* events, uint32_t count) {
    uint32_t distinct = count == 0 ? 0 : 1;
    for (uint32_t i = 1; i < count; i++) distinct += same_event(events[i - 1], events[i]) ? 0 : 1;
    return distinct;
}

// Gathers the newest `capacity` events of the slices that overlap the bounds. `search(warm, earliest, events, wanted,
// rc)` writes the newest `wanted` events of one slice that are not earlier than `earliest` and returns their number or
// a status.
template <typename Search>
int gather(TSIDX* tsidx, st_time_t earliest, st_time_t latest, st_tsval* answers, uint32_t capacity, Search search) {
    capacity = std::min<uint32_t>(capacity, INT_MAX);
    return static_cast<int>(tsidx_over_snapshot(tsidx, [&](tsidx_snapshot& snapshot) -> int64_t {
        newest_events newest(answers, capacity);
        buffer<st_tsval> found;
        st_time_t from = earliest;
        const auto search_slice = [&](size_t i) -> int64_t {
            WARM* const warm = snapshot.warm(i);
            const uint32_t values = st_warm_slice_values(warm);
            // A slice may hold an event twice; then the newest few of it are fewer events than asked for.
            for (uint64_t wanted = std::min(capacity, values);; wanted = std::min<uint64_t>(2 * wanted, values)) {
                if (found.size() < wanted && !found.alloc(wanted)) return tsidx_fail_no_memory(tsidx);
                warm_rc_t rc;
                const int count = search(warm, from, found.data(), static_cast<uint32_t>(wanted), &rc);
                if (count < 0) return snapshot.fail(i, rc);
                const uint32_t held = static_cast<uint32_t>(count);
                const bool repeats = may_repeat(warm);
                const bool may_hold_more = repeats && held == wanted && wanted < values;
                if (may_hold_more && count_distinct(found.data(), held) < capacity) continue;
                newest.may_repeat(repeats);
                newest.add(found.data(), held);
                return 0;
            }
        };
        for (size_t i = 0; i < snapshot.size(); i++) {
            if (newest.full()) from = std::max(from, newest.oldest());
            if (snapshot.slice(i).meta.latest < from) break;
            if (!snapshot.overlaps(i, from, latest)) continue;
            if (const int64_t opened = snapshot.open(i); opened != 0) return opened;
            if (const int64_t status = search_slice(i); status != 0) return status;
            snapshot.close(i);
        }
        return newest.finish();
    }));
}

struct list_reader {
    plist_reader reader;
    ~list_reader() { close_plist_reader(&reader); }
};

// The newest events of the positioned list in a metric slice with dimension sets.
int get_unordered(WARM* warm, plist_reader* list, st_time_t earliest, st_time_t latest, st_tsval* events,
                  uint32_t wanted, warm_rc_t* rc) {
    run_merge_t merge;
    run_merge_open(&merge, warm, {earliest, 0}, {latest, 999999999});
    uint32_t id = 0, run = 0, count = 0;
    while (true) {
        ST_TRY(_next(list, &id, rc));
        if (id == PLIST_END) break;
        ST_TRY(run_merge_add(&merge, id, rc));
    }
    ST_TRY(run_merge_start(&merge, rc));
    while (count < wanted && run_merge_peek(&merge, &id, &run)) {
        ST_TRY(tsval_reader_decode(&warm->tsval_reader, id, &events[count], false, 0, rc));
        count += events[count].s != ST_DELETED_SOURCE ? 1 : 0;
        ST_TRY(run_merge_pass(&merge, rc));
    }
    return static_cast<int>(count);
}

// The newest events of one exact term.
int get_in_slice(WARM* warm, const char* term, st_time_t earliest, st_time_t latest, st_tsval* events, uint32_t wanted,
                 warm_rc_t* rc) {
    if (!st_warm_slice_has_fclex(warm)) return _set_rc_msg(rc, WARM_RC_MINIFIED, "minified slice");
    uint32_t term_id = 0;
    const int found = _fclex_get_with_status(warm->lexicon, term, &term_id, nullptr, rc);
    if (found == WARM_RC_NOT_FOUND || wanted == 0) return 0;
    if (found != 0) return found;
    list_reader list;
    uint32_t id = 0, first = 0;
    ST_TRY(_init_reader(&list.reader, warm, 1, nullptr, rc));
    ST_TRY(_seek_reader(&list.reader, term_id, rc));
    if (st_warm_slice_is_msidx_with_dimsets(warm->body)) {
        return get_unordered(warm, &list.reader, earliest, latest, events, wanted, rc);
    }
    ST_TRY(tsidx_first_not_later(warm, 0, latest, &first, rc));
    uint32_t count = 0;
    for (int status = _seek(&list.reader, first, &id, rc);; status = _next(&list.reader, &id, rc)) {
        if (status != 0) return status;
        if (id == PLIST_END) break;
        ST_TRY(tsval_reader_decode(&warm->tsval_reader, id, &events[count], false, 0, rc));
        if (events[count].time < earliest) break;
        if (events[count].s != ST_DELETED_SOURCE && ++count == wanted) break;
    }
    return static_cast<int>(count);
}

// Hands the matching events of one slice to `visit`, newest first, until it returns false. 0 or a status.
template <typename Visit>
int visit_matches(WARM* warm, const parsed_query_t& query, Visit visit, warm_rc_t* rc) {
    constexpr uint32_t BATCH = 1024;
    const event_walk_ptr walk = event_walk_open(warm, query, query.spec.latest, UINT64_MAX, true);
    buffer<st_tsval> events;
    if (walk == nullptr || !events.alloc(BATCH)) return _set_rc(rc, WARM_RC_NO_MEMORY);
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
    parsed_query_t parsed;
    ST_TRY(tsidx_parse_query(tsidx, query, &parsed));
    ST_ASSERT(answers != nullptr || capacity == 0);
    const st_query_spec bounded = parsed.spec;
    if (tsidx_is_empty_range(bounded) || capacity == 0) return 0;
    return gather(tsidx, bounded.earliest.time_s, bounded.latest.time_s, answers, capacity,
                  [&](WARM* warm, st_time_t from, st_tsval* events, uint32_t wanted, warm_rc_t* rc) {
                      parsed.spec.earliest = from > bounded.earliest.time_s ? st_timeval_t{from, 0} : bounded.earliest;
                      const event_walk_ptr walk = event_walk_open(warm, parsed, bounded.latest, wanted, is_exact != 0);
                      if (walk == nullptr) return _set_rc(rc, WARM_RC_NO_MEMORY);
                      return event_walk_next(walk.get(), events, wanted, rc);
                  });
}

int st_tsidx_get(TSIDX* tsidx, const char* term, st_time_t earliest, st_time_t latest, st_tsval* answers,
                 uint32_t capacity) {
    ST_ASSERT(tsidx != nullptr && (answers != nullptr || capacity == 0));
    if (term == nullptr) return _set_rc_msg(&tsidx->last_failure, WARM_RC_INVALID_ARGUMENT, "no term");
    if (earliest > latest || capacity == 0) return 0;
    return gather(tsidx, earliest, latest, answers, capacity,
                  [&](WARM* warm, st_time_t from, st_tsval* events, uint32_t wanted, warm_rc_t* rc) {
                      return get_in_slice(warm, term, from, latest, events, wanted, rc);
                  });
}

int st_tsidx_all_events(TSIDX* tsidx, st_time_t earliest, st_time_t latest, st_tsval* answers, uint32_t capacity) {
    st_query_spec query;
    query.earliest = {earliest, 0};
    query.latest = {latest, 999999999};
    query.lispy = ALL_EVENTS;
    return st_tsidx_query(tsidx, &query, answers, capacity, 1);
}

int st_tsidx_event_count(TSIDX* tsidx, const st_query_spec* query, uint64_t* count) {
    ST_ASSERT(count != nullptr);
    *count = 0;
    if (query == nullptr) {
        tsidx_meta_t meta;
        ST_TRY(st_tsidx_meta(tsidx, &meta));
        *count = meta.events - meta.deleted;
        return 0;
    }
    parsed_query_t parsed;
    ST_TRY(tsidx_parse_query(tsidx, query, &parsed));
    const st_query_spec& bounded = parsed.spec;
    if (tsidx_is_empty_range(bounded)) return 0;
    return static_cast<int>(tsidx_over_snapshot(tsidx, [&](tsidx_snapshot& snapshot) -> int64_t {
        uint64_t total = 0;
        const int64_t status =
            tsidx_each_slice(snapshot, bounded.earliest.time_s, bounded.latest.time_s, [&](size_t i) -> int64_t {
                uint64_t matches = 0;
                warm_rc_t rc;
                if (warm_slice_count(snapshot.warm(i), parsed, &matches, nullptr, &rc) != 0)
                    return snapshot.fail(i, rc);
                total += matches;
                return 0;
            });
        if (status == 0) *count = total;
        return status;
    }));
}

int64_t st_tsidx_apply_events(TSIDX* tsidx, const st_query_spec* query, tsidx_event_fn fn, void* context) {
    return tsidx_apply_matches(tsidx, query, fn, context,
                               [](WARM* warm, const parsed_query_t& parsed, const auto& call, warm_rc_t* rc) {
                                   return visit_matches(warm, parsed, call, rc);
                               });
}

}  // namespace veldar
