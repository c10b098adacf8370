// Writing packed values and preambles.
#include "libzero/assertions.h"
#include "libzero/endian.h"
#include "searchthing/base/timed_read.h"
#include "searchthing/values/tsval.h"

namespace veldar {

namespace {

int check_header(const st_warm_slice_body* header, uint32_t width, warm_rc_t* rc) {
    const int32_t earliest = static_cast<int32_t>(header->earliest.get());
    const int32_t latest = static_cast<int32_t>(header->latest.get());
    if (earliest > latest) return _set_rc_msg(rc, WARM_RC_INVALID_ARGUMENT, "earliest > latest");
    // Readers take the size of a packed section modulo 2^32 bits, so a longer one could not be found again.
    const bool size_wraps = uint64_t{width} * header->num_values.get() + 63 > UINT32_MAX;
    if (tsval_encoding(header) == TSVAL_PACKED && size_wraps) {
        return _set_rc_msg(rc, WARM_RC_DOES_NOT_FIT, "packed values do not fit");
    }
    return 0;
}

// The second field of a packed value.
int address_field(const tsval_writer_t* writer, const st_tsval* value, uint32_t* out, warm_rc_t* rc) {
    *out = 0;
    if (writer->milliseconds) {
        if (writer->addr_nbits == 0) return 0;
        *out = value->address / NANOSECONDS_PER_MILLISECOND;
        return *out <= 999 ? 0 : _set_rc_msg(rc, WARM_RC_DOES_NOT_FIT, "subsecond out of range");
    }
    const bool range_known = writer->addr_min <= writer->addr_max;
    if (range_known && (value->address < writer->addr_min || value->address > writer->addr_max)) {
        return _set_rc_msg(rc, WARM_RC_INVALID_ARGUMENT, "seek_addr not in lowest/highest addr range");
    }
    *out = value->address - writer->addr_min;
    return 0;
}

}  // namespace

int tsval_preamble_writer_open(tsval_preamble_writer_t* writer, int fd, const st_warm_slice_body* header,
                               warm_rc_t* rc) {
    _set_rc(rc, 0);
    tsval_preamble_writer_clear(writer);
    if (!writer->buf.alloc(TSVAL_WRITER_BUFFER)) return _set_rc(rc, WARM_RC_NO_MEMORY);
    writer->fd = fd;
    writer->word_offset = _offset_values(header) / sizeof(uint64_t);
    return 0;
}

int tsval_preamble_writer_put_preamble(tsval_preamble_writer_t* writer, uint32_t time, uint32_t address,
                                       warm_rc_t* rc) {
    ST_ASSERT(!writer->buf.empty());
    if (writer->count == writer->buf.size()) ST_TRY(tsval_preamble_writer_flush_buffer(writer, rc));
    writer->buf[writer->count++] = uint64_t{address} << 32 | time;
    return 0;
}

int tsval_preamble_writer_flush_buffer(tsval_preamble_writer_t* writer, warm_rc_t* rc) {
    ST_ASSERT(writer->count <= writer->buf.size());
    const size_t size = writer->count * sizeof(uint64_t);
    const uint64_t offset = writer->word_offset * sizeof(uint64_t);
    if (size > 0 && st_pwrite(writer->fd, writer->buf.data(), size, offset) != static_cast<int64_t>(size)) {
        return _set_rc_msg(rc, WARM_RC_WRITE, "tsval_preamble_writer_flush_buffer failed");
    }
    writer->word_offset += writer->count;
    writer->count = 0;
    return 0;
}

void tsval_preamble_writer_clear(tsval_preamble_writer_t* writer) {
    *writer = tsval_preamble_writer_t{};
}

int tsval_preamble_writer_close(tsval_preamble_writer_t* writer, warm_rc_t* rc) {
    const int status = tsval_preamble_writer_flush_buffer(writer, rc);
    tsval_preamble_writer_clear(writer);
    return status;
}

int tsval_writer_open(int fd, tsval_writer_t* writer, const st_warm_slice_body* header, warm_rc_t* rc) {
    return tsval_writer_open_section(fd, nullptr, writer, header, rc);
}

int tsval_writer_open_section(int fd, uint8_t* section, tsval_writer_t* writer, const st_warm_slice_body* header,
                              warm_rc_t* rc) {
    _set_rc(rc, 0);
    *writer = tsval_writer_t{};
    const tsval_encoding_t encoding = tsval_encoding(header);
    ST_ASSERT(encoding != TSVAL_PLAIN);
    writer->earliest = static_cast<int32_t>(header->earliest.get());
    writer->latest = static_cast<int32_t>(header->latest.get());
    writer->milliseconds = warm_header_is_enabled(header, WARM_FLAG_PREAMBLES);
    if (warm_header_is_rev1(header)) {
        writer->addr_min = header->seek_addr_min.get();
        writer->addr_max = header->seek_addr_max.get();
    }
    writer->time_nbits = warm_header_meta_time_nbits(header);
    writer->addr_nbits = warm_header_seek_addr_nbits(header);
    ST_TRY(check_header(header, writer->time_nbits + writer->addr_nbits, rc));
    const uint64_t offset_bytes = _offset_values(header);
    ST_ASSERT(offset_bytes % sizeof(writer->words[0]) == 0);
    const uint64_t preambles = encoding == TSVAL_WITH_PREAMBLES ? header->num_dimsets.get() : 0;
    if (section != nullptr) {
        writer->preamble_at = section;
        const uint64_t words = warm_header_tsval_encoded_array_size(header) / sizeof(uint64_t);
        ST_ASSERT(preambles <= words && preambles <= header->num_values.get());
        const uint64_t packed_values = header->num_values.get() - preambles;
        ST_ASSERT(packed_values * (writer->time_nbits + writer->addr_nbits) <= 64 * (words - preambles));
        bp_writer_open(&writer->bp, -1, reinterpret_cast<uint64_t*>(section) + preambles, words - preambles, 0);
        return 0;
    }
    if (encoding == TSVAL_WITH_PREAMBLES) ST_TRY(tsval_preamble_writer_open(&writer->preambles, fd, header, rc));
    if (!writer->words.alloc(TSVAL_WRITER_BUFFER)) return _set_rc(rc, WARM_RC_NO_MEMORY);
    bp_writer_open(&writer->bp, fd, writer->words.data(), TSVAL_WRITER_BUFFER, offset_bytes / 8 + preambles);
    return 0;
}

int tsval_writer_put(tsval_writer_t* writer, const st_tsval* value, warm_rc_t* rc) {
    if (value->time < writer->earliest || value->time > writer->latest) {
        return _set_rc_msg(rc, WARM_RC_INVALID_ARGUMENT, "timstamp not in earliest/latest range");
    }
    uint32_t address = 0;
    ST_TRY(address_field(writer, value, &address, rc));
    const uint32_t time = static_cast<uint32_t>(value->time) - static_cast<uint32_t>(writer->earliest);
    ST_TRY(bp_writer_append(&writer->bp, time, writer->time_nbits, rc));
    return bp_writer_append(&writer->bp, address, writer->addr_nbits, rc);
}

int tsval_writer_put_preamble(tsval_writer_t* writer, uint32_t time, uint32_t address, warm_rc_t* rc) {
    if (writer->preamble_at == nullptr) {
        return tsval_preamble_writer_put_preamble(&writer->preambles, time, address, rc);
    }
    ST_ASSERT(writer->preamble_at < reinterpret_cast<uint8_t*>(writer->bp.words));  // where the packed values begin
    store_le64(writer->preamble_at, uint64_t{address} << 32 | time);
    writer->preamble_at += sizeof(uint64_t);
    return 0;
}

int tsval_writer_close(tsval_writer_t* writer, warm_rc_t* rc) {
    int status = bp_writer_close(&writer->bp, rc);
    if (status == 0) status = tsval_preamble_writer_close(&writer->preambles, rc);
    writer->words.reset();
    return status;
}

}  // namespace veldar
