// What reads one compressed format: a decoder that is fed a file's bytes and tells where reading may begin again. A file
// is one or more members, one behind the other.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "libzero/resource.h"

namespace veldar::tool {

// Where decoding can begin: out and in are offsets in the decompressed data and in the file. Of the byte before `in`,
// `bits` bits come first. An empty window stands for a member's beginning; otherwise the format knows what it is.
struct packed_point {
    uint64_t out = 0, in = 0;
    uint32_t bits = 0;
    std::string window;
};

// The compressed bytes at hand.
struct packed_input {
    int fd = -1;           // the caller's
    bool seekable = true;  // false: a pipe, read in order
    uint64_t offset = 0;   // of the next read from fd
    buffer<uint8_t> bytes;
    const uint8_t* next = nullptr;
    size_t left = 0;
    uint64_t position() const { return offset - left; }  // of *next in the file
    uint8_t take() { return left--, *next++; }
};

struct packed_output {
    char* next = nullptr;
    size_t left = 0;
};

enum packed_step_t {
    PACKED_GOES_ON,
    PACKED_NEEDS_INPUT,  // nothing more can be given before input->left grows
    PACKED_AT_BORDER,    // decoding can begin here: note() tells how
    PACKED_MEMBER_ENDS,
    PACKED_DAMAGED,  // with a reason, or none
    PACKED_FAILED,   // with a message
};

// For one thread. Methods that return false or PACKED_FAILED give a message.
struct packed_decoder {
    virtual ~packed_decoder() = default;
    // Begins at a member's first byte, whatever came before.
    virtual bool begin(std::string* error) = 0;
    // Begins at a point with a window; the input stands at its byte, the one with the bits when it has such.
    virtual bool resume(const packed_point& point, packed_input* input, std::string* error) = 0;
    // Takes from the input and gives to the output.
    virtual packed_step_t step(packed_input* input, packed_output* output, std::string* why) = 0;
    // At a border: bits, window and `in` of the point here. An empty window: no point after all.
    virtual void note(const packed_input& input, packed_point* point) = 0;
};

enum packed_format_t : uint8_t { PACKED_NONE, PACKED_GZIP, PACKED_BZIP2, PACKED_XZ, PACKED_ZSTD };

// More memory than this is not taken to decompress a file.
inline constexpr uint64_t PACKED_MEMORY_MAX = uint64_t{256} << 20;

std::unique_ptr<packed_decoder> packed_gzip_decoder();
std::unique_ptr<packed_decoder> packed_bzip2_decoder();
std::unique_ptr<packed_decoder> packed_xz_decoder();
std::unique_ptr<packed_decoder> packed_zstd_decoder();

}  // namespace veldar::tool
