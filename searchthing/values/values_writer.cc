#include "searchthing/values/values_writer.h"

#include <algorithm>

#include "libzero/assertions.h"
#include "libzero/vbe.h"

namespace veldar {

namespace {

constexpr uint32_t COMPANION_WORDS = 4096;
constexpr uint32_t PLAIN_VALUES_BUFFERED = 8192;
constexpr uint32_t PLAIN_VALUE_BYTES = 8;

uint32_t width_of(uint32_t largest) {
    return std::min(log2n(largest), MAX_COMPANION_NBITS);
}

// Only the s of a deleted event has more bits than its array is wide; its d bit restores them. The d array of a slice
// with preambles stays as it is, zeros.
int put_companions(values_writer_t* writer, const uint32_t (&fields)[5], warm_rc_t* rc) {
    const size_t arrays = writer->encoding == TSVAL_WITH_PREAMBLES ? 4 : 5;
    for (size_t i = 0; i < arrays; i++) {
        auto& array = writer->companions[i];
        if (array.nbits == 0) continue;
        const uint32_t mask = (uint32_t{1} << array.nbits) - 1;
        ST_TRY(bp_writer_append(&array.bits, fields[i] & mask, array.nbits, rc));
    }
    return 0;
}

int open_companions(values_writer_t* writer, const st_warm_slice_body* header, int fd, uint8_t* slice, warm_rc_t* rc) {
    const warm_section_offsets_t at = warm_header_section_offsets(header);
    const struct {
        uint64_t offset;
        const be32 &size, &nbits;
    } arrays[] = {{at.m, header->m_size, header->m_nbits},
                  {at.s, header->s_size, header->s_nbits},
                  {at.st, header->st_size, header->st_nbits},
                  {at.host, header->h_size, header->h_nbits},
                  {at.d, header->d_size, header->d_nbits}};
    if (slice == nullptr && !writer->words.alloc(5 * COMPANION_WORDS)) {
        return _set_rc_msg(rc, WARM_RC_NO_MEMORY, "companion buffers");
    }
    for (size_t i = 0; i < 5; i++) {
        auto& [bits, nbits] = writer->companions[i];
        const auto& [offset, size, width] = arrays[i];
        nbits = width.get();
        ST_ASSERT(offset % sizeof(uint64_t) == 0 && nbits <= MAX_COMPANION_NBITS);
        if (slice != nullptr) {
            bp_writer_open(&bits, -1, reinterpret_cast<uint64_t*>(slice + offset), (uint64_t{size.get()} + 7) / 8, 0);
        } else {
            bp_writer_open(&bits, fd, writer->words.data() + i * COMPANION_WORDS, COMPANION_WORDS,
                           offset / sizeof(uint64_t));
        }
    }
    return 0;
}

}  // namespace

void value_ranges_t::add(const st_tsval& value) {
    measure = std::max(measure, tsval_clamp_measure(value.measure));
    if (value.s != ST_DELETED_SOURCE) s = std::max(s, value.s);
    st = std::max(st, value.st);
    h = std::max(h, value.h);
    address_min = std::min(address_min, value.address);
    address_max = std::max(address_max, value.address);
}

companion_widths_t values_companion_widths(const value_ranges_t& ranges) {
    return {width_of(ranges.measure), width_of(ranges.s), width_of(ranges.st), width_of(ranges.h)};
}

int warm_slice_set_companion(be32* size_field, be32* nbits_field, uint32_t num_values, uint32_t nbits, warm_rc_t* rc) {
    // The codec finds an entry's bit in 32-bit arithmetic.
    if (uint64_t{num_values} * nbits > UINT32_MAX) {
        return _set_rc_msg(rc, WARM_RC_DOES_NOT_FIT, "companion array beyond 2^32 bits");
    }
    const uint64_t size = _compressed_size(num_values, nbits, rc);
    ST_ASSERT(rc->warm_rc == WARM_RC_OK && size <= UINT32_MAX / 8 + 1);  // as many bytes as so few bits take
    size_field->set(static_cast<uint32_t>(size));
    nbits_field->set(nbits);
    return 0;
}

int values_set_header(st_warm_slice_body* header, uint32_t num_values, const companion_widths_t& widths,
                      warm_rc_t* rc) {
    header->num_values.set(num_values);
    ST_TRY(warm_slice_set_companion(&header->m_size, &header->m_nbits, num_values, widths.m, rc));
    ST_TRY(warm_slice_set_companion(&header->s_size, &header->s_nbits, num_values, widths.s, rc));
    ST_TRY(warm_slice_set_companion(&header->st_size, &header->st_nbits, num_values, widths.st, rc));
    ST_TRY(warm_slice_set_companion(&header->h_size, &header->h_nbits, num_values, widths.h, rc));
    return warm_slice_set_companion(&header->d_size, &header->d_nbits, num_values, 1, rc);
}

int values_writer_open(values_writer_t* writer, const st_warm_slice_body* header, int fd, uint8_t* slice,
                       warm_rc_t* rc) {
    *writer = {};
    writer->encoding = tsval_encoding(header);
    const uint64_t offset = _offset_values(header);
    uint8_t* const section = slice == nullptr ? nullptr : slice + offset;
    if (writer->encoding != TSVAL_PLAIN) {
        ST_TRY(tsval_writer_open_section(fd, section, &writer->packed, header, rc));
    } else if (slice != nullptr) {
        writer->plain_at = section;
    } else if (_aw_open(&writer->plain, fd, offset, PLAIN_VALUE_BYTES, PLAIN_VALUES_BUFFERED) != 0) {
        return _set_rc_msg(rc, WARM_RC_NO_MEMORY, "value buffer");
    }
    ST_TRY(open_companions(writer, header, fd, slice, rc));
    // Preambles have entries as well.
    const uint32_t preambles = writer->encoding == TSVAL_WITH_PREAMBLES ? header->num_dimsets.get() : 0;
    for (uint32_t i = 0; i < preambles; i++) ST_TRY(put_companions(writer, {}, rc));
    return 0;
}

int values_writer_put(values_writer_t* writer, const st_tsval& value, warm_rc_t* rc) {
    if (writer->encoding != TSVAL_PLAIN) {
        ST_TRY(tsval_writer_put(&writer->packed, &value, rc));
    } else {
        uint8_t aside[PLAIN_VALUE_BYTES];
        uint8_t* const plain = writer->plain_at != nullptr ? writer->plain_at : aside;
        store_be32(plain, static_cast<uint32_t>(value.time));
        store_be32(plain + 4, value.address);
        if (plain != aside) {
            writer->plain_at += PLAIN_VALUE_BYTES;
        } else if (_aw_write(&writer->plain, plain, PLAIN_VALUE_BYTES) != 0) {
            return _set_rc_msg(rc, WARM_RC_WRITE, "values");
        }
    }
    const bool deleted = value.s == ST_DELETED_SOURCE, has_deletes = writer->encoding != TSVAL_WITH_PREAMBLES;
    return put_companions(writer,
                          {tsval_clamp_measure(value.measure), deleted && !has_deletes ? 0 : value.s, value.st, value.h,
                           deleted && has_deletes},
                          rc);
}

int values_writer_put_preamble(values_writer_t* writer, uint32_t first, uint32_t count, warm_rc_t* rc) {
    ST_ASSERT(writer->encoding == TSVAL_WITH_PREAMBLES && count > 0);
    return tsval_writer_put_preamble(&writer->packed, first, count, rc);
}

int values_writer_close(values_writer_t* writer, warm_rc_t* rc) {
    if (writer->encoding != TSVAL_PLAIN) {
        ST_TRY(tsval_writer_close(&writer->packed, rc));
    } else if (writer->plain_at == nullptr && _aw_close(&writer->plain) != 0) {
        return _set_rc_msg(rc, WARM_RC_WRITE, "values");
    }
    for (auto& array : writer->companions) ST_TRY(bp_writer_close(&array.bits, rc));
    return 0;
}

}  // namespace veldar
