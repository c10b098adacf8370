// Hot slice: the in-memory write buffer of an index directory (hashed and streaming modes).
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "searchthing/tsidx_names.h"
#include "searchthing/tsval.h"
#include "searchthing/warm_rc.h"

namespace veldar {

struct st_hot_slice;
using HOT = st_hot_slice;

// Results of puts and transaction starts; not warm_status_t.
enum st_hotput_rc_t : int32_t {
    HOT_PUT_RC_SUCCESS = 0,
    HOT_PUT_RC_TERMS_FULL = -1,
    HOT_PUT_RC_VALUES_FULL = -2,
    HOT_PUT_RC_POSTINGS_FULL = -3,
    HOT_PUT_RC_LEXICON_FULL = -4,
    HOT_PUT_RC_BAD_KEYWORD = -5,
    HOT_PUT_RC_DIMSETS_FULL = -6,
    HOT_PUT_RC_TXN_TOO_LARGE = -7,
    HOT_PUT_RC_MEASURES_FULL = -9,
};

struct st_txn {
    st_time_t time = 0;
    st_encoded_subsecond_t subsecond = 0;
    st_addr_t address = 0;
    st_multikv_seek_addr_t seek_address = 0;
    st_measure_t measure = 0;
    st_source_t source = 0;
    st_src_type_t source_type = 0;
    st_host_t host = 0;
    uint32_t reserved = 0;
};
static_assert(sizeof(st_txn) == 56);

HOT* st_hot_slice_create(uint64_t lexicon_bytes, uint64_t max_terms, uint64_t max_postings, uint64_t max_values,
                         uint64_t max_txn_keywords, uint64_t dimsets_cap, uint64_t max_dimset_measures, bool streaming,
                         bool is_msidx, const TSWRITEOPTS* opts, warm_rc_t* rc);
void st_hot_slice_close(HOT* hot);
void st_hot_slice_reset(HOT* hot);
st_hotput_rc_t st_hot_slice_txn_start(HOT* hot, const st_txn* txn);
st_hotput_rc_t st_hot_slice_put_txn(HOT* hot, const char* keyword, size_t length, const st_txn* txn);
st_hotput_rc_t st_hot_slice_txn_stop(HOT* hot);
void st_hot_slice_txn_abort(HOT* hot, st_hotput_rc_t code);
bool st_hot_slice_txn_aborted(const HOT* hot);
st_hotput_rc_t st_hot_slice_check_space(const HOT* hot);
bool st_hot_slice_needs_limits_adjusted(int code);
int st_hot_slice_prepare(HOT* hot, uint32_t* num_values, uint32_t* num_terms, uint32_t* num_postings,
                         uint32_t* num_dimsets, uint32_t* max_measure_rank, warm_rc_t* rc);
uint32_t st_hot_slice_get_term_index(const HOT* hot, uint32_t rank);
uint32_t st_hot_slice_values(const HOT* hot);
uint32_t st_hot_slice_value_begin(const HOT* hot);
uint32_t st_hot_slice_value_end(const HOT* hot);
bool st_hot_slice_is_streaming(const HOT* hot);
uint32_t get_largest_source(const HOT* hot);
uint32_t get_largest_source_type(const HOT* hot);
uint32_t get_largest_host(const HOT* hot);
double get_largest_measure(const HOT* hot);
uint64_t st_hot_slice_size(const HOT* hot);
uint64_t st_hot_slice_size_est(uint64_t lexicon_bytes, uint64_t max_terms, uint64_t max_postings, uint64_t max_values,
                               uint64_t x, uint64_t y);
uint32_t st_hot_slice_max_postings();
uint32_t st_hot_slice_max_values();
uint32_t st_hot_slice_max_dimsets();
uint32_t st_hot_slice_max_dimset_measures();

// What the directory layer needs to apply whole transactions.

struct hot_keyword_t {   // one keyword of a buffered transaction; the text is not NUL-terminated
    const char* text;
    uint32_t length;     // 1 to 2047
    uint32_t hash;       // hot_slice_hash of the text
};
uint32_t hot_slice_hash(const char* text, size_t length);  // djb2 over 32 bits

// Whether the whole transaction fits an open hot slice, checked exactly: 0, or the code of the first limit it would pass.
st_hotput_rc_t hot_slice_check_txn(const HOT* hot, const st_txn* txn, std::span<const hot_keyword_t> keywords);
// Applies every keyword of a transaction that hot_slice_check_txn has accepted; cannot fail.
void hot_slice_put_all(HOT* hot, const st_txn* txn, std::span<const hot_keyword_t> keywords);
// The value with this address, or null: how the directory finds two different events under one address.
const st_tsval* hot_slice_find_value(const HOT* hot, st_addr_t address);
// The most recent value, or null when there is none.
const st_tsval* hot_slice_last_value(const HOT* hot);
uint32_t hot_slice_terms(const HOT* hot);
uint32_t hot_slice_postings(const HOT* hot);       // posting nodes in use
uint64_t hot_slice_lexicon_bytes(const HOT* hot);  // arena bytes in use

// What slice creation reads from a prepared hot slice.
struct hot_prepared_t {
    uint32_t num_values = 0, num_terms = 0, num_postings = 0, num_dimsets = 0, max_measure_rank = 0;
    st_time_t earliest = 0, latest = 0;
    st_addr_t address_min = 0, address_max = 0;
    uint64_t lexicon_bytes = 0;                // arena bytes used: every term and its NUL
    std::span<const char* const> terms;        // sorted, NUL-terminated
    std::span<const uint32_t> term_postings;   // postings per sorted term
    std::span<const uint32_t> postings;        // all postings, sorted-term by sorted-term, each ascending
};
// Valid from a successful st_hot_slice_prepare until reset.
const hot_prepared_t* hot_slice_prepared(const HOT* hot);
// Value number `number` (0 is the newest) of a prepared hot slice.
const st_tsval* hot_slice_prepared_value(const HOT* hot, uint32_t number);
bool hot_slice_is_msidx(const HOT* hot);

}  // namespace veldar
