// The limits of an index directory: their defaults, sane ranges, and the parameter file that remembers tuned ones.
//
// "veldar-autogen-params.dat" is one line without a newline, at most 255 bytes:
//
//   VELDAR AUTO-GENERATED FILE. DO NOT MODIFY.|<max terms>|<lexicon bytes>|<max postings>|<max values>|
//   <keywords per transaction>|<dimension-set words>|<max dimension-set measures>|<writer number>|
//
// each number unsigned decimal; the last "|" may be missing.
#pragma once

#include <cstdint>
#include <string_view>

#include "libzero/ospath-builder.h"
#include "searchthing/directory/tsidx.h"

namespace veldar {

inline constexpr size_t TSIDX_PARAMS_MAX_BYTES = 255;

struct tsidx_params_line {
    char text[TSIDX_PARAMS_MAX_BYTES + 1] = {};
};

tsidx_limits_t tsidx_default_limits(bool is_msidx);
// Limits from a file, brought into ranges that a hot slice can be created with: terms 257 to 2^26 and then rounded up
// to a power of two, lexicon bytes 64 KiB to 1 GiB, all others 1024 to 2^28.
tsidx_limits_t tsidx_clamp_limits(const tsidx_limits_t& limits);

// Whether no limit is above the other's: a file with one above its range is damaged, and would cost gigabytes.
bool tsidx_limits_within(const tsidx_limits_t& limits, const tsidx_limits_t& most);
// Limits that a slice can keep up with, so that what a hot slice has taken can be written: values within 2^32 bits of
// 31 each (in a metric slice half as many, because every set takes one more), 2 GiB of lexicon.
tsidx_limits_t tsidx_writable_limits(const tsidx_limits_t& limits, bool is_msidx);

tsidx_params_line serialize_params(const tsidx_limits_t& limits, uint32_t writer_number);
// False, and the limits as they were, unless the whole text is well formed. The numbers are not clamped.
bool deserialize_params(std::string_view text, tsidx_limits_t* limits);

// Reads the file; false for one that is missing, unreadable or longer than 255 bytes. `line` receives its text.
bool tsidx_read_params(const char* directory, tsidx_params_line* line);
// Writes the line under a name of the writer's own and renames it into place once it is complete: 0, or
// WARM_RC_PATH_TOO_LONG, WARM_RC_OPEN, WARM_RC_WRITE or WARM_RC_CLOSE with errno set and the old file as it was.
[[nodiscard]] int tsidx_write_params(const char* directory, const tsidx_params_line& line, uint32_t writer_tag);

}  // namespace veldar
