// Preparing a hot slice for writing: terms in byte order, values newest first, every posting renumbered.
#include <algorithm>
#include <cstring>

#include "libzero/assertions.h"
#include "libzero/endian.h"
#include "searchthing/hot/hotslice_internal.h"

namespace veldar {

namespace {

// Orders values by time (signed), then address; a larger key is a newer value.
uint64_t value_key(const st_tsval& value) {
    return uint64_t{static_cast<uint32_t>(value.time) ^ 0x80000000u} << 32 | value.address;
}

bool values_arrived_in_order(const st_hot_slice& hot) {
    for (uint32_t slot = 1; slot < hot.value_index; slot++) {
        if (value_key(hot.values[slot]) <= value_key(hot.values[slot - 1])) return false;
    }
    return true;
}

// Hashed mode: fills value_order and values_map. Equal keys keep their slots' order, so that files are reproducible.
void order_values(st_hot_slice& hot, bool arrived_in_order) {
    const uint32_t count = hot.value_index;
    for (uint32_t slot = 0; slot < count; slot++) {
        hot.sort_keys[slot] = {.key = ~value_key(hot.values[slot]), .index = slot, .offset = 0};
    }
    if (arrived_in_order) {
        std::reverse(hot.sort_keys.begin(), hot.sort_keys.begin() + count);
    } else {
        std::sort(hot.sort_keys.begin(), hot.sort_keys.begin() + count,
                  [](const hot_sort_key_t& a, const hot_sort_key_t& b) {
                      return a.key != b.key ? a.key < b.key : a.index < b.index;
                  });
    }
    for (uint32_t number = 0; number < count; number++) {
        hot.value_order[number] = hot.sort_keys[number].index;
        hot.values_map[hot.sort_keys[number].index] = number;
    }
}

// The eight bytes of a term from `offset` on, as a number that compares like the bytes; zero from the terminating NUL
// on, where the next term's bytes begin. No term holds a NUL, so the padding cannot be mistaken for text.
uint64_t load_key(const char* at) {
    uint64_t word = load_le64(at);
    const uint64_t zeros = (word - 0x0101010101010101u) & ~word & 0x8080808080808080u;
    if (zeros != 0) word &= ((zeros & (~zeros + 1)) >> 7) - 1;
    return __builtin_bswap64(word);
}

// Radix sort on terms, eight bytes a step (the multikey quicksort of J. Bentley and R. Sedgewick, "Fast algorithms for
// sorting and searching strings", with a machine word for a character): sort the range by its words, then each run of
// equal words by the next word. At most 256 levels deep, because a term has at most 2047 bytes.
void ssort2(const char* lexicon, hot_sort_key_t* first, hot_sort_key_t* last, uint32_t depth) {
    for (hot_sort_key_t* key = first; key != last; key++) key->key = load_key(lexicon + key->offset + depth);
    std::sort(first, last, [](const hot_sort_key_t& a, const hot_sort_key_t& b) { return a.key < b.key; });
    for (hot_sort_key_t *run = first, *end; run != last; run = end) {
        for (end = run + 1; end != last && end->key == run->key; end++) {
        }
        if (end - run > 1) ssort2(lexicon, run, end, depth + sizeof(uint64_t));
    }
}

void st_list_head_qsort(st_hot_slice& hot) {
    for (uint32_t id = 0; id < hot.table.count; id++) {
        hot.sort_keys[id] = {.key = 0, .index = id, .offset = hot.table.terms[id].offset};
    }
    ssort2(hot.table.text.data(), hot.sort_keys.begin(), hot.sort_keys.begin() + hot.table.count, 0);
    for (uint32_t rank = 0; rank < hot.table.count; rank++) {
        hot.sorted_terms[rank] = hot.table.text.data() + hot.sort_keys[rank].offset;
        if (hot.mode == HOT_METRIC) hot.metrics.term_ranks[hot.sort_keys[rank].index] = rank;
    }
}

// Divides the posting array into a stretch for each term, in order; returns how many postings there are.
uint32_t start_cursors(st_hot_slice& hot) {
    uint32_t total = 0;
    for (uint32_t rank = 0; rank < hot.table.count; rank++) {
        const uint32_t id = hot.sort_keys[rank].index;
        hot.cursors[id] = total;
        hot.term_postings[rank] = hot.table.terms[id].postings;
        total += hot.table.terms[id].postings;
    }
    ST_ASSERT(total == hot.list_node_index && total <= hot.postings.size());
    return total;
}

// Deals the nodes, newest first, to their terms' stretches.
void deal_postings(st_hot_slice& hot) {
    const uint32_t total = start_cursors(hot);
    uint32_t* const cursors = hot.cursors.data();
    uint32_t* const postings = hot.postings.data();
    const uint32_t* const numbers = hot.mode == HOT_STREAMING ? nullptr : hot.values_map.data();
    for (uint32_t node = total; node-- != 0;) {
        const hot_node_t posting = hot.nodes[node];
        postings[cursors[posting.term]++] =
            numbers == nullptr ? posting.value - hot.value_index : numbers[posting.value];
    }
}

// The same for values that did not arrive in order while the nodes of each stand together: value by value in the order of
// their numbers, so that every list ascends. False when memory is short, and nothing is dealt.
bool deal_postings_by_number(st_hot_slice& hot) {
    const uint32_t count = hot.value_index;
    buffer<uint32_t> ends;  // of the nodes of each value
    if (!ends.alloc(count)) return false;
    const uint32_t total = start_cursors(hot);
    for (uint32_t node = 0; node < total; node++) ends[hot.nodes[node].value] = node + 1;
    // Values without a node end where the one before does.
    for (uint32_t slot = 1; slot < count; slot++) ends[slot] = std::max(ends[slot], ends[slot - 1]);
    for (uint32_t number = 0; number < count; number++) {
        const uint32_t slot = hot.value_order[number];
        for (uint32_t node = slot == 0 ? 0 : ends[slot - 1]; node < ends[slot]; node++) {
            ST_ASSERT(hot.nodes[node].value == slot);
            hot.postings[hot.cursors[hot.nodes[node].term]++] = number;
        }
    }
    return true;
}

// Drops duplicates from sorted numbers; in metric mode those of one dimension set are duplicates. Returns the new end.
uint32_t* drop_duplicates(const st_hot_slice& hot, uint32_t* begin, uint32_t* end) {
    if (hot.mode != HOT_METRIC) return std::unique(begin, end);
    const buffer<st_tsval*>& values = hot.metrics.value_order;
    return std::unique(begin, end, [&](uint32_t a, uint32_t b) { return values[a]->address == values[b]->address; });
}

// Sorts each term's numbers, drops duplicates and closes the gaps that they leave; returns the new total.
uint32_t order_postings(st_hot_slice& hot, uint32_t total) {
    uint32_t* in = hot.postings.begin();
    uint32_t* out = in;
    for (uint32_t rank = 0; rank < hot.table.count; rank++) {
        uint32_t* const end = in + hot.term_postings[rank];
        if (!std::is_sorted(in, end)) std::sort(in, end);
        uint32_t* const kept = drop_duplicates(hot, in, end);
        std::memmove(out, in, static_cast<size_t>(kept - in) * sizeof *in);
        hot.term_postings[rank] = static_cast<uint32_t>(kept - in);
        out += kept - in;
        in = end;
    }
    ST_ASSERT(in == hot.postings.begin() + total && out <= in);
    return static_cast<uint32_t>(out - hot.postings.begin());
}

}  // namespace

int st_hot_slice_prepare(HOT* hot, uint32_t* num_values, uint32_t* num_terms, uint32_t* num_postings,
                         uint32_t* num_dimsets, uint32_t* max_measure_rank, warm_rc_t* rc) {
    ST_ASSERT(hot != nullptr);
    _set_rc(rc, 0);
    const uint32_t count = st_hot_slice_values(hot);
    if (!hot->fills_downward() && count == 0) return _set_rc_msg(rc, WARM_RC_FAILED, "hot slice holds no values");
    if (!hot->prepared) {
        // Nodes that never went back to an older value leave every list free of duplicates, and ascending too when the
        // values arrived oldest first or are dealt by number.
        bool lists_ascend = hot->mode != HOT_METRIC, in_order = true;
        if (!hot->fills_downward()) {
            in_order = values_arrived_in_order(*hot);
            lists_ascend = hot->nodes_ordered;
            order_values(*hot, in_order);
        }
        st_list_head_qsort(*hot);
        if (hot->mode == HOT_METRIC) hot_metrics_order(*hot);
        if (in_order || !lists_ascend || !deal_postings_by_number(*hot)) {
            deal_postings(*hot);
            lists_ascend = lists_ascend && in_order;
        }
        const uint32_t total = lists_ascend ? hot->list_node_index : order_postings(*hot, hot->list_node_index);
        if (hot->mode == HOT_METRIC) hot_metrics_count_loose(*hot);

        hot->prepared = true;
        hot_prepared_t& result = hot->result;
        result.num_values = count;
        result.num_terms = hot->table.count;
        result.num_postings = total;
        if (count != 0 && hot->mode != HOT_METRIC) {
            result.latest = hot_slice_prepared_value(hot, 0)->time;
            result.earliest = hot_slice_prepared_value(hot, count - 1)->time;
        }
        result.address_min = hot->address_min;
        result.address_max = hot->address_max;
        result.lexicon_bytes = hot->table.text_used;
        result.terms = hot->sorted_terms.span().first(hot->table.count);
        result.term_postings = hot->term_postings.span().first(hot->table.count);
        result.postings = hot->postings.span().first(total);
    }
    *num_values = hot->result.num_values;
    *num_terms = hot->result.num_terms;
    *num_postings = hot->result.num_postings;
    *num_dimsets = hot->result.num_dimsets;
    *max_measure_rank = hot->result.max_measure_rank;
    return 0;
}

uint32_t st_hot_slice_get_term_index(const HOT* hot, uint32_t rank) {
    ST_ASSERT(hot->prepared && rank < hot->table.count);
    return hot->sort_keys[rank].index;
}

const hot_prepared_t* hot_slice_prepared(const HOT* hot) {
    ST_ASSERT(hot->prepared);
    return &hot->result;
}

const st_tsval* hot_slice_prepared_value(const HOT* hot, uint32_t number) {
    ST_ASSERT(hot->prepared && number < st_hot_slice_values(hot));
    if (hot->mode == HOT_METRIC) return hot->metrics.value_order[number];
    return &hot->values[hot->mode == HOT_STREAMING ? hot->value_index + number : hot->value_order[number]];
}

}  // namespace veldar
