#include "searchthing/hot/hotslice.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "libzero/assertions.h"
#include "libzero/endian.h"
#include "libzero/vbe.h"
#include "searchthing/hot/hotslice_internal.h"
#include "searchthing/lexicon/fclex.h"

namespace veldar {

namespace {

constexpr uint64_t MAX_TABLE_ENTRIES = 0xFFFFFFFE;

// Keywords handled together: enough to overlap their cache misses, few enough to stay in the first-level cache.
constexpr size_t BATCH = 32;

uint64_t soft_limit(uint64_t capacity) {
    return capacity - (capacity < 65536 ? capacity >> 3 : capacity >> 4);
}

// Hashed mode: the bucket that holds a value with the event's address, or the empty bucket where it belongs. The table
// has two buckets a value, so one of them is found.
uint32_t locate_value(const st_hot_slice& hot, const st_txn& txn) {
    const uint32_t step = (static_cast<uint32_t>(txn.time) * txn.address) | 1;
    uint32_t position = txn.address;
    uint32_t bucket = position % hot.value_hash_capacity;
    for (uint32_t probe = 0;; probe++) {
        const uint32_t found = hot.value_hash[bucket];
        if (found == 0 || hot.values[found - 1].address == txn.address) return bucket;
        position += step;
        bucket = probe < HOT_SCATTERED_PROBES ? position % hot.value_hash_capacity
                                              : (bucket + 1 == hot.value_hash_capacity ? 0 : bucket + 1);
    }
}

void hash_value(st_hot_slice& hot, uint32_t slot) {
    const st_tsval& value = hot.values[slot];
    const st_txn txn = {.time = value.time, .address = value.address};
    hot.value_hash[locate_value(hot, txn)] = slot + 1;
}

// The slot of the value that the event would join, or HOT_NO_VALUE.
uint32_t find_value(st_hot_slice& hot, const st_txn& txn) {
    if (hot.mode == HOT_METRIC || st_hot_slice_values(&hot) == 0) return HOT_NO_VALUE;
    if (hot.mode == HOT_STREAMING) {
        return hot.values[hot.value_index].address == txn.address ? hot.value_index : HOT_NO_VALUE;
    }
    // Addresses mostly ascend: then there is nothing to find, and the table stays empty.
    if (txn.address > hot.address_max) return HOT_NO_VALUE;
    while (hot.values_hashed < hot.value_index) hash_value(hot, hot.values_hashed++);
    const uint32_t found = hot.value_hash[locate_value(hot, txn)];
    return found == 0 ? HOT_NO_VALUE : found - 1;
}

bool same_event(const st_tsval& value, const st_txn& txn) {
    return value.time == txn.time && value.s == txn.source && value.st == txn.source_type && value.h == txn.host;
}

bool is_newer(const st_txn& txn, const st_tsval& value) {
    return txn.time > value.time || (txn.time == value.time && txn.address > value.address);
}

// Streaming mode orders its values by arrival alone: whoever puts has checked that the event comes at its place.
void check_streaming_order(const st_hot_slice& hot, const st_txn& txn) {
    if (hot.mode != HOT_STREAMING || st_hot_slice_values(&hot) == 0) return;
    const st_tsval& last = hot.values[hot.value_index];
    ST_ASSERT(last.address == txn.address ? same_event(last, txn) : is_newer(txn, last));
}

void widen_addresses(st_hot_slice& hot, st_addr_t address) {
    hot.address_min = std::min(hot.address_min, address);
    hot.address_max = std::max(hot.address_max, address);
}

uint32_t add_value(st_hot_slice& hot, const st_txn& txn) {
    ST_ASSERT(hot.mode == HOT_STREAMING ? hot.value_index > 0 : hot.value_index < hot.value_capacity);
    widen_addresses(hot, txn.address);
    uint32_t slot;
    if (hot.mode == HOT_STREAMING) {
        slot = --hot.value_index;
    } else {
        slot = hot.value_index++;
    }
    st_tsval& value = hot.values[slot];
    value.time = txn.time;
    value.address = txn.address;
    value.measure = txn.seek_address;
    value.s = txn.source;
    value.st = txn.source_type;
    value.h = txn.host;
    value.pad = 0;
    value.subsecond = txn.subsecond;
    return slot;
}

void add_posting(st_hot_slice& hot, uint32_t id, uint32_t value) {
    const uint32_t node = hot.list_node_index++;
    if (node != 0 && hot.mode != HOT_STREAMING && value < hot.nodes[node - 1].value) hot.nodes_ordered = false;
    hot.nodes[node] = {.term = id, .value = value};
    hot.table.terms[id].newest = value;
    hot.table.terms[id].postings++;
}

// Postings that the transaction adds: distinct new terms, and distinct known terms that the event does not have yet.
uint64_t count_new_postings(const st_hot_slice& hot, uint32_t value, std::span<const hot_keyword_t> keywords,
                            uint64_t new_terms) {
    std::vector<uint32_t> known;
    for (const hot_keyword_t& keyword : keywords) {
        const hot_slot_t slot = hot.table.slots[hot_locate_term(hot.table, keyword.text, keyword.length, keyword.hash)];
        if (slot.term_plus_1 == 0) continue;
        const bool has_it = value != HOT_NO_VALUE && hot.table.terms[slot.term_plus_1 - 1].newest == value;
        if (!has_it) known.push_back(slot.term_plus_1);
    }
    std::sort(known.begin(), known.end());
    return new_terms + static_cast<uint64_t>(std::unique(known.begin(), known.end()) - known.begin());
}

st_hotput_rc_t put_metric_keyword(st_hot_slice& hot, const char* keyword, size_t length, const st_txn& txn) {
    const hot_metrics_t& metrics = hot.metrics;
    ST_ASSERT(metrics.txn_is_open && same_event(hot.values[hot.value_index], txn));
    if (metrics.dimset_measures_array_idx >= metrics.dimset_measures.size()) return HOT_PUT_RC_MEASURES_FULL;
    if (length == 0) return HOT_PUT_RC_SUCCESS;
    const uint32_t kept = static_cast<uint32_t>(std::min<size_t>(length, ST_MAX_TERM_LENGTH));
    if (std::memchr(keyword, '\0', kept) != nullptr) return HOT_PUT_RC_BAD_KEYWORD;
    return hot_metrics_put(hot, keyword, kept, txn);
}

// h * 33 + byte over eight bytes from zero, the lowest byte of the word first: pairs, then fours, then all of them, each
// step in lanes that its sums do not fill.
uint32_t hash_eight(uint64_t bytes) {
    const uint64_t pairs = (bytes & 0x00FF00FF00FF00FF) * 33 + (bytes >> 8 & 0x00FF00FF00FF00FF);
    const uint64_t fours = (pairs & 0x0000FFFF0000FFFF) * (33 * 33) + (pairs >> 16 & 0x0000FFFF0000FFFF);
    return static_cast<uint32_t>(fours) * (33 * 33 * 33 * 33) + static_cast<uint32_t>(fours >> 32);
}

// Not zero when a byte of the word is.
uint64_t zero_bytes(uint64_t bytes) {
    return (bytes - 0x0101010101010101) & ~bytes & 0x8080808080808080;
}

// The last `left` bytes, 1 to 7, of a text of `length` that ends `left` bytes behind `text`. No byte outside is read.
uint64_t last_bytes(const char* text, size_t left, size_t length) {
    if (length >= 8) return load_le64(text + left - 8) >> 8 * (8 - left);
    if (left >= 4) return load_le32(text) | uint64_t{load_le32(text + left - 4)} << 8 * (left - 4);
    const auto at = [text](size_t i) { return uint64_t{static_cast<uint8_t>(text[i])} << 8 * i; };
    return at(0) | at(left / 2) | at(left - 1);
}

int check_limits(uint64_t lexicon_bytes, uint64_t max_terms, uint64_t max_postings, uint64_t max_values,
                 warm_rc_t* rc) {
    if (max_terms < 257) return _set_rc_msg(rc, WARM_RC_INVALID_ARGUMENT, "max_terms is below 257");
    if (max_postings > st_hot_slice_max_postings() || max_values > st_hot_slice_max_values()) {
        return _set_rc_msg(rc, WARM_RC_INVALID_ARGUMENT, "max_postings or max_values is above its maximum");
    }
    // Compared before rounding, which yields 0 for what has no power of two above it.
    if (lexicon_bytes > MAX_TABLE_ENTRIES || max_terms > MAX_TABLE_ENTRIES ||
        2 * round_up_to_power_of_two(max_terms) > MAX_TABLE_ENTRIES || 2 * max_values > MAX_TABLE_ENTRIES ||
        max_postings > MAX_TABLE_ENTRIES) {
        return _set_rc_msg(rc, WARM_RC_DOES_NOT_FIT, "hot slice limits do not fit 32 bits");
    }
    return 0;
}

int check_metric_limits(uint64_t max_txn_keywords, uint64_t dimsets_cap, uint64_t max_dimset_measures, warm_rc_t* rc) {
    if (max_txn_keywords > MAX_TABLE_ENTRIES || dimsets_cap > MAX_TABLE_ENTRIES ||
        max_dimset_measures > MAX_TABLE_ENTRIES) {
        return _set_rc_msg(rc, WARM_RC_DOES_NOT_FIT, "hot slice limits do not fit 32 bits");
    }
    return 0;
}

bool allocate(st_hot_slice& hot) {
    const uint32_t hashed_values = hot.fills_downward() ? 0 : hot.value_capacity;
    const uint32_t hash_slots = hot.mode == HOT_METRIC ? 0 : hot.value_hash_capacity;
    const uint32_t mapped_values = hot.mode == HOT_STREAMING ? 0 : hot.value_capacity;
    return hot.nodes.alloc(hot.list_node_capacity) && hot.values.alloc(hot.value_capacity) &&
           hot.value_hash.alloc(hash_slots) && hot.sort_keys.alloc(std::max(hot.table.capacity, hashed_values)) &&
           hot.value_order.alloc(hashed_values) && hot.values_map.alloc(mapped_values) &&
           hot.cursors.alloc(hot.table.capacity) && hot.sorted_terms.alloc(hot.table.capacity) &&
           hot.term_postings.alloc(hot.table.capacity) && hot.postings.alloc(hot.list_node_capacity);
}

}  // namespace

HOT* st_hot_slice_create(uint64_t lexicon_bytes, uint64_t max_terms, uint64_t max_postings, uint64_t max_values,
                         uint64_t max_txn_keywords, uint64_t dimsets_cap, uint64_t max_dimset_measures, bool streaming,
                         bool is_msidx, const TSWRITEOPTS* opts, warm_rc_t* rc) {
    _set_rc(rc, 0);
    if (check_limits(lexicon_bytes, max_terms, max_postings, max_values, rc) != 0) return nullptr;
    if (is_msidx && check_metric_limits(max_txn_keywords, dimsets_cap, max_dimset_measures, rc) != 0) return nullptr;
    std::unique_ptr<st_hot_slice> hot(new (std::nothrow) st_hot_slice);
    if (hot == nullptr) {
        _set_rc_msg(rc, WARM_RC_NO_MEMORY, "hot slice");
        return nullptr;
    }
    hot->mode = is_msidx ? HOT_METRIC : streaming ? HOT_STREAMING : HOT_HASHED;
    const auto terms_capacity = static_cast<uint32_t>(round_up_to_power_of_two(max_terms));
    hot->list_node_capacity = static_cast<uint32_t>(max_postings);
    hot->value_capacity = static_cast<uint32_t>(max_values);
    hot->value_hash_capacity = is_msidx ? hot->value_capacity : streaming ? 0 : 2 * hot->value_capacity;
    hot->value_index = hot->fills_downward() ? hot->value_capacity : 0;
    hot->soft = {.terms = soft_limit(terms_capacity),
                 .values = soft_limit(max_values),
                 .postings = soft_limit(max_postings),
                 .lexicon = soft_limit(lexicon_bytes),
                 .measures = is_msidx ? soft_limit(max_dimset_measures) : 0};
    if (is_msidx && opts != nullptr && st_tswriteopts_support_millisecond(opts)) {
        hot->metrics.milliseconds = HOT_MS_ENCODED;
    }
    if (!hot_terms_allocate(hot->table, terms_capacity, static_cast<uint32_t>(lexicon_bytes)) || !allocate(*hot) ||
        (is_msidx && !hot_metrics_allocate(*hot, max_txn_keywords, dimsets_cap, max_dimset_measures))) {
        _set_rc_msg(rc, WARM_RC_NO_MEMORY, "hot slice tables");
        return nullptr;
    }
    return hot.release();
}

void st_hot_slice_close(HOT* hot) {
    delete hot;
}

void st_hot_slice_reset(HOT* hot) {
    ST_ASSERT(hot != nullptr);
    hot_terms_clear(hot->table);
    if (hot->mode == HOT_METRIC || hot->values_hashed != 0) hot->value_hash.clear();
    hot->values_hashed = 0;
    hot->list_node_index = 0;
    hot->value_index = hot->fills_downward() ? hot->value_capacity : 0;
    hot->nodes_ordered = true;
    hot->address_min = 0xFFFFFFFF;
    hot->address_max = 0;
    hot->aborted = HOT_PUT_RC_SUCCESS;
    hot->prepared = false;
    hot->result = {};
    if (hot->mode == HOT_METRIC) hot_metrics_reset(*hot);
}

st_hotput_rc_t st_hot_slice_txn_start(HOT* hot, const st_txn* txn) {
    ST_ASSERT(hot != nullptr && txn != nullptr);
    hot->aborted = st_hot_slice_check_space(hot);
    if (hot->aborted != HOT_PUT_RC_SUCCESS) return hot->aborted;
    if (hot->mode == HOT_METRIC) return hot->aborted = hot_metrics_txn_start(*hot, *txn);
    widen_addresses(*hot, txn->address);
    return HOT_PUT_RC_SUCCESS;
}

st_hotput_rc_t st_hot_slice_put_txn(HOT* hot, const char* keyword, size_t length, const st_txn* txn) {
    ST_ASSERT(hot != nullptr && keyword != nullptr && txn != nullptr);
    ST_ASSERT(!hot->prepared);
    if (hot->aborted != HOT_PUT_RC_SUCCESS) return hot->aborted;
    if (hot->mode == HOT_METRIC) return put_metric_keyword(*hot, keyword, length, *txn);
    if (st_hot_slice_values(hot) >= hot->value_capacity) return HOT_PUT_RC_VALUES_FULL;
    if (hot->list_node_index >= hot->list_node_capacity) return HOT_PUT_RC_POSTINGS_FULL;
    if (length == 0) return HOT_PUT_RC_SUCCESS;
    const uint32_t kept = static_cast<uint32_t>(std::min<size_t>(length, ST_MAX_TERM_LENGTH));
    if (std::memchr(keyword, '\0', kept) != nullptr) return HOT_PUT_RC_BAD_KEYWORD;

    const uint32_t hash = hot_slice_hash(keyword, kept);
    const uint32_t slot = hot_locate_term(hot->table, keyword, kept, hash);
    const bool is_new = hot->table.slots[slot].term_plus_1 == 0;
    uint32_t value = find_value(*hot, *txn);
    if (is_new) {
        if (hot->table.count >= hot->table.capacity) return HOT_PUT_RC_TERMS_FULL;
        if (!hot_lexicon_holds(hot->table, kept + 1)) return HOT_PUT_RC_LEXICON_FULL;
    } else if (value != HOT_NO_VALUE && hot->table.terms[hot->table.slots[slot].term_plus_1 - 1].newest == value) {
        return HOT_PUT_RC_SUCCESS;
    }
    check_streaming_order(*hot, *txn);
    if (value == HOT_NO_VALUE) value = add_value(*hot, *txn);
    const uint32_t id =
        is_new ? hot_add_term(hot->table, slot, keyword, kept, hash) : hot->table.slots[slot].term_plus_1 - 1;
    add_posting(*hot, id, value);
    return HOT_PUT_RC_SUCCESS;
}

st_hotput_rc_t st_hot_slice_txn_stop(HOT* hot) {
    ST_ASSERT(hot != nullptr);
    if (hot->mode == HOT_METRIC && hot->metrics.txn_is_open) hot_metrics_txn_stop(*hot);
    return HOT_PUT_RC_SUCCESS;
}

void st_hot_slice_txn_abort(HOT* hot, st_hotput_rc_t code) {
    ST_ASSERT(hot != nullptr);
    hot->aborted = code;
}

bool st_hot_slice_txn_aborted(const HOT* hot) {
    ST_ASSERT(hot != nullptr);
    return hot->aborted != HOT_PUT_RC_SUCCESS;
}

st_hotput_rc_t st_hot_slice_check_space(const HOT* hot) {
    ST_ASSERT(hot != nullptr);
    if (hot->table.count > hot->soft.terms) return HOT_PUT_RC_TERMS_FULL;
    if (st_hot_slice_values(hot) > hot->soft.values) return HOT_PUT_RC_VALUES_FULL;
    if (hot->list_node_index > hot->soft.postings) return HOT_PUT_RC_POSTINGS_FULL;
    if (hot->table.text_used > hot->soft.lexicon) return HOT_PUT_RC_LEXICON_FULL;
    if (hot->metrics.dimset_measures_array_idx > hot->soft.measures) return HOT_PUT_RC_MEASURES_FULL;
    return HOT_PUT_RC_SUCCESS;
}

bool st_hot_slice_needs_limits_adjusted(int code) {
    switch (code) {
        case HOT_PUT_RC_TERMS_FULL:
        case HOT_PUT_RC_VALUES_FULL:
        case HOT_PUT_RC_POSTINGS_FULL:
        case HOT_PUT_RC_LEXICON_FULL:
        case HOT_PUT_RC_DIMSETS_FULL:
        case HOT_PUT_RC_MEASURES_FULL:
            return true;
        default:
            return false;
    }
}

hot_hash_t hot_slice_hash_checked(const char* text, size_t length) {
    constexpr uint32_t P2 = 33 * 33, P4 = P2 * P2, P8 = P4 * P4;
    constexpr uint32_t POWERS[8] = {1, 33, P2, P2 * 33, P4, P4 * 33, P4 * P2, P4 * P2 * 33};
    uint32_t hash = 5381;
    uint64_t nuls = 0;
    size_t left = length;
    for (; left >= 8; left -= 8, text += 8) {
        const uint64_t bytes = load_le64(text);
        nuls |= zero_bytes(bytes);
        hash = hash * P8 + hash_eight(bytes);
    }
    if (left != 0) {
        // Zeros in front of the last bytes add nothing to their hash.
        const uint64_t bytes = last_bytes(text, left, length) << 8 * (8 - left);
        nuls |= zero_bytes(bytes | ((uint64_t{1} << 8 * (8 - left)) - 1));
        hash = hash * POWERS[left] + hash_eight(bytes);
    }
    return {hash, nuls != 0};
}

uint32_t hot_slice_hash(const char* text, size_t length) {
    return hot_slice_hash_checked(text, length).hash;
}

st_hotput_rc_t hot_slice_check_txn(HOT* hot, const st_txn* txn, std::span<const hot_keyword_t> keywords) {
    ST_ASSERT(hot != nullptr && txn != nullptr);
    uint64_t bytes = 0;
    for (const hot_keyword_t& keyword : keywords) bytes += keyword.length + 1;
    const uint64_t free_terms = hot->table.capacity - hot->table.count;
    const uint64_t free_postings = hot->list_node_capacity - hot->list_node_index;
    const bool value_fits = st_hot_slice_values(hot) < hot->value_capacity;
    if (value_fits && keywords.size() <= free_terms && keywords.size() <= free_postings &&
        hot_lexicon_holds(hot->table, bytes)) {
        return HOT_PUT_RC_SUCCESS;
    }

    const uint32_t value = find_value(*hot, *txn);
    if (!value_fits && value == HOT_NO_VALUE) return HOT_PUT_RC_VALUES_FULL;
    const hot_new_terms_t fresh = hot_count_new_terms(hot->table, keywords);
    if (count_new_postings(*hot, value, keywords, fresh.count) > free_postings) return HOT_PUT_RC_POSTINGS_FULL;
    return hot_check_new_terms(hot->table, fresh);
}

// A term costs three dependent cache misses: its slot, its record, its bytes. Each pass over a batch starts the next
// miss of every keyword, so that they overlap.
void hot_slice_put_all(HOT* hot, const st_txn* txn, std::span<const hot_keyword_t> keywords) {
    ST_ASSERT(!hot->prepared && !keywords.empty());
    check_streaming_order(*hot, *txn);
    const uint32_t mask = hot->table.mask;
    for (size_t i = 0; i < std::min(keywords.size(), BATCH); i++) {
        __builtin_prefetch(&hot->table.slots[keywords[i].hash & mask]);
    }
    uint32_t value = find_value(*hot, *txn);
    if (value == HOT_NO_VALUE) value = add_value(*hot, *txn);

    for (size_t start = 0; start < keywords.size(); start += BATCH) {
        const std::span<const hot_keyword_t> batch = keywords.subspan(start, std::min(BATCH, keywords.size() - start));
        if (start != 0) {
            for (const hot_keyword_t& keyword : batch) __builtin_prefetch(&hot->table.slots[keyword.hash & mask]);
        }
        uint32_t likely[BATCH];
        for (size_t i = 0; i < batch.size(); i++) {
            const hot_slot_t slot = hot->table.slots[batch[i].hash & mask];
            likely[i] = slot.hash == batch[i].hash ? slot.term_plus_1 : 0;
            if (likely[i] != 0) __builtin_prefetch(&hot->table.terms[likely[i] - 1], 1);
        }
        for (size_t i = 0; i < batch.size(); i++) {
            if (likely[i] != 0) __builtin_prefetch(hot->table.text.data() + hot->table.terms[likely[i] - 1].offset);
        }
        for (const hot_keyword_t& keyword : batch) {
            const uint32_t slot = hot_locate_term(hot->table, keyword.text, keyword.length, keyword.hash);
            uint32_t id = hot->table.slots[slot].term_plus_1;
            id = id == 0 ? hot_add_term(hot->table, slot, keyword.text, keyword.length, keyword.hash) : id - 1;
            if (hot->table.terms[id].newest != value) add_posting(*hot, id, value);
        }
    }
}

const st_tsval* hot_slice_find_value(HOT* hot, const st_txn* txn) {
    ST_ASSERT(hot != nullptr && txn != nullptr);
    const uint32_t value = find_value(*hot, *txn);
    return value == HOT_NO_VALUE ? nullptr : &hot->values[value];
}

const st_tsval* hot_slice_last_value(const HOT* hot) {
    ST_ASSERT(hot != nullptr);
    if (st_hot_slice_values(hot) == 0) return nullptr;
    return &hot->values[hot->fills_downward() ? hot->value_index : hot->value_index - 1];
}

uint32_t hot_slice_terms(const HOT* hot) {
    return hot->table.count;
}
uint32_t hot_slice_postings(const HOT* hot) {
    return hot->list_node_index;
}
uint64_t hot_slice_lexicon_bytes(const HOT* hot) {
    return hot->table.text_used;
}
bool hot_slice_is_msidx(const HOT* hot) {
    return hot->mode == HOT_METRIC;
}
bool ds_should_group_dimsets(const HOT* hot) {
    return hot->mode == HOT_METRIC;
}

uint32_t st_hot_slice_values(const HOT* hot) {
    return st_hot_slice_value_end(hot) - st_hot_slice_value_begin(hot);
}
uint32_t st_hot_slice_value_begin(const HOT* hot) {
    return hot->fills_downward() ? hot->value_index : 0;
}
uint32_t st_hot_slice_value_end(const HOT* hot) {
    return hot->fills_downward() ? hot->value_capacity : hot->value_index;
}
bool st_hot_slice_is_streaming(const HOT* hot) {
    return hot->fills_downward();
}

value_ranges_t hot_slice_value_ranges(const HOT* hot) {
    value_ranges_t ranges;
    for (uint32_t slot = st_hot_slice_value_begin(hot); slot < st_hot_slice_value_end(hot); slot++) {
        ranges.add(hot->values[slot]);
    }
    return ranges;
}

uint64_t st_hot_slice_size(const HOT* hot) {
    ST_ASSERT(hot != nullptr);
    const uint64_t terms = hot->table.capacity;
    const uint64_t postings = hot->list_node_capacity;
    return hot->table.text_capacity + 40 * uint64_t{hot->value_capacity} + 352 +
           16 * (terms + hot->metrics.dimset_measures.size()) + 4 * (hot->values_map.size() + terms + postings) +
           8 * (postings + hot->value_hash_capacity + terms + hot->table.slots.size());
}

uint64_t st_hot_slice_size_est(uint64_t lexicon_bytes, uint64_t max_terms, uint64_t max_postings, uint64_t max_values,
                               uint64_t x, uint64_t y) {
    const uint64_t terms = round_up_to_power_of_two(max_terms);
    return 16 * y + lexicon_bytes + 40 * max_values + terms + 32 * terms + 8 * (2 * max_values + max_postings + terms) +
           4 * (terms + max_values + x + max_postings);
}

uint32_t st_hot_slice_max_postings() {
    return 4294967295;
}
uint32_t st_hot_slice_max_values() {
    return 4294967295;
}
uint32_t st_hot_slice_max_dimsets() {
    return 4294967295;
}
uint32_t st_hot_slice_max_dimset_measures() {
    return 4294967295;
}

}  // namespace veldar
