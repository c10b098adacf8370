// The engine's outer surface for programs that work on index directories: argument checks, the record of the current
// transaction, and forwarding to the directory (tsidx.h).
//
//   st_init("my-program");
//   TSWRITEOPTS opts;
//   st_tsidx_write_opts_set_defaults(&opts);
//   THING* thing = st_open_for_write("/var/lib/index", 0, TSIDX_ORDINARY_WRITER, &opts);
//   st_txn_start(thing, time, address, source, source_type, host);
//   st_txn_put(thing, "error", 5);
//   if (st_txn_close(thing) != 0) ...           the event is not in the index
//   if (st_sync(thing) != 0) ...                some events since the last good sync are not in the index
//
//   QUERY query;
//   st_query_init(&query);                      all time; st_query_set_time_bound asks for less
//   query.lispy = "[AND error [NOT debug]]";
//   st_tsval answers[100];
//   int count = st_query(thing, &query, answers, 100, 1);
//   if (st_close(thing) != 0) ...
//
// A handle is used by one thread at a time. Unless noted, a null handle is a programming error.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "searchthing/base/st_init.h"
#include "searchthing/base/warm_rc.h"
#include "searchthing/directory/tsidx.h"
#include "searchthing/format/tsidx_names.h"
#include "searchthing/reading/tsidx_read.h"
#include "searchthing/search/query.h"
#include "searchthing/upkeep/tsidx_upkeep.h"

namespace veldar {

struct st_select_handle;
struct select_spec_t;
struct select_row_t;

struct st_handle;
using THING = st_handle;

// Flags of st_open_for_write; others are ignored.
inline constexpr uint32_t ST_OPEN_STREAMING = 1;  // events come in order of time, then address
inline constexpr uint32_t ST_OPEN_METRICS = 2;

// A handle for reading an existing or future directory, which it does not change. Null for a null or empty path or
// without memory. As long as there is no such directory, everything that reads it fails with WARM_RC_OPEN and errno
// ENOENT.
THING* st_open_for_read(const char* path);
// A handle for writing. Null for a null or empty path, a write level outside 1 to 4, a directory that the process may
// not read, write and search, or without memory. `limit` is the number that tells writers of one directory apart;
// TSIDX_ORDINARY_WRITER for a single writer.
THING* st_open_for_write(const char* path, uint32_t flags, uint32_t limit, const TSWRITEOPTS* opts);
// Writes what is in memory as a slice: see st_tsidx_sync. -1 for a null handle.
[[nodiscard]] int st_sync(THING* thing);
// Syncs and ends the handle: see st_tsidx_close. -1 for a null handle. The handle is gone whatever the result.
[[nodiscard]] int st_close(THING* thing);

// Ends the handle without a sync: see st_tsidx_abandon. Nothing for a null handle.
void st_abandon(THING* thing);

// One event: start, any number of puts, close or abort; see st_tsidx_txn_start, _put, _close and _abort. `address` is
// the event's key, where the raw event lies: two events with one address end up in different slices, at a cost. Outside
// metric directories `subsecond` is kept in memory only, and the value's measure, an integer of 31 bits, is
// `seek_address`. Metric directories keep the milliseconds of `subsecond` (tsval_encode_milliseconds) when the write
// options ask for them; st_txn_put_measure puts the name of a metric, " metric_name::cpu.load", with what was measured.
// Keywords without a leading blank are found there as well, at exactly the events that they were put with; each
// combination of keywords is a set of its own, so that one that differs from event to event makes a set an event. Who
// does not look at the results of start and put learns from close.
int st_txn_start(THING* thing, st_time_t time, st_addr_t address, st_source_t source, st_src_type_t source_type,
                 st_host_t host);
int st_txn_start_with_subseconds(THING* thing, st_time_t time, st_encoded_subsecond_t subsecond, st_addr_t address,
                                 st_multikv_seek_addr_t seek_address, st_measure_t measure, st_source_t source,
                                 st_src_type_t source_type, st_host_t host);
int st_txn_put(THING* thing, const char* text, size_t length);
int st_txn_put_measure(THING* thing, const char* text, size_t length, st_measure_t measure);
[[nodiscard]] int st_txn_close(THING* thing);
// A whole event in one call, faster than its parts: see st_tsidx_put_event.
[[nodiscard]] int st_put_event(THING* thing, const st_txn* txn, std::span<const std::string_view> keywords);
void st_txn_abort(THING* thing);

// The functions of tsidx.h of the same names.
int st_autotune(THING* thing, int enable);
[[nodiscard]] int st_options(THING* thing, uint64_t lexicon_bytes, uint64_t max_terms, uint64_t max_postings,
                             uint64_t max_values);
void st_set_params(THING* thing, uint64_t max_terms, uint64_t lexicon_bytes, uint64_t max_postings, uint64_t max_values,
                   uint64_t keywords_per_txn, uint64_t dimset_words);
uint64_t st_max_terms(const THING* thing);
uint64_t st_max_term_chars(const THING* thing);
uint64_t st_max_postings(const THING* thing);
uint64_t st_max_values(const THING* thing);
uint64_t st_txn_per_sync(const THING* thing);
uint64_t st_keywords_cut(const THING* thing);
int st_get_warm_rc(const THING* thing);
int st_get_warm_errno(const THING* thing);
int st_need_optimize(const THING* thing);
[[nodiscard]] int st_set_need_optimize(THING* thing);

// Reading: the functions of tsidx_read.h of the same names. Where a comment names results, arguments were found wanting
// before the directory was asked.

// Works on a copy of the query, whose token case is TOKEN_CASE_ASIS: WARM_RC_NO_MEMORY when it cannot be made, 0 for an
// earliest time after the latest, then -1 for a null handle.
[[nodiscard]] int st_query(THING* thing, const QUERY* query, st_tsval* answers, uint32_t capacity, int is_exact);
// -1 for a null handle, 0 for null answers, a capacity of 0 or an earliest time after the latest.
[[nodiscard]] int st_get(THING* thing, const char* term, st_time_t earliest, st_time_t latest, st_tsval* answers,
                         uint32_t capacity);
[[nodiscard]] int st_all_events(THING* thing, st_time_t earliest, st_time_t latest, st_tsval* answers,
                                uint32_t capacity);
// WARM_RC_INVALID_ARGUMENT for a null handle or output.
[[nodiscard]] int st_event_count(THING* thing, const QUERY* query, uint64_t* count);
[[nodiscard]] int st_term_count(THING* thing, const char* term, st_time_t earliest, st_time_t latest, uint64_t* count);
[[nodiscard]] int64_t st_apply_events(THING* thing, const QUERY* query, tsidx_event_fn fn, void* context);
// Selections; whoever makes one includes tsidx_select.h. The new handle is null for an earliest time after the latest, for
// a null handle, and without memory, which is logged. It is freed before the directory is closed.
st_select_handle* st_select_handle_new(THING* thing, const QUERY* query, const select_spec_t* spec);
[[nodiscard]] int st_select_handle_read(st_select_handle* handle, select_row_t* row);
void st_select_handle_free(st_select_handle* handle);
// Metric directories: the functions of tsidx_read.h of the same names. WARM_RC_INVALID_ARGUMENT for a null handle, or
// output.
[[nodiscard]] int64_t st_apply_metric_events(THING* thing, const QUERY* query, tsidx_metric_event_fn fn, void* context);
[[nodiscard]] int64_t st_apply_metric_events_of(THING* thing, const QUERY* query, const st_metric_options_t& options,
                                                tsidx_metric_event_fn fn, void* context);
[[nodiscard]] int st_measure_size(THING* thing, uint64_t* bytes);
// -1 for a null handle.
[[nodiscard]] int st_enum(THING* thing, const char* prefix, st_enum_answer* answers, uint32_t capacity, bool case_flag);
[[nodiscard]] int64_t st_apply_terms(THING* thing, const char* prefix, tsidx_term_fn fn, void* context);
[[nodiscard]] int64_t st_distinct_term_count(THING* thing);
[[nodiscard]] int64_t st_distinct_apply_terms(THING* thing, const char* prefix, tsidx_term_fn fn, void* context);
[[nodiscard]] int64_t st_lex_query(THING* thing, const char* needle, tsidx_term_fn fn, void* context);
// -1 for a null handle or record.
[[nodiscard]] int st_meta(THING* thing, tsidx_meta_t* meta);
// WARM_RC_INVALID_ARGUMENT for a null handle.
[[nodiscard]] int64_t st_get_tsidx_info(THING* thing, tsidx_info_t* infos, size_t capacity);
// -1 for a null handle, both.
int st_is_optimized(THING* thing);
[[nodiscard]] int st_health(THING* thing);
[[nodiscard]] int st_cd(THING* thing, const char* path);

// Changing what is there: tsidx_upkeep.h.

// -1 for a null handle or array.
[[nodiscard]] int64_t st_delete_by_keys(THING* thing, const st_tsval_encoded* keys, size_t count);
[[nodiscard]] int64_t st_delete_by_addrs(THING* thing, const st_addr_t* addrs, size_t count);
// The output directory is not null either.
[[nodiscard]] int st_minify(THING* thing, const char* output_directory);

// 1 when the name parses as a minified slice (without a directory) or a regular one (tsidx_names.h), else 0.
[[nodiscard]] int st_parse_tsidx(const char* file_name, st_filename_metadata_t* meta);
// The open directory behind the handle, for the operations of tsidx.h; owned by the handle.
TSIDX* st_directory(THING* thing);

}  // namespace veldar
