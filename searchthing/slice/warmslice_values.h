// Accessors of an open slice's values: one value's time, the plain encoding's record writer, the d bit.
#pragma once

#include <cstdint>

#include "searchthing/slice/warmslice.h"

namespace veldar {

// The time of value `id`: seconds, and nanoseconds where the slice has subseconds (else 0). -12 past the last value.
[[nodiscard]] int get_tsval_timestamp(WARM* warm, uint32_t id, st_time_t* seconds, uint64_t* subseconds, warm_rc_t* rc);

// Stores value `id` and its companions in a slice with plain values that this process is creating in memory: the
// header's sizes hold `num_values` entries, and fields start out zero. Metric slices take no measure. The d bit is set
// exactly when s is all-ones.
void _encode_tsval(WARM* warm, uint32_t id, const st_tsval* record);

// Sets the size and the width of a companion array in a header: 0, or -36 for an array of more than 2^32 bits.
[[nodiscard]] int warm_slice_set_companion(be32* size_field, be32* nbits_field, uint32_t num_values, uint32_t nbits,
                                           warm_rc_t* rc);

// Sets the d bit of value `id` through a read-write handle: one byte, in place, seen by every reader of the file. -17
// for a metric slice, -12 for an id past the last value or past the d array.
[[nodiscard]] int warm_slice_set_deleted(WARM* warm, uint32_t id, warm_rc_t* rc);

}  // namespace veldar
