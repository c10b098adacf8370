// Metric mode of the hot slice: transactions that make dimension sets.
#include <algorithm>
#include <string_view>
#include <vector>

#include "libzero/assertions.h"
#include "searchthing/format/metric_terms.h"
#include "searchthing/hot/hotslice_internal.h"

namespace veldar {

namespace {

// The smallest table holds one slot too many, so that every probe ends at an empty one.
uint32_t hash_slots(uint64_t dimsets_cap) {
    return std::max<uint32_t>(static_cast<uint32_t>(dimsets_cap / DS_MIN_WORDS * 2), 2);
}

ds_dimset_t* pending_set(st_hot_slice& hot) {
    return ds_dimset_at(hot.metrics.dimsets.data() + hot.metrics.dimsets_committed_idx);
}

uint32_t pending_words(const st_hot_slice& hot) {
    return hot.metrics.dimsets[hot.metrics.dimsets_committed_idx];
}

void set_field(hot_metrics_t& metrics, uint32_t* field, uint32_t term) {
    if (*field != DS_NO_TERM) metrics.set_lost_a_field = true;
    *field = term;
}

void add_measure(st_hot_slice& hot, uint32_t term, st_measure_t measure) {
    hot_metrics_t& metrics = hot.metrics;
    st_tsval& value = hot.values[hot.value_index];
    if (value.measures++ == 0) value.first_measure = metrics.dimset_measures_array_idx;
    metrics.dimset_measures[metrics.dimset_measures_array_idx++] = {.term = term, .value = measure};
    if (term >= metrics.terms_at_start) metrics.new_measures++;
}

// The term joins the open transaction and its pending set.
void add_pending(st_hot_slice& hot, uint32_t term, hot_dimension_t dimension, st_measure_t measure) {
    hot_metrics_t& metrics = hot.metrics;
    ds_dimset_t* const set = pending_set(hot);
    hot.table.terms[term].newest = hot.value_index;
    metrics.pending[metrics.pending_count++] = {.term = term, .loose = dimension == HOT_DIM_NONE};
    switch (dimension) {
        case HOT_DIM_NONE:
            break;
        case HOT_DIM_HOST:
            set_field(metrics, &set->host, term);
            break;
        case HOT_DIM_SOURCE:
            set_field(metrics, &set->source, term);
            break;
        case HOT_DIM_SOURCE_TYPE:
            set_field(metrics, &set->source_type, term);
            break;
        case HOT_DIM_OPTIONAL:
            ds_dimset_add_optdim(set, term);
            break;
        case HOT_DIM_COLUMN:
            ds_dimset_add_optcol(set, term);
            add_measure(hot, term, measure);
            break;
    }
}

// Makes the transaction's value and an empty pending set.
void open_txn(st_hot_slice& hot, const st_txn& txn) {
    hot_metrics_t& metrics = hot.metrics;
    ds_dimset_t* const set = pending_set(hot);
    ds_dimset_init(set, DS_NO_TERM, DS_NO_TERM, DS_NO_TERM);
    set->num_columns = 0;
    st_tsval& value = hot.values[--hot.value_index];
    value.time = txn.time;
    value.address = 0;
    value.measures = 0;
    value.first_measure = 0;
    value.s = txn.source;
    value.st = txn.source_type;
    value.h = txn.host;
    value.pad = 0;
    value.subsecond = txn.subsecond;
    metrics.pending_count = 0;
    metrics.set_lost_a_field = false;
    metrics.terms_at_start = hot.table.count;
    metrics.txn_is_open = true;
}

// Without a column a set could not be read back: the value goes, and the terms that came with it.
void drop_txn(st_hot_slice& hot) {
    hot_metrics_t& metrics = hot.metrics;
    for (uint32_t i = 0; i < metrics.pending_count; i++) hot.table.terms[metrics.pending[i].term].newest = HOT_NO_VALUE;
    hot_remove_newest_terms(hot.table, metrics.terms_at_start);
    hot.value_index++;
}

// The slot of the committed set that equals the pending one, or the empty slot where it belongs.
uint32_t locate_set(const hot_metrics_t& metrics, const ds_dimset_t* set) {
    const uint32_t slots = static_cast<uint32_t>(metrics.dimset_hash.size());
    uint32_t position = ds_dimset_hash(set);
    uint32_t slot = position % slots;
    uint32_t step = 0;
    for (uint32_t probe = 0;; probe++) {
        const ds_dimset_t* const found = metrics.dimset_hash[slot];
        if (found == nullptr || ds_dimset_compare(found, set) == 0) return slot;
        if (probe == 0) step = ds_dimset_hash_step(set);
        position += step;
        slot = probe < HOT_SCATTERED_PROBES ? position % slots : (slot + 1 == slots ? 0 : slot + 1);
    }
}

void add_node(st_hot_slice& hot, uint32_t term) {
    hot.nodes[hot.list_node_index++] = {.term = term, .value = hot.value_index};
    hot.table.terms[term].postings++;
}

void count_event(hot_term_counts_t& stats, bool is_new, st_time_t time) {
    if (is_new) stats = {.count = 0, .earliest = time, .latest = time};
    stats.count++;
    stats.earliest = std::min(stats.earliest, time);
    stats.latest = std::max(stats.latest, time);
}

void ds_pending_dimset_commit(st_hot_slice& hot) {
    hot_metrics_t& metrics = hot.metrics;
    ds_dimset_t* set = pending_set(hot);
    if (set->num_columns == 0) return drop_txn(hot);
    uint32_t* const end = ds_dimset_words(set) + set->_num_words;
    uint32_t* const columns = end - set->num_columns;
    std::sort(ds_dimset_words(set) + DS_MIN_WORDS, columns);
    std::sort(columns, end);

    const uint32_t slot = locate_set(metrics, set);
    const bool is_new = metrics.dimset_hash[slot] == nullptr;
    if (is_new) {
        metrics.dimset_hash[slot] = set;
        metrics.dimsets_committed_idx += set->_num_words;
        metrics.num_dimsets++;
    }
    st_tsval& value = hot.values[hot.value_index];
    value.address = static_cast<uint32_t>(ds_dimset_words(metrics.dimset_hash[slot]) - metrics.dimsets.data());
    for (uint32_t i = 0; i < metrics.pending_count; i++) {
        const hot_pending_t& pending = metrics.pending[i];
        metrics.has_loose |= pending.loose || metrics.set_lost_a_field;
        if (is_new || pending.loose || metrics.set_lost_a_field) add_node(hot, pending.term);
        count_event(metrics.stats[pending.term], pending.term >= metrics.terms_at_start, value.time);
    }
}

// What a whole transaction takes, its keywords counted as often as they come.
struct txn_need_t {
    uint64_t keywords = 0;
    uint64_t bytes = 0;
    uint64_t words = DS_MIN_WORDS;
    uint64_t measures = 0;
};

txn_need_t need_of(std::span<const hot_keyword_t> keywords) {
    txn_need_t need;
    for (const hot_keyword_t& keyword : keywords) {
        const hot_dimension_t dimension = hot_slice_classify({keyword.text, keyword.length});
        need.keywords++;
        need.bytes += keyword.length + 1;
        need.words += dimension != HOT_DIM_HOST && dimension != HOT_DIM_SOURCE && dimension != HOT_DIM_SOURCE_TYPE;
        need.measures += dimension == HOT_DIM_COLUMN;
    }
    return need;
}

// Limits that the distinct keywords decide, apart from the terms.
st_hotput_rc_t check_need(const st_hot_slice& hot, const txn_need_t& need) {
    const hot_metrics_t& metrics = hot.metrics;
    if (need.keywords > metrics.pending.size() || need.words > DS_MAX_DIMSET_SIZE_WORDS) {
        return HOT_PUT_RC_TXN_TOO_LARGE;
    }
    if (need.words > metrics.dimsets_cap - metrics.dimsets_committed_idx) return HOT_PUT_RC_DIMSETS_FULL;
    if (need.keywords > hot.list_node_capacity - hot.list_node_index) return HOT_PUT_RC_POSTINGS_FULL;
    if (need.measures > metrics.dimset_measures.size() - metrics.dimset_measures_array_idx) {
        return HOT_PUT_RC_MEASURES_FULL;
    }
    return HOT_PUT_RC_SUCCESS;
}

std::vector<hot_keyword_t> distinct(std::span<const hot_keyword_t> keywords) {
    const auto text = [](const hot_keyword_t& keyword) { return std::string_view(keyword.text, keyword.length); };
    std::vector<hot_keyword_t> out(keywords.begin(), keywords.end());
    std::sort(out.begin(), out.end(), [&](const auto& a, const auto& b) { return text(a) < text(b); });
    const auto same = [&](const auto& a, const auto& b) { return text(a) == text(b); };
    out.erase(std::unique(out.begin(), out.end(), same), out.end());
    return out;
}

}  // namespace

hot_dimension_t hot_slice_classify(std::string_view keyword) {
    if (!keyword.starts_with(' ')) return HOT_DIM_NONE;
    if (keyword.starts_with(METRIC_NAME_TERM)) return HOT_DIM_COLUMN;
    if (keyword.starts_with(" host::")) return HOT_DIM_HOST;
    if (keyword.starts_with(" source::")) return HOT_DIM_SOURCE;
    if (keyword.starts_with(" sourcetype::")) return HOT_DIM_SOURCE_TYPE;
    if (keyword.starts_with(" _catalog::") || keyword.starts_with(" _dims::")) return HOT_DIM_NONE;
    return HOT_DIM_OPTIONAL;
}

bool hot_metrics_allocate(st_hot_slice& hot, uint64_t max_txn_keywords, uint64_t dimsets_cap,
                          uint64_t max_dimset_measures) {
    hot_metrics_t& metrics = hot.metrics;
    metrics.dimsets_cap = static_cast<uint32_t>(dimsets_cap);
    // A set begins with five words before anything is asked whether it fits.
    return metrics.dimsets.alloc(dimsets_cap + DS_MIN_WORDS) && metrics.dimset_hash.alloc(hash_slots(dimsets_cap)) &&
           metrics.dimsets_map.alloc(dimsets_cap) && metrics.pending.alloc(max_txn_keywords) &&
           metrics.dimset_measures.alloc(max_dimset_measures) && metrics.stats.alloc(hot.table.capacity) &&
           metrics.term_ranks.alloc(hot.table.capacity) && metrics.value_order.alloc(hot.value_capacity);
}

void hot_metrics_reset(st_hot_slice& hot) {
    hot_metrics_t& metrics = hot.metrics;
    metrics.dimset_hash.clear();
    metrics.dimsets_committed_idx = 0;
    metrics.num_dimsets = 0;
    metrics.pending_count = 0;
    metrics.has_loose = false;
    metrics.txn_is_open = false;
    metrics.dimset_measures_array_idx = 0;
    metrics.new_measures = 0;
    if (metrics.milliseconds == HOT_MS_DECODED) metrics.milliseconds = HOT_MS_ENCODED;
}

st_hotput_rc_t hot_metrics_txn_start(st_hot_slice& hot, const st_txn& txn) {
    const hot_metrics_t& metrics = hot.metrics;
    ST_ASSERT(!metrics.txn_is_open && !hot.prepared);
    if (metrics.dimsets_committed_idx + metrics.pending.size() > metrics.dimsets_cap) return HOT_PUT_RC_DIMSETS_FULL;
    if (hot.value_index == 0) return HOT_PUT_RC_VALUES_FULL;
    open_txn(hot, txn);
    return HOT_PUT_RC_SUCCESS;
}

st_hotput_rc_t hot_metrics_put(st_hot_slice& hot, const char* text, uint32_t length, const st_txn& txn) {
    const hot_metrics_t& metrics = hot.metrics;
    const uint32_t hash = hot_slice_hash(text, length);
    const uint32_t slot = hot_locate_term(hot.table, text, length, hash);
    const bool is_new = hot.table.slots[slot].term_plus_1 == 0;
    if (is_new) {
        const st_hotput_rc_t code = hot_check_new_terms(hot.table, {.count = 1, .bytes = length + 1});
        if (code != HOT_PUT_RC_SUCCESS) return code;
    } else if (hot.table.terms[hot.table.slots[slot].term_plus_1 - 1].newest == hot.value_index) {
        return HOT_PUT_RC_SUCCESS;
    }
    const uint32_t words = pending_words(hot);
    if (metrics.dimsets_committed_idx + uint64_t{words} >= metrics.dimsets_cap) return HOT_PUT_RC_DIMSETS_FULL;
    if (metrics.pending_count >= metrics.pending.size() || words >= DS_MAX_DIMSET_SIZE_WORDS) {
        return HOT_PUT_RC_TXN_TOO_LARGE;
    }
    if (hot.list_node_index + uint64_t{metrics.pending_count} >= hot.list_node_capacity) {
        return HOT_PUT_RC_POSTINGS_FULL;
    }
    const uint32_t term =
        is_new ? hot_add_term(hot.table, slot, text, length, hash) : hot.table.slots[slot].term_plus_1 - 1;
    add_pending(hot, term, hot_slice_classify({text, length}), txn.measure);
    return HOT_PUT_RC_SUCCESS;
}

void hot_metrics_txn_stop(st_hot_slice& hot) {
    hot.metrics.txn_is_open = false;
    ds_pending_dimset_commit(hot);
    hot.metrics.pending_count = 0;
}

st_hotput_rc_t hot_slice_check_metric_txn(const HOT* hot, std::span<const hot_keyword_t> keywords) {
    ST_ASSERT(hot->mode == HOT_METRIC);
    if (hot->value_index == 0) return HOT_PUT_RC_VALUES_FULL;
    const txn_need_t need = need_of(keywords);
    const bool terms_fit =
        need.keywords <= hot->table.capacity - hot->table.count && hot_lexicon_holds(hot->table, need.bytes);
    if (terms_fit && check_need(*hot, need) == HOT_PUT_RC_SUCCESS) return HOT_PUT_RC_SUCCESS;
    const st_hotput_rc_t code = check_need(*hot, need_of(distinct(keywords)));
    return code != HOT_PUT_RC_SUCCESS ? code
                                      : hot_check_new_terms(hot->table, hot_count_new_terms(hot->table, keywords));
}

void hot_slice_put_metric(HOT* hot, const st_txn* txn, std::span<const hot_keyword_t> keywords,
                          std::span<const st_measure_t> measures) {
    ST_ASSERT(hot->mode == HOT_METRIC && !hot->prepared && !hot->metrics.txn_is_open);
    ST_ASSERT(keywords.size() == measures.size());
    open_txn(*hot, *txn);
    for (size_t i = 0; i < keywords.size(); i++) {
        const auto& [text, length, hash] = keywords[i];
        const uint32_t slot = hot_locate_term(hot->table, text, length, hash);
        const uint32_t known = hot->table.slots[slot].term_plus_1;
        const uint32_t term = known != 0 ? known - 1 : hot_add_term(hot->table, slot, text, length, hash);
        if (hot->table.terms[term].newest == hot->value_index) continue;
        const hot_dimension_t dimension = hot_slice_classify({text, length});
        add_pending(*hot, term, dimension == HOT_DIM_NONE ? HOT_DIM_OPTIONAL : dimension, measures[i]);
    }
    ST_ASSERT(hot->metrics.pending_count <= hot->metrics.pending.size());
    hot_metrics_txn_stop(*hot);
}

}  // namespace veldar
