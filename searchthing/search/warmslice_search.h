// Searches one warm slice: the newest answers of a query, their number, or the matching values as a bitmap.
//
// In metric slices with runs (warmslice_runs.h) a query selects runs, and every value of a selected run that lies in
// the time bounds is an answer. Terms of metrics begin with a blank, which a query writes escaped:
// "[AND \ host::web01]". The lists of metric slices of older generations are taken to hold value numbers. Metric slices
// have no deletions.
#pragma once

#include <cstdint>

#include "searchthing/postings/bitmap.h"
#include "searchthing/search/slice_events.h"

namespace veldar {

// Writes the query's newest answers, at most `capacity`, newest first, into `answers` (the caller's). Returns their
// number or a negative status; after a failure the answers are undefined beyond what a malformed query leaves
// untouched.
//
// With `is_exact` 0 the answers are a superset of the true match: once fewer than 100 candidates survive the exact
// terms of a conjunction, its other terms, comparisons and negations are not applied, and the caller checks the raw
// events. A nonzero cumspan keeps only answers whose second, as an unsigned number, is a whole multiple of it.
//
// Values are numbered newest first, so the search runs over windows of value numbers that grow from the newest on and
// ends with the window in which the last wanted answer was found. One thread at a time per slice.
[[nodiscard]] int st_warm_slice_search(WARM* warm, const st_query_spec* query, st_tsval* answers, uint32_t capacity,
                                       bool is_exact);

// The same with the whole status record and, when `report` is not null, an account of the work.
[[nodiscard]] int warm_slice_search(WARM* warm, const st_query_spec* query, st_tsval* answers, uint32_t capacity,
                                    bool is_exact, search_report_t* report, warm_rc_t* rc);

// The exact match of a metric slice with dimension sets (asserted) as a merge of its values, newest first
// (search_runs.h). It reads the slice, which outlives it. 0 or a status.
[[nodiscard]] int warm_slice_merge_runs(WARM* warm, const parsed_query_t& query, run_merge_t* merge, warm_rc_t* rc);

// The number of events that match exactly, deleted ones left out; cumspan is not applied. A single exact term over all
// of a slice's time without deletions is answered from its metadata. 0 or a status.
[[nodiscard]] int warm_slice_count(WARM* warm, const parsed_query_t& query, uint64_t* count, search_report_t* report,
                                   warm_rc_t* rc);
[[nodiscard]] int warm_slice_count(WARM* warm, const st_query_spec* query, uint64_t* count, search_report_t* report,
                                   warm_rc_t* rc);

// The exact match as a bitmap over its id range, for selections; `match_count` receives the number of set bits. Deleted
// values keep their bits. The bitmap is the caller's (free_bitmap_and_bounds). The query's info callback, when there is
// one, is called once before the evaluation. In a metric slice with dimension sets the range is that of all values; bit
// p stands for run p, and bits from the number of runs on are 0. 0 or a status.
[[nodiscard]] int query_to_bitmap_and_bounds(WARM* warm, const parsed_query_t& query,
                                             bitmap_and_bounds_t* bitmap_and_bounds, uint64_t* match_count,
                                             warm_rc_t* rc);
[[nodiscard]] int query_to_bitmap_and_bounds(WARM* warm, const st_query_spec* query,
                                             bitmap_and_bounds_t* bitmap_and_bounds, uint64_t* match_count,
                                             warm_rc_t* rc);

}  // namespace veldar
