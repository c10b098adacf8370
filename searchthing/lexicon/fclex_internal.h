// What the sources of the lexicon share: the shape of a body, fetching one block, and decoding a block's terms.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <span>

#include "libzero/assertions.h"
#include "libzero/endian.h"
#include "libzero/vbe.h"
#include "searchthing/lexicon/fclex.h"

namespace veldar {

inline constexpr uint64_t FCLEX_HEADER_SIZE = sizeof(st_fclex_body);
inline constexpr uint32_t FCLEX_MAX_PREFIX = 2046;
inline constexpr uint64_t FCLEX_MAX_TERM_BYTES = 2052;  // in a block, with its numbers
static_assert(FCLEX_MAX_PREFIX < ST_MAX_TERM_LENGTH && ST_MAX_TERM_LENGTH < ST_TERM_BUFFER_SIZE);
static_assert(ST_MAX_TERM_LENGTH >> 14 == 0 && FCLEX_MAX_TERM_BYTES >= 2 * 2 + ST_MAX_TERM_LENGTH);

inline bool fclex_in_file(const FCLEX* lex) {
    return lex->fd >= 0;
}

inline const st_fclex_body* fclex_header(const FCLEX* lex) {
    return reinterpret_cast<const st_fclex_body*>(lex->body);
}
inline uint32_t fclex_tperb(const FCLEX* lex) {
    return fclex_header(lex)->tperb.get();
}

// 64 bits, for terms + tperb - 1 may pass 32.
inline uint64_t fclex_block_count(uint32_t terms, uint32_t tperb) {
    return (uint64_t{terms} + tperb - 1) / tperb;
}
inline uint64_t fclex_block_count(const FCLEX* lex) {
    return fclex_block_count(fclex_header(lex)->terms.get(), fclex_tperb(lex));
}
inline uint64_t fclex_blocks_offset(uint64_t block_count) {
    return FCLEX_HEADER_SIZE + 4 * block_count;
}

// The terms in one block: tperb, or what is left for the last.
inline uint32_t fclex_terms_in_block(const FCLEX* lex, uint64_t block) {
    const uint64_t first = block * fclex_tperb(lex);
    const uint64_t left = fclex_header(lex)->terms.get() - first;
    return left < fclex_tperb(lex) ? static_cast<uint32_t>(left) : fclex_tperb(lex);
}

// Asserts what the two modes promise about the handle's fields.
void fclex_check(const FCLEX* lex);

// Where a block lies in the blocks area.
struct fclex_extent {
    uint32_t start = 0;
    uint32_t end = 0;
    uint32_t size() const { return end - start; }
};
// Of the block whose entry in the table of block ends this is.
inline fclex_extent fclex_extent_at(const uint8_t* entry, uint64_t block) {
    return {block == 0 ? 0 : load_be32(entry - 4), load_be32(entry)};
}

// 0, or WARM_RC_CORRUPT for ends that do not ascend, or a block of a file that is larger than one can be (with a line on
// standard error).
[[nodiscard]] inline int fclex_check_file_extent(const fclex_extent& extent, uint64_t max_block) {
    if (extent.end < extent.start) return WARM_RC_CORRUPT;
    if (extent.size() <= max_block) return 0;
    std::fputs("error trying to read invalid block size in _get_block_from_offsets_fd\n", stderr);
    return WARM_RC_CORRUPT;
}

// The block ends of a body in a file, read in runs.
struct bo_reader_t {
    static constexpr uint32_t RUN = 1024;
    bo_reader_t() = default;
    bo_reader_t(int fd_, uint64_t body_offset, uint64_t block_count, st_query_info_t* stats_)
        : fd(fd_),
          table_offset(body_offset + FCLEX_HEADER_SIZE),
          count(static_cast<uint32_t>(block_count)),
          stats(stats_) {}

    int fd = -1;
    uint64_t table_offset = 0;  // of entry 0 in the file
    uint32_t count = 0;         // entries in the table
    st_query_info_t* stats = nullptr;
    uint32_t first = 0;  // the entry that the run begins with
    uint32_t held = 0;   // entries in the run
    uint8_t run[RUN * 4];
};
// Whether the run has both ends of a block.
inline bool bo_reader_holds(const bo_reader_t& reader, uint64_t block) {
    const uint64_t first = block == 0 ? 0 : block - 1;
    return first >= reader.first && block - reader.first < reader.held;
}
inline fclex_extent bo_reader_extent(const bo_reader_t& reader, uint64_t block) {
    return fclex_extent_at(reader.run + 4 * (block - reader.first), block);
}
// Reads the run that begins with a block: `wanted` entries, 2 to RUN of them, as far as there are. 0; WARM_RC_READ,
// SHORT_READ or END_OF_FILE, with a line on standard error, when it does not have the block.
[[nodiscard]] int bo_reader_load(bo_reader_t* reader, uint64_t block, uint64_t wanted);
// Where a block lies; loads when the run does not tell.
[[nodiscard]] inline int bo_reader_get(bo_reader_t* reader, uint64_t block, uint64_t wanted, fclex_extent* extent) {
    if (!bo_reader_holds(*reader, block)) ST_TRY(bo_reader_load(reader, block, wanted));
    *extent = bo_reader_extent(*reader, block);
    return 0;
}

// The bytes of a block inside a body in memory. 0, or WARM_RC_CORRUPT for ends that do not ascend or leave the body.
[[nodiscard]] inline int fclex_block_in_memory(const FCLEX* lex, uint64_t block, std::span<const uint8_t>* bytes) {
    const fclex_extent extent = fclex_extent_at(lex->block_offsets + 4 * block, block);
    const uint64_t end = static_cast<uint64_t>(lex->blocks - lex->body) + extent.end;
    if (extent.end < extent.start || (lex->body_limit != 0 && end > lex->body_limit)) return WARM_RC_CORRUPT;
    *bytes = {lex->blocks + extent.start, extent.size()};
    return 0;
}
// The bytes of a block, in file mode in the block cache until the next fetch. 0, WARM_RC_CORRUPT, or WARM_RC_READ (with
// a line on standard error).
[[nodiscard]] int fclex_fetch_block(FCLEX* lex, uint64_t block, st_query_info_t* stats,
                                    std::span<const uint8_t>* bytes);

// The search key of a text. Stored terms are compared on their first 2047 bytes, so no more of a key ever counts.
std::span<const uint8_t> fclex_key(const char* text);

// Orders a stored term against a key as strcmp would: a NUL byte inside a (foreign) term ends it.
int fclex_compare(std::span<const uint8_t> term, std::span<const uint8_t> key);

// The last block whose first term is not above the text; block 0 when all are. WARM_RC_FAILED with
// the failure in `rc`.
int64_t _find_block(FCLEX* lex, const char* text, st_query_info_t* stats, warm_rc_t* rc);

// The position in the block of the first term that meets the criterion; `out` keeps the last term decoded.
// WARM_RC_FAILED when there is none or a shared prefix is too long, READ, CORRUPT or INVALID_ARGUMENT; `rc` carries the
// exact failure, WARM_RC_NOT_FOUND for "none".
int64_t _find_word(FCLEX* lex, uint64_t block, lookup_type_t type, criteria_u criterion, char* out, size_t out_size,
                   st_query_info_t* stats, warm_rc_t* rc);

// The number of leading bytes that are equal.
inline uint32_t _lcp(std::span<const uint8_t> a, std::span<const uint8_t> b) {
    const size_t limit = a.size() < b.size() ? a.size() : b.size();
    size_t i = 0;
    for (; i + 8 <= limit; i += 8) {
        const uint64_t difference = load_le64(a.data() + i) ^ load_le64(b.data() + i);
        if (difference != 0) return static_cast<uint32_t>(i) + static_cast<uint32_t>(__builtin_ctzll(difference)) / 8;
    }
    while (i < limit && a[i] == b[i]) i++;
    return static_cast<uint32_t>(i);
}

// The numbers before the text of the term at a position of its block: how many bytes it shares with the one before, and
// how many follow, up to the end of the block at the last position (tperb - 1). Where the text begins, or null for
// damage.
inline const uint8_t* fclex_decode_numbers(const uint8_t* at, const uint8_t* end, uint32_t position,
                                           uint32_t last_position, uint32_t* shared, uint32_t* rest) {
    *shared = 0;
    if (position != 0) {
        const uint32_t used = vbe_decode_bounded(shared, at, end);
        if (used == 0) return nullptr;
        at += used;
        if (position == last_position) {
            *rest = static_cast<uint32_t>(end - at);
            return at;
        }
    }
    const uint32_t used = vbe_decode_bounded(rest, at, end);
    return used == 0 || *rest > end - at - used ? nullptr : at + used;
}
// Writes them, at most FCLEX_MAX_NUMBERS bytes, and returns their size; `shared` means nothing at position 0.
inline constexpr uint32_t FCLEX_MAX_NUMBERS = 2 * VBE_MAX_BYTES;
inline uint32_t fclex_encode_numbers(uint8_t* out, uint32_t position, uint32_t last_position, uint32_t shared,
                                     uint32_t rest) {
    uint32_t size = 0;
    const auto put = [&](uint32_t number) {
        size += number < 0x80 ? (out[size] = static_cast<uint8_t>(number), 1) : st_encode_to_vbe(out + size, number);
    };
    if (position != 0) put(shared);
    if (position == 0 || position != last_position) put(rest);
    return size;
}

// Decodes the terms of one block in order, each on top of the one before.
struct fclex_block_cursor {
    const uint8_t* at = nullptr;        // the next undecoded byte
    const uint8_t* end = nullptr;       // of the block
    const uint8_t* readable = nullptr;  // at or past `end`: bytes up to here may be loaded, and mean nothing past `end`
    uint32_t position = 0;              // of the next term
    uint32_t last_position = 0;         // tperb - 1: the position whose text runs to the end
    uint32_t length = 0;                // of the term decoded last, at most 2047
};

inline fclex_block_cursor fclex_start_block(std::span<const uint8_t> bytes, const uint8_t* readable, uint32_t tperb) {
    return {bytes.data(), bytes.data() + bytes.size(), readable, 0, tperb - 1, 0};
}

// fclex_next_term for any term: 0, WARM_RC_CORRUPT, or WARM_RC_FAILED for a shared prefix above 2046.
[[nodiscard]] int fclex_next_term_checked(fclex_block_cursor* cursor, char* text);

// Decodes the next term into `text` (2048 bytes, holding the term before), terminates it and sets `length`. The caller
// asks for no more terms than the block has.
//
// Nearly every term shares and adds fewer than 128 bytes, so both lengths are single bytes. Then up to 32 bytes of the
// rest are copied with two fixed-size moves: fewer instructions than asking how many there are.
[[nodiscard]] inline int fclex_next_term(fclex_block_cursor* cursor, char* text) {
    constexpr ptrdiff_t CHUNK = 32;
    static_assert(0x7F + CHUNK < ST_TERM_BUFFER_SIZE);
    const uint8_t* at = cursor->at;
    if (cursor->position == 0 || cursor->readable - at < CHUNK + 2) return fclex_next_term_checked(cursor, text);
    const uint32_t shared = at[0];
    ptrdiff_t rest;
    if (cursor->position == cursor->last_position) {
        at += 1;
        rest = cursor->end - at;
    } else {
        rest = at[1];
        at += 2;
    }
    // Below 0x80 by the first test or by CHUNK; a rest that begins past the end is negative on the right-hand side.
    if (shared >= 0x80 || shared > cursor->length || rest < 0 || rest > CHUNK || rest > cursor->end - at) {
        return fclex_next_term_checked(cursor, text);
    }
    std::memcpy(text + shared, at, CHUNK);
    const uint32_t length = shared + static_cast<uint32_t>(rest);
    text[length] = '\0';
    cursor->at = at + rest;
    cursor->position++;
    cursor->length = length;
    return 0;
}

}  // namespace veldar
