// The names of the files of an index directory.
//
//   <latest>-<earliest>-<id>.tsidx                    a warm slice: two signed times in seconds, a 64-bit unique number
//   <latest>-<earliest>-<id>.mini.tsidx               a minified warm slice
//   <latest>-<earliest>-<id>.<n>.<writer>.part-tsidx  a slice written in part mode, not yet merged
//   *.pre-tsidx                                       a slice that a sync is writing
//   <name of a slice>.deleted                         marks that slice for removal
//   veldar-autogen-params.dat                         tuned limits; with .part.<n> while it is being written
//   <name of a slice>.seal                            what the slice's bytes were (seal/slice_seal.h)
//   veldar-need-optimize.dat                          marker: the directory is due for optimization
//   merged_lexicon.lex, optimize.result               merged lexicon, result of the last optimization
#pragma once

#include <cstdint>
#include <string>

#include "searchthing/base/st_timeval.h"

namespace veldar {

struct st_filename_metadata_t {
    st_time_t earliest = 0;
    st_time_t latest = 0;
    uint64_t id = 0;
    uint64_t kind = 0;  // 1 regular, 2 minified, 3 part, 0 unknown
};

// A slice by its name.
struct tsidx_slice_name_t {
    std::string name;             // without the directory
    st_filename_metadata_t meta;  // of a live slice: kind 1 or 3
};

// The parsers take a sign before a time, digits that fit their field, and the suffix: no blanks, nothing else in
// between. `meta` is written on success only.

// 1 (kind 1) when the name after the last '/' is "<latest>-<earliest>-<id>.tsidx" (or ".mini.tsidx"), else 0.
[[nodiscard]] int st_tsidx_file_parse(const char* path, st_filename_metadata_t* meta);
// 1 (kind 2) when the whole string is "<latest>-<earliest>-<id>.mini.tsidx", else 0.
[[nodiscard]] int st_mini_tsidx_file_parse(const char* name, st_filename_metadata_t* meta);
// 1 (kind 3) when the name after the last '/' is "<latest>-<earliest>-<id>.<n>.<writer>.part-tsidx", else 0.
[[nodiscard]] int tsidx_part_file_parse(const char* path, st_filename_metadata_t* meta);
// 1 (kind 1) when the name after the last '/' is "<latest>-<earliest>-<id>.pre-tsidx", else 0.
[[nodiscard]] int tsidx_pre_file_parse(const char* path, st_filename_metadata_t* meta);

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

}  // namespace veldar
