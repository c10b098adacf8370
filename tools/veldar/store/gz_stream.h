// Random access into gzip files: a decompressing stream that notes access points as it goes, at deflate block borders
// every few MiB of output, after the method of Mark Adler's zran (zlib/examples): position and bit offset in the
// compressed data and the 32 KiB of output before it.
//
// Points file; integers are little-endian.
//
//   offset  size  field
//   0       8     magic   "VGZPOINT"
//   8       8     size    of the gzip file
//   16      8     ending  its last 8 bytes (checksum and length), which with the size tell that it is the same file
//   24            points, each:
//     0   8  out     offset in the decompressed data
//     8   8  in      offset in the gzip file of the first whole byte
//     16  4  bits    how many bits of the byte before it come first
//     20  4  packed  n, size of the window as stored
//     24  n  window, in zlib format
//     24 + n  8  XXH64 of the 24 + n bytes before it
#pragma once

#include <zlib.h>

#include <cstdint>
#include <string>
#include <vector>

#include "libzero/resource.h"

namespace veldar::tool {

struct gz_point {
    uint64_t out = 0, in = 0;
    uint32_t bits = 0;
    std::string window;  // compressed
};

inline constexpr uint64_t GZ_POINT_SPAN = uint64_t{4} << 20;

struct gz_stream {
    gz_stream() = default;
    gz_stream(const gz_stream&) = delete;
    gz_stream& operator=(const gz_stream&) = delete;
    ~gz_stream();

    int fd = -1;           // the caller's
    bool seekable = true;  // false: a pipe, read in order
    uint64_t span = GZ_POINT_SPAN;
    uint64_t in_offset = 0;   // of the next read from fd
    uint64_t out_offset = 0;  // of the next byte that gz_read gives
    std::vector<gz_point> points;
    z_stream z = {};
    bool open = false, raw = false, ended = false;
    buffer<uint8_t> in;
};

// Begins at the start of the file. False with a message when memory is short.
[[nodiscard]] bool gz_open(gz_stream* gz, int fd, bool seekable, std::string* error);
// Decompresses up to `size` bytes: how many, 0 at the end, negative with a message for damage, a cut file or a failed
// read. Bytes before the damage are given first.
[[nodiscard]] int64_t gz_read(gz_stream* gz, char* out, size_t size, std::string* error);
// Goes to an offset of the decompressed data, from the nearest point before it. False with a message, also when the
// file ends before the offset.
[[nodiscard]] bool gz_seek(gz_stream* gz, uint64_t offset, std::string* error);
// The greatest offset of a point not behind `offset`; 0 when there is none.
uint64_t gz_point_before(const gz_stream& gz, uint64_t offset);

// Stores the points, for the next reader of the same file. False with errno set.
[[nodiscard]] bool gz_save_points(const gz_stream& gz, const std::string& path);
// Takes the points that belong to this very file; a missing, foreign or damaged file only costs time.
void gz_load_points(gz_stream* gz, const std::string& path);

}  // namespace veldar::tool
