#include "searchthing/search/search_literals.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <new>

#include "libzero/assertions.h"
#include "searchthing/format/metric_terms.h"
#include "searchthing/search/search_lists.h"
#include "searchthing/search/search_terms.h"
#include "searchthing/slice/warmslice_runs.h"

namespace veldar {

namespace {

constexpr uint32_t CANDIDATES_ENOUGH = 100;
// The lists of more terms than these, which a wildcard or a comparison stands for, would drive all others out.
constexpr size_t FEW_TERMS = 8;

int _proc_terms(conjunction_context* context, const std::vector<uint32_t>& terms, uint8_t* bitmap) {
    const bool keep = terms.size() <= FEW_TERMS;
    for (const uint32_t term : terms) {
        const int status = list_or_into(context, term, keep, bitmap);
        if (status != 0) {
            return _set_rc_verbose(&context->rc, status, term, "_proc_term._decompress_list_as_deferred_disjunction");
        }
    }
    return 0;
}

// ORs everything that one literal matches into a bitmap; an exact term that is not there adds nothing.
int or_literal(conjunction_context* context, const std::string& literal, uint8_t* bitmap) {
    if (is_wildcard(context, literal)) {
        const std::vector<uint32_t>* terms = nullptr;
        ST_TRY(lookup_wildcard(context, literal, &terms));
        return _proc_terms(context, *terms, bitmap);
    }
    const term_lookup_t* term = nullptr;
    ST_TRY(lookup_exact(context, literal, &term));
    if (!term->exists) return 0;
    if (term->everywhere) {
        range_bitmap_fill(bitmap, context->range);
        return 0;
    }
    return list_or_into(context, term->id, true, bitmap);
}

// The values that one comparison matches, into a zeroed bitmap.
int or_comparison(conjunction_context* context, const comp_t& comparison, uint8_t* bitmap) {
    const std::vector<uint32_t>* terms = nullptr;
    ST_TRY(lookup_comparison(context, comparison, &terms));
    ST_TRY(_proc_terms(context, *terms, bitmap));
    if (comparison.op == T_OP_NEQ && context->neq_matches_missing) range_bitmap_complement(bitmap, context->range);
    return 0;
}

// The running result of a conjunction: a list once there is one, else a bitmap, else everything.
struct running_match {
    bool none = false;
    bool has_list = false;
    uint32_t count = 0;  // ids in list
    buffer<uint32_t> list;
    buffer<uint8_t> bitmap;
};

// A list that fills a good part of the range is quicker to handle as bits: 32 bits an id against one bit a value.
bool prefers_bitmap(const conjunction_context* context, const std::vector<term_lookup_t>& terms) {
    return !terms.empty() && terms.front().count / 8 >= context->bufcap / 128 && context->bufcap > 4096;
}

int intersect_as_bitmaps(conjunction_context* context, const std::vector<term_lookup_t>& terms, running_match* match) {
    buffer<uint8_t> scratch;
    for (const term_lookup_t& term : terms) {
        if (match->bitmap.empty()) {
            ST_TRY(range_bitmap_alloc(&match->bitmap, context->range, &context->rc));
            ST_TRY(list_or_into(context, term.id, true, match->bitmap.data()));
        } else {
            ST_TRY(list_filter_bits(context, term.id, true, &scratch, match->bitmap.data()));
        }
        if (range_bitmap_empty(match->bitmap.data(), context->range)) {
            match->none = true;
            return 0;
        }
    }
    return 0;
}

// Intersects the terms, rarest first. The range is narrowed to the survivors while the lists are walked. Returns a
// status; *early tells that an inexact caller has few enough candidates.
int _decompress_list_as_conjunction(conjunction_context* context, std::vector<term_lookup_t> terms, bool exact,
                                    running_match* match, bool* early) {
    std::erase_if(terms, [](const term_lookup_t& term) { return term.everywhere; });
    std::sort(terms.begin(), terms.end(), [](const term_lookup_t& a, const term_lookup_t& b) {
        return a.count != b.count ? a.count < b.count : a.id < b.id;
    });
    if (exact && prefers_bitmap(context, terms)) return intersect_as_bitmaps(context, terms, match);
    for (const term_lookup_t& term : terms) {
        if (!match->has_list) {
            match->has_list = true;
            ST_TRY(list_start(context, term, &match->list, &match->count));
        } else {
            ST_TRY(list_filter_ids(context, term, true, match->list.data(), &match->count));
        }
        if (match->count == 0) {
            match->none = true;
            return 0;
        }
        if (!exact && match->count < CANDIDATES_ENOUGH) {
            *early = true;
            return 0;
        }
    }
    return 0;
}

// Narrows the running match to the bits of `filter`, which it may take over.
void narrow_match(conjunction_context* context, buffer<uint8_t>* filter, running_match* match) {
    if (match->has_list) {
        match->count = _filter_values(match->list.data(), match->count, filter->data(), context->range, true);
        match->none = match->count == 0;
    } else if (match->bitmap.empty()) {
        match->bitmap = std::move(*filter);
        match->none = range_bitmap_empty(match->bitmap.data(), context->range);
    } else {
        range_bitmap_and(match->bitmap.data(), filter->data(), context->range);
        match->none = range_bitmap_empty(match->bitmap.data(), context->range);
    }
}

// The time span that all exact terms share; false when it is empty. A term's latest second counts to its last
// nanosecond.
bool shared_span(const std::vector<term_lookup_t>& terms, st_timeval_t* earliest_out, st_timeval_t* latest_out) {
    st_time_t earliest = INT_MIN;
    st_time_t latest = INT_MAX;
    for (const term_lookup_t& term : terms) {
        earliest = std::max(earliest, term.earliest);
        latest = std::min(latest, term.latest);
    }
    if (earliest_out != nullptr && earliest > earliest_out->time_s) *earliest_out = {earliest, 0};
    if (latest_out != nullptr && latest < latest_out->time_s) *latest_out = {latest, 999999999};
    return latest >= earliest;
}

// Looks up the exact positive literals; *possible is false when one is absent or their time spans are apart.
int lookup_positives(conjunction_context* context, const literal_group& group, st_timeval_t* earliest_out,
                     st_timeval_t* latest_out, std::vector<term_lookup_t>* terms, bool* possible) {
    *possible = true;
    for (const std::string& literal : group.positive) {
        if (is_wildcard(context, literal)) continue;
        const term_lookup_t* term = nullptr;
        ST_TRY(lookup_exact(context, literal, &term));
        if (!term->exists) {
            *possible = false;
            return 0;
        }
        if (term->count == 0) {
            return _set_rc_verbose(&context->rc, WARM_RC_CORRUPT, term->id, "a term without postings");
        }
        terms->push_back(*term);
    }
    *possible = shared_span(*terms, earliest_out, latest_out);
    return 0;
}

int apply_filters(conjunction_context* context, const literal_group& group, running_match* match) {
    buffer<uint8_t> filter;
    for (const std::string& literal : group.positive) {
        if (match->none) return 0;
        if (!is_wildcard(context, literal)) continue;
        ST_TRY(list_scratch(context, &filter));
        ST_TRY(or_literal(context, literal, filter.data()));
        narrow_match(context, &filter, match);
    }
    for (const comp_t& comparison : group.comparisons) {
        if (match->none) return 0;
        ST_TRY(list_scratch(context, &filter));
        ST_TRY(or_comparison(context, comparison, filter.data()));
        narrow_match(context, &filter, match);
    }
    return 0;
}

// Takes what the negative literals match out of a list, without a look at the rest of the range.
int exclude_from_list(conjunction_context* context, const literal_group& group, running_match* match) {
    buffer<uint8_t> filter;
    for (const std::string& literal : group.negative) {
        if (match->count == 0) break;
        const term_lookup_t* term = nullptr;
        if (!is_wildcard(context, literal)) ST_TRY(lookup_exact(context, literal, &term));
        if (term == nullptr) {
            ST_TRY(list_scratch(context, &filter));
            ST_TRY(or_literal(context, literal, filter.data()));
            match->count = _filter_values(match->list.data(), match->count, filter.data(), context->range, false);
        } else if (term->everywhere) {
            match->count = 0;
        } else if (term->exists) {
            ST_TRY(list_filter_ids(context, *term, false, match->list.data(), &match->count));
        }
    }
    match->none = match->count == 0;
    return 0;
}

// The same for bits.
int exclude_from_bits(conjunction_context* context, const literal_group& group, running_match* match) {
    buffer<uint8_t> scratch;
    for (const std::string& literal : group.negative) {
        const term_lookup_t* term = nullptr;
        if (!is_wildcard(context, literal)) ST_TRY(lookup_exact(context, literal, &term));
        if (term != nullptr && term->exists && !term->everywhere) {
            ST_TRY(list_filter_bits(context, term->id, false, &scratch, match->bitmap.data()));
        } else if (term == nullptr || term->exists) {
            ST_TRY(list_scratch(context, &scratch));
            ST_TRY(or_literal(context, literal, scratch.data()));
            range_bitmap_and_not(match->bitmap.data(), scratch.data(), context->range);
        }
    }
    return 0;
}

void hand_over(conjunction_context* context, running_match* match, query_result_t* result) {
    ST_ASSERT(!match->none && (!match->has_list || (match->count > 0 && match->bitmap.empty())));
    result->tsval_list = std::move(match->list);
    result->bitmap = std::move(match->bitmap);
    result->tsval_list_capacity = match->has_list ? match->count : context->bufcap;
}

int and_group(conjunction_context* context, const literal_group& group, bool exact, query_result_t* result,
              st_timeval_t* earliest_out, st_timeval_t* latest_out) {
    if (context->handle->lexicon == nullptr) {
        if (context->info != nullptr) context->info->no_lexicon = 1;
        result->tsval_list_capacity = context->bufcap;
        return 0;
    }
    ST_TRY(_find_first_if_needed(context));
    if (context->range.empty()) return 0;
    std::vector<term_lookup_t> terms;
    bool possible = false;
    ST_TRY(lookup_positives(context, group, earliest_out, latest_out, &terms, &possible));
    if (!possible) return 0;

    running_match match;
    bool early = false;
    ST_TRY(_decompress_list_as_conjunction(context, std::move(terms), exact, &match, &early));
    if (match.none) return 0;
    if (early) {
        hand_over(context, &match, result);
        return 0;
    }
    ST_TRY(apply_filters(context, group, &match));
    if (match.none) return 0;
    if (match.has_list) {
        ST_TRY(exclude_from_list(context, group, &match));
        if (match.none) return 0;
    } else if (!match.bitmap.empty()) {
        ST_TRY(exclude_from_bits(context, group, &match));
    } else if (!group.negative.empty()) {
        ST_TRY(range_bitmap_alloc(&result->not_bitmap, context->range, &context->rc));
        for (const std::string& literal : group.negative) {
            ST_TRY(or_literal(context, literal, result->not_bitmap.data()));
        }
    }
    hand_over(context, &match, result);
    return 0;
}

// NOT a OR NOT b is the complement of a AND b.
int or_negatives(conjunction_context* context, const literal_group& group, uint8_t* bitmap) {
    query_result_t both;
    ST_TRY(_and_group(context, {group.negative, {}, {}}, true, &both, nullptr, nullptr));
    buffer<uint8_t> inverse;
    ST_ASSERT(both.not_bitmap.empty());
    ST_TRY(range_bitmap_alloc(&inverse, context->range, &context->rc));
    switch (match_kind(both)) {
        case MATCH_BITS:
            range_bitmap_or(inverse.data(), both.bitmap.data(), context->range);
            break;
        case MATCH_EVERYTHING:
            range_bitmap_fill(inverse.data(), context->range);
            break;
        default:
            set_list_bits(both, context->range, inverse.data());
    }
    range_bitmap_complement(inverse.data(), context->range);
    range_bitmap_or(bitmap, inverse.data(), context->range);
    return 0;
}

int or_group(conjunction_context* context, const literal_group& group, query_result_t* result) {
    ST_TRY(_find_first_if_needed(context));
    if (context->range.empty()) return 0;
    if (result->bitmap.empty()) ST_TRY(range_bitmap_alloc(&result->bitmap, context->range, &context->rc));
    uint8_t* bitmap = result->bitmap.data();
    if (context->handle->lexicon == nullptr) {
        if (context->info != nullptr) context->info->no_lexicon = 1;
        range_bitmap_fill(bitmap, context->range);
        return 0;
    }
    buffer<uint8_t> one;
    for (const comp_t& comparison : group.comparisons) {
        ST_TRY(list_scratch(context, &one));
        ST_TRY(or_comparison(context, comparison, one.data()));
        range_bitmap_or(bitmap, one.data(), context->range);
    }
    for (const std::string& literal : group.positive) ST_TRY(or_literal(context, literal, bitmap));
    if (!group.negative.empty()) ST_TRY(or_negatives(context, group, bitmap));
    return 0;
}

// Runs a group operation at the engine's edge: no exception passes, and a failure leaves an empty result.
template <typename Operation>
int guarded(conjunction_context* context, query_result_t* result, Operation operation) {
    int status = 0;
    try {
        status = operation();
    } catch (const std::bad_alloc&) {
        status = _set_rc(&context->rc, WARM_RC_NO_MEMORY);
    }
    if (status != 0) _reset_result(result);
    return status;
}

// From the numbers of a context over runs to those that callers without one see.
int widen_from_runs(conjunction_context* context, id_range_t* range, query_result_t* result) {
    const uint32_t values = st_warm_slice_values(context->handle);
    if (range->end == context->bufcap) range->end = values;
    if (match_kind(*result) == MATCH_EVERYTHING) result->tsval_list_capacity = values;
    ST_TRY(widen_bitmap(values, &result->bitmap, &context->rc));
    return widen_bitmap(values, &result->not_bitmap, &context->rc);
}

// `operation(context)` on a group by itself.
template <typename Operation>
int alone(WARM* warm, bool neq_matches_missing, const st_timeval_t* earliest, const st_timeval_t* latest,
          id_range_t* range, query_result_t* result, st_query_info_t* info, warm_rc_t* rc, Operation operation) {
    conjunction_context context;
    conjunction_context_open(&context, warm, earliest, latest, info);
    context.neq_matches_missing = neq_matches_missing;
    context.range = *range;
    context.range.end = std::min(range->end, context.bufcap);
    int status = operation(&context);
    if (status == 0) status = widen_from_runs(&context, range, result);
    if (status != 0) _reset_result(result);
    conjunction_context_close(&context);
    return status == 0 ? _set_rc(rc, WARM_RC_OK) : _cpy_rc(rc, &context.rc);
}

}  // namespace

void _reset_result(query_result_t* result) {
    *result = query_result_t{};
}

void set_list_bits(const query_result_t& result, const id_range_t& range, uint8_t* bitmap) {
    for (const uint32_t id : match_list(result)) {
        const uint32_t bit = id - range.begin;
        bitmap[bit / 8] = static_cast<uint8_t>(bitmap[bit / 8] | 1U << (bit % 8));
    }
}

void conjunction_context_open(conjunction_context* context, WARM* warm, const st_timeval_t* earliest,
                              const st_timeval_t* latest, st_query_info_t* info) {
    context->handle = warm;
    context->bufcap = warm_slice_has_runs(warm) ? warm_slice_runs(warm) : st_warm_slice_values(warm);
    context->earliest = *earliest;
    context->latest = *latest;
    context->info = info;
}

void conjunction_context_close(conjunction_context* context) {
    if (context->reader_open) close_plist_reader(&context->reader);
    context->reader_open = false;
}

int _find_first_if_needed(conjunction_context* context) {
    id_range_t& range = context->range;
    if (range.computed) return 0;
    WARM* const warm = context->handle;
    if (st_warm_slice_is_msidx_with_dimsets(warm->body)) {
        range = {.begin = 0, .end = context->bufcap, .begin_preamble = 0, .computed = true};
        context->covers_slice = warm_slice_within(warm, context->earliest, context->latest);
        return 0;
    }
    const uint32_t values = context->bufcap;
    const st_timeval_t latest = warm_upper_bound(context->latest);
    ST_TRY(warm_slice_first_before(warm, 0, values, latest, true, &range.begin, &context->rc));
    ST_TRY(warm_slice_first_before(warm, 0, values, context->earliest, false, &range.end, &context->rc));
    range.begin = std::min(range.begin, range.end);  // bounds that are the wrong way round hold nothing
    ST_ASSERT(range.end <= context->bufcap);
    range.begin_preamble = 0;
    range.computed = true;
    context->covers_slice = range.begin == 0 && range.end == context->bufcap;
    return 0;
}

int _and_group(conjunction_context* context, const literal_group& group, bool exact, query_result_t* result,
               st_timeval_t* earliest_out, st_timeval_t* latest_out) {
    _reset_result(result);
    return guarded(context, result, [&] { return and_group(context, group, exact, result, earliest_out, latest_out); });
}

int _or_group(conjunction_context* context, const literal_group& group, query_result_t* result) {
    result->tsval_list_capacity = 0;
    return guarded(context, result, [&] { return or_group(context, group, result); });
}

int _set_everything(conjunction_context* context, uint8_t* bitmap) {
    if (!warm_slice_has_runs(context->handle) || context->handle->lexicon == nullptr) {
        range_bitmap_fill(bitmap, context->range);
        return 0;
    }
    const std::string metrics = std::string(METRIC_NAME_TERM) + "*";
    for (const std::string& pattern : {metrics, metrics.substr(1)}) {
        const std::vector<uint32_t>* terms = nullptr;
        ST_TRY(lookup_wildcard(context, pattern, &terms));
        ST_TRY(_proc_terms(context, *terms, bitmap));
    }
    return 0;
}

// Bitmaps of both begin at 0, so that one over runs is the head of one over all values.
int widen_bitmap(uint32_t values, buffer<uint8_t>* bitmap, warm_rc_t* rc) {
    if (bitmap->empty()) return 0;
    buffer<uint8_t> wide;
    ST_TRY(range_bitmap_alloc(&wide, {.begin = 0, .end = values}, rc));
    ST_ASSERT(bitmap->size() <= wide.size());
    std::memcpy(wide.data(), bitmap->data(), bitmap->size());
    *bitmap = std::move(wide);
    return 0;
}

int and_literals(WARM* warm, const literal_group& group, bool neq_matches_missing, const st_timeval_t* earliest,
                 const st_timeval_t* latest, id_range_t* range, query_result_t* result, st_timeval_t* earliest_out,
                 st_timeval_t* latest_out, bool is_exact, st_query_info_t* info, warm_rc_t* rc) {
    const auto both = [&](conjunction_context* context) {
        ST_TRY(_and_group(context, group, is_exact, result, earliest_out, latest_out));
        if (range->computed || !context->range.computed) return 0;
        *range = context->range;
        // Ids outside the survivors need no look any more; a bitmap or a not bitmap keeps its own range.
        if (is_exact && match_kind(*result) == MATCH_LIST && result->not_bitmap.empty()) {
            range->begin = match_list(*result).front();
            range->end = match_list(*result).back() + 1;
            ST_ASSERT(range->begin < range->end);
        }
        return 0;
    };
    return alone(warm, neq_matches_missing, earliest, latest, range, result, info, rc, both);
}

int or_literals(WARM* warm, const literal_group& group, bool neq_matches_missing, const st_timeval_t* earliest,
                const st_timeval_t* latest, id_range_t* range, query_result_t* result, st_query_info_t* info,
                warm_rc_t* rc) {
    ST_ASSERT(!group.positive.empty() || !group.negative.empty() || !group.comparisons.empty());
    const auto any = [&](conjunction_context* context) {
        ST_TRY(_or_group(context, group, result));
        *range = context->range;
        return 0;
    };
    return alone(warm, neq_matches_missing, earliest, latest, range, result, info, rc, any);
}

}  // namespace veldar
