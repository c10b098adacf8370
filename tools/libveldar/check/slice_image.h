// One slice file as bytes, and where its sections lie: what the commands that look inside a file stand on. They read
// damaged files too, so nothing here trusts the file, and a place that cannot be told is said to be unknown.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>

#include "libzero/resource.h"
#include "searchthing/format/warmslice_header.h"

namespace veldar::tool {

// In file order. IN_NAME is no section: what is wrong with the file's name is filed under it.
enum slice_section_t : uint32_t {
    IN_HEADER,
    IN_VALUES,
    IN_M,
    IN_S,
    IN_ST,
    IN_H,
    IN_D,
    IN_OFFSETS,
    IN_METADATA,
    IN_REVERSE_TABLE,
    IN_LEXICON,
    IN_REVERSE_LEXICON,
    IN_LISTS,
    IN_DIMSETS,
    IN_CSTORE,
    IN_REST,
    SLICE_SECTIONS,
    IN_NAME = SLICE_SECTIONS,
};
// "header", "values", "m" and so on.
const char* slice_section_name(slice_section_t section);

enum section_state_t : uint32_t {
    SECTION_ABSENT,   // this kind of slice has none
    SECTION_UNKNOWN,  // damage hides where it begins or ends
    SECTION_CUT,      // it runs past the end of the file
    SECTION_WHOLE,
};

struct section_place {
    uint64_t offset = 0;  // in the file
    uint64_t size = 0;    // bytes
    section_state_t state = SECTION_ABSENT;
};

// The head of a front-coded lexicon, with the block table and the blocks that it describes.
struct lexicon_image {
    uint64_t offset = 0;  // of the body in the file
    uint32_t terms = 0, tperb = 0, uncompressed_size = 0, blocks = 0;
    std::span<const uint8_t> table;  // 4 bytes a block
    std::span<const uint8_t> data;   // the blocks, as far as the file has them
    uint64_t size = 0;               // of the whole body, as its table tells
};
// Reads the head of the body at `offset`; false when the file ends inside its head or table, or it has no terms or no
// terms per block.
bool lexicon_image_read(std::span<const uint8_t> file, uint64_t offset, lexicon_image* out);

struct slice_image {
    std::string path;
    file_map map;
    std::span<const uint8_t> bytes;
    st_warm_slice_body header = {};  // zeros behind the end of a short file
    bool has_header = false;         // 120 bytes and a magic that is known; without it there are no sections
    bool mini = false;
    std::array<section_place, SLICE_SECTIONS> sections = {};
};

enum image_state_t { IMAGE_OPEN, IMAGE_VANISHED, IMAGE_UNREADABLE };
// Reads the whole file once, so that a disk error is met by a read and never in the mapping, and maps it. With
// IMAGE_UNREADABLE comes a message that names the file. May throw std::bad_alloc.
image_state_t slice_image_open(const std::string& path, slice_image* image, std::string* error);
// The same over bytes that stay the caller's.
void slice_image_from_bytes(std::span<const uint8_t> bytes, const std::string& path, slice_image* image);

// The bytes of a section that the file has: all of a whole one, the beginning of one that is cut off.
std::span<const uint8_t> slice_section_bytes(const slice_image& image, slice_section_t section);
inline bool slice_section_whole(const slice_image& image, slice_section_t section) {
    return image.sections[section].state == SECTION_WHOLE;
}

// `nbits` (at most 32) of a packed stream from bit `bit` on; bits behind the end of the bytes read as 0.
uint32_t packed_bits(std::span<const uint8_t> bytes, uint64_t bit, uint32_t nbits);

}  // namespace veldar::tool
