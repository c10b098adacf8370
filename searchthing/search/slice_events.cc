#include "searchthing/search/slice_events.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "libzero/assertions.h"
#include "libzero/create-crash-dump.h"
#include "searchthing/base/bitset.h"
#include "searchthing/search/search_frames.h"

namespace veldar {

namespace {

constexpr uint32_t FIRST_WINDOW = 4096;
constexpr uint32_t WINDOW_GROWTH = 4;
// A query of so many lists pays more for positioning on them again in each window than for reading them to the end.
constexpr uint64_t MANY_LISTS = 256;

// Signed comparison of a value's time with a bound: whole seconds when the slice keeps no more.
int compare_time(const WARM* warm, const st_tsval& value, const st_timeval_t& bound) {
    if (value.time != bound.time_s) return value.time < bound.time_s ? -1 : 1;
    if (!warm_slice_keeps_subseconds(warm) || value.subsecond == bound.time_ns) return 0;
    return value.subsecond < bound.time_ns ? -1 : 1;
}

// Whether a value that has been decoded is an answer: not deleted, and on the cumulative span.
bool is_answer(const event_walk_t* walk, const st_tsval& value) {
    const uint32_t cumspan = walk->query->spec.cumspan;
    if (value.s == ST_DELETED_SOURCE) return false;
    return cumspan == 0 || static_cast<uint32_t>(value.time) % cumspan == 0;
}

// Evaluates the query over the next window.
int next_window(event_walk_t* walk) {
    id_range_t& range = walk->context.range;
    if (walk->report.windows > 0 && range.end >= walk->windows_end) {
        walk->is_over = true;
        return 0;
    }
    ST_ASSERT(range.end <= walk->windows_end);
    range.begin = range.end;
    range.end += static_cast<uint32_t>(std::min<uint64_t>(walk->windows_end - range.begin, walk->window));
    ST_ASSERT(range.begin < range.end || walk->report.windows == 0);
    const uint64_t lists_before = walk->context.lists_read;
    ST_TRY(evaluate_query(&walk->context, *walk->query, walk->is_exact, &walk->result));
    walk->report.windows++;
    walk->ids = match_ids(&walk->result, range);
    const bool few_lists = walk->context.lists_read - lists_before <= MANY_LISTS;
    walk->window = few_lists && walk->window <= UINT32_MAX ? walk->window * WINDOW_GROWTH : UINT64_MAX;
    return 0;
}

int next_ordered(event_walk_t* walk, st_tsval* events, uint32_t capacity, uint32_t* held) {
    conjunction_context& context = walk->context;
    WARM* const warm = context.handle;
    const st_timeval_t latest = warm_upper_bound(context.latest);
    uint32_t id = 0;
    while (*held < capacity && !walk->is_over) {
        if (!walk->ids.next(&id)) {
            ST_TRY(next_window(walk));
            continue;
        }
        st_tsval& value = events[*held];
        walk->report.values_decoded++;
        ST_TRY(tsval_reader_decode(&warm->tsval_reader, id, &value, false, 0, &context.rc));
        if (compare_time(warm, value, latest) > 0) {
            return _set_rc_verbose(&context.rc, WARM_RC_CORRUPT, id, "a value is later than the ones before it");
        }
        walk->is_over = compare_time(warm, value, context.earliest) < 0;
        *held += !walk->is_over && is_answer(walk, value) ? 1 : 0;
    }
    return 0;
}

int next_unordered(event_walk_t* walk, st_tsval* events, uint32_t capacity, uint32_t* held) {
    conjunction_context& context = walk->context;
    if (walk->report.windows == 0) ST_TRY(event_walk_merge_runs(walk, &walk->merge));
    uint32_t id = 0, run = 0;
    while (*held < capacity && run_merge_peek(&walk->merge, &id, &run)) {
        st_tsval& value = events[*held];
        walk->report.values_decoded++;
        ST_TRY(tsval_reader_decode(&context.handle->tsval_reader, id, &value, false, 0, &context.rc));
        *held += is_answer(walk, value) ? 1 : 0;
        ST_TRY(run_merge_pass(&walk->merge, &context.rc));
    }
    return 0;
}

// What the crash log says of a search in progress.
struct search_note_t {
    const event_walk_t* walk;
    const st_tsval* answers;
    uint32_t capacity;
};

void write_search_note(string_builder* out, const void* subject) noexcept {
    const auto& note = *static_cast<const search_note_t*>(subject);
    const WARM* warm = note.walk->context.handle;
    string_builder_appendz(out, "START ST_WARM_SLICE_SEARCH ANNOTATIONS:\nslice ");
    string_builder_append_decimal_i64(out, warm->fname_meta.latest);
    string_builder_append1(out, '-');
    string_builder_append_decimal_i64(out, warm->fname_meta.earliest);
    string_builder_append1(out, '-');
    string_builder_append_decimal_u64(out, warm->fname_meta.id);
    string_builder_appendz(out, " fd=");
    string_builder_append_decimal_i64(out, warm->fd.get());
    string_builder_append1(out, '\n');
    st_query_annotator_write(out, &note.walk->query->spec);
    string_builder_appendz(out, "answers=");
    crash_append_pointer(out, note.answers);
    string_builder_appendz(out, " cap=");
    string_builder_append_decimal_u64(out, note.capacity);
    string_builder_appendz(out, note.walk->is_exact ? " is_exact=1\n" : " is_exact=0\n");
    search_annotator_write(out, &note.walk->context);
}

}  // namespace

match_ids::match_ids(const query_result_t* result, const id_range_t& range)
    : excluded_(result->not_bitmap.data()), range_(range) {
    const match_kind_t kind = match_kind(*result);
    is_list_ = kind == MATCH_LIST || kind == MATCH_NOTHING;
    if (kind == MATCH_LIST) list_ = match_list(*result).data();
    if (kind == MATCH_BITS) bits_ = result->bitmap.data();
    const uint64_t bytes = _calc_bitmap_size(range.begin, range.end);
    count_ = is_list_ ? match_list(*result).size() : bytes;
    ST_ASSERT(bits_ == nullptr || result->bitmap.size() >= bytes);
    ST_ASSERT(excluded_ == nullptr || result->not_bitmap.size() >= bytes);
}

void match_ids::load_word() {
    const auto size = static_cast<size_t>(std::min<uint64_t>(8, count_ - at_));
    uint64_t excluded = 0;
    word_ = bits_ == nullptr ? ~uint64_t{0} : 0;
    if (bits_ != nullptr) std::memcpy(&word_, bits_ + at_, size);
    if (excluded_ != nullptr) std::memcpy(&excluded, excluded_ + at_, size);
    word_ &= ~excluded;
    at_ += 8;
}

event_walk_ptr event_walk_open(WARM* warm, const parsed_query_t& query, const st_timeval_t& latest, uint64_t wanted,
                               bool is_exact) {
    auto walk = std::make_unique<event_walk_t>();
    walk->context.handle = warm;
    walk->context.latest = latest;
    walk->query = &query;
    walk->is_exact = is_exact;
    walk->wanted = wanted;
    return walk;
}

int event_walk_next(event_walk_t* walk, st_tsval* events, uint32_t capacity, warm_rc_t* rc) {
    const search_note_t subject = {walk, events, capacity};
    const crash_note note(write_search_note, &subject);
    uint32_t held = 0;
    int status = 0;
    try {
        status = event_walk_begin(walk);
        const bool unordered = is_unordered(walk->context.handle);
        if (status == 0) status = (unordered ? next_unordered : next_ordered)(walk, events, capacity, &held);
        ST_ASSERT(held <= capacity && (status != 0 || held == capacity || walk->is_over || unordered));
    } catch (const std::bad_alloc&) {
        status = _set_rc(&walk->context.rc, WARM_RC_NO_MEMORY);
    }
    walk->report.lists_read = walk->context.lists_read;
    if (status == 0) return static_cast<int>(held);
    walk->is_over = true;
    return _cpy_rc(rc, &walk->context.rc);
}

bool is_unordered(const WARM* warm) {
    return st_warm_slice_is_msidx_with_dimsets(warm->body);
}

int event_walk_begin(event_walk_t* walk) {
    if (walk->is_begun) return 0;
    conjunction_context& context = walk->context;
    const st_query_spec& spec = walk->query->spec;
    const st_timeval_t latest = context.latest;
    conjunction_context_open(&context, context.handle, &spec.earliest, &latest, spec.info);
    context.neq_matches_missing = (spec.opt_a & QUERY_NEQ_MATCHES_MISSING) != 0;
    context.wildcards_span = (spec.opt_a & QUERY_WILDCARDS_SPAN) != 0;
    context.wildcards_skip_fields = (spec.opt_a & QUERY_WILDCARDS_SKIP_FIELDS) != 0;
    context.stars_are_plain = walk->query->stars_are_plain;
    ST_TRY(_find_first_if_needed(&context));
    walk->is_begun = true;
    const bool has_runs = warm_slice_has_runs(context.handle);
    walk->report.range_begin = context.range.begin;
    walk->report.range_end = has_runs ? st_warm_slice_values(context.handle) : context.range.end;
    const bool is_large = !walk->is_exact || walk->wanted > UINT32_MAX;
    walk->window = is_large ? UINT64_MAX : std::max<uint64_t>(FIRST_WINDOW, walk->wanted * 8);
    ST_ASSERT(context.range.begin <= context.range.end);
    walk->windows_end = context.range.end;
    context.range.end = context.range.begin;
    return 0;
}

int event_walk_evaluate(event_walk_t* walk, query_result_t* result) {
    ST_TRY(event_walk_begin(walk));
    walk->context.range.end = walk->windows_end;
    walk->report.windows++;
    return evaluate_query(&walk->context, *walk->query, walk->is_exact, result);
}

int event_walk_evaluate_unordered(event_walk_t* walk, query_result_t* result) {
    ST_TRY(event_walk_evaluate(walk, result));
    return walk->context.range.empty() ? 0 : _frame2bitmap(&walk->context, result);
}

int event_walk_merge_runs(event_walk_t* walk, run_merge_t* merge) {
    conjunction_context& context = walk->context;
    query_result_t result;
    ST_TRY(event_walk_evaluate_unordered(walk, &result));
    run_merge_open(merge, context.handle, context.earliest, context.latest);
    match_ids ids(&result, context.range);
    for (uint32_t id = 0; ids.next(&id);) ST_TRY(run_merge_add(merge, id, &context.rc));
    return run_merge_start(merge, &context.rc);
}

}  // namespace veldar
