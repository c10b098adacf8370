// Term metadata of an open slice.
#pragma once

#include <cstdint>

#include "searchthing/slice/warmslice.h"

namespace veldar {

// Copies the record of one term, opening the handle's metadata reader on first use. A single look-up reads one entry;
// ascending calls with small steps read ahead, about 4 KB at a time. `stats` is the query that this read and those
// after it are accounted to, or null. 0; WARM_RC_CAPACITY for a term id out of range, WARM_RC_MINIFIED for a minified
// slice, or the failure of a read. Slices that store counts only give times of 0.
[[nodiscard]] int warm_slice_term_metadata(WARM* warm, uint32_t term, st_query_info_t* stats, st_term_metadata* out,
                                           warm_rc_t* rc);
// The same for counts that people read: in a metric slice with a column store the record is computed from the term's
// posting list and the runs. Also the failures of the posting reader, and WARM_RC_CORRUPT for a preamble that is out of
// place.
[[nodiscard]] int warm_slice_recomputed_metadata(WARM* warm, uint32_t term, st_query_info_t* stats,
                                                 st_term_metadata* out, warm_rc_t* rc);
// The event count alone, computed in the same way.
[[nodiscard]] int get_meta_count(WARM* warm, uint32_t term, st_query_info_t* stats, uint32_t* count, warm_rc_t* rc);

}  // namespace veldar
