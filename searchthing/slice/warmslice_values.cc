#include "searchthing/slice/warmslice_values.h"

#include "libzero/assertions.h"
#include "libzero/endian.h"
#include "libzero/vbe.h"

namespace veldar {

namespace {

void store_companion(uint8_t* bytes, const tsval_companion_t& array, uint32_t id, uint32_t value) {
    if (array.nbits == 0) return;
    ST_ASSERT((uint64_t{id} + 1) * array.nbits <= 8 * uint64_t{array.bytes.size()});
    encode_to_byte_str(bytes, value, id, array.nbits);
}

}  // namespace

int get_tsval_timestamp(WARM* warm, uint32_t id, st_time_t* seconds, uint64_t* subseconds, warm_rc_t* rc) {
    return tsval_reader_decode_time(&warm->tsval_reader, id, seconds, subseconds, rc);
}

void _encode_tsval(WARM* warm, uint32_t id, const st_tsval* record) {
    ST_ASSERT(warm->m_array);
    ST_ASSERT(warm->s_array);
    ST_ASSERT(warm->st_array);
    ST_ASSERT(warm->h_array);
    ST_ASSERT(warm->d_array);
    const tsval_reader_t& reader = warm->tsval_reader;
    ST_ASSERT(warm->writable && reader.encoding == TSVAL_PLAIN && id < reader.num_values);
    uint8_t* slice = reinterpret_cast<uint8_t*>(warm->body);
    uint8_t* at = slice + reader.values_offset + 8 * uint64_t{id};
    store_be32(at, static_cast<uint32_t>(record->time));
    store_be32(at + 4, record->address);
    if (!st_warm_slice_is_msidx(warm->body)) {
        store_companion(warm->m_array, reader.m, id, tsval_clamp_measure(record->measure));
    }
    store_companion(warm->s_array, reader.s, id, record->s);
    store_companion(warm->st_array, reader.st, id, record->st);
    store_companion(warm->h_array, reader.h, id, record->h);
    store_companion(warm->d_array, reader.d, id, record->s == ST_DELETED_SOURCE ? 1 : 0);
}

int warm_slice_set_companion(be32* size_field, be32* nbits_field, uint32_t num_values, uint32_t nbits, warm_rc_t* rc) {
    // The codec finds an entry's bit in 32-bit arithmetic.
    if (uint64_t{num_values} * nbits > UINT32_MAX) {
        return _set_rc_msg(rc, WARM_RC_DOES_NOT_FIT, "companion array beyond 2^32 bits");
    }
    const uint64_t size = _compressed_size(num_values, nbits, rc);
    if (rc->warm_rc != 0) return rc->warm_rc;
    size_field->set(static_cast<uint32_t>(size));
    nbits_field->set(nbits);
    return 0;
}

int warm_slice_set_deleted(WARM* warm, uint32_t id, warm_rc_t* rc) {
    ST_ASSERT(warm->writable);
    if (st_warm_slice_is_msidx(warm->body))
        return _set_rc_msg(rc, WARM_RC_UNSUPPORTED, "metric slices have no deletes");
    const tsval_companion_t& deleted = warm->tsval_reader.d;
    if (id >= warm->tsval_reader.num_values) return _set_rc_verbose(rc, WARM_RC_CORRUPT, id, "invalid tsval_id range");
    if (deleted.nbits != 1 || id / 8 >= deleted.bytes.size()) {
        return _set_rc_verbose(rc, WARM_RC_CORRUPT, id, "value companion lies past its array");
    }
    warm->d_array[id / 8] = static_cast<uint8_t>(warm->d_array[id / 8] | 1u << (id % 8));
    return _set_rc(rc, 0);
}

}  // namespace veldar
