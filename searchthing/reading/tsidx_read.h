// Reading an index directory: events by query, by term and one by one, terms, numbers, measures.
//
// Every read works on one snapshot of the directory (tsidx_snapshot.h) and is whole or fails: a slice that cannot be
// read fails it with the slice's status, and st_tsidx_last_failure names the slice. Besides the failures named, every
// function may return WARM_RC_OPEN or WARM_RC_READ (the directory cannot be read), WARM_RC_RETRIES (it does not hold
// still), or TSIDX_SYNC_FAILED on a handle with events in memory, which become a slice first.
//
// Time bounds are inclusive. Deleted events are never handed out and not counted as events; terms and their counts are
// those of the slices, in which a deleted event still counts until every event of its slice is deleted.
//
// Callbacks: -1 stops the walk, which then returns -1; any other result is added to the walk's total. They may read
// from the same handle. Walks keep all slices that they need open at once, a descriptor each.
#pragma once

#include <cstddef>
#include <cstdint>

#include "searchthing/directory/tsidx.h"
#include "searchthing/lexicon/term_choice.h"
#include "searchthing/reading/tsidx_snapshot.h"
#include "searchthing/search/query.h"
#include "searchthing/values/st_tsval.h"

namespace veldar {

// Writes the newest `capacity` events that match, newest first, then by address descending, to `answers` (the
// caller's). An event that lies in several slices, that is, one time and address, is written once, as the newest of the
// slices has it; events of metric slices, which say nothing of their dimensions and measures here, are written as often
// as they occur. Slices are searched newest first and only as far as they can matter. Returns the number of answers; a
// status of parse_query (parsed_query.h), or a slice's; after a failure the answers mean nothing. With `is_exact` 0 the
// answers are a superset of the match (warmslice_search.h).
[[nodiscard]] int st_tsidx_query(TSIDX* tsidx, const st_query_spec* query, st_tsval* answers, uint32_t capacity,
                                 int is_exact);

// The newest `capacity` events that contain exactly this term ("*" is a character like any other), as st_tsidx_query
// writes them. The number of answers; WARM_RC_INVALID_ARGUMENT for a null term, WARM_RC_MINIFIED for a minified slice,
// or a slice's status.
[[nodiscard]] int st_tsidx_get(TSIDX* tsidx, const char* term, st_time_t earliest, st_time_t latest, st_tsval* answers,
                               uint32_t capacity);

// The newest `capacity` events of a time range, whatever their terms, as st_tsidx_query writes them.
[[nodiscard]] int st_tsidx_all_events(TSIDX* tsidx, st_time_t earliest, st_time_t latest, st_tsval* answers,
                                      uint32_t capacity);

// The number of events that match exactly; all events for a null query. Slices are counted one by one: an event that
// lies in two counts twice. 0 or a status as st_tsidx_query's; the query's cumspan is not applied.
[[nodiscard]] int st_tsidx_event_count(TSIDX* tsidx, const st_query_spec* query, uint64_t* count);
// The number of events in a time range that contain exactly this term ("*" is a character like any other), as above,
// without a text to read. 0; WARM_RC_INVALID_ARGUMENT for a null term, WARM_RC_MINIFIED for a minified slice, or a
// slice's status.
[[nodiscard]] int st_tsidx_term_count(TSIDX* tsidx, const char* term, st_time_t earliest, st_time_t latest,
                                      uint64_t* count);
// st_tsidx_event_count over all that a snapshot reads, which is held for it. 0 or a status, in `rc`.
[[nodiscard]] int snapshot_event_count(tsidx_snapshot* snapshot, const st_query_spec& query, uint64_t* count,
                                       warm_rc_t* rc);

// Receives one event; valid for this call only.
using tsidx_event_fn = int (*)(const st_tsval* event, void* context);

// Hands out every event that matches exactly, slice by slice from the newest on, newest first in a slice; an event that
// lies in two slices comes twice. The total of the results, -1, or a status as st_tsidx_query's.
[[nodiscard]] int64_t st_tsidx_apply_events(TSIDX* tsidx, const st_query_spec* query, tsidx_event_fn fn, void* context);

// Stores the first `capacity` terms that begin with the prefix (null: any), ascending, with their event counts, summed
// over the slices, in place of ids. With the case flag as st_fclex_enum in every slice. Returns their number.
[[nodiscard]] int st_tsidx_enum(TSIDX* tsidx, const char* prefix, st_enum_answer* answers, uint32_t capacity,
                                bool case_flag);

// Receives a term (NUL-terminated, at most 2047 bytes, valid for this call only), its length and its event count.
using tsidx_term_fn = int (*)(const char* term, size_t length, uint64_t count, void* context);

// Hands out the terms that begin with the prefix (null: any), slice by slice from the newest on, ascending in a slice,
// each with its count in that slice. The total of the results, -1, WARM_RC_MINIFIED for a minified slice, or a slice's
// status.
[[nodiscard]] int64_t st_tsidx_apply_terms(TSIDX* tsidx, const char* prefix, tsidx_term_fn fn, void* context);

// The same with every term once, ascending over all slices, and counts summed. Memory is bounded whatever the number of
// terms: at most 8 MiB of lexicon pieces, and 16 KiB a slice.
[[nodiscard]] int64_t st_tsidx_distinct_apply_terms(TSIDX* tsidx, const char* prefix, tsidx_term_fn fn, void* context);
// How many distinct terms there are.
[[nodiscard]] int64_t st_tsidx_distinct_term_count(TSIDX* tsidx);
// As st_tsidx_distinct_apply_terms for the terms that a needle matches (matcher.h); counts are read for those alone.
// WARM_RC_INVALID_ARGUMENT for a null needle.
[[nodiscard]] int64_t st_tsidx_lex_query(TSIDX* tsidx, const char* needle, tsidx_term_fn fn, void* context);

// What a directory holds, all slices added up.
struct tsidx_meta_t {
    st_time_t earliest = 0;  // of the slices' names; with no slice both are 0
    st_time_t latest = 0;
    uint64_t slices = 0;
    uint64_t events = 0;   // deleted ones included
    uint64_t deleted = 0;  // of these
    uint64_t terms = 0;    // the same term in two slices counts twice
    uint64_t postings = 0;
    uint64_t bytes = 0;  // of the slice files
};
// 0 or a status.
[[nodiscard]] int st_tsidx_meta(TSIDX* tsidx, tsidx_meta_t* meta);

// One slice of a directory.
struct tsidx_info_t {
    char name[256] = {};  // of the file
    char format[8] = {};  // the header's magic, NUL-terminated
    st_time_t earliest = 0;
    st_time_t latest = 0;
    uint64_t id = 0;
    bool part = false;  // written in part mode
    uint64_t events = 0;
    uint64_t deleted = 0;
    uint64_t terms = 0;
    uint64_t postings = 0;
    uint64_t bytes = 0;
};
// Describes the newest `capacity` slices, newest first. Returns how many slices there are, which may be more.
[[nodiscard]] int64_t st_tsidx_get_tsidx_info(TSIDX* tsidx, tsidx_info_t* infos, size_t capacity);

// Goes on with another directory, or with the same one after it has been moved: syncs into the old one and closes its
// slices first. A writing handle takes the limits that the new one remembers. 0; TSIDX_SYNC_FAILED,
// WARM_RC_INVALID_ARGUMENT for an empty path, WARM_RC_OPEN for a directory that the handle could not have been opened
// with, and then nothing has changed (but for the sync).
[[nodiscard]] int st_tsidx_cd(TSIDX* tsidx, const char* path);

// Metric directories: the events with what they say, dimensions and measures. One that lies in two slices is two events.

using tsidx_metric_event_fn = int (*)(const st_metric_event_t* event, void* context);

// Hands out every event that matches exactly (null query: all), slice by slice from the newest on, newest first in a
// slice. The total of the results, -1, WARM_RC_UNSUPPORTED for a slice without runs and column store (events, and
// metrics of older generations), WARM_RC_CORRUPT for damage, or a status as st_tsidx_query's. Dimensions are looked up
// once a set, and measures are read in stretches: memory is about 200 bytes a matching set, and 32 MiB.
[[nodiscard]] int64_t st_tsidx_apply_metric_events(TSIDX* tsidx, const st_query_spec* query, tsidx_metric_event_fn fn,
                                                   void* context);

struct st_metric_options_t {
    // Whether the measures of a metric are wanted, by its name; asked once a metric and slice. Events then come with
    // those measures alone, and events without any do not come. Null: all are wanted.
    bool (*wants)(std::string_view name, void* context) = nullptr;
    void* wants_context = nullptr;
};
// The same with options: columns of metrics that are not wanted are not read.
[[nodiscard]] int64_t st_tsidx_apply_metric_events_of(TSIDX* tsidx, const st_query_spec* query,
                                                      const st_metric_options_t& options, tsidx_metric_event_fn fn,
                                                      void* context);

// Bytes of measures: the sum of the slices' column stores. 0 or a status.
[[nodiscard]] int st_tsidx_measure_size(TSIDX* tsidx, uint64_t* bytes);

}  // namespace veldar
