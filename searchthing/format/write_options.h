// How slices are written and merged.
#pragma once

#include <cstdint>

#include "searchthing/base/language.h"

namespace veldar {

struct st_tsidx_write_options {
    uint32_t write_level = 0;  // 0 read only; 1 to 4 select the header of new slices
    uint64_t byte_size = 0;    // target size of a merged slice
    uint32_t merge_terms_per_block = 0;
    uint32_t merge_buffer_bytes = 0;  // at most 1073741824
    uint32_t advanced_postings = 0;
    uint32_t merge_reader_span = 0;  // at least 128
    uint32_t millisecond_mode = 0;
    uint32_t seal = 0;  // slices are written with their seals
};
using TSWRITEOPTS = st_tsidx_write_options;

// Fills every field; the fourth is cut to 1 GiB, the sixth raised to 128, millisecond mode is off, and
// slices are sealed.
void st_tsidx_write_opts_init_with_byte_sizes(TSWRITEOPTS* opts, uint32_t level, uint64_t byte_size, uint32_t third,
                                              uint32_t fourth, uint32_t fifth, uint32_t sixth);
// The target size in MiB (from 4096 on: 4294967295 bytes), with 64 terms a block and 8 MiB of merge buffer.
void st_tsidx_write_opts_init(TSWRITEOPTS* opts, uint32_t level, uint64_t size_mib, uint32_t fifth, uint32_t sixth);
// 1500 MiB, advanced postings on, a span of 1024.
void st_tsidx_write_opts_init_write_level(TSWRITEOPTS* opts, uint32_t level);
void st_tsidx_write_opts_set_defaults(TSWRITEOPTS* opts);                 // the same at level 4
void st_tsidx_write_opts_copy(TSWRITEOPTS* dst, const TSWRITEOPTS* src);  // either null: nothing happens
// Whether slices of these options keep milliseconds: mode 1 and a level above 3.
bool st_tswriteopts_support_millisecond(const TSWRITEOPTS* opts);
bool st_write_level_is_valid(uint32_t level);  // 1 to 4

// The new address of an event in a merge. Asked more than once for the same event, and must then give the same answer.
using st_merge_mapper_t = uint32_t (*)(uint32_t old_address, void* context);
// Told now and then how many of the sources' bytes have been merged. `planned` stays the same and `done` reaches it.
using warm_merge_progress_fn = void (*)(uint64_t done, uint64_t planned, void* context);

}  // namespace veldar
