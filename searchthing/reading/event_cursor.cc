#include <algorithm>
#include <climits>
#include <new>
#include <tuple>

#include "libzero/assertions.h"
#include "searchthing/reading/cursors.h"
#include "searchthing/reading/tsidx_snapshot_walk.h"
#include "searchthing/search/slice_events.h"

namespace veldar {

namespace {

constexpr uint32_t BATCH = 1024;  // values of a slice held at most

// The events that one query finds in one slice. The slice goes with the last batch.
struct slice_reader {
    std::shared_ptr<WARM> slice;
    size_t number = 0;  // of the slice in the snapshot
    event_walk_ptr walk;
    uint32_t source = 0, query = 0;
    uint64_t rank = 0;
    bool is_metric = false;
    buffer<st_tsval> batch;
    uint32_t at = 0, count = 0;

    const st_tsval& head() const { return batch[at]; }
};

// A slice of the list that is not open yet, or a reader with a next event.
struct cursor_entry {
    st_time_t time;  // of the next event, or the slice's latest
    uint64_t subsecond;
    uint32_t place, address;  // the source, and the event's address; all-ones for a slice
    uint64_t rank;            // newest slice first, in a slice the first query
    slice_reader* reader;
    size_t number;  // of the slice in the snapshot
};

bool comes_after(const cursor_entry& a, const cursor_entry& b) {
    const auto key = [](const cursor_entry& entry) {
        return std::make_tuple(entry.time, entry.subsecond, entry.place, entry.address);
    };
    return key(a) != key(b) ? key(a) < key(b) : a.rank > b.rank;
}

cursor_entry entry_of(slice_reader* reader) {
    const st_tsval& value = reader->head();
    return {value.time, value.subsecond, reader->source, value.address, reader->rank, reader, 0};
}

bool is_before(const st_timeval_t& a, const st_timeval_t& b) {
    return a.time_s != b.time_s ? a.time_s < b.time_s : a.time_ns < b.time_ns;
}

}  // namespace

struct event_cursor_t {
    explicit event_cursor_t(const event_cursor_options_t& wanted)
        : options(wanted), snapshot(wanted.sources, wanted.on_failure) {}

    event_cursor_options_t options;
    std::vector<parsed_query_t> queries;
    st_time_t earliest = INT_MAX, latest = INT_MIN;  // of all queries
    tsidx_snapshot snapshot;
    std::vector<std::unique_ptr<slice_reader>> readers;  // go before the snapshot of their slices
    std::vector<cursor_entry> heap;
    event_position_t position;
    event_position_t resumed;   // where the list in use began
    uint64_t metrics_left = 0;  // of those that came before it, how many are still to be passed over
    int lists = 0;              // since the last event
};

namespace {

void push(event_cursor_t* cursor, const cursor_entry& entry) {
    cursor->heap.push_back(entry);
    std::push_heap(cursor->heap.begin(), cursor->heap.end(), comes_after);
}

cursor_entry pop(event_cursor_t* cursor) {
    std::pop_heap(cursor->heap.begin(), cursor->heap.end(), comes_after);
    const cursor_entry entry = cursor->heap.back();
    cursor->heap.pop_back();
    return entry;
}

// The slices in which there may be events behind the position.
void start_list(event_cursor_t* cursor) {
    ST_ASSERT(cursor->heap.empty() && cursor->readers.empty());
    const event_position_t& resumed = cursor->resumed = cursor->position;
    cursor->metrics_left = cursor->position.metrics;
    for (size_t i = 0; i < cursor->snapshot.size(); i++) {
        const st_filename_metadata_t& meta = cursor->snapshot.slice(i).meta;
        if (!cursor->snapshot.overlaps(i, cursor->earliest, cursor->latest)) continue;
        if (resumed.is_set && meta.earliest > resumed.time.time_s) continue;
        push(cursor, {meta.latest, UINT64_MAX, UINT32_MAX, UINT32_MAX, i, nullptr, i});
    }
}

// Reads the next events of a slice, which is given back behind the last of them.
int load(event_cursor_t* cursor, slice_reader* reader, warm_rc_t* rc) {
    reader->at = reader->count = 0;
    if (reader->walk == nullptr) return 0;
    warm_rc_t failure;
    ST_TRY(cursor->snapshot.go_on(reader->number, reader->batch.size(), rc));
    const auto size = static_cast<uint32_t>(reader->batch.size());
    const int found = event_walk_next(reader->walk.get(), reader->batch.data(), size, &failure);
    ST_ASSERT(found <= static_cast<int>(size));
    if (found < 0) ST_TRY(cursor->snapshot.fail(reader->number, failure, rc));
    reader->count = static_cast<uint32_t>(std::max(found, 0));
    if (reader->count == size) return 0;
    reader->walk.reset();
    reader->slice.reset();
    return 0;
}

uint32_t batch_size(const event_cursor_t* cursor, const WARM* warm) {
    const event_cursor_options_t& options = cursor->options;
    const uint64_t wanted = options.limit == 0 || options.passes ? BATCH : std::min<uint64_t>(options.limit, BATCH);
    return static_cast<uint32_t>(std::min<uint64_t>(wanted, uint64_t{st_warm_slice_values(warm)} + 1));
}

int add_reader(event_cursor_t* cursor, size_t number, uint32_t query, const std::shared_ptr<WARM>& slice,
               warm_rc_t* rc) {
    auto reader = std::make_unique<slice_reader>();
    const parsed_query_t& parsed = cursor->queries[query];
    const event_position_t& resumed = cursor->resumed;
    const bool narrows = resumed.is_set && is_before(resumed.time, parsed.spec.latest);
    reader->walk =
        event_walk_open(slice.get(), parsed, narrows ? resumed.time : parsed.spec.latest,
                        cursor->options.limit == 0 ? UINT64_MAX : cursor->options.limit, cursor->options.is_exact);
    if (!reader->batch.alloc(batch_size(cursor, slice.get()))) throw std::bad_alloc();
    reader->slice = slice;
    reader->number = number;
    reader->source = cursor->snapshot.source(number);
    reader->query = query;
    reader->rank = number * cursor->queries.size() + query;
    reader->is_metric = st_warm_slice_is_msidx(slice->body);
    ST_TRY(load(cursor, reader.get(), rc));
    if (reader->count == 0) return 0;
    cursor->readers.push_back(std::move(reader));
    push(cursor, entry_of(cursor->readers.back().get()));
    return 0;
}

// A slice has gone.
int list_again(event_cursor_t* cursor, size_t number, warm_rc_t* rc) {
    if (cursor->lists == TSIDX_MAX_SNAPSHOTS) {
        warm_rc_t failure;
        _set_rc_msg(&failure, WARM_RC_RETRIES, "slices go faster than they can be opened");
        return cursor->snapshot.fail(number, failure, rc);
    }
    cursor->heap.clear();
    cursor->readers.clear();
    tsidx_pause(cursor->lists++);
    ST_TRY(cursor->snapshot.take(rc));
    start_list(cursor);
    return 0;
}

int open_listed(event_cursor_t* cursor, size_t number, warm_rc_t* rc) {
    tsidx_snapshot* const snapshot = &cursor->snapshot;
    warm_rc_t failure;
    const int64_t status = snapshot->open(number, &failure);
    if (status == TSIDX_VANISHED) return list_again(cursor, number, rc);
    if (status != 0) return snapshot->fail(number, failure, rc);
    const std::shared_ptr<WARM> slice(snapshot_slice_ptr(snapshot->warm(number), {snapshot, number}));
    if (cursor->options.term != nullptr && !st_warm_slice_has_fclex(slice.get())) {
        _set_rc_msg(&failure, WARM_RC_MINIFIED, "minified slice");
        return snapshot->fail(number, failure, rc);
    }
    for (uint32_t query = 0; query < cursor->queries.size(); query++) {
        ST_TRY(add_reader(cursor, number, query, slice, rc));
    }
    return 0;
}

auto place_of(const st_timeval_t& time, uint32_t source, uint32_t address) {
    return std::make_tuple(time.time_s, time.time_ns, source, address);
}

// Events of metrics are told apart by their number alone.
bool is_new_metric(event_cursor_t* cursor, const st_timeval_t& time, const event_t& event) {
    const auto place = place_of(time, event.source, 0);
    event_position_t& at = cursor->position;
    if (cursor->resumed.is_set) {
        const auto first = place_of(cursor->resumed.time, cursor->resumed.source, 0);
        if (place > first) return false;
        if (place == first && cursor->metrics_left > 0) {
            cursor->metrics_left--;
            return false;
        }
    }
    const bool goes_on = at.is_set && place == place_of(at.time, at.source, 0);
    at = {true, time, event.source, event.value.address, goes_on ? at.metrics + 1 : 1};
    return true;
}

// Whether the caller gets the event; then it is the position.
bool is_given(event_cursor_t* cursor, const event_t& event) {
    const st_timeval_t time = {event.value.time, event.value.subsecond};
    if (event.is_metric)
        return is_new_metric(cursor, time, event) && (!cursor->options.passes || cursor->options.passes(event));
    const auto place = place_of(time, event.source, event.value.address);
    event_position_t& at = cursor->position;
    const event_position_t& resumed = cursor->resumed;
    if (at.is_set && place == place_of(at.time, at.source, at.address)) return false;
    if (resumed.is_set && place >= place_of(resumed.time, resumed.source, resumed.address)) return false;
    if (cursor->options.passes && !cursor->options.passes(event)) return false;
    at = {true, time, event.source, event.value.address, 0};
    return true;
}

// Gives the reader's events as long as they come before those of all others.
int drain(event_cursor_t* cursor, slice_reader* reader, std::span<event_t> events, size_t* count, warm_rc_t* rc) {
    ST_ASSERT(reader->at < reader->count && *count < events.size());
    do {
        event_t& event = events[*count];
        event = {reader->head(), reader->source, reader->query, reader->is_metric};
        if (is_given(cursor, event)) {
            ++*count;
            cursor->lists = 0;
        }
        if (++reader->at == reader->count) ST_TRY(load(cursor, reader, rc));
        if (reader->count == 0) {
            std::erase_if(cursor->readers, [reader](const auto& one) { return one.get() == reader; });
            return 0;
        }
    } while (*count < events.size() && (cursor->heap.empty() || !comes_after(entry_of(reader), cursor->heap.front())));
    push(cursor, entry_of(reader));
    return 0;
}

int fill(event_cursor_t* cursor, std::span<event_t> events, size_t* count, warm_rc_t* rc) {
    while (*count < events.size() && !cursor->heap.empty()) {
        const cursor_entry entry = pop(cursor);
        ST_TRY(entry.reader == nullptr ? open_listed(cursor, entry.number, rc)
                                       : drain(cursor, entry.reader, events, count, rc));
    }
    return 0;
}

int open(event_cursor_t* cursor, warm_rc_t* rc) {
    for (const st_query_spec& query : cursor->options.queries) {
        parsed_query_t parsed;
        if (cursor->options.term != nullptr) {
            parsed = query_for_term(query_with_bounds(query), cursor->options.term);
        } else {
            ST_TRY(parse_query(query_with_bounds(query), &parsed, rc));
        }
        cursor->earliest = std::min(cursor->earliest, parsed.spec.earliest.time_s);
        cursor->latest = std::max(cursor->latest, parsed.spec.latest.time_s);
        cursor->queries.push_back(std::move(parsed));
    }
    ST_TRY(cursor->snapshot.begin(rc));
    cursor->position = cursor->options.after;
    start_list(cursor);
    return 0;
}

}  // namespace

void event_cursor_closer::operator()(event_cursor_t* cursor) const {
    delete cursor;
}

event_cursor_ptr event_cursor_open(const event_cursor_options_t& options, warm_rc_t* rc) {
    try {
        event_cursor_ptr cursor(new event_cursor_t(options));
        if (open(cursor.get(), rc) == 0) return cursor;
    } catch (const std::bad_alloc&) {
        _set_rc(rc, WARM_RC_NO_MEMORY);
    }
    return nullptr;
}

int event_cursor_next(event_cursor_t* cursor, std::span<event_t> events, warm_rc_t* rc) {
    size_t count = 0;
    int status = 0;
    try {
        status = fill(cursor, events.first(std::min<size_t>(events.size(), INT_MAX)), &count, rc);
    } catch (const std::bad_alloc&) {
        status = _set_rc(rc, WARM_RC_NO_MEMORY);
    }
    if (status == 0) {
        ST_ASSERT(count <= events.size() &&
                  (count >= std::min<size_t>(events.size(), INT_MAX) || cursor->heap.empty()));
        return static_cast<int>(count);
    }
    cursor->heap.clear();
    return status;
}

event_position_t event_cursor_position(const event_cursor_t* cursor) {
    return cursor->position;
}

}  // namespace veldar
