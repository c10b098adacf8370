#include "searchthing/slice/warmslice_values.h"

#include <algorithm>

#include "libzero/assertions.h"
#include "searchthing/base/bitset.h"

namespace veldar {

namespace {

uint32_t count_marks(const WARM* warm) {
    const std::span<const uint8_t> bits = warm->tsval_reader.d.bytes;
    const uint64_t values = std::min<uint64_t>(warm->body->num_values.get(), 8 * bits.size());
    uint64_t count = bits_count(bits.first(values / 8));
    if (values % 8 != 0) count += bits_count({}) + st_get_num_bits_set(bits[values / 8] & ((1u << (values % 8)) - 1));
    return static_cast<uint32_t>(count);
}

}  // namespace

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

uint32_t warm_slice_count_deleted(WARM* warm) {
    if (st_warm_slice_is_msidx(warm->body)) return 0;
    warm_deletes_t& known = warm->deletes;
    change_stamp stamp;
    const bool is_stamped = !warm->writable && change_stamp_of(warm->fd.get(), &stamp);
    if (is_stamped && known.is_known && stamp == known.stamp) return known.count;
    // Before the marks are counted: whoever marks meanwhile renews the stamp later.
    known = {is_stamped && change_stamp_lasts(warm->fd.get(), stamp), 0, stamp};
    known.count = count_marks(warm);
    return known.count;
}

}  // namespace veldar
