#include "searchthing/postings/bitmap.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>

#include "libzero/assertions.h"
#include "libzero/endian.h"
#include "libzero/vbe.h"
#include "searchthing/base/timed_read.h"

namespace veldar {

namespace {

constexpr uint32_t END = 0xFFFFFFFF;
// A longer list would hold events beyond 32 bits.
constexpr uint64_t BITMAP_LIST_MAX = VBE_MAX_BYTES + (uint64_t{1} << 32) / 8;

bool is_first_chunk(const bitmap_reader_t* br) {
    return br->consumed <= BITMAP_CHUNK;
}

// Bytes of the current chunk before its bitmap.
uint32_t chunk_bitmap_start(const bitmap_reader_t* br) {
    return is_first_chunk(br) ? br->vbe_length : 0;
}

// The iterator points into the reader's own chunk, wherever the reader has been moved to.
bitmap_iterator_t* chunk_iterator(bitmap_reader_t* br) {
    br->itr.bytes = br->chunk + chunk_bitmap_start(br);
    return &br->itr;
}

int read_chunk(bitmap_reader_t* br, size_t size, warm_rc_t* rc) {
    if (br->src != nullptr) {
        std::memcpy(br->chunk, br->src, size);
        return 0;
    }
    if (st_timed_pread_msg(br->fd, br->chunk, size, br->offset, br->stats, false) != static_cast<int64_t>(size)) {
        return _set_rc_msg(rc, WARM_RC_READ, "Bitmap reader: error reading bitmap PL from disk");
    }
    br->offset += size;
    return 0;
}

int load_chunk(bitmap_reader_t* br, warm_rc_t* rc) {
    const size_t size = std::min<uint64_t>(BITMAP_CHUNK, br->bsize - br->consumed);
    ST_TRY(read_chunk(br, size, rc));
    std::memset(br->chunk + size, 0, sizeof br->chunk - size);
    uint64_t base = br->first_id + 8 * (uint64_t{br->consumed} - br->vbe_length);
    if (br->consumed == 0) {
        br->vbe_length = vbe_decode_bounded(&br->first_id, br->chunk, br->chunk + size);
        if (br->vbe_length == 0) {
            return _set_rc_msg(rc, WARM_RC_CORRUPT, "Bitmap reader: reading start tsval_id failed");
        }
        base = br->first_id;
    }
    if (base > std::numeric_limits<uint32_t>::max()) {
        return _set_rc_msg(rc, WARM_RC_CORRUPT, "Bitmap reader: tsval_id out of range");
    }
    ST_ASSERT(base >= br->chunk_base);
    br->chunk_base = static_cast<uint32_t>(base);
    br->consumed += static_cast<uint32_t>(size);
    ST_ASSERT(br->consumed <= br->bsize);
    _bitmap_itr_init(&br->itr, br->chunk + chunk_bitmap_start(br), BITMAP_CHUNK - br->vbe_length + br->vbe_length % 4);
    return 0;
}

// Turns a bit of the current chunk into its event, loading further chunks while there is none.
int event_of_bit(bitmap_reader_t* br, uint32_t bit, uint32_t* id, warm_rc_t* rc) {
    *id = END;
    while (bit == END) {
        if (br->consumed == br->bsize) return _set_rc(rc, WARM_RC_OK);
        ST_TRY(load_chunk(br, rc));
        bit = _bitmap_itr_next(&br->itr);
    }
    if (bit >= END - br->chunk_base) {
        return _set_rc_msg(rc, WARM_RC_CORRUPT, "Bitmap reader: tsval_id out of range");
    }
    *id = br->chunk_base + bit;
    return _set_rc(rc, WARM_RC_OK);
}

int check_open(const bitmap_reader_t* br, warm_rc_t* rc) {
    if (br->src != nullptr || br->fd >= 0) return 0;
    return _set_rc_msg(rc, WARM_RC_NOT_FOUND, "Bitmap reader: both file and buffer can't be invalid");
}

// Puts F before the bitmap bytes of the buffer.
int start_list(bitmap_writer_t* bw, uint32_t id, warm_rc_t* rc) {
    uint8_t coded[VBE_MAX_BYTES];
    const uint32_t length = st_encode_to_vbe(coded, id);
    if (length >= bw->buf_size - bw->buf_start_pos) {
        return _set_rc_msg(rc, WARM_RC_CAPACITY, "Bitmap writer: no room for the start tsval_id");
    }
    std::memcpy(bw->buf + bw->buf_start_pos, coded, length);
    bw->first_id = id;
    bw->vbe_length = length;
    bw->buf_start_pos += length;
    return 0;
}

}  // namespace

void bitmap_writer_init(bitmap_writer_t* bw, uint8_t* buf, uint64_t start, uint64_t size, int fd, uint64_t offset) {
    ST_ASSERT(fd != (-1));
    *bw = {};
    bw->buf = buf;
    bw->buf_start_pos = start;
    bw->buf_size = size;
    ST_ASSERT(bw->buf_start_pos < bw->buf_size);
    bw->fd = fd;
    bw->offset = offset;
    std::memset(buf + start, 0, size - start);
}

int bitmap_writer_append(bitmap_writer_t* bw, uint32_t id, warm_rc_t* rc) {
    if (bw->fd < 0) {
        return _set_rc_msg(rc, WARM_RC_OPEN, "Bitmap reader: file is invalid. Can't append to bitmap PL");
    }
    if (bw->buf_pos == 0 && bw->flushed == 0) ST_TRY(start_list(bw, id, rc));
    const uint64_t first_buffered = bw->first_id + 8 * bw->flushed;
    if (id < first_buffered) {
        return _set_rc_msg(rc, WARM_RC_INVALID_ARGUMENT,
                           "Bitmap writer: Out of order tsval-id. Can't append to bitmap PL");
    }
    uint64_t bit = id - first_buffered;
    while (bit >= 8 * (bw->buf_size - bw->buf_start_pos)) {
        bw->buf_pos = bw->buf_size;
        bit -= 8 * (bw->buf_size - bw->buf_start_pos);
        ST_TRY(bitmap_writer_flush(bw, rc));
    }
    const uint64_t append_offset = bw->buf_start_pos + bit / 8;
    ST_ASSERT(append_offset < bw->buf_size);
    bw->buf[append_offset] = static_cast<uint8_t>(bw->buf[append_offset] | 1u << bit % 8);
    bw->buf_pos = std::max(bw->buf_pos, append_offset + 1);
    return _set_rc(rc, WARM_RC_OK);
}

int bitmap_writer_flush(bitmap_writer_t* bw, warm_rc_t* rc) {
    if (bw->fd < 0) {
        return _set_rc_msg(rc, WARM_RC_OPEN, "Bitmap reader: file is invalid. Can't flush bitmap to disk.");
    }
    ST_ASSERT(bw->buf_start_pos <= bw->buf_pos && bw->buf_pos <= bw->buf_size);
    if (st_pwrite(bw->fd, bw->buf, bw->buf_pos, bw->offset) != static_cast<int64_t>(bw->buf_pos)) {
        return _set_rc_msg(rc, WARM_RC_WRITE, "Bitmap writer: Failed to flush bitmap");
    }
    std::memset(bw->buf, 0, bw->buf_size);
    bw->offset += bw->buf_pos;
    bw->flushed += bw->buf_pos - bw->buf_start_pos;
    bw->buf_start_pos = 0;
    bw->buf_pos = 0;
    return _set_rc(rc, WARM_RC_OK);
}

int bitmap_writer_close(bitmap_writer_t* bw, uint64_t* size, bool flush) {
    warm_rc_t rc;
    if (flush && bw->buf_pos > 0) ST_TRY(bitmap_writer_flush(bw, &rc));
    const uint64_t buffered = bw->buf_pos == 0 ? 0 : bw->buf_pos - bw->buf_start_pos;
    ST_ASSERT((bw->vbe_length == 0) == (bw->flushed + buffered == 0));  // a first event and its bit, or neither
    *size = bw->vbe_length + bw->flushed + buffered;
    *bw = {};
    return 0;
}

void _bitmap_itr_init(bitmap_iterator_t* itr, uint8_t* bytes, uint64_t bitmap_size) {
    ST_ASSERT(!(bitmap_size & 0x03));
    *itr = {.bytes = bytes, .bitmap_size = bitmap_size, .position = 0};
}

uint32_t _bitmap_itr_next(bitmap_iterator_t* itr) {
    for (; itr->position < itr->bitmap_size; itr->position += 4) {
        uint8_t* at = itr->bytes + itr->position;
        const uint32_t word = load_le32(at);
        if (word == 0) continue;
        store_le32(at, word & (word - 1));
        return static_cast<uint32_t>(itr->position * 8) + static_cast<uint32_t>(std::countr_zero(word));
    }
    return END;
}

uint32_t _bitmap_itr_seek(bitmap_iterator_t* itr, uint32_t bit) {
    itr->position = bit / 32 * 4;
    if (itr->position < itr->bitmap_size && bit % 32 != 0) {
        uint8_t* at = itr->bytes + itr->position;
        store_le32(at, load_le32(at) & ~uint32_t{0} << bit % 32);
    }
    return _bitmap_itr_next(itr);
}

int bitmap_reader_init(bitmap_reader_t* br, int fd, uint64_t offset, uint64_t bsize, const uint8_t* src,
                       warm_rc_t* rc) {
    const bool in_memory = src != nullptr || fd < 0;
    br->fd = -1;
    br->src = nullptr;
    if (in_memory && bsize > BITMAP_CHUNK) return _set_rc_msg(rc, WARM_RC_CORRUPT, "bsize <= 8192");
    if (in_memory && src == nullptr) {
        return _set_rc_msg(rc, WARM_RC_INVALID_ARGUMENT, "Bitmap reader: src buffer is NULL");
    }
    if (bsize > BITMAP_LIST_MAX) return _set_rc_msg(rc, WARM_RC_CORRUPT, "Bitmap reader: list too long");
    br->first_id = br->vbe_length = br->consumed = br->chunk_base = 0;
    br->itr = {};
    br->fd = in_memory ? -1 : fd;
    br->offset = offset;
    br->bsize = bsize;
    br->src = src;
    ST_TRY(load_chunk(br, rc));
    return _set_rc(rc, WARM_RC_OK);
}

int bitmap_reader_next(bitmap_reader_t* br, uint32_t* id, warm_rc_t* rc) {
    ST_TRY(check_open(br, rc));
    return event_of_bit(br, _bitmap_itr_next(chunk_iterator(br)), id, rc);
}

int bitmap_reader_seek(bitmap_reader_t* br, uint32_t target, uint32_t* id, warm_rc_t* rc) {
    ST_TRY(check_open(br, rc));
    bitmap_iterator_t* itr = chunk_iterator(br);
    const uint32_t bit = target < br->chunk_base ? 0 : target - br->chunk_base;
    if (bit / 32 * 4 < itr->position) return event_of_bit(br, _bitmap_itr_next(itr), id, rc);
    const uint32_t chunk_bytes = BITMAP_CHUNK - chunk_bitmap_start(br);
    if (bit / 8 < chunk_bytes) return event_of_bit(br, _bitmap_itr_seek(itr, bit), id, rc);

    const uint64_t skipped = (bit / 8 - chunk_bytes) / BITMAP_CHUNK * BITMAP_CHUNK;
    itr->position = itr->bitmap_size;
    if (skipped >= br->bsize - br->consumed) {
        br->consumed = static_cast<uint32_t>(br->bsize);
        return event_of_bit(br, END, id, rc);
    }
    br->consumed += static_cast<uint32_t>(skipped);
    br->offset += skipped;
    ST_TRY(load_chunk(br, rc));
    ST_ASSERT(br->chunk_base <= target);  // only whole chunks before the target's were left out
    return event_of_bit(br, _bitmap_itr_seek(&br->itr, target - br->chunk_base), id, rc);
}

// Not an assignment from an empty reader: that would be 8 KB on the stack.
void bitmap_reader_close(bitmap_reader_t* br) {
    std::memset(static_cast<void*>(br), 0, sizeof *br);
    br->fd = -1;
}

bool bnb_tsval_passes_filter(const bitmap_and_bounds_t* bnb, uint32_t id) {
    if (bnb->bm.data() == nullptr || id < bnb->begin || id > bnb->end) return false;
    const uint32_t bit = id - bnb->begin;
    return bnb->bm[bit / 8] >> bit % 8 & 1;
}

void free_bitmap_and_bounds(bitmap_and_bounds_t* bnb) {
    *bnb = {};
}

}  // namespace veldar
