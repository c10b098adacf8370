// Encoding the lists of a merge, and finding lists that have been written before.
#pragma once

#include <cstdint>
#include <span>

#include "libzero/resource.h"
#include "searchthing/merge/merge_lists.h"
#include "searchthing/postings/plist.h"

namespace veldar {

struct merge_encoded_t {
    plo_type_t type = PLO_RLE;  // or PLO_BMAP
    std::span<const uint8_t> bytes;
};

struct merge_encoder_t {
    uint32_t num_values = 0;  // of the target
    buffer<uint8_t> rle, bitmap;
};
// The shorter of the list's encodings, valid until the next call; an empty list has no bytes.
[[nodiscard]] int merge_encode(merge_encoder_t* encoder, const merge_list_t& list, bool bitmap_allowed,
                               merge_encoded_t* out, warm_rc_t* rc);

// The lists written so far: the last of them in memory, the others in the file.
struct merge_list_writer_t {
    int fd = -1;
    uint64_t offset = 0;  // of the section in the file
    buffer<uint8_t> pending;
    uint64_t fill = 0;
    uint64_t written = 0;
};
[[nodiscard]] int merge_list_writer_open(merge_list_writer_t* writer, int fd, uint64_t offset, uint64_t buffer_bytes,
                                         warm_rc_t* rc);
inline uint64_t merge_list_writer_total(const merge_list_writer_t* writer) {
    return writer->written + writer->fill;
}
[[nodiscard]] int merge_list_writer_append(merge_list_writer_t* writer, std::span<const uint8_t> bytes, warm_rc_t* rc);
[[nodiscard]] int merge_list_writer_flush(merge_list_writer_t* writer, warm_rc_t* rc);

// Terms by the bytes of their lists. Lists of 8 MiB and more, and what finds no room in 256 MiB, are not remembered.
struct merge_known_list_t {
    uint32_t term;  // MERGE_NO_TERM: a free slot
    uint32_t hash;
    uint64_t place;  // offset of the list << 24 | bitmap or not << 23 | size of the list
};
struct merge_known_lists_t {
    buffer<merge_known_list_t> slots;  // a power of two of them
    uint32_t used = 0;
    uint64_t hash_mask = ~uint64_t{0};
};
inline constexpr uint32_t MERGE_NO_TERM = 0xFFFFFFFF;
// Sets `known` to the earlier term with these bytes, which are compared with what was written. Without one it remembers
// `term` and sets MERGE_NO_TERM. The list of `term` is then written next.
[[nodiscard]] int merge_known_lists_find(merge_known_lists_t* lists, const merge_list_writer_t* writer, uint32_t term,
                                         const merge_encoded_t& list, uint32_t* known, warm_rc_t* rc);

}  // namespace veldar
