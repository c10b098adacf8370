// Writing posting lists.
#include "libzero/assertions.h"
#include "searchthing/base/timed_read.h"
#include "searchthing/postings/plist.h"
#include "searchthing/postings/rle_encoder.h"

namespace veldar {

namespace {

int flush(plist_writer_t* plw) {
    const int64_t written = st_pwrite(plw->fd, plw->buf, plw->buffered, plw->offset);
    if (written != static_cast<int64_t>(plw->buffered)) return _set_rc(&plw->rc, WARM_RC_WRITE);
    plw->offset += plw->buffered;
    plw->buffered = 0;
    return 0;
}

int flush_if_nearly_full(plist_writer_t* plw) {
    static_assert(2 * RLE_MAX_EMIT < PLIST_BUFFER);
    return plw->buffered + RLE_MAX_EMIT >= PLIST_BUFFER ? flush(plw) : 0;
}

rle_encoder_t encoder_of(plist_writer_t* plw) {
    return {plw->buf + plw->buffered, plw->last_value, plw->run, plw->count_forterm == 0};
}

void take_encoded(plist_writer_t* plw, const rle_encoder_t& rle) {
    const auto size = static_cast<uint64_t>(rle.at - (plw->buf + plw->buffered));
    plw->run = rle.run;
    plw->buffered += size;
    plw->term_bytes += size;
}

void count_value(plist_writer_t* plw, uint32_t value) {
    if (plw->count_forterm == 0) plw->first_value = value;
    plw->last_value = value;
    plw->count_forterm++;
}

int _plist_writer_rle_put_helper(plist_writer_t* plw, uint32_t cur_value) {
    if (plw->count_forterm > 0 && cur_value == plw->last_value) return 0;
    ST_ASSERT(plw->count_forterm == 0 || cur_value > plw->last_value);
    rle_encoder_t rle = encoder_of(plw);
    rle.put(cur_value);
    take_encoded(plw, rle);
    count_value(plw, cur_value);
    return flush_if_nearly_full(plw);
}

int _plist_writer_bmap_put_helper(plist_writer_t* plw, uint32_t value) {
    ST_ASSERT(plw->plo_type == PLO_BMAP);
    if (plw->count_forterm > 0 && value == plw->last_value) return 0;
    ST_ASSERT(plw->count_forterm == 0 || value > plw->last_value);
    ST_TRY(bitmap_writer_append(&plw->bitmap, value, &plw->rc));
    count_value(plw, value);
    return 0;
}

int put_value(plist_writer_t* plw, uint32_t value) {
    switch (plw->plo_type) {
        case PLO_RLE:
            return _plist_writer_rle_put_helper(plw, value);
        case PLO_BMAP:
            return _plist_writer_bmap_put_helper(plw, value);
        default:
            return _set_rc(&plw->rc, WARM_RC_INVALID_ARGUMENT);
    }
}

int put_skipped_value(plist_writer_t* plw) {
    if (plw->last_skipped_value == PLIST_END) return 0;
    const std::span<const uint32_t> map = plw->tsval_id_to_dimset_map;
    ST_ASSERT(plw->last_skipped_value < map.size());
    ST_ASSERT(map[plw->last_value] == map[plw->last_skipped_value]);
    const uint32_t value = plw->last_skipped_value;
    plw->last_skipped_value = PLIST_END;
    return put_value(plw, value);
}

// The bitmap writer has filled the shared buffer and may have written it several times.
void end_bitmap(plist_writer_t* plw) {
    const bool is_empty = plw->count_forterm == 0;
    if (!is_empty) {
        plw->offset = plw->bitmap.offset;
        plw->buffered = plw->bitmap.buf_pos;
    }
    uint64_t size = 0;
    static_cast<void>(bitmap_writer_close(&plw->bitmap, &size, false));  // which writes nothing
    plw->term_bytes = is_empty ? 0 : size;
}

}  // namespace

const char* pl_type_as_str(uint32_t type) {
    switch (type) {
        case PLO_RLE:
            return "RLE";
        case PLO_BMAP:
            return "BMAP";
        case PLO_SPO:
            return "SPO";
        case PLO_DEDUP:
            return "DEDUP";
        default:
            return "unknown";
    }
}

void _plist_writer_open(plist_writer_t* plw, int fd, uint64_t offset, std::span<const uint32_t> map) {
    plw->fd = fd;
    plw->offset = offset;
    plw->buffered = plw->total = plw->term_bytes = 0;
    plw->tsval_id_to_dimset_map = map;
    plw->plo_type = PLO_RLE;
    _set_rc(&plw->rc, 0);
}

int _plist_writer_start_term(plist_writer_t* plw) {
    plw->count_forterm = plw->run = plw->last_value = plw->first_value = 0;
    plw->last_skipped_value = PLIST_END;
    plw->term_bytes = 0;
    if (plw->plo_type == PLO_BMAP) ST_TRY(flush_if_nearly_full(plw));
    if (plw->plo_type == PLO_BMAP) {
        bitmap_writer_init(&plw->bitmap, plw->buf, plw->buffered, PLIST_BUFFER, plw->fd, plw->offset);
    }
    return 0;
}

int _plist_writer_put(plist_writer_t* plw, uint32_t value) {
    const std::span<const uint32_t> map = plw->tsval_id_to_dimset_map;
    if (!map.empty() && plw->count_forterm > 0) {
        if (value >= map.size() || plw->last_value >= map.size()) return _set_rc(&plw->rc, WARM_RC_CAPACITY);
        if (map[value] == map[plw->last_value]) {
            plw->last_skipped_value = value;
            return 0;
        }
        ST_TRY(put_skipped_value(plw));
    }
    return put_value(plw, value);
}

int _plist_writer_end_term(plist_writer_t* plw) {
    ST_TRY(put_skipped_value(plw));
    if (plw->plo_type == PLO_BMAP) end_bitmap(plw);
    if (plw->plo_type == PLO_RLE) {
        rle_encoder_t rle = encoder_of(plw);
        rle.end_run();
        take_encoded(plw, rle);
    }
    ST_ASSERT((plw->term_bytes == 0) == (plw->count_forterm == 0) && plw->buffered <= PLIST_BUFFER);
    plw->total += plw->term_bytes;
    return flush_if_nearly_full(plw);
}

int _plist_writer_close(plist_writer_t* plw) {
    const int status = flush(plw);
    plw->fd = -1;
    return status;
}

}  // namespace veldar
