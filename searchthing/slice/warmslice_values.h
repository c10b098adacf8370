// Accessors of an open slice's values: one value's time, the d bit.
#pragma once

#include <cstdint>

#include "searchthing/slice/warmslice.h"

namespace veldar {

// The time of value `id`: seconds, and nanoseconds where the slice has subseconds (else 0). WARM_RC_CORRUPT past the
// last value.
[[nodiscard]] int get_tsval_timestamp(WARM* warm, uint32_t id, st_time_t* seconds, uint64_t* subseconds, warm_rc_t* rc);

// Sets the d bit of value `id` through a read-write handle: one byte, in place, in the mapping of every reader of the
// file. Whoever marks values renews the file's stamp afterwards (change_stamp_renew), for the counts that readers keep.
// WARM_RC_UNSUPPORTED for a metric slice, WARM_RC_CORRUPT for an id past the last value or past the d array.
[[nodiscard]] int warm_slice_set_deleted(WARM* warm, uint32_t id, warm_rc_t* rc);
// How many values are marked so; 0 for a metric slice. Counted anew only when the file may have changed.
uint32_t warm_slice_count_deleted(WARM* warm);

}  // namespace veldar
