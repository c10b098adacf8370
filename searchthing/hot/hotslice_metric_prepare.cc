// Preparing a metric hot slice: dimension sets in order, values set by set.
#include <algorithm>

#include "libzero/assertions.h"
#include "searchthing/hot/hotslice_internal.h"
#include "searchthing/values/tsval_order.h"

namespace veldar {

namespace {

uint32_t set_id(const hot_metrics_t& metrics, const ds_dimset_t* set) {
    return static_cast<uint32_t>(ds_dimset_words(set) - metrics.dimsets.data());
}

// Brings the sets to the front of their table, as ranks instead of term ids, in order.
void ds_dimsets_prepare(st_hot_slice& hot) {
    hot_metrics_t& metrics = hot.metrics;
    const ds_dimset_t** const sets = metrics.dimset_hash.begin();
    const ds_dimset_t** const end =
        std::remove(sets, metrics.dimset_hash.end(), static_cast<const ds_dimset_t*>(nullptr));
    ST_ASSERT(static_cast<size_t>(end - sets) == metrics.num_dimsets);
    const std::span<const uint32_t> ranks = metrics.term_ranks.span().first(hot.table.count);
    for (uint32_t i = 0; i < metrics.num_dimsets; i++) {
        ds_dimset_t* const set = ds_dimset_at(metrics.dimsets.data() + set_id(metrics, sets[i]));
        warm_rc_t rc;
        const int translated = ds_translate_term_ids(set, ranks, &rc, true);
        ST_ASSERT(translated == 0);
    }
    std::sort(sets, end, [](const ds_dimset_t* a, const ds_dimset_t* b) { return ds_dimset_compare(a, b) < 0; });
    for (uint32_t rank = 0; rank < metrics.num_dimsets; rank++) metrics.dimsets_map[set_id(metrics, sets[rank])] = rank;
}

// The values know the rank of their set from here on; what they say about the whole slice goes into the result.
void settle_values(st_hot_slice& hot) {
    hot_metrics_t& metrics = hot.metrics;
    hot_prepared_t& result = hot.result;
    result.max_measure_rank = 0;
    for (uint32_t slot = hot.value_index; slot < hot.value_capacity; slot++) {
        st_tsval& value = hot.values[slot];
        const bool first = slot == hot.value_index;
        result.latest = first ? value.time : std::max(result.latest, value.time);
        result.earliest = first ? value.time : std::min(result.earliest, value.time);
        ST_ASSERT(value.address < metrics.dimsets_committed_idx);
        value.address = metrics.dimsets_map[value.address];
        if (metrics.milliseconds == HOT_MS_ENCODED) {
            value.subsecond =
                uint64_t{NANOSECONDS_PER_MILLISECOND} * tsval_decode_subsecond_to_millisecond(value.subsecond);
        }
    }
    if (metrics.milliseconds == HOT_MS_ENCODED) metrics.milliseconds = HOT_MS_DECODED;
    for (uint32_t i = 0; i < metrics.dimset_measures_array_idx; i++) {
        result.max_measure_rank =
            std::max(result.max_measure_rank, metrics.term_ranks[metrics.dimset_measures[i].term]);
    }
}

// Deals the values, newest put first, to their sets' stretches, highest rank first; then each stretch is mostly in
// order of time already.
void order_values(st_hot_slice& hot) {
    hot_metrics_t& metrics = hot.metrics;
    const uint32_t sets = metrics.num_dimsets;
    // The map has served its purpose: it is at least as large as there are sets.
    uint32_t* const starts = metrics.dimsets_map.data();
    std::fill_n(starts, sets, 0);
    for (uint32_t slot = hot.value_index; slot < hot.value_capacity; slot++) starts[hot.values[slot].address]++;
    uint32_t total = 0;
    for (uint32_t rank = sets; rank-- != 0;) total += std::exchange(starts[rank], total);
    ST_ASSERT(total == st_hot_slice_values(&hot));
    st_tsval** const order = metrics.value_order.data();
    for (uint32_t slot = hot.value_index; slot < hot.value_capacity; slot++) {
        st_tsval* const value = &hot.values[slot];
        order[starts[value->address]++] = value;
    }
    ST_ASSERT(sets == 0 || starts[0] == total);
    const bool with_subsecond = metrics.milliseconds == HOT_MS_DECODED;
    const auto compare = with_subsecond ? st_tsval_compare_dimsets_with_subsecond : st_tsval_compare_dimsets;
    const auto sort = with_subsecond ? st_tsval_ptr_qsort_dimsets_with_subsecond : st_tsval_ptr_qsort_dimsets;
    for (uint32_t begin = 0, rank = sets; rank-- != 0;) {
        const uint32_t end = starts[rank];
        const auto before = [compare](const st_tsval* a, const st_tsval* b) { return compare(a, b) < 0; };
        if (!std::is_sorted(order + begin, order + end, before)) sort(order + begin, end - begin);
        begin = end;
    }
    for (uint32_t number = 0; number < total; number++) {
        hot.values_map[static_cast<size_t>(order[number] - hot.values.data())] = number;
    }
}

}  // namespace

void hot_metrics_order(st_hot_slice& hot) {
    ST_ASSERT(!hot.metrics.txn_is_open);
    ds_dimsets_prepare(hot);
    settle_values(hot);
    order_values(hot);
    hot_prepared_t& result = hot.result;
    result.num_dimsets = hot.metrics.num_dimsets;
    result.dimsets = hot.metrics.dimset_hash.span().first(hot.metrics.num_dimsets);
    result.measures = hot.metrics.dimset_measures.span().first(hot.metrics.dimset_measures_array_idx);
    result.term_ranks = hot.metrics.term_ranks.span().first(hot.table.count);
    result.new_measures = hot.metrics.new_measures;
    result.milliseconds = hot.metrics.milliseconds;
}

void hot_metrics_count_loose(st_hot_slice& hot) {
    hot_metrics_t& metrics = hot.metrics;
    if (!metrics.has_loose) return;
    // Nobody needs the map of sets any more: a set has more words than its counts.
    static_assert(sizeof(hot_term_counts_t) <= DS_MIN_WORDS * sizeof(uint32_t));
    static_assert(alignof(hot_term_counts_t) == alignof(uint32_t));
    auto* const sets = reinterpret_cast<hot_term_counts_t*>(metrics.dimsets_map.data());
    std::fill_n(sets, metrics.num_dimsets, hot_term_counts_t{});
    const uint32_t values = st_hot_slice_values(&hot);
    for (uint32_t number = 0; number < values; number++) {
        const st_tsval& value = *metrics.value_order[number];
        hot_term_counts_t& set = sets[value.address];
        if (set.count++ == 0) set.latest = value.time;
        set.earliest = value.time;  // newest first
    }
    const uint32_t* posting = hot.postings.begin();
    for (uint32_t rank = 0; rank < hot.table.count; rank++) {
        hot_term_counts_t& stats = metrics.stats[hot.sort_keys[rank].index];
        stats.count = 0;
        for (uint32_t left = hot.term_postings[rank]; left != 0; left--) {
            const hot_term_counts_t& set = sets[metrics.value_order[*posting++]->address];
            stats.count += set.count;
            stats.earliest = std::min(stats.earliest, set.earliest);
            stats.latest = std::max(stats.latest, set.latest);
        }
    }
}

hot_term_counts_t hot_slice_prepared_counts(const HOT* hot, uint32_t rank) {
    ST_ASSERT(hot->mode == HOT_METRIC);
    return hot->metrics.stats[st_hot_slice_get_term_index(hot, rank)];
}

}  // namespace veldar
