#include "searchthing/slice/warmslice_meta.h"

#include "searchthing/slice/warmslice_runs.h"

namespace veldar {

namespace {

// The section in memory: the mapping of a read-write handle, or the body of a slice that has just been created.
const uint8_t* mapped_metadata(const WARM* warm) {
    if (warm->metadata != nullptr || warm->owned.empty()) return warm->metadata;
    return warm->owned.data() + _offset_metadata(warm->body);
}

}  // namespace

int warm_slice_term_metadata(WARM* warm, uint32_t term, st_query_info_t* stats, st_term_metadata* out, warm_rc_t* rc) {
    if (warm->lexicon == nullptr) return _set_rc_msg(rc, WARM_RC_MINIFIED, "term metadata");
    term_meta_reader_t* reader = &warm->meta_reader;
    if (!reader->opened) {
        ST_TRY(term_meta_reader_open(reader, warm->fd.get(), mapped_metadata(warm), warm->body, false, stats, rc));
    }
    reader->ar.stats = stats;
    term_meta_reader_seek(reader, term);
    const st_term_metadata* record = term_meta_reader_next(reader, rc);
    if (record == nullptr) return rc->warm_rc;
    *out = *record;
    return 0;
}

int warm_slice_recomputed_metadata(WARM* warm, uint32_t term, st_query_info_t* stats, st_term_metadata* out,
                                   warm_rc_t* rc) {
    const bool from_runs = warm_slice_has_runs(warm) && st_warm_slice_is_msidx_with_cstore(warm->body);
    if (!from_runs || warm->lexicon == nullptr) return warm_slice_term_metadata(warm, term, stats, out, rc);
    return warm_slice_count_runs(warm, term, stats, out, rc);
}

int get_meta_count(WARM* warm, uint32_t term, st_query_info_t* stats, uint32_t* count, warm_rc_t* rc) {
    st_term_metadata record;
    ST_TRY(warm_slice_recomputed_metadata(warm, term, stats, &record, rc));
    *count = record.count;
    return 0;
}

}  // namespace veldar
