// Term metadata of an open slice.
#pragma once

#include <cstdint>

#include "searchthing/warmslice.h"

namespace veldar {

// The record of one term. Random access reads the fewest bytes; ascending access reads ahead in pieces of about 4 KB.
int warm_slice_term_metadata(WARM* warm, uint32_t term, st_query_info_t* stats, st_term_metadata* out, warm_rc_t* rc);
int get_meta_count(WARM* warm, uint32_t term, st_query_info_t* stats, uint32_t* count, warm_rc_t* rc);

}  // namespace veldar
