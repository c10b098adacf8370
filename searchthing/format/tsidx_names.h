// Write options of an index directory and the names of the files in it.
//
//   <latest>-<earliest>-<id>.tsidx                    a warm slice: two signed times in seconds, a 64-bit unique number
//   <latest>-<earliest>-<id>.mini.tsidx               a minified warm slice
//   <latest>-<earliest>-<id>.<n>.<writer>.part-tsidx  a slice written in part mode, not yet merged
//   *.pre-tsidx                                       a slice that a sync is writing
//   <name of a slice>.deleted                         marks that slice for removal
//   veldar-autogen-params.dat                         tuned limits; with .part.<n> while it is being written
//   veldar-need-optimize.dat                          marker: the directory is due for optimization
//   merged_lexicon.lex, optimize.result               merged lexicon, result of the last optimization
#pragma once

#include <cstdint>

#include "libzero/ospath-builder.h"
#include "searchthing/base/st_timeval.h"

namespace veldar {

struct st_tsidx_write_options {
    uint32_t write_level = 0;  // 0 read only; 1 to 4 select the header of new slices
    uint64_t byte_size = 0;    // target size of a merged slice
    uint32_t merge_terms_per_block = 0;
    uint32_t merge_buffer_bytes = 0;  // at most 1073741824
    uint32_t advanced_postings = 0;
    uint32_t merge_reader_span = 0;  // at least 128
    uint32_t millisecond_mode = 0;
};
using TSWRITEOPTS = st_tsidx_write_options;

// Fills every field; the fourth is cut to 1 GiB, the sixth raised to 128, and millisecond mode is off.
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

struct st_filename_metadata_t {
    st_time_t earliest = 0;
    st_time_t latest = 0;
    uint64_t id = 0;
    uint64_t kind = 0;  // 1 regular, 2 minified, 3 part, 0 unknown
};

// The parsers take a sign before a time, digits that fit their field, and the suffix: no blanks, nothing else in
// between. `meta` is written on success only.

// 1 (kind 1) when the name after the last '/' is "<latest>-<earliest>-<id>.tsidx" (or ".mini.tsidx"), else 0.
int st_tsidx_file_parse(const char* path, st_filename_metadata_t* meta);
// 1 (kind 2) when the whole string is "<latest>-<earliest>-<id>.mini.tsidx", else 0.
int st_mini_tsidx_file_parse(const char* name, st_filename_metadata_t* meta);
// 1 (kind 3) when the name after the last '/' is "<latest>-<earliest>-<id>.<n>.<writer>.part-tsidx", else 0.
int tsidx_part_file_parse(const char* path, st_filename_metadata_t* meta);
// 1 (kind 1) when the name after the last '/' is "<latest>-<earliest>-<id>.pre-tsidx", else 0.
int tsidx_pre_file_parse(const char* path, st_filename_metadata_t* meta);

inline constexpr char TSIDX_SUFFIX[] = ".tsidx";
inline constexpr char TSIDX_MINI_SUFFIX[] = ".mini.tsidx";
inline constexpr char TSIDX_MINI_PRE_SUFFIX[] = ".mini.pre-tsidx";
inline constexpr char TSIDX_PRE_SUFFIX[] = ".pre-tsidx";
inline constexpr char TSIDX_PART_SUFFIX[] = ".part-tsidx";
inline constexpr char TSIDX_PARAMS_NAME[] = "veldar-autogen-params.dat";
inline constexpr char TSIDX_NEED_OPTIMIZE_NAME[] = "veldar-need-optimize.dat";
inline constexpr char TSIDX_MERGED_LEXICON_NAME[] = "merged_lexicon.lex";
inline constexpr char TSIDX_MERGED_LEXICON_PART[] = "merged_lexicon.lex.part.";
inline constexpr char TSIDX_OPTIMIZE_RESULT_NAME[] = "optimize.result";

// The status file of the optimisers of a directory, which holds the result of the last one: 0, or -1 when the name does
// not fit.
int so_status_filename(ospath_buf* out, const char* directory);

}  // namespace veldar
