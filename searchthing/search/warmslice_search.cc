#include "searchthing/search/warmslice_search.h"

#include <algorithm>
#include <memory>
#include <new>
#include <string>

#include "libzero/create-crash-dump.h"
#include "libzero/endian.h"
#include "searchthing/search/search_frames.h"
#include "searchthing/search/search_runs.h"
#include "searchthing/slice/warmslice_meta.h"

namespace veldar {

namespace {

constexpr uint32_t FIRST_WINDOW = 4096;
constexpr uint32_t WINDOW_GROWTH = 4;
// A query of so many lists pays more for positioning on them again in each window than for reading them to the end.
constexpr uint64_t MANY_LISTS = 256;

// A search in progress over one slice.
struct slice_search {
    conjunction_context context;
    const st_query_spec* query = nullptr;
    search_report_t report;
    ~slice_search() { conjunction_context_close(&context); }
};

int open_search(WARM* warm, const st_query_spec* query, std::unique_ptr<slice_search>* out, warm_rc_t* rc) {
    if (query->lispy == nullptr) return _set_rc_msg(rc, WARM_RC_INVALID_ARGUMENT, "a query without text");
    out->reset(new (std::nothrow) slice_search);
    if (*out == nullptr) return _set_rc(rc, WARM_RC_NO_MEMORY);
    slice_search* search = out->get();
    conjunction_context_open(&search->context, warm, &query->earliest, &query->latest, query->info);
    search->context.neq_matches_missing = (query->opt_a & QUERY_NEQ_MATCHES_MISSING) != 0;
    search->context.wildcards_span = (query->opt_a & QUERY_WILDCARDS_SPAN) != 0;
    search->context.wildcards_skip_fields = (query->opt_a & QUERY_WILDCARDS_SKIP_FIELDS) != 0;
    search->query = query;
    if (_find_first_if_needed(&search->context) != 0) return _cpy_rc(rc, &search->context.rc);
    search->report.range_begin = search->context.range.begin;
    search->report.range_end = warm_slice_has_runs(warm) ? st_warm_slice_values(warm) : search->context.range.end;
    return 0;
}

enum visit_t { VISIT_ON, VISIT_STOP, VISIT_FAILED };

// Visits the ids of a result in ascending order, which is newest first.
template <typename Visit>
visit_t visit_bits(const uint8_t* bits, const uint8_t* not_bits, const id_range_t& range, Visit visit) {
    const uint64_t bytes = _calc_bitmap_size(range.begin, range.end);
    for (uint64_t at = 0; at < bytes; at += 8) {
        uint64_t word = ~uint64_t{0};
        uint64_t excluded = 0;
        const size_t size = static_cast<size_t>(std::min<uint64_t>(8, bytes - at));
        if (bits != nullptr) {
            word = 0;
            std::memcpy(&word, bits + at, size);
        }
        if (not_bits != nullptr) std::memcpy(&excluded, not_bits + at, size);
        word &= ~excluded;
        while (word != 0) {
            const uint64_t id = range.begin + at * 8 + static_cast<uint64_t>(__builtin_ctzll(word));
            word &= word - 1;
            if (id >= range.end) return VISIT_ON;
            const visit_t next = visit(static_cast<uint32_t>(id));
            if (next != VISIT_ON) return next;
        }
    }
    return VISIT_ON;
}

template <typename Visit>
visit_t visit_result(const conjunction_context& context, const query_result_t& result, Visit visit) {
    const id_range_t& range = context.range;
    const uint8_t* not_bits = result.not_bitmap.data();
    if (result.tsval_list_capacity >= context.bufcap) {
        return range.empty() ? VISIT_ON : visit_bits(result.bitmap.data(), not_bits, range, visit);
    }
    for (uint32_t i = 0; i < result.tsval_list_capacity; i++) {
        const uint32_t id = result.tsval_list[i];
        const uint32_t bit = id - range.begin;
        if (not_bits != nullptr && (not_bits[bit / 8] >> (bit % 8) & 1) != 0) continue;
        const visit_t next = visit(id);
        if (next != VISIT_ON) return next;
    }
    return VISIT_ON;
}

// Signed comparison of a value's time with a bound: whole seconds when the slice keeps no more.
int compare_time(const WARM* warm, const st_tsval& value, const st_timeval_t& bound) {
    if (value.time != bound.time_s) return value.time < bound.time_s ? -1 : 1;
    if (!warm_slice_keeps_subseconds(warm) || value.subsecond == bound.time_ns) return 0;
    return value.subsecond < bound.time_ns ? -1 : 1;
}

// Whether a value that the search has decoded is an answer: not deleted, and on the cumulative span.
bool is_answer(const slice_search* search, const st_tsval& value) {
    const uint32_t cumspan = search->query->cumspan;
    if (value.s == ST_DELETED_SOURCE) return false;
    return cumspan == 0 || static_cast<uint32_t>(value.time) % cumspan == 0;
}

// Decodes the ids of one window's result into answers until `capacity` are held.
visit_t _bitmap2answers(slice_search* search, const query_result_t& result, st_tsval* answers, uint32_t capacity,
                        uint32_t* held) {
    conjunction_context& context = search->context;
    WARM* warm = context.handle;
    const st_timeval_t latest = warm_upper_bound(context.latest);
    return visit_result(context, result, [&](uint32_t id) {
        st_tsval& value = answers[*held];
        search->report.values_decoded++;
        if (tsval_reader_decode(&warm->tsval_reader, id, &value, false, 0, &context.rc) != 0) return VISIT_FAILED;
        if (compare_time(warm, value, latest) > 0) {
            _set_rc_verbose(&context.rc, WARM_RC_CORRUPT, id, "a value is later than the ones before it");
            return VISIT_FAILED;
        }
        if (compare_time(warm, value, context.earliest) < 0) return VISIT_STOP;
        if (!is_answer(search, value)) return VISIT_ON;
        return ++*held == capacity ? VISIT_STOP : VISIT_ON;
    });
}

// Evaluates the query, whose root is an AND, over windows that grow from the newest value on, until the answers are
// complete.
int _eval_and(slice_search* search, st_tsval* answers, uint32_t capacity, bool exact, uint32_t* held) {
    conjunction_context& context = search->context;
    const id_range_t whole = context.range;
    uint64_t window = exact ? std::max<uint64_t>(FIRST_WINDOW, uint64_t{capacity} * 8) : whole.size();
    do {
        context.range.end = static_cast<uint32_t>(std::min<uint64_t>(whole.end, context.range.begin + window));
        query_result_t result;
        const uint64_t lists_before = context.lists_read;
        ST_TRY(evaluate_query(&context, search->query, exact, &result));
        search->report.windows++;
        const visit_t end = _bitmap2answers(search, result, answers, capacity, held);
        if (end == VISIT_FAILED) return context.rc.warm_rc;
        if (end == VISIT_STOP) return 0;
        context.range.begin = context.range.end;
        window = context.lists_read - lists_before > MANY_LISTS ? whole.size() : window * WINDOW_GROWTH;
    } while (context.range.begin < whole.end);
    return 0;
}

// In a metric slice with dimension sets the numbers that a query yields are not in time order: runs, or the values of a
// slice without runs.
bool is_unordered(const WARM* warm) {
    return st_warm_slice_is_msidx_with_dimsets(warm->body);
}

// Evaluates the query and gives every number of the result to `visit`, which returns 0 to go on.
template <typename Visit>
int visit_unordered(slice_search* search, bool exact, Visit visit) {
    conjunction_context& context = search->context;
    query_result_t result;
    ST_TRY(evaluate_query(&context, search->query, exact, &result));
    search->report.windows++;
    if (context.range.empty()) return 0;
    ST_TRY(_frame2bitmap(&context, &result));
    int status = 0;
    visit_bits(result.bitmap.data(), nullptr, context.range, [&](uint32_t id) {
        status = visit(id);
        return status == 0 ? VISIT_ON : VISIT_FAILED;
    });
    return status;
}

int merge_unordered(slice_search* search, bool exact, run_merge_t* merge) {
    conjunction_context& context = search->context;
    run_merge_open(merge, context.handle, context.earliest, context.latest);
    ST_TRY(visit_unordered(search, exact, [&](uint32_t id) { return run_merge_add(merge, id, &context.rc); }));
    return run_merge_start(merge, &context.rc);
}

int search_unordered(slice_search* search, st_tsval* answers, uint32_t capacity, bool exact, uint32_t* held) {
    conjunction_context& context = search->context;
    run_merge_t merge;
    ST_TRY(merge_unordered(search, exact, &merge));
    uint32_t id = 0;
    uint32_t run = 0;
    while (*held < capacity && run_merge_peek(&merge, &id, &run)) {
        st_tsval& value = answers[*held];
        search->report.values_decoded++;
        ST_TRY(tsval_reader_decode(&context.handle->tsval_reader, id, &value, false, 0, &context.rc));
        *held += is_answer(search, value) ? 1 : 0;
        ST_TRY(run_merge_pass(&merge, &context.rc));
    }
    return 0;
}

int count_unordered(slice_search* search, uint64_t* count) {
    conjunction_context& context = search->context;
    run_merge_t merge;
    run_merge_open(&merge, context.handle, context.earliest, context.latest);
    return visit_unordered(search, true, [&](uint32_t id) {
        uint32_t first = 0;
        uint32_t end = 0;
        ST_TRY(run_merge_bounds(&merge, id, &first, &end, &context.rc));
        *count += end > first ? end - first : 0;
        return 0;
    });
}

bool is_deleted(const WARM* warm, uint32_t id) {
    return warm->d_array != nullptr && id / 8 < warm->body->d_size.get() &&
           (warm->d_array[id / 8] >> (id % 8) & 1) != 0;
}

// The count of one exact term from its metadata, when nothing can make it differ from the number of its events.
bool count_from_metadata(slice_search* search, uint64_t* count, int* status) {
    conjunction_context& context = search->context;
    std::string term;
    if (!context.covers_slice || context.handle->lexicon == nullptr || st_warm_slice_has_deletes(context.handle) ||
        !query_is_single_term(search->query, &term)) {
        return false;
    }
    uint32_t id = 0;
    *status = _fclex_get_with_status(context.handle->lexicon, term.c_str(), &id, context.info, &context.rc);
    *count = 0;
    search->report.from_metadata = true;
    if (*status == WARM_RC_NOT_FOUND) {
        *status = 0;
        return true;
    }
    st_term_metadata record = {};
    if (*status == 0) *status = warm_slice_term_metadata(context.handle, id, context.info, &record, &context.rc);
    *count = record.count;
    return true;
}

int count_matches(slice_search* search, uint64_t* count) {
    int status = 0;
    if (is_unordered(search->context.handle)) return count_unordered(search, count);
    if (count_from_metadata(search, count, &status)) return status;
    conjunction_context& context = search->context;
    query_result_t result;
    ST_TRY(evaluate_query(&context, search->query, true, &result));
    uint64_t found = 0;
    if (st_warm_slice_has_deletes(context.handle)) {
        visit_result(context, result, [&](uint32_t id) {
            found += is_deleted(context.handle, id) ? 0 : 1;
            return VISIT_ON;
        });
    } else if (result.tsval_list_capacity < context.bufcap && result.not_bitmap.empty()) {
        found = result.tsval_list_capacity;
    } else if (!context.range.empty()) {
        ST_TRY(_frame2bitmap(&context, &result));
        found = range_bitmap_count(result.bitmap.data(), context.range);
    }
    *count = found;
    return 0;
}

// A bitmap over runs is the head of one over all values, whose bits from the number of runs on are 0.
int widen_to_values(const WARM* warm, bitmap_and_bounds_t* found, warm_rc_t* rc) {
    buffer<uint8_t> wide;
    found->end = st_warm_slice_values(warm);
    if (!wide.alloc(_calc_bitmap_size(0, found->end))) return _set_rc_msg(rc, WARM_RC_NO_MEMORY, "failed alloc bitmap");
    std::memcpy(wide.data(), found->bm.data(), std::min(wide.size(), found->bm.size()));
    found->bm = std::move(wide);
    return 0;
}

// Runs a search at the engine's edge: no exception passes, and the caller's record says what went wrong.
template <typename Run>
int guarded(slice_search* search, search_report_t* report, warm_rc_t* rc, Run run) {
    int status = 0;
    try {
        status = run();
    } catch (const std::bad_alloc&) {
        status = _set_rc(&search->context.rc, WARM_RC_NO_MEMORY);
    }
    search->report.lists_read = search->context.lists_read;
    if (report != nullptr) *report = search->report;
    return status == 0 ? _set_rc(rc, WARM_RC_OK) : _cpy_rc(rc, &search->context.rc);
}

// What the crash log says of a search in progress.
struct search_note_t {
    const WARM* warm;
    const st_query_spec* query;
    const std::unique_ptr<slice_search>* search;
    const st_tsval* answers;
    uint32_t capacity;
    bool is_exact;
};

void write_search_note(string_builder* out, const void* subject) noexcept {
    const auto& note = *static_cast<const search_note_t*>(subject);
    const WARM* warm = note.warm;
    string_builder_appendz(out, "START ST_WARM_SLICE_SEARCH ANNOTATIONS:\nslice ");
    string_builder_append_decimal_i64(out, warm->fname_meta.latest);
    string_builder_append1(out, '-');
    string_builder_append_decimal_i64(out, warm->fname_meta.earliest);
    string_builder_append1(out, '-');
    string_builder_append_decimal_u64(out, warm->fname_meta.id);
    string_builder_appendz(out, " fd=");
    string_builder_append_decimal_i64(out, warm->fd.get());
    string_builder_append1(out, '\n');
    st_query_annotator_write(out, note.query);
    string_builder_appendz(out, "answers=");
    crash_append_pointer(out, note.answers);
    string_builder_appendz(out, " cap=");
    string_builder_append_decimal_u64(out, note.capacity);
    string_builder_appendz(out, note.is_exact ? " is_exact=1\n" : " is_exact=0\n");
    if (*note.search != nullptr) search_annotator_write(out, &(*note.search)->context);
}

}  // namespace

int warm_slice_search(WARM* warm, const st_query_spec* query, st_tsval* answers, uint32_t capacity, bool is_exact,
                      search_report_t* report, warm_rc_t* rc) {
    std::unique_ptr<slice_search> search;
    const search_note_t subject = {warm, query, &search, answers, capacity, is_exact};
    const crash_note note(write_search_note, &subject);
    ST_TRY(open_search(warm, query, &search, rc));
    if (capacity == 0) {
        const int status = validate_query_text(query->lispy, query->token_case, nullptr);
        return _set_rc(rc, status);
    }
    uint32_t held = 0;
    ST_TRY(guarded(search.get(), report, rc, [&] {
        return is_unordered(warm) ? search_unordered(search.get(), answers, capacity, is_exact, &held)
                                  : _eval_and(search.get(), answers, capacity, is_exact, &held);
    }));
    return static_cast<int>(held);
}

int st_warm_slice_search(WARM* warm, const st_query_spec* query, st_tsval* answers, uint32_t capacity, bool is_exact) {
    warm_rc_t rc;
    return warm_slice_search(warm, query, answers, capacity, is_exact, nullptr, &rc);
}

int warm_slice_count(WARM* warm, const st_query_spec* query, uint64_t* count, search_report_t* report, warm_rc_t* rc) {
    *count = 0;
    std::unique_ptr<slice_search> search;
    ST_TRY(open_search(warm, query, &search, rc));
    return guarded(search.get(), report, rc, [&] { return count_matches(search.get(), count); });
}

int query_to_bitmap_and_bounds(WARM* warm, const st_query_spec* query, bitmap_and_bounds_t* bitmap_and_bounds,
                               uint64_t* match_count, warm_rc_t* rc) {
    ST_ASSERT(warm && query && bitmap_and_bounds && match_count);
    std::unique_ptr<slice_search> search;
    ST_TRY(open_search(warm, query, &search, rc));
    st_query_info_t* info = query->info;
    if (info != nullptr && info->callback != nullptr) info->callback(info->context);
    return guarded(search.get(), nullptr, rc, [&] {
        conjunction_context& context = search->context;
        query_result_t result;
        ST_TRY(evaluate_query(&context, query, true, &result));
        ST_TRY(_frame2bitmap(&context, &result));
        free_bitmap_and_bounds(bitmap_and_bounds);
        bitmap_and_bounds->et = query->earliest;
        bitmap_and_bounds->lt = query->latest;
        bitmap_and_bounds->begin = context.range.begin;
        bitmap_and_bounds->end = context.range.end;
        bitmap_and_bounds->begin_preamble = context.range.begin_preamble;
        *match_count = range_bitmap_count(result.bitmap.data(), context.range);
        bitmap_and_bounds->bm = std::move(result.bitmap);
        return warm_slice_has_runs(warm) ? widen_to_values(warm, bitmap_and_bounds, &context.rc) : 0;
    });
}

int warm_slice_merge_runs(WARM* warm, const st_query_spec* query, run_merge_t* merge, warm_rc_t* rc) {
    ST_ASSERT(is_unordered(warm));
    std::unique_ptr<slice_search> search;
    ST_TRY(open_search(warm, query, &search, rc));
    return guarded(search.get(), nullptr, rc, [&] { return merge_unordered(search.get(), true, merge); });
}

}  // namespace veldar
