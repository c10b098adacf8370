// What the sources of the lexicon share: the shape of a body, the table of block ends, the search key, and the entries
// of one block.
#pragma once

#include <algorithm>
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
inline constexpr uint64_t FCLEX_MAX_TERM_BYTES = 2052;  // in a block, with its numbers
static_assert(FCLEX_MAX_PREFIX < ST_MAX_TERM_LENGTH && ST_MAX_TERM_LENGTH < ST_TERM_BUFFER_SIZE);
static_assert(ST_MAX_TERM_LENGTH >> 14 == 0 && FCLEX_MAX_TERM_BYTES >= 2 * 2 + ST_MAX_TERM_LENGTH);

// How many terms and blocks a body has.
struct fclex_shape {
    uint32_t terms = 0;
    uint32_t tperb = 0;

    fclex_shape() = default;
    fclex_shape(uint32_t terms_, uint32_t tperb_) : terms(terms_), tperb(tperb_) {}
    explicit fclex_shape(const st_fclex_body& header) : terms(header.terms.get()), tperb(header.tperb.get()) {}
    explicit fclex_shape(const FCLEX* lex) : fclex_shape(*reinterpret_cast<const st_fclex_body*>(lex->body)) {}

    bool is_valid() const { return terms != 0 && tperb != 0; }
    // 64 bits, for terms + tperb - 1 may pass 32.
    uint64_t blocks() const { return (uint64_t{terms} + tperb - 1) / tperb; }
    // Where they begin in the body.
    uint64_t blocks_offset() const { return FCLEX_HEADER_SIZE + 4 * blocks(); }
    uint64_t max_block() const { return tperb * FCLEX_MAX_TERM_BYTES; }
    // The terms in one block: tperb, or what is left for the last.
    uint32_t terms_in(uint64_t block) const {
        return static_cast<uint32_t>(std::min<uint64_t>(tperb, terms - block * tperb));
    }
};

inline bool fclex_in_file(const FCLEX* lex) {
    return lex->fd >= 0;
}
// Asserts what the two modes promise about the handle's fields.
void fclex_check(const FCLEX* lex);

// Where a block lies in the blocks area.
struct fclex_extent {
    uint32_t start = 0;
    uint32_t end = 0;
    uint32_t size() const { return end - start; }
};

// The table of block ends: in memory, or in a file, read in runs.
struct bo_reader_t {
    static constexpr uint32_t RUN = 1024;
    bo_reader_t() = default;
    // `table` has all entries, or is null.
    bo_reader_t(int fd_, uint64_t body_offset, uint64_t block_count, const uint8_t* table, st_query_info_t* stats_)
        : fd(fd_),
          table_offset(body_offset + FCLEX_HEADER_SIZE),
          count(static_cast<uint32_t>(block_count)),
          stats(stats_),
          whole(table),
          held(table == nullptr ? 0 : count) {}

    int fd = -1;
    uint64_t table_offset = 0;  // of entry 0 in the file
    uint32_t count = 0;         // entries in the table
    st_query_info_t* stats = nullptr;
    const uint8_t* whole = nullptr;
    uint32_t first = 0;  // the entry that the run begins with
    uint32_t held = 0;   // entries in the run
    uint8_t run[RUN * 4];
};
// Whether the run has both ends of a block.
inline bool bo_reader_holds(const bo_reader_t& reader, uint64_t block) {
    const uint64_t before = block == 0 ? 0 : block - 1;
    return before >= reader.first && block - reader.first < reader.held;
}
inline fclex_extent bo_reader_extent(const bo_reader_t& reader, uint64_t block) {
    const uint8_t* const entry = (reader.whole != nullptr ? reader.whole : reader.run) + 4 * (block - reader.first);
    return {block == 0 ? 0 : load_be32(entry - 4), load_be32(entry)};
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

// 0, or WARM_RC_CORRUPT for ends that do not ascend, or for a block that is larger than one of a file can be (with a
// line on standard error).
[[nodiscard]] int fclex_check_extent(const fclex_extent& extent, uint64_t max_block);

// A part of the blocks area in memory.
struct fclex_piece {
    static constexpr uint64_t NO_END = ~uint64_t{0};  // of a body in memory whose length nobody tells
    const uint8_t* data = nullptr;
    uint64_t start = 0, end = 0;  // in the blocks area

    bool has(const fclex_extent& extent) const { return extent.start >= start && extent.end <= end; }
    // The bytes of a block of which it has the start; those behind the block too when the piece has an end. None of a
    // block that ends before it starts.
    std::span<const uint8_t> from(const fclex_extent& extent) const {
        return {data + (extent.start - start),
                (end == NO_END ? std::max(extent.start, extent.end) : end) - extent.start};
    }
};
// All blocks of a body in memory.
fclex_piece fclex_whole(const FCLEX* lex);
// Reads `size` bytes of the blocks area, which begins at `blocks_offset` of the file, into `out`. The piece has what
// there is. What st_timed_pread_msg returns.
int64_t fclex_read_piece(fclex_piece* piece, int fd, uint64_t blocks_offset, uint64_t start, uint64_t size,
                         uint8_t* out, st_query_info_t* stats);

// The last block whose first term is not above the text; block 0 when all are. WARM_RC_FAILED with
// the failure in `rc`.
int64_t _find_block(FCLEX* lex, const char* text, st_query_info_t* stats, warm_rc_t* rc);

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
// Whether `a` sorts before `b`, given the number of leading bytes that they share.
inline bool fclex_ascends(std::span<const uint8_t> a, std::span<const uint8_t> b, uint32_t common) {
    return common < b.size() && (common == a.size() || a[common] < b[common]);
}

inline std::span<const uint8_t> fclex_bytes(const char* text, size_t length) {
    return {reinterpret_cast<const uint8_t*>(text), length};
}

// A term as its block has it: how many bytes it shares with the one before, and the rest.
struct fclex_entry {
    uint32_t shared = 0;
    uint32_t rest = 0;
    const uint8_t* text = nullptr;  // the rest's
};

// Stands between two entries of a block.
struct fclex_block_cursor {
    fclex_block_cursor() = default;
    fclex_block_cursor(std::span<const uint8_t> bytes, const uint8_t* readable_, uint32_t tperb)
        : at(bytes.data()), end(at + bytes.size()), readable(readable_), last_position(tperb - 1) {}

    const uint8_t* at = nullptr;        // the next undecoded byte
    const uint8_t* end = nullptr;       // of the block
    const uint8_t* readable = nullptr;  // at or past `end`: bytes up to here may be loaded, and mean nothing past `end`
    uint32_t position = 0;              // of the next term
    uint32_t last_position = 0;         // tperb - 1: the position whose text runs to the end
    uint32_t length = 0;                // of the term before, at most 2047; whoever takes entries sets it
};

// Takes the next entry; the caller asks for no more than the block has. 0, WARM_RC_CORRUPT, or WARM_RC_FAILED for a
// shared prefix above 2046.
[[nodiscard]] inline int fclex_next_entry(fclex_block_cursor* cursor, fclex_entry* entry) {
    const uint8_t* at = cursor->at;
    const uint8_t* const end = cursor->end;
    const uint32_t position = cursor->position++;
    uint32_t shared = 0, rest = 0;
    if (position != 0) {
        const uint32_t used = vbe_decode_bounded(&shared, at, end);
        if (used == 0) return WARM_RC_CORRUPT;
        at += used;
    }
    if (position != 0 && position == cursor->last_position) {
        rest = static_cast<uint32_t>(end - at);
    } else {
        const uint32_t used = vbe_decode_bounded(&rest, at, end);
        at += used;
        if (used == 0 || rest > end - at) return WARM_RC_CORRUPT;
    }
    if (shared > FCLEX_MAX_PREFIX) return WARM_RC_FAILED;
    if (shared > cursor->length) return WARM_RC_CORRUPT;
    cursor->at = at + rest;
    *entry = {shared, rest, at};
    return 0;
}

// Where terms are decoded: up to 32 bytes of a rest are copied with moves of a fixed size, which takes fewer
// instructions than asking how many there are.
inline constexpr uint32_t FCLEX_TEXT_SLACK = 32;
using fclex_text = char[ST_TERM_BUFFER_SIZE + FCLEX_TEXT_SLACK];

// Decodes the next term into `text`, which holds the one before, terminates it and sets the cursor's length. As
// fclex_next_entry.
[[nodiscard]] [[gnu::always_inline]] inline int fclex_next_term(fclex_block_cursor* cursor, fclex_entry* entry,
                                                                char* text) {
    ST_TRY(fclex_next_entry(cursor, entry));
    uint32_t kept = entry->rest;
    if (kept <= FCLEX_TEXT_SLACK && cursor->readable - entry->text >= FCLEX_TEXT_SLACK) {
        std::memcpy(text + entry->shared, entry->text, FCLEX_TEXT_SLACK);
    } else {
        kept = std::min(kept, ST_MAX_TERM_LENGTH - entry->shared);
        std::memcpy(text + entry->shared, entry->text, kept);
    }
    cursor->length = std::min(entry->shared + kept, ST_MAX_TERM_LENGTH);
    text[cursor->length] = '\0';
    return 0;
}

// Writes the numbers before the text of the term at a position of its block, at most FCLEX_MAX_NUMBERS bytes, and
// returns their size; `shared` means nothing at position 0.
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

}  // namespace veldar
