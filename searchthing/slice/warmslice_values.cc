#include "searchthing/slice/warmslice_values.h"

#include <algorithm>
#include <bit>

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
    const uint64_t values = warm->body->num_values.get();
    uint32_t count = 0;
    for (uint64_t i = 0; i < std::min<uint64_t>(bits.size(), (values + 7) / 8); i++) {
        const uint32_t valid = values - 8 * i >= 8 ? 0xFF : (1u << (values - 8 * i)) - 1;
        count += static_cast<uint32_t>(std::popcount(bits[i] & valid));
    }
    return count;
}

}  // namespace veldar
