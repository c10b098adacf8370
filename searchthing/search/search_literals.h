// The literal level of a search: the terms, wildcards and comparisons of one bracket group against one warm slice.
//
// A set of value numbers is carried as an ascending list, as a bitmap over an id range [begin, end) (bit i of byte i /
// 8, least significant first, stands for begin + i), or as "everything in the range". Values are numbered newest first,
// so a time range is one run of numbers. Bitmaps are allocated with _calc_bitmap_size(begin, end), which covers bit
// `end`, and every bit from `end` on is 0 at all times.
//
// Metric slices with runs (warmslice_runs.h): their lists hold run numbers, so that a query is evaluated over runs, the
// numbers [0, runs), whatever the time bounds; which values of the selected runs lie inside them is a matter of the
// answers (search_runs.h). What callers without a context see is the range [0, number of values), in which bits and ids
// from the number of runs on never occur. Older metric slices with dimension sets have the range of all values too.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "libzero/resource.h"
#include "searchthing/base/query_info.h"
#include "searchthing/base/st_timeval.h"
#include "searchthing/base/warm_rc.h"
#include "searchthing/postings/plist.h"
#include "searchthing/postings/range_bitmap.h"
#include "searchthing/search/parsed_query.h"
#include "searchthing/slice/warmslice.h"

namespace veldar {

// The literals of one bracket group, as written in the query. Literals may hold "*".
struct literal_group {
    std::span<const std::string> positive;
    std::span<const std::string> negative;
    std::span<const comp_t> comparisons;
};

// The result of one group, which match_kind tells:
//   nothing      capacity 0, no bitmap
//   a list       capacity = its length, above 0
//   bits         a bitmap; capacity = the slice's value count, here the context's `bufcap` (AND), or 0 (OR)
//   everything   capacity = the value count, no list, no bitmap
// and, from AND groups that are bits or everything only, a bitmap of the values that negative literals exclude.
struct query_result_s {
    uint32_t tsval_list_capacity = 0;
    buffer<uint32_t> tsval_list;
    buffer<uint8_t> bitmap;
    buffer<uint8_t> not_bitmap;
};
using query_result_t = query_result_s;
void _reset_result(query_result_t* result);

enum match_kind_t { MATCH_NOTHING, MATCH_LIST, MATCH_BITS, MATCH_EVERYTHING };
inline match_kind_t match_kind(const query_result_t& result) {
    if (!result.bitmap.empty()) return MATCH_BITS;
    if (result.tsval_list_capacity == 0) return MATCH_NOTHING;
    return result.tsval_list.empty() ? MATCH_EVERYTHING : MATCH_LIST;
}
inline std::span<const uint32_t> match_list(const query_result_t& result) {
    return {result.tsval_list.data(), result.tsval_list.empty() ? 0 : result.tsval_list_capacity};
}
// Sets the bits of a list; `bitmap` covers the range, which holds the list.
void set_list_bits(const query_result_t& result, const id_range_t& range, uint8_t* bitmap);

// What the lexicon and the metadata say about one exact term.
struct term_lookup_t {
    bool exists = false;
    uint32_t id = 0;
    uint32_t count = 0;       // its list is no longer
    bool everywhere = false;  // its list holds every number
    st_time_t earliest = 0;   // all time in slices that do not tell, as is the latest
    st_time_t latest = 0;
};

// The working record of the literal operations, shared by all groups of one query: what was looked up once is not
// looked up again, and one posting reader serves every list.
struct conjunction_context {
    WARM* handle = nullptr;
    uint32_t bufcap = 0;    // the slice's value count; with runs, their number
    st_timeval_t earliest;  // the query's bounds, inclusive
    st_timeval_t latest;
    bool neq_matches_missing = false;
    bool wildcards_span = false;         // '*' stands for any characters (matcher_spans)
    bool wildcards_skip_fields = false;  // a wildcard without a colon matches no term that holds "::"
    bool covers_slice = false;           // the bounds hold every value, so no term's time span needs a look
    id_range_t range;
    st_query_info_t* info = nullptr;
    warm_rc_t rc;
    plist_reader reader;
    bool reader_open = false;
    std::unordered_map<std::string, term_lookup_t> exact_terms;
    std::unordered_map<std::string, std::vector<uint32_t>> term_sets;  // wildcards, and comparisons under their own key
    uint64_t lists_read = 0;
    bool stars_are_plain = false;           // no literal is a wildcard
    const parsed_query_t* query = nullptr;  // while it is evaluated: for the crash log
};

// Prepares a context for one query over one slice: nothing is read yet.
void conjunction_context_open(conjunction_context* context, WARM* warm, const st_timeval_t* earliest,
                              const st_timeval_t* latest, st_query_info_t* info);
void conjunction_context_close(conjunction_context* context);

// The run of value numbers whose times lie in the context's bounds, found by two binary searches, once; all of them in
// metric slices with dimension sets. 0 or a status.
[[nodiscard]] int _find_first_if_needed(conjunction_context* context);

// The group's positive literals and comparisons ANDed over the context's range; its negative literals become the
// result's not_bitmap. With `exact` false the group may stop with a superset once fewer than 100 candidates are left.
// The two time outputs (null allowed) are narrowed to the time span that all exact terms share. 0 or a status; on
// failure the result is empty.
[[nodiscard]] int _and_group(conjunction_context* context, const literal_group& group, bool exact,
                             query_result_t* result, st_timeval_t* earliest_out, st_timeval_t* latest_out);

// The group's literals, comparisons and negated literals ORed into the result's bitmap (made when there is none).
[[nodiscard]] int _or_group(conjunction_context* context, const literal_group& group, query_result_t* result);

// Sets the bits of everything that the range holds. In a slice with runs those are the runs that measure something, by
// way of the terms that name metrics.
[[nodiscard]] int _set_everything(conjunction_context* context, uint8_t* bitmap);

// Makes a bitmap over the runs of a slice one over all its values, which are no runs from their number on. 0 or
// WARM_RC_NO_MEMORY.
[[nodiscard]] int widen_bitmap(uint32_t values, buffer<uint8_t>* bitmap, warm_rc_t* rc);

// The same two operations for callers without a context. `range` is read when it is computed and filled when not; a
// conjunction that ran over a range computed here writes the narrowed range back.
[[nodiscard]] int and_literals(WARM* warm, const literal_group& group, bool neq_matches_missing,
                               const st_timeval_t* earliest, const st_timeval_t* latest, id_range_t* range,
                               query_result_t* result, st_timeval_t* earliest_out, st_timeval_t* latest_out,
                               bool is_exact, st_query_info_t* info, warm_rc_t* rc);
[[nodiscard]] int or_literals(WARM* warm, const literal_group& group, bool neq_matches_missing,
                              const st_timeval_t* earliest, const st_timeval_t* latest, id_range_t* range,
                              query_result_t* result, st_query_info_t* info, warm_rc_t* rc);

}  // namespace veldar
