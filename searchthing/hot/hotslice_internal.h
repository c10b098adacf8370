// The hot slice's record, for hotslice*.cc only.
//
// A put touches one slot of the term hash, one term record, the term's bytes, and appends one posting node:
//
//   slots   2 x capacity x {hash, term id + 1}; a zero term is an empty slot, so fresh memory is an empty table
//   terms   capacity x 16 bytes, in order of first appearance
//   text    the terms' bytes back to back, each followed by a NUL
//   nodes   max_postings x {term, value slot}, in order of arrival
//
// A term's list runs from its newest node to its oldest. The nodes carry their term instead of a link to the next node,
// so that preparing deals them out to their lists in one backward pass instead of chasing a chain for every term: the
// chain's dependent loads cost 3 to 10 times as much as the scattered stores.
#pragma once

#include <cstdint>

#include "libzero/resource.h"
#include "searchthing/columns/dimset.h"
#include "searchthing/hot/hotslice.h"
#include "searchthing/hot/hotslice_terms.h"

namespace veldar {

struct hot_node_t {
    uint32_t term;
    uint32_t value;  // value slot
};

// What sorting works on: the next eight bytes of a term as a big-endian number, or the key of a value.
struct hot_sort_key_t {
    uint64_t key;
    uint32_t index;   // term id or value slot
    uint32_t offset;  // of the term's bytes in the lexicon arena
};
static_assert(sizeof(hot_slot_t) == 8 && sizeof(hot_term_t) == 16 && sizeof(hot_node_t) == 8);

struct hot_soft_limits_t {
    uint64_t terms, values, postings, lexicon, measures;
};

// Metric mode. A transaction's terms are pending until it stops: then its dimension set is committed or found among the
// committed ones, and its terms get their postings. A term needs a posting only at the first event of each set that
// holds it, because the postings of a slice stand for sets; a term that its set does not hold (a loose one) gets a
// posting for every event.
struct hot_pending_t {
    uint32_t term;
    bool loose;
};

struct hot_metrics_t {
    buffer<uint32_t> dimsets;  // committed sets back to back, then the pending one
    uint32_t dimsets_cap = 0;
    uint32_t dimsets_committed_idx = 0;      // words
    buffer<const ds_dimset_t*> dimset_hash;  // committed sets; once prepared all of them in order, from the front
    uint32_t num_dimsets = 0;                // committed sets
    buffer<uint32_t> dimsets_map;            // word offset of a set -> its rank
    buffer<hot_pending_t> pending;           // terms of the open transaction
    uint32_t pending_count = 0;
    bool set_lost_a_field = false;  // host, source or source type was put twice: the first is loose
    bool has_loose = false;         // some term is loose
    bool txn_is_open = false;
    uint32_t terms_at_start = 0;  // terms before the open transaction
    buffer<hot_measure_t> dimset_measures;
    uint32_t dimset_measures_array_idx = 0;
    uint32_t new_measures = 0;        // measures whose metric name was a new term
    buffer<hot_term_counts_t> stats;  // by term id
    buffer<uint32_t> term_ranks;      // term id -> sorted rank
    buffer<st_tsval*> value_order;    // once prepared, by value number
    hot_milliseconds_t milliseconds = HOT_MS_OFF;
};

// How values are kept and found; drawn in hotslice.h.
enum hot_mode_t : uint8_t { HOT_HASHED, HOT_STREAMING, HOT_METRIC };

struct st_hot_slice {
    // Limits.
    hot_mode_t mode = HOT_HASHED;
    uint32_t list_node_capacity = 0;
    uint32_t value_capacity = 0;
    uint32_t value_hash_capacity = 0;  // 0 when streaming; in metric mode what the sorted values take
    hot_soft_limits_t soft = {};

    // Content.
    hot_terms_t table;
    buffer<hot_node_t> nodes;
    uint32_t list_node_index = 0;
    buffer<st_tsval> values;
    uint32_t value_index = 0;     // hashed: one past the last value; other modes: the most recent value
    buffer<uint32_t> value_hash;  // value slot + 1, by event address; 0 = empty
    uint32_t values_hashed = 0;   // hashed: the first values, which stand in the table; none while addresses ascend
    bool nodes_ordered = true;    // hashed: no node lies on an older value slot than the node before it
    st_addr_t address_min = 0xFFFFFFFF;
    st_addr_t address_max = 0;

    hot_metrics_t metrics;

    // Transaction.
    st_hotput_rc_t aborted = HOT_PUT_RC_SUCCESS;

    // Results of st_hot_slice_prepare.
    bool prepared = false;
    buffer<hot_sort_key_t> sort_keys;  // terms by rank once prepared
    buffer<uint32_t> value_order;      // hashed: value number -> value slot
    buffer<uint32_t> values_map;       // hashed and metric: value slot -> value number
    buffer<uint32_t> cursors;          // by term id: where its next posting goes
    buffer<const char*> sorted_terms;
    buffer<uint32_t> term_postings;
    buffer<uint32_t> postings;
    hot_prepared_t result;

    bool fills_downward() const { return mode != HOT_HASHED; }
};

// After this many probes of a specified sequence, which may cycle, because its step and the table size can share
// factors, a search goes on slot by slot, so that it always ends.
inline constexpr uint32_t HOT_SCATTERED_PROBES = 64;

// Metric mode (hotslice_metric.cc); the callers have checked the state that the public functions assert.
bool hot_metrics_allocate(st_hot_slice& hot, uint64_t max_txn_keywords, uint64_t dimsets_cap,
                          uint64_t max_dimset_measures);
void hot_metrics_reset(st_hot_slice& hot);
[[nodiscard]] st_hotput_rc_t hot_metrics_txn_start(st_hot_slice& hot, const st_txn& txn);
[[nodiscard]] st_hotput_rc_t hot_metrics_put(st_hot_slice& hot, const char* text, uint32_t length, const st_txn& txn);
void hot_metrics_txn_stop(st_hot_slice& hot);
// Metric mode's steps of preparing (hotslice_metric_prepare.cc), after the terms are sorted: orders sets and values.
void hot_metrics_order(st_hot_slice& hot);
// After the postings are ordered: the records of loose terms tell of whole sets, as their postings do.
void hot_metrics_count_loose(st_hot_slice& hot);

}  // namespace veldar
