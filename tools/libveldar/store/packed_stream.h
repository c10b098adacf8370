// Random access into compressed files: gzip, bzip2, xz and zstd, known by their first bytes. The stream decompresses and
// notes points as it goes, every few MiB of output, at which reading can begin again: at deflate block borders of gzip,
// blocks of bzip2 and xz, frames of zstd, and members of any. A file that has none there is read from the point before.
//
// Points file; integers are little-endian.
//
//   offset  size  field
//   0       8     magic   "VGZPOINT"
//   8       8     size    of the compressed file
//   16      8     ending  its last 8 bytes, which with the size tell that it is the same file
//   24            points, each:
//     0   8  out     offset in the decompressed data
//     8   8  in      offset in the compressed file of the first whole byte
//     16  4  bits    how many bits of the byte before it come first
//     20  4  packed  n, size of the window as stored
//     24  n  window, as the format keeps it (gzip: the 32 KiB before the point, in zlib format); empty: a member begins
//     24 + n  8  XXH64 of the 24 + n bytes before it
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tools/libveldar/store/packed_decoder.h"

namespace veldar::tool {

inline constexpr uint64_t PACKED_POINT_SPAN = uint64_t{4} << 20;
inline constexpr size_t PACKED_MAGIC_MAX = 10;  // bytes that tell the format

struct packed_stream {
    packed_format_t format = PACKED_NONE;
    std::unique_ptr<packed_decoder> decoder;
    packed_input in;
    uint64_t span = PACKED_POINT_SPAN;
    uint64_t out_offset = 0;  // of the next byte that packed_read gives
    std::vector<packed_point> points;
    bool ended = false;
    std::string failure;  // what ended the reading before the end
};

// The format of a file that begins like this.
packed_format_t packed_format_of(std::string_view head);
// Of the suffixes of names (".gz") those of compressed files; the name without it.
std::string_view packed_name_stem(std::string_view name);

// Begins at the start of the file; `taken` are its first bytes when they have been read already, of a pipe. False with a
// message when memory is short.
[[nodiscard]] bool packed_open(packed_stream* packed, packed_format_t format, int fd, bool seekable,
                               std::string_view taken, std::string* error);
// Decompresses up to `size` bytes: how many, 0 at the end, negative with a message for damage, a cut file or a failed
// read. Bytes before the damage are given first.
[[nodiscard]] int64_t packed_read(packed_stream* packed, char* out, size_t size, std::string* error);
// Goes to an offset of the decompressed data, from the nearest point before it. False with a message, also when the
// file ends before the offset.
[[nodiscard]] bool packed_seek(packed_stream* packed, uint64_t offset, std::string* error);
// The greatest offset of a point not behind `offset`; 0 when there is none.
uint64_t packed_point_before(const packed_stream& packed, uint64_t offset);

// Stores the points, for the next reader of the same file. False with errno set.
[[nodiscard]] bool packed_save_points(const packed_stream& packed, const std::string& path);
// Takes the points that belong to this very file; a missing, foreign or damaged file only costs time.
void packed_load_points(packed_stream* packed, const std::string& path);

}  // namespace veldar::tool
