// The metric part of slice creation. P dimension sets make P runs of values; run p, counted in the order of the values,
// is that of set P - 1 - p, because values come highest set first. Its preamble has the number p, its values follow all
// preambles in the joint numbering: value v of the hot slice is number P + v.

#include "libzero/assertions.h"
#include "searchthing/columns/dimset.h"
#include "searchthing/hot/warmslice_create_internal.h"
#include "searchthing/values/values_writer.h"

namespace veldar {

namespace {

uint32_t run_of(const hot_prepared_t& prepared, const st_tsval* value) {
    return prepared.num_dimsets - 1 - value->address;
}

int fill_cstore(cs_builder_t* cstore, const HOT* hot, warm_rc_t* rc) {
    const hot_prepared_t& prepared = *hot_slice_prepared(hot);
    ST_TRY(cs_builder_open(cstore, prepared.new_measures, rc));
    for (const ds_dimset_t* set : prepared.dimsets) {
        for (const uint32_t column : ds_dimset_opt_cols(set)) ST_TRY(cs_add_columnset(cstore, column, rc));
    }
    uint32_t previous = DS_NO_TERM;
    for (uint32_t number = 0; number < prepared.num_values; number++) {
        const st_tsval* const value = hot_slice_prepared_value(hot, number);
        const bool set_changed = value->address != previous;
        previous = value->address;
        for (const hot_measure_t& measure : prepared.measures.subspan(value->first_measure, value->measures)) {
            ST_TRY(cs_add_element(cstore, prepared.term_ranks[measure.term], prepared.num_dimsets + number, set_changed,
                                  measure.value, rc));
        }
    }
    return 0;
}

// Posting numbers as numbers of preambles.
int map_postings(buffer<uint32_t>* out, const HOT* hot, warm_rc_t* rc) {
    const hot_prepared_t& prepared = *hot_slice_prepared(hot);
    if (!out->alloc(prepared.num_postings)) return _set_rc_msg(rc, WARM_RC_NO_MEMORY, "metric postings");
    for (uint32_t i = 0; i < prepared.num_postings; i++) {
        const st_tsval* const value = hot_slice_prepared_value(hot, prepared.postings[i]);
        if (value->address >= prepared.num_dimsets) return _set_rc_msg(rc, WARM_RC_CAPACITY, "invalid dsid");
        (*out)[i] = run_of(prepared, value);
    }
    return 0;
}

int put_preambles(values_writer_t* writer, const HOT* hot, warm_rc_t* rc) {
    const hot_prepared_t& prepared = *hot_slice_prepared(hot);
    const uint32_t sets = prepared.num_dimsets;
    uint32_t run = 0;
    for (uint32_t first = 0, end = 0; first < prepared.num_values; first = end, run++) {
        do {
            ST_ASSERT(run_of(prepared, hot_slice_prepared_value(hot, end)) == run);
            end++;
        } while (end < prepared.num_values && run_of(prepared, hot_slice_prepared_value(hot, end)) == run);
        ST_TRY(values_writer_put_preamble(writer, sets + first, end - first, rc));
    }
    ST_ASSERT(run == sets);
    return 0;
}

}  // namespace

int create_metrics_open(create_metrics_t* metrics, const HOT* hot, st_warm_slice_body* header, warm_rc_t* rc) {
    const hot_prepared_t& prepared = *hot_slice_prepared(hot);
    ST_ASSERT(prepared.milliseconds != HOT_MS_ENCODED);
    ST_ASSERT(header->num_values.get() == prepared.num_dimsets + prepared.num_values);
    int64_t cstore_ref = 0;
    ST_TRY(fill_cstore(&metrics->cstore, hot, rc));
    ST_TRY(cs_finalize_offsets(&metrics->cstore, header->num_values.get(), prepared.num_dimsets, &cstore_ref, rc));
    header->cstore_ref.set(static_cast<uint64_t>(cstore_ref));
    header->num_dimsets.set(prepared.num_dimsets);
    // A slice has runs, so some preamble is written.
    warm_header_set_flag(header, WARM_FLAG_PREAMBLES | WARM_FLAG_MS_PRESENT, true);
    return map_postings(&metrics->postings, hot, rc);
}

int ds_store_values_from_prepared_hot(WARM* warm, const HOT* hot, warm_rc_t* rc) {
    const hot_prepared_t& prepared = *hot_slice_prepared(hot);
    values_writer_t writer;
    ST_TRY(values_writer_open(&writer, warm->body, -1, warm->owned.data(), rc));
    ST_TRY(put_preambles(&writer, hot, rc));
    for (uint32_t number = 0; number < prepared.num_values; number++) {
        st_tsval value = *hot_slice_prepared_value(hot, number);
        value.address = static_cast<uint32_t>(value.subsecond);
        ST_TRY(values_writer_put(&writer, value, rc));
    }
    return values_writer_close(&writer, rc);
}

uint64_t create_metrics_dimsets_size(const HOT* hot) {
    uint64_t words = 0;
    for (const ds_dimset_t* set : hot_slice_prepared(hot)->dimsets) words += set->_num_words;
    return st_dimsets_size(hot_slice_prepared(hot)->num_dimsets, static_cast<uint32_t>(words));
}

void create_metrics_dimsets(WARM* warm, const HOT* hot, uint64_t* used) {
    const hot_prepared_t& prepared = *hot_slice_prepared(hot);
    const uint64_t start = warm_next_section(*used);
    const uint64_t size = create_metrics_dimsets_size(hot);
    ST_ASSERT(start + size <= warm->owned.size());
    const int status =
        st_dimset_create(warm->owned.data() + start, size, prepared.dimsets.data(), prepared.num_dimsets);
    ST_ASSERT(status == 0);
    *used = start + size;
}

}  // namespace veldar
