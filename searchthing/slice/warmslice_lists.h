// The posting lists of an open slice.
#pragma once

#include <cstdint>

#include "searchthing/postings/plist.h"
#include "searchthing/slice/warmslice.h"

namespace veldar {

// Opens a reader over the lists of an open slice, which must outlive it. `span` is the number of offset entries to read
// at once where they are not mapped (at least 1024 are). WARM_RC_MINIFIED when the size of the lists is unknown: a mini
// slice, a slice in memory, a slice without postings.
[[nodiscard]] int _init_reader(plist_reader* reader, WARM* warm, uint64_t span, st_query_info_t* stats, warm_rc_t* rc);

}  // namespace veldar
