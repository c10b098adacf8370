#include "tools/veldar/query/event_stream.h"

#include <algorithm>
#include <tuple>

#include "searchthing/search/warmslice_search.h"
#include "tools/veldar/store/tool_failure.h"

namespace veldar::tool {

namespace {

constexpr uint32_t FIRST_BATCH = 1024, LARGEST_BATCH = 65536;

// Whether `a` comes after `b`: newest first, and of one second the events that were loaded last come first, as the
// slices themselves order them.
bool comes_after(const stream_entry& a, const stream_entry& b) {
    const auto key = [](const stream_entry& entry) {
        return std::make_tuple(entry.time, entry.subsecond, entry.directory, entry.address);
    };
    return key(a) < key(b);
}

void push(event_stream* stream, const stream_entry& entry) {
    stream->heap.push_back(entry);
    std::push_heap(stream->heap.begin(), stream->heap.end(), comes_after);
}

stream_entry pop(event_stream* stream) {
    std::pop_heap(stream->heap.begin(), stream->heap.end(), comes_after);
    const stream_entry entry = stream->heap.back();
    stream->heap.pop_back();
    return entry;
}

void push_unopened(event_stream* stream) {
    for (const slice_file& file : stream->slices.files) {
        if (!slice_meets_bounds(file, stream->query->bounds)) continue;
        if (stream->started && file.earliest > stream->time.time_s) continue;
        push(stream, {file.latest, UINT64_MAX, UINT32_MAX, UINT32_MAX, &file, nullptr});
    }
}

void begin_list(event_stream* stream) {
    slices_tell_errors(stream->slices, stream->trouble);
    push_unopened(stream);
}

// Goes on with a new list. What is open is given back first, so that files that are gone get closed.
void list_again(event_stream* stream) {
    stream->heap.clear();
    stream->cursors.clear();
    stream->relisted = true;
    stream->again = stream->given;
    slices_list_again(&stream->slices, stream->tries);
    begin_list(stream);
}

// Notes where the next batch goes on: at the time of the last answer, behind the answers that have this time.
void note_resumption(slice_cursor* cursor) {
    const st_tsval& last = cursor->answers[cursor->count - 1];
    cursor->bound = {last.time, last.subsecond};
    cursor->resumed = true;
    cursor->skip = 0;
    for (size_t i = cursor->count; i > 0; i--) {
        const st_tsval& value = cursor->answers[i - 1];
        if (value.time != last.time || value.subsecond != last.subsecond) break;
        cursor->skip++;
    }
    cursor->batch = std::max(std::min(cursor->batch * 4, LARGEST_BATCH), cursor->skip);
}

// Fills the cursor with further answers; false when there are none.
bool load_batch(event_stream* stream, slice_cursor* cursor) {
    if (cursor->exhausted) return false;
    const query_plan& plan = stream->query->plans[cursor->plan];
    const st_query_spec query = cursor->resumed ? query_of_plan_until(*stream->query, plan, cursor->bound)
                                                : query_of_plan(*stream->query, plan);
    const uint64_t values = st_warm_slice_values(cursor->warm.get());
    const uint32_t capacity = static_cast<uint32_t>(std::min(uint64_t{cursor->skip} + cursor->batch, values));
    if (cursor->answers.size() < capacity) cursor->answers.resize(capacity);
    warm_rc_t rc;
    const int found =
        warm_slice_search(cursor->warm.get(), &query, cursor->answers.data(), capacity, true, nullptr, &rc);
    if (found == WARM_RC_NO_MEMORY) throw tool_failure{EXIT_IO, "out of memory"};
    if (found < 0) troubles_add(stream->trouble, slice_error(*cursor->file, rc));
    cursor->at = cursor->skip;
    cursor->count = found < 0 ? 0 : static_cast<size_t>(found);
    cursor->exhausted = cursor->count < capacity || capacity == values;
    if (!cursor->exhausted) note_resumption(cursor);
    return cursor->at < cursor->count;
}

void push_cursor(event_stream* stream, slice_cursor* cursor) {
    if (cursor->at == cursor->count && !load_batch(stream, cursor)) {
        const auto is_this = [&](const std::unique_ptr<slice_cursor>& one) { return one.get() == cursor; };
        std::erase_if(stream->cursors, is_this);
        return;
    }
    const st_tsval& value = cursor->answers[cursor->at];
    push(stream, {value.time, value.subsecond, cursor->file->directory, value.address, nullptr, cursor});
}

void add_cursors(event_stream* stream, const slice_file* file, warm_ptr warm) {
    const std::shared_ptr<WARM> shared(std::move(warm));
    for (uint32_t plan = 0; plan < stream->query->plans.size(); plan++) {
        auto cursor = std::make_unique<slice_cursor>();
        cursor->warm = shared;
        cursor->file = file;
        cursor->plan = plan;
        cursor->is_metric = st_warm_slice_is_msidx(shared->body);
        cursor->batch = stream->query->plans[plan].needs_raw() ? FIRST_BATCH : stream->first_batch;
        stream->cursors.push_back(std::move(cursor));
        push_cursor(stream, stream->cursors.back().get());
    }
}

void open_slice(event_stream* stream, const slice_file* file) {
    warm_ptr warm;
    std::string error;
    switch (slice_open(*file, &warm, &error)) {
        case SLICE_OPEN:
            return add_cursors(stream, file, std::move(warm));
        case SLICE_UNREADABLE:
            return troubles_add(stream->trouble, error);
        case SLICE_VANISHED:
            break;
    }
    if (++stream->tries > SLICES_MAX_TRIES) return troubles_add(stream->trouble, file->path + ": vanished");
    list_again(stream);
}

// After a new listing the events that are newer than the one given last come again.
bool is_behind(const event_stream& stream, const st_tsval& value) {
    if (!stream.relisted || !stream.started) return false;
    return std::make_tuple(value.time, value.subsecond) > std::make_tuple(stream.time.time_s, stream.time.time_ns);
}

uint64_t identity(const stream_event& event) {
    return uint64_t{event.directory} << 32 | event.value.address;
}

bool is_new(event_stream* stream, const stream_event& event) {
    const st_timeval_t time = {event.value.time, event.value.subsecond};
    if (!stream->started || time.time_s != stream->time.time_s || time.time_ns != stream->time.time_ns) {
        stream->given.clear();
        stream->again.clear();
        stream->time = time;
        stream->started = true;
    }
    if (!event.is_metric) return !stream->given.contains(identity(event));
    const auto known = stream->again.find(identity(event));
    if (known == stream->again.end() || known->second == 0) return true;
    known->second--;
    return false;
}

}  // namespace

void event_stream_open(event_stream* stream, const std::string& path, const prepared_query* query, uint64_t limit,
                       troubles* trouble) {
    stream->query = query;
    stream->trouble = trouble;
    stream->first_batch = limit == 0 ? FIRST_BATCH : static_cast<uint32_t>(std::min<uint64_t>(limit, LARGEST_BATCH));
    stream->slices = slices_list(path);
    begin_list(stream);
}

bool event_stream_next(event_stream* stream, stream_event* event) {
    while (!stream->heap.empty()) {
        const stream_entry entry = pop(stream);
        if (entry.unopened != nullptr) {
            open_slice(stream, entry.unopened);
            continue;
        }
        slice_cursor* const cursor = entry.cursor;
        *event = {cursor->answers[cursor->at], entry.directory, cursor->plan, cursor->is_metric};
        cursor->at++;
        push_cursor(stream, cursor);
        if (is_behind(*stream, event->value) || !is_new(stream, *event)) continue;
        if (stream->passes && !stream->passes(*event)) continue;
        stream->tries = 0;
        stream->given[identity(*event)]++;
        return true;
    }
    return false;
}

}  // namespace veldar::tool
