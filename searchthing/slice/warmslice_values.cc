#include "searchthing/slice/warmslice_values.h"

#include <algorithm>

#include "libzero/assertions.h"

namespace veldar {

int get_tsval_timestamp(WARM* warm, uint32_t id, st_time_t* seconds, uint64_t* subseconds, warm_rc_t* rc) {
    return tsval_reader_decode_time(&warm->tsval_reader, id, seconds, subseconds, rc);
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

uint32_t warm_slice_count_deleted(const WARM* warm) {
    if (st_warm_slice_is_msidx(warm->body)) return 0;
    const std::span<const uint8_t> bits = warm->tsval_reader.d.bytes;
    const uint64_t values = std::min<uint64_t>(warm->body->num_values.get(), 8 * bits.size());
    uint32_t count = 0;
    for (uint64_t id = 0; id < values; id++) count += bits[id / 8] >> (id % 8) & 1;
    return count;
}

}  // namespace veldar
