// The metric part of slice creation. P dimension sets make P runs of values; run p, counted in the order of the values,
// is that of set P - 1 - p, because values come highest set first. Its preamble has the number p, its values follow all
// preambles in the joint numbering: value v of the hot slice is number P + v.
#include <algorithm>

#include "libzero/assertions.h"
#include "libzero/endian.h"
#include "libzero/vbe.h"
#include "searchthing/columns/dimset_io.h"
#include "searchthing/hot/warmslice_create_internal.h"

namespace veldar {

namespace {

constexpr uint64_t NANOSECONDS_PER_MILLISECOND = 1000000;

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

void store_preamble(uint8_t* values, uint32_t run, uint32_t first, uint32_t count) {
    st_tsval preamble;
    ds_init_values_preamble(&preamble, first, count);
    store_le32(values + 8 * uint64_t{run}, static_cast<uint32_t>(preamble.time));
    store_le32(values + 8 * uint64_t{run} + 4, preamble.address);
}

void store_preambles(uint8_t* values, const HOT* hot) {
    const hot_prepared_t& prepared = *hot_slice_prepared(hot);
    const uint32_t sets = prepared.num_dimsets;
    for (uint32_t first = 0, end = 0; first < prepared.num_values; first = end) {
        const uint32_t run = run_of(prepared, hot_slice_prepared_value(hot, first));
        do {
            end++;
        } while (end < prepared.num_values && run_of(prepared, hot_slice_prepared_value(hot, end)) == run);
        store_preamble(values, run, sets + first, end - first);
    }
}

void store_companions(WARM* warm, uint32_t id, const st_tsval& value) {
    const tsval_reader_t& reader = warm->tsval_reader;
    // Metric slices have no deletes.
    const uint32_t source = value.s == ST_DELETED_SOURCE ? 0 : value.s;
    if (reader.s.nbits != 0) encode_to_byte_str(warm->s_array, source, id, reader.s.nbits);
    if (reader.st.nbits != 0) encode_to_byte_str(warm->st_array, value.st, id, reader.st.nbits);
    if (reader.h.nbits != 0) encode_to_byte_str(warm->h_array, value.h, id, reader.h.nbits);
}

}  // namespace

int create_metrics_open(create_metrics_t* metrics, const HOT* hot, st_warm_slice_body* header, warm_rc_t* rc) {
    const hot_prepared_t& prepared = *hot_slice_prepared(hot);
    ST_ASSERT(prepared.milliseconds != HOT_MS_ENCODED);
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
    const tsval_reader_t& reader = warm->tsval_reader;
    uint8_t* const values = warm->owned.data() + reader.values_offset;
    store_preambles(values, hot);
    const uint64_t packed_words = reader.memory.size() / sizeof(uint64_t) - prepared.num_dimsets;
    auto* const words = reinterpret_cast<uint64_t*>(values) + prepared.num_dimsets;
    bitpack_writer_t packed;
    bp_writer_open(&packed, -1, words, packed_words, 0);
    for (uint32_t number = 0; number < prepared.num_values; number++) {
        const st_tsval& value = *hot_slice_prepared_value(hot, number);
        const uint32_t time = static_cast<uint32_t>(value.time) - reader.time_base;
        const auto milliseconds = static_cast<uint32_t>(value.subsecond / NANOSECONDS_PER_MILLISECOND);
        ST_TRY(bp_writer_append(&packed, time, reader.time_nbits, rc));
        ST_TRY(bp_writer_append(&packed, reader.addr_nbits == 0 ? 0 : milliseconds, reader.addr_nbits, rc));
        store_companions(warm, prepared.num_dimsets + number, value);
    }
    return bp_writer_close(&packed, rc);
}

uint64_t create_metrics_dimsets_size(const HOT* hot) {
    uint64_t words = 0;
    for (const ds_dimset_t* set : hot_slice_prepared(hot)->dimsets) words += set->_num_words;
    return st_dimsets_size(hot_slice_prepared(hot)->num_dimsets, static_cast<uint32_t>(words));
}

int create_metrics_dimsets(WARM* warm, const HOT* hot, uint64_t* used, warm_rc_t* rc) {
    const hot_prepared_t& prepared = *hot_slice_prepared(hot);
    const uint64_t start = warm_next_section(*used);
    const uint64_t size = create_metrics_dimsets_size(hot);
    ST_ASSERT(start + size <= warm->owned.size());
    const int status =
        st_dimset_create(warm->owned.data() + start, size, prepared.dimsets.data(), prepared.num_dimsets);
    if (status != 0) return _set_rc_msg(rc, status, "st_dimset_create");
    *used = start + size;
    return 0;
}

}  // namespace veldar
