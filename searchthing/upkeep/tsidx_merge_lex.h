// The merged lexicon of a directory: every term of its slices once, with the number of events that have it in all
// slices together. Programs that only ask which terms there are read one file for it, as dictscan does. Searches never
// use it: it is as old as the last call that wrote it.
//
// The file (merge/merged_lexicon.h) is written as "merged_lexicon.lex.part.<id>" and renamed when it is whole and on
// the disk, so that a reader finds the old one or the new one. The id is one like those of slices; what a killed writer
// left goes when the directory is next opened for writing (tsidx_recover.cc).
#pragma once

#include <cstdint>

#include "searchthing/directory/tsidx.h"

namespace veldar {

// Writes the merged lexicon of all live slices, in one pass over their lexicons. A count above 2^32 - 1 is stored as
// that. Memory: the size of the merged lexicon, and what a term cursor takes.
//
//   min_src_count     fewer slices than this: nothing is done
//   terms_per_block   of the merged lexicon; 0: that of the directory's merges
//   page_size         bytes of a page of the lexicon writer, 9 or more; 0: 1 MiB
//
// 0; WARM_RC_FEW_SLICES for fewer than two slices, WARM_RC_FEW_SOURCES for fewer than `min_src_count`;
// WARM_RC_INVALID_ARGUMENT for numbers that no lexicon can have; WARM_RC_MINIFIED when a slice is minified;
// WARM_RC_OPEN, WARM_RC_WRITE or WARM_RC_DOES_NOT_FIT from writing the file, or the failure of a slice. The record has
// the same.
[[nodiscard]] int st_tsidx_merge_lex_n(TSIDX* tsidx, uint32_t min_src_count, uint32_t terms_per_block,
                                       uint64_t page_size, warm_rc_t* rc);

// Writes the merged lexicon again without the terms that fewer than `min_events` events have. The slices are not read.
// 0; WARM_RC_OPEN when there is none; WARM_RC_ZERO_TERMS when no term would be left, and then it stays as it is;
// otherwise as above.
[[nodiscard]] int st_tsidx_filter_merged_lex(TSIDX* tsidx, uint32_t terms_per_block, uint64_t page_size,
                                             uint32_t min_events, warm_rc_t* rc);

}  // namespace veldar
