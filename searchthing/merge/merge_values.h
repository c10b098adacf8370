// The values of a merge: their order, their new numbers, and the sections that hold them.
//
// The target is ordered newest first, by descending address within a second, and by the companions where both are
// equal: so equal records are neighbours, and become one value. What is written follows the numbers decided first, so
// that a mark which another process sets meanwhile changes nothing.
#pragma once

#include "searchthing/merge/merge_internal.h"

namespace veldar {

// Gives every value of the sources its new number and fills in the header's counts, widths and sizes of values, for a
// mapper also its addresses. WARM_RC_CORRUPT for values that are not newest first or do not decode,
// WARM_RC_DOES_NOT_FIT for what the format cannot hold.
[[nodiscard]] int merge_values_plan(warm_merge_t* merge, warm_rc_t* rc);

// Writes the values section and the companion arrays that the header describes. WARM_RC_WRITE; WARM_RC_INVALID_ARGUMENT
// for a value outside the times or addresses of its slice's header.
[[nodiscard]] int merge_values_write(warm_merge_t* merge, int fd, warm_rc_t* rc);

}  // namespace veldar
