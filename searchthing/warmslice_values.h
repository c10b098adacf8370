// Accessors of an open slice's values: one value's time, and the plain encoding's record writer.
#pragma once

#include <cstdint>

#include "searchthing/warmslice.h"

namespace veldar {

int get_tsval_timestamp(WARM* warm, uint32_t id, st_time_t* seconds, uint64_t* subseconds, warm_rc_t* rc);
void _encode_tsval(WARM* warm, uint32_t id, const st_tsval* record);

}  // namespace veldar
