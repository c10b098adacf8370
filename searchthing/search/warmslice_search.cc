#include "searchthing/search/warmslice_search.h"

#include <algorithm>
#include <new>
#include <string>

#include "libzero/assertions.h"
#include "searchthing/base/bitset.h"
#include "searchthing/lexicon/fclex.h"
#include "searchthing/search/search_frames.h"
#include "searchthing/slice/warmslice_meta.h"

namespace veldar {

namespace {

int count_unordered(event_walk_t* walk, uint64_t* count) {
    conjunction_context& context = walk->context;
    query_result_t result;
    run_merge_t merge;
    ST_TRY(event_walk_evaluate_unordered(walk, &result));
    run_merge_open(&merge, context.handle, context.earliest, context.latest);
    match_ids ids(&result, context.range);
    for (uint32_t id = 0; ids.next(&id);) {
        uint32_t first = 0, end = 0;
        ST_TRY(warm_slice_go_on(context.handle, 1, &context.rc));
        ST_TRY(run_merge_bounds(&merge, id, &first, &end, &context.rc));
        *count += end - first;
    }
    return 0;
}

// The count of one exact term from its metadata, when nothing can make it differ from the number of its events.
bool count_from_metadata(event_walk_t* walk, uint64_t* count, int* status) {
    conjunction_context& context = walk->context;
    const std::string* term = nullptr;
    if (!context.covers_slice || context.handle->lexicon == nullptr || st_warm_slice_has_deletes(context.handle) ||
        !query_is_single_term(*walk->query, &term)) {
        return false;
    }
    uint32_t id = 0;
    *status = _fclex_get_with_status(context.handle->lexicon, term->c_str(), &id, context.info, &context.rc);
    *count = 0;
    walk->report.from_metadata = true;
    if (*status == WARM_RC_NOT_FOUND) {
        *status = 0;
        return true;
    }
    st_term_metadata record = {};
    if (*status == 0) *status = warm_slice_term_metadata(context.handle, id, context.info, &record, &context.rc);
    *count = record.count;
    return true;
}

int count_matches(event_walk_t* walk, uint64_t* count) {
    conjunction_context& context = walk->context;
    int status = 0;
    ST_TRY(event_walk_begin(walk));
    if (is_unordered(context.handle)) return count_unordered(walk, count);
    if (count_from_metadata(walk, count, &status)) return status;
    query_result_t result;
    ST_TRY(event_walk_evaluate(walk, &result));
    const std::span<const uint8_t> deleted = context.handle->tsval_reader.d.bytes;
    const bool has_deletes = st_warm_slice_has_deletes(context.handle);
    if (match_kind(result) == MATCH_LIST && result.not_bitmap.empty()) {
        const std::span<const uint32_t> ids = match_list(result);
        *count = ids.size();
        if (has_deletes)
            *count -= static_cast<uint64_t>(std::count_if(ids.begin(), ids.end(), [&](uint32_t id) {
                return id / 8 < deleted.size() && (deleted[id / 8] >> (id % 8) & 1) != 0;
            }));
    } else if (!context.range.empty()) {
        ST_TRY(_frame2bitmap(&context, &result));
        if (has_deletes) range_bitmap_clear(result.bitmap.data(), deleted, context.range);
        *count = range_bitmap_count(result.bitmap.data(), context.range);
    }
    return 0;
}

int widen_to_values(const WARM* warm, bitmap_and_bounds_t* found, warm_rc_t* rc) {
    ST_ASSERT(found->begin == 0 && found->end <= st_warm_slice_values(warm));
    found->end = st_warm_slice_values(warm);
    return widen_bitmap(found->end, &found->bm, rc);
}

// Runs `ask(walk)` over the whole match at the engine's edge: no exception passes, and the caller's record says what
// went wrong.
template <typename Ask>
int guarded(WARM* warm, const parsed_query_t& query, search_report_t* report, warm_rc_t* rc, Ask ask) {
    try {
        const event_walk_ptr walk = event_walk_open(warm, query, query.spec.latest, UINT64_MAX, true);
        const int status = ask(walk.get());
        walk->report.lists_read = walk->context.lists_read;
        if (report != nullptr) *report = walk->report;
        return status == 0 ? _set_rc(rc, WARM_RC_OK) : _cpy_rc(rc, &walk->context.rc);
    } catch (const std::bad_alloc&) {
        return _set_rc(rc, WARM_RC_NO_MEMORY);
    }
}

}  // namespace

int warm_slice_search(WARM* warm, const st_query_spec* query, st_tsval* answers, uint32_t capacity, bool is_exact,
                      search_report_t* report, warm_rc_t* rc) {
    parsed_query_t parsed;
    ST_TRY(parse_query(*query, &parsed, rc));
    try {
        const event_walk_ptr walk = event_walk_open(warm, parsed, query->latest, capacity, is_exact);
        const int found = event_walk_next(walk.get(), answers, capacity, rc);
        if (report != nullptr) *report = walk->report;
        return found;
    } catch (const std::bad_alloc&) {
        return _set_rc(rc, WARM_RC_NO_MEMORY);
    }
}

int st_warm_slice_search(WARM* warm, const st_query_spec* query, st_tsval* answers, uint32_t capacity, bool is_exact) {
    warm_rc_t rc;
    return warm_slice_search(warm, query, answers, capacity, is_exact, nullptr, &rc);
}

int warm_slice_count(WARM* warm, const parsed_query_t& query, uint64_t* count, search_report_t* report, warm_rc_t* rc) {
    *count = 0;
    return guarded(warm, query, report, rc, [&](event_walk_t* walk) { return count_matches(walk, count); });
}

int warm_slice_count(WARM* warm, const st_query_spec* query, uint64_t* count, search_report_t* report, warm_rc_t* rc) {
    *count = 0;
    parsed_query_t parsed;
    ST_TRY(parse_query(*query, &parsed, rc));
    return warm_slice_count(warm, parsed, count, report, rc);
}

int query_to_bitmap_and_bounds(WARM* warm, const parsed_query_t& query, bitmap_and_bounds_t* bitmap_and_bounds,
                               uint64_t* match_count, warm_rc_t* rc) {
    ST_ASSERT(warm && bitmap_and_bounds && match_count);
    st_query_info_t* info = query.spec.info;
    if (info != nullptr && info->callback != nullptr) info->callback(info->context);
    return guarded(warm, query, nullptr, rc, [&](event_walk_t* walk) {
        conjunction_context& context = walk->context;
        query_result_t result;
        ST_TRY(event_walk_evaluate(walk, &result));
        ST_TRY(_frame2bitmap(&context, &result));
        free_bitmap_and_bounds(bitmap_and_bounds);
        bitmap_and_bounds->et = query.spec.earliest;
        bitmap_and_bounds->lt = query.spec.latest;
        bitmap_and_bounds->begin = context.range.begin;
        bitmap_and_bounds->end = context.range.end;
        bitmap_and_bounds->begin_preamble = context.range.begin_preamble;
        *match_count = range_bitmap_count(result.bitmap.data(), context.range);
        bitmap_and_bounds->bm = std::move(result.bitmap);
        return warm_slice_has_runs(warm) ? widen_to_values(warm, bitmap_and_bounds, &context.rc) : 0;
    });
}

int query_to_bitmap_and_bounds(WARM* warm, const st_query_spec* query, bitmap_and_bounds_t* bitmap_and_bounds,
                               uint64_t* match_count, warm_rc_t* rc) {
    ST_ASSERT(warm && query && bitmap_and_bounds && match_count);
    parsed_query_t parsed;
    ST_TRY(parse_query(*query, &parsed, rc));
    return query_to_bitmap_and_bounds(warm, parsed, bitmap_and_bounds, match_count, rc);
}

int warm_slice_merge_runs(WARM* warm, const parsed_query_t& query, run_merge_t* merge, warm_rc_t* rc) {
    ST_ASSERT(is_unordered(warm));
    return guarded(warm, query, nullptr, rc, [&](event_walk_t* walk) { return event_walk_merge_runs(walk, merge); });
}

}  // namespace veldar
