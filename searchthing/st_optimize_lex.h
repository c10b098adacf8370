// The merged lexicon of a directory, for a program of its own (tsidx_merge_lex.h).
#pragma once

#include <cstdint>

#include "searchthing/base/warm_rc.h"

namespace veldar {

// Writes the merged lexicon of a directory or, with `filter` set, takes the terms of fewer than `min_events` events out
// of it: the arguments are those of st_tsidx_merge_lex_n and st_tsidx_filter_merged_lex. Then leaves one line with the
// result in the directory's status file. 0, also when there are too few slices to merge, or the failure, with more in
// `rc`; -1 for a directory that cannot be opened (in the record WARM_RC_TIME_MISMATCH).
[[nodiscard]] int st_optimize_lex(const char* path, uint32_t min_src_count, uint32_t terms_per_block,
                                  uint64_t page_size, uint32_t min_events, bool filter, warm_rc_t* rc);

}  // namespace veldar
