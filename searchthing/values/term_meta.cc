#include "searchthing/values/term_meta.h"

#include <cstdint>
#include <limits>

#include "libzero/assertions.h"
#include "libzero/endian.h"
#include "libzero/vbe.h"

namespace veldar {

namespace {

constexpr uint32_t COUNT_BYTES = 4;
constexpr uint32_t FULL_BYTES = 12;
constexpr uint32_t WORD_BYTES = 8;
constexpr uint32_t PACKED_WRITER_WORDS = 4096;

// Elements of the array reader that one read takes: enough for an entry, and about 4 KB of them.
struct read_spans {
    uint64_t single;
    uint64_t ahead;
};

// An entry of at most 96 bits touches three words at most.
static_assert(3 * 64 >= 63 + 96);
read_spans spans_of(uint32_t type) {
    if (type == META_PACKED) return {3, 512};
    return type == META_FULL ? read_spans{1, 341} : read_spans{1, 1024};
}

uint64_t element_bytes(uint32_t type) {
    return type == META_PACKED ? WORD_BYTES : type == META_FULL ? FULL_BYTES : COUNT_BYTES;
}

uint64_t entry_nbits(const term_meta_reader_t* reader) {
    return reader->count_nbits + 2 * reader->time_nbits;
}

void decode_full(const uint8_t* entry, st_term_metadata* out) {
    out->count = load_be32(entry);
    out->earliest = load_be32(entry + 4);
    out->latest = load_be32(entry + 8);
}

void encode_full(const st_term_metadata* record, uint8_t* entry) {
    store_be32(entry, record->count);
    store_be32(entry + 4, record->earliest);
    store_be32(entry + 8, record->latest);
}

int read_packed(term_meta_reader_t* reader, warm_rc_t* rc) {
    const uint64_t at = reader->next * entry_nbits(reader);
    uint32_t count = 0, earliest = 0, latest = 0;
    ST_TRY(bitunpack_word32(&reader->ar, reader->count_nbits, at, false, 0, &count, rc));
    const uint64_t times = at + reader->count_nbits;
    ST_TRY(bitunpack_word32(&reader->ar, reader->time_nbits, times, false, 0, &earliest, rc));
    ST_TRY(bitunpack_word32(&reader->ar, reader->time_nbits, times + reader->time_nbits, false, 0, &latest, rc));
    reader->current = {count, earliest + reader->time_offset, latest + reader->time_offset};
    return 0;
}

int read_bytes(term_meta_reader_t* reader, warm_rc_t* rc) {
    const uint8_t* entry = _ar_get_i(&reader->ar, reader->next, false, 0, rc);
    if (entry == nullptr) return rc->warm_rc;
    if (reader->_mtype == META_FULL) {
        decode_full(entry, &reader->current);
    } else {
        reader->current.count = load_be32(entry);
    }
    return 0;
}

int read_entry(term_meta_reader_t* reader, warm_rc_t* rc) {
    if (reader->entries != nullptr) {
        decode_full(reader->entries + uint64_t{reader->next} * FULL_BYTES, &reader->current);
        return _set_rc(rc, WARM_RC_OK);
    }
    return reader->_mtype == META_PACKED ? read_packed(reader, rc) : read_bytes(reader, rc);
}

int append_packed(term_meta_writer_t* writer, const st_term_metadata* record, warm_rc_t* rc) {
    const int32_t lowest = static_cast<int32_t>(writer->time_offset);
    if (static_cast<int32_t>(record->earliest) < lowest || static_cast<int32_t>(record->latest) < lowest) {
        return _set_rc_msg(rc, WARM_RC_INVALID_ARGUMENT, "meta earliest and/or latest less than time_offset");
    }
    const uint32_t earliest = record->earliest - writer->time_offset;
    const uint32_t latest = record->latest - writer->time_offset;
    if (bit_length(record->count) > writer->count_nbits || bit_length(earliest) > writer->time_nbits ||
        bit_length(latest) > writer->time_nbits) {
        return _set_rc_msg(rc, WARM_RC_DOES_NOT_FIT, "meta count or times wider than their fields");
    }
    // Room for the whole record first, so that a failed flush leaves no part of it behind.
    const uint64_t end = writer->bp.bit_cursor + writer->count_nbits + 2 * writer->time_nbits;
    if (!writer->buffer_mode && end > writer->bp.capacity * 64) ST_TRY(bp_writer_flush_buffer(&writer->bp, rc));
    ST_TRY(bp_writer_append(&writer->bp, record->count, writer->count_nbits, rc));
    ST_TRY(bp_writer_append(&writer->bp, earliest, writer->time_nbits, rc));
    return bp_writer_append(&writer->bp, latest, writer->time_nbits, rc);
}

int append_to_buffer(term_meta_writer_t* writer, const st_term_metadata* record, warm_rc_t* rc) {
    if (writer->cursor >= writer->capacity) return _set_rc_msg(rc, WARM_RC_CAPACITY, "meta writer buffer full");
    encode_full(record, writer->out + writer->cursor * FULL_BYTES);
    writer->cursor++;
    return _set_rc(rc, WARM_RC_OK);
}

int append_to_file(term_meta_writer_t* writer, const st_term_metadata* record, warm_rc_t* rc) {
    uint8_t entry[FULL_BYTES];
    encode_full(record, entry);
    const int status = _aw_write(&writer->aw, entry, element_bytes(writer->mtype));
    if (status != 0) return _set_rc_msg(rc, status, "meta_writer._awriter.write failure");
    return _set_rc(rc, WARM_RC_OK);
}

void set_widths(term_meta_writer_t* writer, const st_warm_slice_body* header) {
    writer->mtype = warm_header_meta_type(header);
    if (writer->mtype != META_PACKED) return;
    writer->count_nbits = warm_header_meta_count_nbits(header);
    writer->time_nbits = warm_header_meta_time_nbits(header);
    writer->time_offset = header->earliest.get();
}

}  // namespace

int term_meta_reader_open(term_meta_reader_t* reader, int fd, const uint8_t* entries, const st_warm_slice_body* header,
                          bool sequential, st_query_info_t* stats, warm_rc_t* rc) {
    *reader = {};
    const uint32_t type = warm_header_meta_type(header);
    if (type == META_COUNT_ONLY && sequential) {
        return _set_rc_msg(rc, WARM_RC_CORRUPT, "sequential access for META_COUNT_ONLY unsupportted");
    }
    reader->_mtype = type;
    reader->num_terms = header->num_terms.get();
    uint64_t elements = reader->num_terms;
    if (type == META_PACKED) {
        elements = warm_header_size_metadata(header) / WORD_BYTES;
        reader->count_nbits = warm_header_meta_count_nbits(header);
        reader->time_nbits = warm_header_meta_time_nbits(header);
        reader->time_offset = header->earliest.get();
    }
    if (type == META_FULL && entries != nullptr) {
        reader->entries = entries;
    } else if (elements > std::numeric_limits<uint32_t>::max()) {
        return _set_rc_msg(rc, WARM_RC_DOES_NOT_FIT, "meta_reader_open.ar_open failed");
    } else {
        const read_spans spans = spans_of(type);
        const int status = _ar_open(&reader->ar, fd, _offset_metadata(header), element_bytes(type),
                                    static_cast<uint32_t>(elements), spans.ahead, stats, entries);
        if (status != 0) return _set_rc_msg(rc, status, "meta_reader_open.ar_open failed");
        reader->ar.span = sequential ? spans.ahead : spans.single;
    }
    reader->opened = true;
    return _set_rc(rc, WARM_RC_OK);
}

const st_term_metadata* term_meta_reader_next(term_meta_reader_t* reader, warm_rc_t* rc) {
    if (reader->next >= reader->num_terms) {
        _set_rc_msg(rc, WARM_RC_CAPACITY, "term id out of range");
        return nullptr;
    }
    if (read_entry(reader, rc) != 0) return nullptr;
    reader->next++;
    return &reader->current;
}

// A step counts as small when a piece read at the last term would have covered it, or nearly so: a read ahead then pays
// after two such steps. The first read after opening is never a step.
void term_meta_reader_seek(term_meta_reader_t* reader, uint32_t term) {
    ST_ASSERT(reader->opened);
    const read_spans spans = spans_of(reader->_mtype);
    const uint64_t ahead_bits = spans.ahead * element_bytes(reader->_mtype) * 8;
    const uint64_t entry_bits = reader->_mtype == META_PACKED ? entry_nbits(reader) : element_bytes(reader->_mtype) * 8;
    const bool stepping = reader->next != 0 && term >= reader->next;
    const bool near = (term - uint64_t{reader->next}) * entry_bits < ahead_bits;
    reader->ar.span = stepping && near ? spans.ahead : spans.single;
    reader->next = term;
}

int term_meta_reader_close(term_meta_reader_t* reader) {
    if (reader->opened) *reader = {};
    return 0;
}

int term_meta_writer_open(term_meta_writer_t* writer, int fd, const st_warm_slice_body* header, warm_rc_t* rc) {
    *writer = {};
    if (fd < 0) return _set_rc_msg(rc, WARM_RC_INVALID_ARGUMENT, "fd invalid in meta writer open");
    set_widths(writer, header);
    const uint64_t offset = _offset_metadata(header);
    ST_ASSERT(offset % WORD_BYTES == 0);
    if (writer->mtype == META_PACKED) {
        if (!writer->words.alloc(PACKED_WRITER_WORDS)) {
            return _set_rc_msg(rc, WARM_RC_NO_MEMORY, "write buffer alloc failed");
        }
        bp_writer_open(&writer->bp, fd, writer->words.data(), PACKED_WRITER_WORDS, offset / WORD_BYTES);
    } else {
        const uint32_t capacity = writer->mtype == META_FULL ? 2730 : 8192;
        const int status = _aw_open(&writer->aw, fd, offset, element_bytes(writer->mtype), capacity);
        if (status != 0) return _set_rc_msg(rc, status, "cannot open term_meta_writer.array_writer");
    }
    writer->fd = fd;
    return _set_rc(rc, WARM_RC_OK);
}

void term_meta_writer_open_buffer_mode(term_meta_writer_t* writer, const st_warm_slice_body* header, void* out,
                                       uint64_t size) {
    *writer = {};
    set_widths(writer, header);
    writer->buffer_mode = true;
    writer->out = static_cast<uint8_t*>(out);
    writer->capacity = size / WORD_BYTES;
    if (writer->mtype != META_PACKED) return;
    ST_ASSERT(reinterpret_cast<uintptr_t>(out) % alignof(uint64_t) == 0);
    bp_writer_open(&writer->bp, -1, static_cast<uint64_t*>(out), writer->capacity, 0);
}

int term_meta_writer_append(term_meta_writer_t* writer, const st_term_metadata* record, warm_rc_t* rc) {
    if (writer->mtype == META_PACKED) return append_packed(writer, record, rc);
    return writer->buffer_mode ? append_to_buffer(writer, record, rc) : append_to_file(writer, record, rc);
}

int term_meta_writer_close(term_meta_writer_t* writer, warm_rc_t* rc) {
    int status = _set_rc(rc, WARM_RC_OK);
    if (writer->fd >= 0 && writer->mtype == META_PACKED) {
        status = bp_writer_close(&writer->bp, rc);
    } else if (writer->fd >= 0) {
        status = _aw_close(&writer->aw);
        if (status != 0) _set_rc_msg(rc, status, "meta writer close failed");
    }
    *writer = {};
    return status;
}

}  // namespace veldar
