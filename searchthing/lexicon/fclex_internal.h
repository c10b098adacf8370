// What the sources of the lexicon share: the shape of a body, fetching one block, and decoding a block's terms.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

#include "libzero/assertions.h"
#include "libzero/endian.h"
#include "libzero/vbe.h"
#include "searchthing/lexicon/fclex.h"

namespace veldar {

inline constexpr uint64_t FCLEX_HEADER_SIZE = sizeof(st_fclex_body);
inline constexpr uint32_t FCLEX_MAX_PREFIX = 2046;
// An offset that could not be read. No legal block ends there: it would not fit the block cache.
inline constexpr uint32_t FCLEX_BAD_OFFSET = 0xFFFFFFFF;

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

// 0 for an extent that may be fetched. -8 when an offset was unreadable or the block exceeds the cache (file mode, with
// a line on standard error), -12 when the ends do not ascend or the block leaves the body's limit (memory mode).
int fclex_check_extent(const FCLEX* lex, const fclex_extent& extent);

// Reads the two ends of a block; an unreadable one is reported on standard error and becomes FCLEX_BAD_OFFSET.
fclex_extent fclex_block_extent(FCLEX* lex, uint64_t block, st_query_info_t* stats);

// The bytes of a block: in memory mode inside the body, in file mode in the block cache until the next fetch.
int fclex_fetch_block(FCLEX* lex, uint64_t block, st_query_info_t* stats, std::span<const uint8_t>* bytes);

// The search key of a text. Stored terms are compared on their first 2047 bytes, so no more of a key ever counts.
std::span<const uint8_t> fclex_key(const char* text);

// Orders a stored term against a key as strcmp would: a NUL byte inside a (foreign) term ends it.
int fclex_compare(std::span<const uint8_t> term, std::span<const uint8_t> key);

// The last block whose first term is not above the text; block 0 when all are. -1 with the failure in `rc`.
int64_t _find_block(FCLEX* lex, const char* text, st_query_info_t* stats, warm_rc_t* rc);

// The position in the block of the first term that meets the criterion; `out` keeps the last term decoded. -1 when
// there is none or a shared prefix is too long, -8, -12 or -37; `rc` carries the exact failure, -38 for "none".
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

// fclex_next_term for any term: 0, -12, or -1 for a shared prefix above 2046.
int fclex_next_term_checked(fclex_block_cursor* cursor, char* text);

// Decodes the next term into `text` (2048 bytes, holding the term before), terminates it and sets `length`. The caller
// asks for no more terms than the block has.
//
// Nearly every term shares and adds fewer than 128 bytes, so both lengths are single bytes. Then up to 32 bytes of the
// rest are copied with two fixed-size moves: fewer instructions than asking how many there are.
inline int fclex_next_term(fclex_block_cursor* cursor, char* text) {
    constexpr ptrdiff_t CHUNK = 32;
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
