#include "searchthing/columns/dimset_io.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "libzero/assertions.h"
#include "searchthing/base/timed_read.h"
#include "searchthing/postings/bitmap.h"

namespace veldar {

namespace {

constexpr uint64_t ENDS_SPAN = 4096 / sizeof(uint32_t);
// Words that a walk in id order reads at once; one set always fits.
constexpr uint64_t AHEAD_WORDS = 16384;
static_assert(AHEAD_WORDS >= DS_MAX_DIMSET_SIZE_WORDS);
constexpr uint64_t WRITE_BYTES = uint64_t{8} << 20;

int write_words(int fd, uint64_t* offset, const uint32_t* words, uint32_t count, const char* what, warm_rc_t* rc) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(words);
    for (uint64_t left = count * sizeof(uint32_t); left != 0;) {
        const uint64_t piece = std::min(left, WRITE_BYTES);
        if (st_pwrite(fd, bytes, piece, *offset) != static_cast<int64_t>(piece)) {
            return _set_rc_msg(rc, WARM_RC_WRITE, what);
        }
        bytes += piece;
        left -= piece;
        *offset += piece;
    }
    return 0;
}

int read_header(ds_header_t* header, int fd, uint64_t offset, const char* what_header, const char* what_magic,
                warm_rc_t* rc) {
    _set_rc(rc, 0);
    const int64_t got = st_pread(fd, header, sizeof *header, offset);
    if (got != static_cast<int64_t>(sizeof *header)) return _set_rc_msg(rc, read_status(got), what_header);
    return ds_verify_magic(header) ? 0 : _set_rc_msg(rc, WARM_RC_BAD_MAGIC, what_magic);
}

// Where set `id` begins and ends in the body.
int find_set(ds_reader_t* r, uint32_t id, uint32_t* start, uint32_t* end, warm_rc_t* rc) {
    if (id >= r->num_dimsets) return _set_rc_verbose(rc, WARM_RC_CAPACITY, id, "ds_reader_read");
    *end = 0;
    for (uint32_t of = id == 0 ? 0 : id - 1; of <= id; of++) {
        const uint8_t* entry = _ar_get_i(&r->ends, of, false, 0, rc);
        if (entry == nullptr) return rc->warm_rc;
        *start = std::exchange(*end, load_le32(entry));
    }
    if (*end <= uint64_t{*start} + DS_MIN_WORDS) {
        return _set_rc_verbose(rc, WARM_RC_CORRUPT, id, "end_word_off < start_word_off + DS_HEADER_NUM_WORDS");
    }
    return *end <= r->num_words ? 0 : _set_rc_verbose(rc, WARM_RC_CORRUPT, id, "dimset lies past the section's words");
}

int read_body(ds_reader_t* r, uint64_t first, uint64_t count, uint32_t* out, warm_rc_t* rc) {
    const uint64_t offset = r->section_offset + st_dimsets_size(r->num_dimsets, 0) + first * sizeof(uint32_t);
    const size_t size = count * sizeof(uint32_t);
    const int64_t got = st_pread(r->fd, out, size, offset);
    if (got == static_cast<int64_t>(size)) return 0;
    return _set_rc_msg(rc, read_status(got), "ds_reader_read dimset");
}

// The words of a set, through the cache when the sets come in id order.
int fetch_words(ds_reader_t* r, uint32_t start, uint32_t end, uint32_t* out, warm_rc_t* rc) {
    ST_ASSERT(start < end && end <= r->num_words);
    const bool walking = start == r->walk_next;
    r->walk_next = end;
    if (!walking || end - start > AHEAD_WORDS) return read_body(r, start, end - start, out, rc);
    if (start < r->ahead_start || end > r->ahead_start + r->ahead_count) {
        if (r->ahead.empty() && !r->ahead.alloc(AHEAD_WORDS)) return read_body(r, start, end - start, out, rc);
        const uint64_t count = std::min<uint64_t>(AHEAD_WORDS, r->num_words - start);
        r->ahead_count = 0;
        ST_TRY(read_body(r, start, count, r->ahead.data(), rc));
        r->ahead_start = start;
        r->ahead_count = count;
    }
    std::memcpy(out, r->ahead.data() + (start - r->ahead_start), (end - start) * sizeof(uint32_t));
    return 0;
}

int verify_set(const ds_dimset_t* ds, const ds_dimset_t* previous, uint32_t id, ds_verify_t verify, warm_rc_t* rc) {
    const auto corrupt = [&](const char* message) { return _set_rc_verbose(rc, WARM_RC_CORRUPT, id, message); };
    if (verify < DS_VERIFY_V3) {
        return ds_fields_ascend(ds_dimset_opt_fields(ds)) ? 0 : corrupt("dimset opt fields ordering invalid");
    }
    if (!ds_fields_ascend(ds_dimset_opt_dims(ds))) return corrupt("dimset opt dims ordering invalid");
    if (!ds_fields_ascend(ds_dimset_opt_cols(ds))) return corrupt("dimset opt cols ordering invalid");
    if (previous != nullptr && ds_dimset_compare(previous, ds) >= 0) {
        return corrupt("dimset order invalid, current less than previous");
    }
    return 0;
}

}  // namespace

int ds_writer_open(ds_writer_t* w, uint32_t max_sets, uint32_t max_body_words, warm_rc_t* rc) {
    _set_rc(rc, 0);
    *w = ds_writer_t{};
    if (w->ends.alloc(max_sets) && w->body.alloc(max_body_words)) return 0;
    ds_writer_close(w);
    return _set_rc_msg(rc, WARM_RC_NO_MEMORY, "ds_writer_open");
}

int ds_writer_append(ds_writer_t* w, const ds_dimset_t* ds, warm_rc_t* rc) {
    if (w->num_dimsets == w->ends.size()) return _set_rc_msg(rc, WARM_RC_CAPACITY, "ds_writer_append offsets");
    if (ds->_num_words > w->body.size() - w->num_words) {
        return _set_rc_msg(rc, WARM_RC_DIMSET_BUFFER, "ds_writer_append buffer");
    }
    std::memcpy(w->body.data() + w->num_words, ds_dimset_words(ds), ds->_num_words * sizeof(uint32_t));
    w->num_words += ds->_num_words;
    w->ends[w->num_dimsets++] = w->num_words;
    return 0;
}

const ds_dimset_t* ds_writer_last_appended(const ds_writer_t* w) {
    if (w->num_dimsets == 0) return nullptr;
    return ds_dimset_at(w->body.data() + (w->num_dimsets == 1 ? 0 : w->ends[w->num_dimsets - 2]));
}

int ds_writer_flush(const ds_writer_t* w, int fd, uint64_t* offset, uint64_t start, warm_rc_t* rc) {
    _set_rc(rc, 0);
    *offset = start;
    ds_header_t header;
    ds_header_init(&header, w->num_dimsets, w->num_words);
    if (st_pwrite(fd, &header, sizeof header, *offset) != static_cast<int64_t>(sizeof header)) {
        return _set_rc_msg(rc, WARM_RC_WRITE, "ds_writer_flush hdr");
    }
    *offset += sizeof header;
    ST_TRY(write_words(fd, offset, w->ends.data(), w->num_dimsets, "ds_writer_flush offsets", rc));
    ST_TRY(write_words(fd, offset, w->body.data(), w->num_words, "ds_writer_flush body", rc));
    ST_ASSERT(*offset - start == st_dimsets_size(w->num_dimsets, w->num_words));
    return 0;
}

void ds_writer_close(ds_writer_t* w) {
    *w = ds_writer_t{};
}

int ds_header_read(ds_header_t* header, int fd, uint64_t offset, warm_rc_t* rc) {
    return read_header(header, fd, offset, "ds_header_read header", "ds_header_read magic", rc);
}

int ds_reader_open(ds_reader_t* r, int fd, uint64_t section_offset, warm_rc_t* rc) {
    *r = ds_reader_t{};
    ds_header_t header;
    ST_TRY(read_header(&header, fd, section_offset, "ds_reader_open header", "ds_reader_open magic", rc));
    if (const int status = _ar_open(&r->ends, fd, section_offset + sizeof header, sizeof(uint32_t), header.dimsets(),
                                    ENDS_SPAN, nullptr, nullptr)) {
        return _set_rc_msg(rc, status, "ds_reader_open ar_open");
    }
    r->fd = fd;
    r->section_offset = section_offset;
    r->num_dimsets = header.dimsets();
    r->num_words = header.words();
    return 0;
}

int ds_reader_read(ds_reader_t* r, uint32_t id, ds_dimset_t* buf, uint32_t bufsz_words, warm_rc_t* rc) {
    uint32_t start = 0, end = 0;
    ST_TRY(find_set(r, id, &start, &end, rc));
    const uint32_t words = end - start;
    if (words > bufsz_words) {
        return _set_rc_verbose(rc, WARM_RC_CORRUPT, id, "bufsz_words < ( end_word_off - start_word_off )");
    }
    ST_TRY(fetch_words(r, start, end, ds_dimset_words(buf), rc));
    if (buf->_num_words > DS_MAX_DIMSET_SIZE_WORDS) {
        return _set_rc_verbose(rc, WARM_RC_CAPACITY, id, "num_words exceeds DS_MAX_DIMSET_SIZE_WORDS");
    }
    if (!ds_dimset_is_sound(buf, words)) return _set_rc_verbose(rc, WARM_RC_CORRUPT, id, "dimset counts invalid");
    return _set_rc(rc, 0);
}

void ds_reader_close(ds_reader_t* r) {
    _ar_close(&r->ends);
    *r = ds_reader_t{};
}

ds_verify_t ds_verify_version(const st_warm_slice_body* header) {
    return st_warm_slice_is_msidx_with_cstore(header) ? DS_VERIFY_V3 : DS_VERIFY_V2;
}

int ds_reader_apply(ds_reader_t* r, ds_verify_t verify, ds_apply_fn callback, void* ctx, warm_rc_t* rc) {
    return ds_reader_apply_within_dimset_chunk(r, 0, r->num_dimsets, nullptr, verify, callback, ctx, rc);
}

int ds_reader_apply_within_dimset_chunk(ds_reader_t* r, uint32_t first, uint32_t end, const bitmap_and_bounds_t* filter,
                                        ds_verify_t verify, ds_apply_fn callback, void* ctx, warm_rc_t* rc) {
    _set_rc(rc, 0);
    buffer<uint32_t> buffers[2];
    for (buffer<uint32_t>& words : buffers) {
        if (!words.alloc(DS_MAX_DIMSET_SIZE_WORDS)) {
            return _set_rc_msg(rc, WARM_RC_NO_MEMORY, "calloc DS_MAX_DIMSET_SIZE_WORDS");
        }
    }
    const ds_dimset_t* previous = nullptr;
    for (uint32_t id = first, turn = 0; id < end; id++) {
        // An id past the last set has no preamble; reading it fails.
        if (filter != nullptr && id < r->num_dimsets && !bnb_tsval_passes_filter(filter, r->num_dimsets - 1 - id)) {
            continue;
        }
        ds_dimset_t* const ds = ds_dimset_at(buffers[turn].data());
        ST_TRY(ds_reader_read(r, id, ds, DS_MAX_DIMSET_SIZE_WORDS, rc));
        if (verify != DS_VERIFY_NONE) ST_TRY(verify_set(ds, previous, id, verify, rc));
        previous = ds;
        turn ^= 1;
        ST_TRY(callback(id, ds, ctx, rc));
    }
    return 0;
}

}  // namespace veldar
