#include "searchthing/values/tsval.h"

#include <algorithm>
#include <cstring>

#include "libzero/assertions.h"
#include "libzero/endian.h"
#include "libzero/ospath-builder.h"
#include "searchthing/base/timed_read.h"

namespace veldar {

namespace {

constexpr uint64_t PREAMBLE_SPAN = 512;

// The field of `nbits` (1 to 32) bits at `bit`; the caller has checked that it ends inside `bytes`. One unaligned load:
// a field and the bits before it in its first byte never need more than 39 bits.
inline uint32_t load_bits(std::span<const uint8_t> bytes, uint64_t bit, uint32_t nbits) {
    const size_t first = static_cast<size_t>(bit / 8);
    const size_t left = bytes.size() - first;
    uint64_t word = 0;
    if (left >= sizeof word) {
        word = load_le64(bytes.data() + first);
    } else {
        std::memcpy(&word, bytes.data() + first, left);
    }
    const uint64_t mask = (uint64_t{1} << nbits) - 1;
    return static_cast<uint32_t>((word >> (bit % 8)) & mask);
}

struct packed_fields {
    uint32_t time;
    uint32_t address;
};

uint64_t packed_bit(const tsval_reader_t* reader, uint32_t id) {
    const uint64_t width = reader->time_nbits + reader->addr_nbits;
    return 64 * uint64_t{reader->num_preambles} + (id - reader->num_preambles) * width;
}

inline uint32_t memory_field(const tsval_reader_t* reader, uint64_t bit, uint32_t nbits) {
    return nbits == 0 ? 0 : load_bits(reader->memory, bit, nbits);
}

int file_fields(tsval_reader_t* reader, uint32_t id, packed_fields* out, bool cache_only, uint32_t hint,
                warm_rc_t* rc) {
    const uint64_t bit = packed_bit(reader, id);
    const uint64_t hint_bit = hint < reader->num_preambles ? 0 : packed_bit(reader, hint);
    ST_TRY(bitunpack_word32(&reader->words, reader->time_nbits, bit, cache_only, hint_bit, &out->time, rc));
    return bitunpack_word32(&reader->words, reader->addr_nbits, bit + reader->time_nbits, cache_only, hint_bit,
                            &out->address, rc);
}

// The two raw fields of a packed value that is not a preamble.
inline int fetch_fields(tsval_reader_t* reader, uint32_t id, packed_fields* out, bool cache_only, uint32_t hint,
                        warm_rc_t* rc) {
    if (reader->memory.data() == nullptr) return file_fields(reader, id, out, cache_only, hint, rc);
    const uint64_t bit = packed_bit(reader, id);
    const uint32_t time_nbits = reader->time_nbits;
    if (bit + time_nbits + reader->addr_nbits > 8 * uint64_t{reader->memory.size()}) {
        return _set_rc_verbose(rc, WARM_RC_CAPACITY, id, "packed value lies past its section");
    }
    out->time = memory_field(reader, bit, time_nbits);
    out->address = memory_field(reader, bit + time_nbits, reader->addr_nbits);
    return 0;
}

// The eight bytes of a plain value.
const uint8_t* fetch_plain(tsval_reader_t* reader, uint32_t id, bool cache_only, uint32_t hint, warm_rc_t* rc) {
    if (reader->memory.data() != nullptr) return reader->memory.data() + 8 * uint64_t{id};
    if (id >= reader->cache_first && id - reader->cache_first < reader->cache_count) {
        return reader->cache.data() + 8 * (id - reader->cache_first);
    }
    if (reader->cache_entries == 0 || (cache_only && reader->cache_count == 0)) {
        _set_rc_msg(rc, WARM_RC_UNSUPPORTED, "no cache configured");
        return nullptr;
    }
    if (cache_only) {
        _set_rc_msg(rc, WARM_RC_NOT_FOUND, "not in cache");
        return nullptr;
    }
    uint64_t count = std::min<uint64_t>(reader->cache_entries, reader->num_values - id);
    const bool hint_outside = hint < id || hint - id >= count;
    if (hint != 0 && hint_outside) count = 1;
    reader->cache_count = 0;
    const uint64_t offset = reader->values_offset + 8 * uint64_t{id};
    const size_t wanted = static_cast<size_t>(8 * count);
    const int64_t got = st_timed_pread_msg(reader->fd, reader->cache.data(), wanted, offset, reader->stats, true);
    if (got != static_cast<int64_t>(wanted)) {
        _set_rc(rc, read_status(got));
        return nullptr;
    }
    reader->cache_first = id;
    reader->cache_count = count;
    return reader->cache.data();
}

const uint8_t* fetch_preamble(tsval_reader_t* reader, uint32_t id, bool cache_only, warm_rc_t* rc) {
    if (reader->memory.data() == nullptr) return _ar_get_i(&reader->preambles, id, cache_only, 0, rc);
    ST_ASSERT(8 * uint64_t{id} + 8 <= reader->memory.size());
    return reader->memory.data() + 8 * uint64_t{id};
}

// Milliseconds are stored only when the slice has them; the width of 10 bits says so.
uint32_t subsecond_nanoseconds(const tsval_reader_t* reader, uint32_t field) {
    return reader->addr_nbits == MILLISECOND_NBITS ? field * NANOSECONDS_PER_MILLISECOND : 0;
}

struct value_key {
    st_time_t time;
    st_addr_t address;
    uint64_t subsecond;
};

inline int decode_key(tsval_reader_t* reader, uint32_t id, value_key* out, bool cache_only, uint32_t hint,
                      warm_rc_t* rc) {
    if (id >= reader->num_values) return _set_rc_verbose(rc, WARM_RC_CORRUPT, id, "invalid tsval_id range");
    out->subsecond = 0;
    if (reader->encoding == TSVAL_PLAIN) {
        const uint8_t* at = fetch_plain(reader, id, cache_only, hint, rc);
        if (at == nullptr) return rc->warm_rc;
        out->time = static_cast<st_time_t>(load_be32(at));
        out->address = load_be32(at + 4);
        return 0;
    }
    if (id < reader->num_preambles) {
        const uint8_t* at = fetch_preamble(reader, id, cache_only, rc);
        if (at == nullptr) return rc->warm_rc;
        out->time = static_cast<st_time_t>(load_le32(at));
        out->address = load_le32(at + 4);
        return 0;
    }
    packed_fields fields;
    ST_TRY(fetch_fields(reader, id, &fields, cache_only, hint, rc));
    out->time = static_cast<st_time_t>(reader->time_base + fields.time);
    if (reader->milliseconds) {
        out->address = subsecond_nanoseconds(reader, fields.address);
        out->subsecond = out->address;
    } else {
        out->address = reader->addr_base + fields.address;
    }
    return 0;
}

// The position of an entry wraps at 2^32 bits and an entry of 32 bits is 0: files are read that way.
inline int decode_companion(const tsval_companion_t& array, uint32_t id, uint32_t absent, uint32_t* out,
                            warm_rc_t* rc) {
    if (array.bytes.data() == nullptr) {
        *out = absent;
        return 0;
    }
    *out = 0;
    if (array.bytes.empty() || array.nbits == 0) return 0;
    const uint32_t bit = id * array.nbits;
    if (array.nbits > 32 || uint64_t{bit} + array.nbits > 8 * uint64_t{array.bytes.size()}) {
        return _set_rc_verbose(rc, WARM_RC_CORRUPT, id, "value companion lies past its array");
    }
    if (array.nbits < 32) *out = load_bits(array.bytes, bit, array.nbits);
    return 0;
}

int decode_measure(const tsval_companion_t& array, uint32_t id, double* out, warm_rc_t* rc) {
    if (array.nbits == 64 && !array.bytes.empty()) {
        if (id >= array.bytes.size() / sizeof *out) {
            return _set_rc_verbose(rc, WARM_RC_CORRUPT, id, "value companion lies past its array");
        }
        std::memcpy(out, array.bytes.data() + size_t{id} * sizeof *out, sizeof *out);
        return 0;
    }
    uint32_t whole = 0;
    ST_TRY(decode_companion(array, id, 0, &whole, rc));
    *out = whole;
    return 0;
}

int decode_deleted(const tsval_companion_t& array, uint32_t id, bool* out, warm_rc_t* rc) {
    *out = false;
    if (array.bytes.empty()) return 0;
    if (array.nbits != 1) {
        return _set_rc_verbose(rc, WARM_RC_CORRUPT, array.nbits,
                               "((uint32_t) __builtin_bswap32((uint32_t) (header->d_nbits))) == 1");
    }
    uint32_t bit = 0;
    ST_TRY(decode_companion(array, id, 0, &bit, rc));
    *out = bit != 0;
    return 0;
}

int decode_companions(const tsval_reader_t* reader, uint32_t id, st_tsval* out, warm_rc_t* rc) {
    ST_TRY(decode_measure(reader->m, id, &out->measure, rc));
    ST_TRY(decode_companion(reader->s, id, ST_DELETED_SOURCE, &out->s, rc));
    ST_TRY(decode_companion(reader->st, id, UINT32_MAX, &out->st, rc));
    ST_TRY(decode_companion(reader->h, id, UINT32_MAX, &out->h, rc));
    bool deleted = false;
    ST_TRY(decode_deleted(reader->d, id, &deleted, rc));
    if (deleted) out->s = ST_DELETED_SOURCE;
    return 0;
}

bool is_rev1_with_preambles(const st_warm_slice_body* header) {
    return warm_header_is_enabled(header, WARM_FLAG_PREAMBLES) && warm_header_is_rev1(header);
}

int open_file_caches(tsval_reader_t* reader, uint64_t section_size, uint64_t cache_bytes, warm_rc_t* rc) {
    if (reader->encoding == TSVAL_PLAIN) {
        if (cache_bytes > 0 && cache_bytes < 8) return _set_rc(rc, WARM_RC_INVALID_ARGUMENT);
        reader->cache_entries = std::min<uint64_t>(cache_bytes / 8, reader->num_values);
        return reader->cache.alloc(static_cast<size_t>(8 * reader->cache_entries)) ? 0 : _set_rc(rc, WARM_RC_NO_MEMORY);
    }
    ST_ASSERT(section_size / 8 <= UINT32_MAX);  // at most 2^32 - 1 values, of at most 64 bits
    const uint32_t words = static_cast<uint32_t>(section_size / 8);
    const uint64_t span = std::clamp<uint64_t>(cache_bytes / 8, 1, std::max<uint64_t>(words, 1));
    if (const int status =
            _ar_open(&reader->words, reader->fd, reader->values_offset, 8, words, span, reader->stats, nullptr)) {
        return _set_rc(rc, status);
    }
    if (reader->num_preambles == 0) return 0;
    return _set_rc(rc, _ar_open(&reader->preambles, reader->fd, reader->values_offset, 8, reader->num_preambles,
                                std::min<uint64_t>(PREAMBLE_SPAN, reader->num_preambles), reader->stats, nullptr));
}

}  // namespace

tsval_encoding_t tsval_encoding(const st_warm_slice_body* header) {
    if (warm_header_is_enabled(header, WARM_FLAG_VALUES_PACKED)) return TSVAL_PACKED;
    if (!warm_header_is_enabled(header, WARM_FLAG_PREAMBLES)) return TSVAL_PLAIN;
    return is_rev1_with_preambles(header) ? TSVAL_WITH_PREAMBLES : TSVAL_PACKED;
}

bool tsval_counts_agree(const st_warm_slice_body* header) {
    return tsval_encoding(header) != TSVAL_WITH_PREAMBLES || header->num_dimsets.get() <= header->num_values.get();
}

int tsval_reader_open_partial(tsval_reader_t* reader, int fd, const st_warm_slice_body* header, uint64_t cache_bytes,
                              st_query_info_t* stats, const uint8_t* values_in_memory, warm_rc_t* rc) {
    _set_rc(rc, 0);
    *reader = tsval_reader_t{};
    if (!tsval_counts_agree(header)) return _set_rc_msg(rc, WARM_RC_CORRUPT, "more preambles than values");
    reader->header = header;
    reader->fd = fd;
    reader->stats = stats;
    reader->values_offset = _offset_values(header);
    reader->num_values = header->num_values.get();
    reader->encoding = tsval_encoding(header);
    if (reader->encoding == TSVAL_WITH_PREAMBLES) reader->num_preambles = header->num_dimsets.get();
    if (reader->encoding != TSVAL_PLAIN) {
        reader->milliseconds = warm_header_is_enabled(header, WARM_FLAG_PREAMBLES);
        reader->time_nbits = warm_header_meta_time_nbits(header);
        reader->addr_nbits = warm_header_seek_addr_nbits(header);
        reader->time_base = header->earliest.get();
        reader->addr_base = warm_header_is_rev1(header) ? header->seek_addr_min.get() : 0;
    }
    const uint64_t section_size = warm_header_tsval_encoded_array_size(header);
    ST_ASSERT(reader->encoding == TSVAL_PLAIN ? section_size == 8 * uint64_t{reader->num_values}
                                              : section_size >= 8 * uint64_t{reader->num_preambles});
    if (values_in_memory != nullptr) {
        reader->memory = {values_in_memory, static_cast<size_t>(section_size)};
        return 0;
    }
    if (const int status = open_file_caches(reader, section_size, cache_bytes, rc)) {
        tsval_reader_close(reader);
        return status;
    }
    return 0;
}

void tsval_reader_set_companions(tsval_reader_t* reader, const uint8_t* slice) {
    const st_warm_slice_body* header = reader->header;
    ST_ASSERT(header != nullptr);
    reader->m = {{slice + _offset_m_array(header), header->m_size.get()}, header->m_nbits.get()};
    reader->s = {{slice + _offset_s_array(header), header->s_size.get()}, header->s_nbits.get()};
    reader->st = {{slice + _offset_st_array(header), header->st_size.get()}, header->st_nbits.get()};
    reader->h = {{slice + _offset_h_array(header), header->h_size.get()}, header->h_nbits.get()};
    reader->d = {{slice + _offset_d_array(header), header->d_size.get()}, header->d_nbits.get()};
}

int tsval_reader_decode(tsval_reader_t* reader, uint32_t id, st_tsval* out, bool cache_only, uint32_t hint,
                        warm_rc_t* rc) {
    value_key key;
    ST_TRY(decode_key(reader, id, &key, cache_only, hint, rc));
    out->time = key.time;
    out->address = key.address;
    out->subsecond = key.subsecond;
    out->pad = 0;
    return decode_companions(reader, id, out, rc);
}

int tsval_reader_decode_time(tsval_reader_t* reader, uint32_t id, st_time_t* seconds, uint64_t* nanoseconds,
                             warm_rc_t* rc) {
    value_key key;
    ST_TRY(decode_key(reader, id, &key, false, 0, rc));
    *seconds = key.time;
    *nanoseconds = key.subsecond;
    return 0;
}

int tsval_reader_decode_preamble(tsval_reader_t* reader, uint32_t id, st_tsval* out, warm_rc_t* rc) {
    if (id >= reader->num_preambles) return _set_rc_verbose(rc, WARM_RC_CORRUPT, id, "expected preamble");
    const uint8_t* at = fetch_preamble(reader, id, false, rc);
    if (at == nullptr) return rc->warm_rc;
    *out = st_tsval{};
    out->time = static_cast<st_time_t>(load_le32(at));
    out->address = load_le32(at + 4);
    out->s = ST_DELETED_SOURCE;
    out->st = UINT32_MAX;
    out->h = UINT32_MAX;
    return 0;
}

void tsval_reader_close(tsval_reader_t* reader) {
    _ar_close(&reader->words);
    _ar_close(&reader->preambles);
    *reader = tsval_reader_t{};
}

uint32_t tsval_decode_subsecond_to_millisecond(st_encoded_subsecond_t encoded) {
    const bool no_fraction = (encoded & (encoded - 1)) == 0;
    if (no_fraction) return 0;
    const uint32_t zeros = static_cast<uint32_t>(__builtin_ctzll(encoded));
    uint64_t digits = encoded >> zeros >> 1;
    uint32_t count = zeros + decimalCharactersU64(digits);
    for (; count < 3; count++) digits *= 10;
    for (; count > 3; count--) digits /= 10;
    ST_ASSERT(digits <= 999);
    return static_cast<uint32_t>(digits);
}

st_encoded_subsecond_t tsval_encode_milliseconds(uint32_t milliseconds) {
    ST_ASSERT(milliseconds <= 999);
    if (milliseconds == 0) return 0;
    const uint32_t zeros = 3 - decimalCharactersU64(milliseconds);
    return st_encoded_subsecond_t{2 * milliseconds + 1} << zeros;
}

uint32_t tsval_clamp_measure(double measure) {
    if (!(measure > 0)) return 0;
    return measure >= 2147483647.0 ? 2147483647u : static_cast<uint32_t>(measure);
}

}  // namespace veldar
