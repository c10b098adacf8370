#include "searchthing/merge/merge_postings.h"

#include <algorithm>

#include "libzero/assertions.h"
#include "libzero/endian.h"
#include "searchthing/merge/merge_encode.h"
#include "searchthing/merge/merge_lists.h"

namespace veldar {

namespace {

constexpr uint32_t ENTRIES_BUFFERED = 16384;
constexpr uint32_t TERMS_A_REPORT = 1 << 14;
constexpr uint64_t MIN_LIST_BUFFER = 64 << 10;

// What is open during the sweep.
struct sweep_t {
    warm_merge_t* merge = nullptr;
    merge_postings_t* out = nullptr;
    merge_lists_t lists;
    merge_encoder_t encoder;
    merge_list_writer_t writer;
    merge_known_lists_t known;
    array_writer_t entries;
    uint32_t entry_bytes = 8;
    uint32_t tag_bits = 0;
    uint64_t entry_max = 0;
    bool has_entries = false;  // the section is empty in a slice without values
    term_meta_writer_t metadata;
};

struct placed_t {
    plo_type_t type = PLO_RLE;
    uint64_t value = 0;
};

int open_sweep(sweep_t* sweep, int fd, uint64_t lists_offset, warm_rc_t* rc) {
    warm_merge_t* const merge = sweep->merge;
    const st_warm_slice_body* const header = &merge->header;
    ST_ASSERT(lists_offset > _offset_fclex(header));
    sweep->entry_bytes = _get_plo_size(header);
    sweep->tag_bits = warm_header_plo_tag_bits(header);
    sweep->entry_max = sweep->entry_bytes == 4 ? merge->seams.narrow_entry_max : UINT64_MAX;
    sweep->has_entries = header->num_values.get() > 0;
    sweep->encoder.num_values = header->num_values.get();
    sweep->known.hash_mask = merge->seams.hash_mask;
    const uint64_t buffer_bytes = std::max<uint64_t>(merge->options.write_options.merge_buffer_bytes, MIN_LIST_BUFFER);
    ST_TRY(merge_list_writer_open(&sweep->writer, fd, lists_offset, buffer_bytes, rc));
    if (_aw_open(&sweep->entries, fd, _offset_pl_offs(header), sweep->entry_bytes, ENTRIES_BUFFERED) != 0) {
        return _set_rc_msg(rc, WARM_RC_NO_MEMORY, "posting-list offsets");
    }
    ST_TRY(term_meta_writer_open(&sweep->metadata, fd, header, rc));
    return merge_lists_open(&sweep->lists, merge, rc);
}

bool entry_fits(const sweep_t& sweep, uint64_t value) {
    const bool has_bits = value <= UINT64_MAX >> sweep.tag_bits;
    return has_bits && (value << sweep.tag_bits | PLO_DEDUP) <= sweep.entry_max;
}

int put_entry(sweep_t* sweep, const placed_t& placed, warm_rc_t* rc) {
    if (!sweep->has_entries) return 0;
    ST_ASSERT(placed.type < 1u << sweep->tag_bits);
    const uint64_t entry = placed.value << sweep->tag_bits | placed.type;
    if (!entry_fits(*sweep, placed.value)) {
        sweep->out->entries_too_narrow = sweep->entry_bytes == 4;
        return _set_rc_msg(rc, WARM_RC_DOES_NOT_FIT, "posting-list offset");
    }
    uint8_t bytes[8];
    if (sweep->entry_bytes == 4) {
        store_be32(bytes, static_cast<uint32_t>(entry));
    } else {
        store_be64(bytes, entry);
    }
    const int status = _aw_write(&sweep->entries, bytes, sweep->entry_bytes);
    return status == 0 ? 0 : _set_rc_msg(rc, status, "posting-list offsets");
}

// Writes the term's list, if it needs any bytes, and tells its offset entry.
int place_list(sweep_t* sweep, uint32_t term, const merge_list_t& list, placed_t* placed, warm_rc_t* rc) {
    const bool four_types = sweep->tag_bits == 2 && term > 0;
    if (four_types && list.count == 1) {
        *placed = {PLO_SPO, list.first};
        if (entry_fits(*sweep, list.first)) return 0;
    }
    merge_encoded_t encoded;
    ST_TRY(merge_encode(&sweep->encoder, list, sweep->tag_bits > 0 && term > 0, &encoded, rc));
    if (sweep->tag_bits == 2) {
        uint32_t known = MERGE_NO_TERM;
        ST_TRY(merge_known_lists_find(&sweep->known, &sweep->writer, term, encoded, &known, rc));
        ST_ASSERT(known < term || known == MERGE_NO_TERM);
        *placed = {PLO_DEDUP, known};
        if (known != MERGE_NO_TERM && four_types && entry_fits(*sweep, known)) return 0;
    }
    *placed = {encoded.type, merge_list_writer_total(&sweep->writer)};
    return merge_list_writer_append(&sweep->writer, encoded.bytes, rc);
}

// Newest first: a term's first event has its latest time.
int put_metadata(sweep_t* sweep, uint32_t term, const merge_list_t& list, warm_rc_t* rc) {
    const st_warm_slice_body* const header = &sweep->merge->header;
    if (sweep->merge->metric != nullptr) {
        const st_term_metadata counted = merge_metric_count(*sweep->merge->metric, list);
        return term_meta_writer_append(&sweep->metadata, &counted, rc);
    }
    const bool packed = !warm_header_is_legacy(header);
    st_time_t earliest = packed ? static_cast<st_time_t>(header->earliest.get()) : 0, latest = earliest;
    if (list.count > 0) {
        earliest = sweep->merge->times[list.last];
        latest = sweep->merge->times[list.first];
    }
    const bool inside = earliest >= static_cast<st_time_t>(header->earliest.get()) &&
                        latest <= static_cast<st_time_t>(header->latest.get());
    if (packed && list.count > 0 && !inside) {
        return _set_rc_verbose(rc, WARM_RC_TIME_MISMATCH, term, "events of a term lie outside the header's times");
    }
    const st_term_metadata record = {
        .count = list.count, .earliest = static_cast<uint32_t>(earliest), .latest = static_cast<uint32_t>(latest)};
    return term_meta_writer_append(&sweep->metadata, &record, rc);
}

void digest(const merge_list_t& list, merge_list_digest_t* out) {
    merge_list_for_each(list, [out](uint32_t id) { out->add(id); });
}

int sweep_terms(sweep_t* sweep, const bmap_array_t& holders, warm_rc_t* rc) {
    warm_merge_t* const merge = sweep->merge;
    const uint32_t terms = merge->header.num_terms.get();
    uint64_t bytes = 0, reported = 0;  // of the sources' lists and metadata
    for (const merge_source_t& source : merge->sources) {
        bytes += source.warm->file_size - std::min(source.warm->file_size, _offset_pl_offs(source.warm->body));
        bytes -= std::min(bytes, source.warm->lexicon_size);
    }
    for (uint32_t term = 0; term < terms; term++) {
        bmap64_t sources = 0;
        bmap_array_entry_as_bmap64(&holders, term, &sources);
        merge_list_t list;
        ST_TRY(merge_lists_next(&sweep->lists, sources, &list, rc));
        ST_TRY(merge->stop.after(1 + list.count / 8, rc));
        if (term == 0) digest(list, &sweep->out->first);
        if (term == terms - 1) digest(list, &sweep->out->last);
        placed_t placed;
        ST_TRY(place_list(sweep, term, list, &placed, rc));
        if (term > 0) ST_TRY(put_entry(sweep, placed, rc));
        ST_TRY(put_metadata(sweep, term, list, rc));
        sweep->out->postings += list.count;
        if (sweep->out->postings >= UINT32_MAX) return _set_rc_msg(rc, WARM_RC_DOES_NOT_FIT, "postings");
        if (term % TERMS_A_REPORT == TERMS_A_REPORT - 1) {
            const uint64_t now = static_cast<uint64_t>(static_cast<double>(bytes) * term / terms);
            merge_progress(merge, now - reported);
            reported = now;
        }
    }
    merge_progress(merge, bytes - reported);
    return 0;
}

int close_sweep(sweep_t* sweep, warm_rc_t* rc) {
    ST_TRY(merge_lists_finish(&sweep->lists, rc));
    sweep->out->bytes = merge_list_writer_total(&sweep->writer);
    ST_TRY(put_entry(sweep, {PLO_RLE, sweep->out->bytes}, rc));
    const uint64_t entries = uint64_t{sweep->entries.written} + sweep->entries.buffered;
    ST_ASSERT(entries == (sweep->has_entries ? sweep->merge->header.num_terms.get() : 0));
    ST_TRY(merge_list_writer_flush(&sweep->writer, rc));
    if (_aw_close(&sweep->entries) != 0) return _set_rc_msg(rc, WARM_RC_WRITE, "posting-list offsets");
    return term_meta_writer_close(&sweep->metadata, rc);
}

}  // namespace

int merge_postings_write(warm_merge_t* merge, int fd, uint64_t lists_offset, const bmap_array_t& holders,
                         merge_postings_t* out, warm_rc_t* rc) {
    *out = {};
    sweep_t sweep;
    sweep.merge = merge;
    sweep.out = out;
    ST_TRY(open_sweep(&sweep, fd, lists_offset, rc));
    ST_TRY(sweep_terms(&sweep, holders, rc));
    return close_sweep(&sweep, rc);
}

}  // namespace veldar
