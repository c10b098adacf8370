// The hot slice's record, for hotslice*.cc only.
//
// A put touches one slot of the term hash, one term record, the term's bytes, and appends one posting node:
//
//   slots     2 x terms_capacity x {hash, term id + 1}; a zero term is an empty slot, so fresh memory is an empty table
//   terms     terms_capacity x 16 bytes, in order of first appearance
//   lexicon   the terms' bytes back to back, each followed by a NUL
//   nodes     max_postings x {term, value slot}, in order of arrival
//
// A term's list runs from its newest node to its oldest. The nodes carry their term instead of a link to the next node,
// so that preparing deals them out to their lists in one backward pass instead of chasing a chain for every term: the
// chain's dependent loads cost 3 to 10 times as much as the scattered stores.
#pragma once

#include <cstdint>

#include "libzero/resource.h"
#include "searchthing/hotslice.h"

namespace veldar {

inline constexpr uint32_t HOT_NO_VALUE = 0xFFFFFFFF;

struct hot_slot_t {
    uint32_t hash;
    uint32_t term_plus_1;
};

struct hot_term_t {
    uint32_t offset;  // of its bytes in the lexicon arena
    uint32_t length;
    uint32_t newest;    // value slot of its newest posting
    uint32_t postings;  // nodes of this term
};

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

struct st_hot_slice {
    // Limits. Metric directories will add their dimension-set arrays here.
    bool streaming = false;
    bool is_msidx = false;
    uint32_t lexicon_capacity = 0;
    uint32_t terms_capacity = 0;  // a power of two
    uint32_t list_head_capacity_minus1 = 0;
    uint32_t list_node_capacity = 0;
    uint32_t value_capacity = 0;
    uint32_t value_hash_capacity = 0;  // 0 when streaming
    hot_soft_limits_t soft = {};

    // Content.
    buffer<char> lexicon;  // and 8 bytes more, so that the last term can be loaded in words
    uint32_t lexicon_used = 0;
    buffer<hot_term_t> terms;
    uint32_t terms_indexed = 0;
    buffer<hot_slot_t> slots;
    buffer<hot_node_t> nodes;
    uint32_t list_node_index = 0;
    buffer<st_tsval> values;
    uint32_t value_index = 0;     // hashed: one past the last value; streaming: the most recent value
    buffer<uint32_t> value_hash;  // value slot + 1, by event address; 0 = empty
    bool nodes_ordered = true;    // hashed: no node lies on an older value slot than the node before it
    st_addr_t address_min = 0xFFFFFFFF;
    st_addr_t address_max = 0;

    // Transaction.
    st_hotput_rc_t aborted = HOT_PUT_RC_SUCCESS;

    // Results of st_hot_slice_prepare.
    bool prepared = false;
    buffer<hot_sort_key_t> sort_keys;  // terms by rank once prepared
    buffer<uint32_t> value_order;      // hashed: value number -> value slot
    buffer<uint32_t> values_map;       // hashed: value slot -> value number
    buffer<uint32_t> cursors;          // by term id: where its next posting goes
    buffer<const char*> sorted_terms;
    buffer<uint32_t> term_postings;
    buffer<uint32_t> postings;
    hot_prepared_t result;
};

}  // namespace veldar
