// What a separate optimiser process runs: passes of merges, and the merged lexicon of a directory.
#pragma once

#include <cstdint>

#include "searchthing/st.h"
#include "searchthing/upkeep/tsidx_upkeep.h"

namespace veldar {

// One pass of merges over a directory: at most `max_iterations` calls of st_tsidx_optimize_n, until one of them does
// not merge. Takes away the marker that asks for a pass, and logs its start and its end. With `is_final` it leaves a
// status file behind (TSIDX_OPTIMIZE_RESULT_NAME), whatever happened; one that is there is left alone.
//
// 0, also when there was nothing (more) to merge; -1 when the process may not read, write and search the directory or
// memory is short; or the failure of a merge, in `rc` too, which may be null. `opts` is not null; mode, min_src_count,
// lexicon_tpb, target_size, file_offset and flags are those of st_tsidx_optimize_n, mapper and context those of
// st_tsidx_set_merge_mapper.
[[nodiscard]] int st_optimize(const char* path, const TSWRITEOPTS* opts, int mode, bool is_final,
                              uint32_t max_iterations, uint32_t min_src_count, uint32_t lexicon_tpb,
                              uint64_t target_size, warm_rc_t* rc, uint64_t file_offset, uint32_t flags,
                              st_merge_mapper_t mapper, void* mapper_context);

// The same with its arguments in a record, whose defaults merge what is due in a directory, as a pass at the end of a
// program or now and then beside it does.
struct st_optimize_options_t {
    const TSWRITEOPTS* write = nullptr;  // null: st_tsidx_write_opts_set_defaults
    int mode = TSIDX_OPTIMIZE_TIERED;
    bool is_final = false;           // two slices of a tier are enough, and a status file is left
    uint32_t max_iterations = 1000;  // merges
    uint32_t min_sources = TSIDX_OPTIMIZE_MIN_SOURCES;
    uint32_t terms_per_block = 0;  // 0: the write options'
    uint64_t target_size = 0;      // bytes; 0: the write options'
    st_merge_mapper_t mapper = nullptr;
    void* mapper_context = nullptr;
    warm_stop_fn stop = nullptr;  // ends the pass and the merge at work: WARM_RC_CANCELLED (st_tsidx_set_merge_stop)
    void* stop_context = nullptr;
};
[[nodiscard]] int st_optimize_directory(const char* path, const st_optimize_options_t& options, warm_rc_t* rc);

// One merge through an open handle, with the defaults: eight slices of a tier, blocks of 64 terms, the handle's target
// size. The result of st_tsidx_optimize_n. The handle is not null.
[[nodiscard]] int st_optimize_ex(THING* thing, int mode);

// Writes the merged lexicon of a directory or, with `filter` set, takes the terms of fewer than `min_events` events out
// of it: the arguments are those of st_tsidx_merge_lex_n and st_tsidx_filter_merged_lex. Then leaves one line with the
// result in the directory's status file. 0, also when there are too few slices to merge, or the failure, with more in
// `rc`; -1 for a directory that cannot be opened (in the record WARM_RC_TIME_MISMATCH).
[[nodiscard]] int st_optimize_lex(const char* path, uint32_t min_src_count, uint32_t terms_per_block,
                                  uint64_t page_size, uint32_t min_events, bool filter, warm_rc_t* rc);

}  // namespace veldar
