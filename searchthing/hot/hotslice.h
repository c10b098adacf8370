// Hot slice: the in-memory write buffer of an index directory.
//
// Keywords are put inside transactions, one transaction per event. Every distinct keyword becomes a term, every
// distinct event a value, every (term, event) pair one posting. All memory is reserved at creation from fixed limits;
// nothing is allocated while putting. Preparing sorts terms and values and renumbers every posting, for writing as a
// warm slice; after that no put is allowed until the hot slice is reset.
//
//   mode       values                                a put finds its value by
//   hashed     slots 0, 1, ... upward                a hash table over event addresses
//   streaming  from the top slot downward            comparing with the most recent value only; events arrive in order
//   metric     from the top slot downward            nothing: every transaction makes one value
//
// In metric mode the keywords of a transaction make up a dimension set (dimset.h), by how they begin; each has its
// leading blank:
//
//   " metric_name::"             a column, with the transaction's measure at the time of the put
//   " host::"                    the host field; " source::" and " sourcetype::" likewise
//   " _catalog::", " _dims::"    no dimension, as is a keyword without a leading blank
//   any other leading blank      an optional dimension
//
// What is no dimension is found later at every event of the set that it was put with, and counted so; whole
// transactions (hot_slice_put_metric) leave no such keywords.
//
// A handle is used by one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

#include "searchthing/base/warm_rc.h"
#include "searchthing/format/write_options.h"
#include "searchthing/values/st_tsval.h"
#include "searchthing/values/values_writer.h"

namespace veldar {

struct ds_dimset_t;
struct st_hot_slice;
using HOT = st_hot_slice;

// An empty hot slice, or null with rc: WARM_RC_INVALID_ARGUMENT for fewer than 257 terms or more postings or values
// than the maxima, WARM_RC_DOES_NOT_FIT when a table derived from the limits has more than 2^32 - 2 entries.
// `max_terms` is rounded up to a power of two. `max_txn_keywords`, `dimsets_cap` (words of all sets) and
// `max_dimset_measures` matter in metric mode only, which ignores `streaming`; without options milliseconds are off.
HOT* st_hot_slice_create(uint64_t lexicon_bytes, uint64_t max_terms, uint64_t max_postings, uint64_t max_values,
                         uint64_t max_txn_keywords, uint64_t dimsets_cap, uint64_t max_dimset_measures, bool streaming,
                         bool is_msidx, const TSWRITEOPTS* opts, warm_rc_t* rc);
// Frees the handle; null is accepted.
void st_hot_slice_close(HOT* hot);
struct hot_closer {
    void operator()(HOT* handle) const { st_hot_slice_close(handle); }
};
using hot_ptr = std::unique_ptr<HOT, hot_closer>;
// Empties the hot slice and keeps its memory.
void st_hot_slice_reset(HOT* hot);

// Clears the aborted code and checks the soft limits; a code other than 0 aborts the transaction and is returned.
// Metric mode: the transaction before has been stopped; HOT_PUT_RC_DIMSETS_FULL when fewer than `max_txn_keywords`
// words are left for sets, HOT_PUT_RC_VALUES_FULL when no value is left.
[[nodiscard]] st_hotput_rc_t st_hot_slice_txn_start(HOT* hot, const st_txn* txn);
// Indexes one keyword for the event: 0 also for an empty keyword and for a pair that is indexed already; a keyword
// longer than 2047 bytes is cut. A refusal changes nothing. In an aborted transaction: the aborted code, and nothing
// happens. Streaming mode: the event is the most recent one or newer than it. Metric mode: a transaction is open and
// the record is the one that it was started with, but for the measure.
[[nodiscard]] st_hotput_rc_t st_hot_slice_put_txn(HOT* hot, const char* keyword, size_t length, const st_txn* txn);
// 0. Metric mode: commits the transaction, also an aborted one; an event without a measure is dropped, with the terms
// that it brought.
[[nodiscard]] st_hotput_rc_t st_hot_slice_txn_stop(HOT* hot);
// Makes the remaining puts of the transaction no-ops that return the code; what was put stays.
void st_hot_slice_txn_abort(HOT* hot, st_hotput_rc_t code);
bool st_hot_slice_txn_aborted(const HOT* hot);

// The first soft limit that is exceeded, in the order terms, values, postings, lexicon bytes, measures; 0 for none. The
// soft limit of a capacity C is C - C/8 below 65536 and C - C/16 from there on.
[[nodiscard]] st_hotput_rc_t st_hot_slice_check_space(const HOT* hot);
// Whether the code means that some limit is too small.
bool st_hot_slice_needs_limits_adjusted(int code);

// Sorts and renumbers everything; a second call answers from the first. -1 when a hashed hot slice holds no values.
[[nodiscard]] int st_hot_slice_prepare(HOT* hot, uint32_t* num_values, uint32_t* num_terms, uint32_t* num_postings,
                                       uint32_t* num_dimsets, uint32_t* max_measure_rank, warm_rc_t* rc);
// The term id (ordinal of first appearance) of the term at a sorted position of a prepared hot slice.
uint32_t st_hot_slice_get_term_index(const HOT* hot, uint32_t rank);

uint32_t st_hot_slice_values(const HOT* hot);
uint32_t st_hot_slice_value_begin(const HOT* hot);  // first live value slot
uint32_t st_hot_slice_value_end(const HOT* hot);    // one past the last
bool st_hot_slice_is_streaming(const HOT* hot);
value_ranges_t hot_slice_value_ranges(const HOT* hot);
// Bytes held, and an estimate of them before creation; `x` and `y` are dimension-set words and measures, 0 outside
// metrics.
uint64_t st_hot_slice_size(const HOT* hot);
uint64_t st_hot_slice_size_est(uint64_t lexicon_bytes, uint64_t max_terms, uint64_t max_postings, uint64_t max_values,
                               uint64_t x, uint64_t y);
uint32_t st_hot_slice_max_postings();
uint32_t st_hot_slice_max_values();
uint32_t st_hot_slice_max_dimsets();
uint32_t st_hot_slice_max_dimset_measures();

// What the directory layer needs to apply whole transactions.

struct hot_keyword_t {  // one keyword of a buffered transaction; the text is not NUL-terminated and holds no NUL
    const char* text;
    uint32_t length;  // 1 to 2047
    uint32_t hash;    // hot_slice_hash of the text
};
// djb2 (D. J. Bernstein, h * 33 + byte from 5381) over 32 bits; and whether a byte is NUL, found on the way.
struct hot_hash_t {
    uint32_t hash;
    bool has_nul;
};
hot_hash_t hot_slice_hash_checked(const char* text, size_t length);
uint32_t hot_slice_hash(const char* text, size_t length);

// Whether the whole transaction fits the hard limits, exactly: 0, or the code of the first limit that it would pass.
// Near a limit it collects the distinct new terms and may throw std::bad_alloc; it never changes the hot slice.
[[nodiscard]] st_hotput_rc_t hot_slice_check_txn(HOT* hot, const st_txn* txn, std::span<const hot_keyword_t> keywords);
// Metric mode: the same, where a keyword that is a column stands for one measure.
[[nodiscard]] st_hotput_rc_t hot_slice_check_metric_txn(const HOT* hot, std::span<const hot_keyword_t> keywords);
// Applies a whole metric transaction that hot_slice_check_metric_txn has accepted, `measures` being parallel to the
// keywords; cannot fail. Here what is no dimension joins the set as an optional dimension does, so that it is found at
// the events that it was put with and at no other, also when slices are merged, in which equal sets become one.
void hot_slice_put_metric(HOT* hot, const st_txn* txn, std::span<const hot_keyword_t> keywords,
                          std::span<const st_measure_t> measures);
// Applies every keyword of a transaction that hot_slice_check_txn has accepted; cannot fail.
void hot_slice_put_all(HOT* hot, const st_txn* txn, std::span<const hot_keyword_t> keywords);
// The value that a put of this event would join, or null, as always in metric mode: hashed mode goes by the address,
// streaming mode looks at the most recent value only. How the directory finds two different events under one address.
const st_tsval* hot_slice_find_value(HOT* hot, const st_txn* txn);
// The most recent value, or null when there is none.
const st_tsval* hot_slice_last_value(const HOT* hot);
uint32_t hot_slice_terms(const HOT* hot);
uint32_t hot_slice_postings(const HOT* hot);       // posting nodes in use
uint64_t hot_slice_lexicon_bytes(const HOT* hot);  // arena bytes in use

// What a keyword of a metric transaction is for its dimension set.
enum hot_dimension_t {
    HOT_DIM_NONE,
    HOT_DIM_HOST,
    HOT_DIM_SOURCE,
    HOT_DIM_SOURCE_TYPE,
    HOT_DIM_OPTIONAL,
    HOT_DIM_COLUMN
};
hot_dimension_t hot_slice_classify(std::string_view keyword);
// Whether the hot slice keeps dimension sets: metric mode.
bool ds_should_group_dimsets(const HOT* hot);

// Metric mode: one measure of an event.
struct hot_measure_t {
    uint32_t term;  // of its metric name
    st_measure_t value;
};
// Metric mode: whether values carry milliseconds, and in which form.
enum hot_milliseconds_t : uint8_t {
    HOT_MS_OFF = 0,
    HOT_MS_ENCODED = 1,  // as they were put
    HOT_MS_DECODED = 2,  // as nanoseconds, once prepared
};

// What slice creation reads from a prepared hot slice.
struct hot_prepared_t {
    uint32_t num_values = 0, num_terms = 0, num_postings = 0, num_dimsets = 0, max_measure_rank = 0;
    st_time_t earliest = 0, latest = 0;
    st_addr_t address_min = 0, address_max = 0;
    uint64_t lexicon_bytes = 0;               // arena bytes used: every term and its NUL
    std::span<const char* const> terms;       // sorted, NUL-terminated
    std::span<const uint32_t> term_postings;  // postings per sorted term
    std::span<const uint32_t> postings;       // all postings, sorted-term by sorted-term, each strictly ascending
    // Metric mode. The address of a prepared value is the rank of its dimension set; values come set by set, the
    // highest rank first, and newest first in a set; a term has one posting a set.
    std::span<const ds_dimset_t* const> dimsets;  // by rank, their terms being ranks
    std::span<const hot_measure_t> measures;      // of value v: v.measures of them from v.first_measure on
    std::span<const uint32_t> term_ranks;         // term id -> rank
    uint32_t new_measures = 0;                    // measures whose metric name was a new term
    hot_milliseconds_t milliseconds = HOT_MS_OFF;
};
// Valid from a successful st_hot_slice_prepare until reset.
const hot_prepared_t* hot_slice_prepared(const HOT* hot);
// Value number `number` (0 is the newest) of a prepared hot slice.
const st_tsval* hot_slice_prepared_value(const HOT* hot, uint32_t number);
bool hot_slice_is_msidx(const HOT* hot);
// Metric mode: events with the term at a sorted position, and the earliest and latest of their times.
struct hot_term_counts_t {
    uint32_t count;
    st_time_t earliest, latest;
};
hot_term_counts_t hot_slice_prepared_counts(const HOT* hot, uint32_t rank);

}  // namespace veldar
