// A lexicon's blocks in order, in large pieces, and the terms in them: what walks, cursors and merges share.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <span>
#include <string_view>

#include "libzero/resource.h"
#include "searchthing/base/timed_read.h"
#include "searchthing/lexicon/fclex_internal.h"

namespace veldar {

inline constexpr uint64_t FCLEX_MAX_PIECE = uint64_t{128} << 10;

// Bytes of the first read and of the largest; reads in between double.
struct fclex_stream_sizes {
    uint64_t first = 0;
    uint64_t largest = 0;
};

// Hands out the blocks of a body; those in a file go through a buffer of its own, because the callback of a walk may
// look terms up in the same handle.
class fclex_block_reader {
  public:
    fclex_block_reader() = default;
    // Over a body in a file.
    fclex_block_reader(int fd, uint64_t body_offset, const fclex_shape& shape, const uint8_t* table,
                       fclex_stream_sizes sizes, st_query_info_t* stats)
        : ends(fd, body_offset, shape.blocks(), table, stats),
          blocks_offset_(body_offset + shape.blocks_offset()),
          max_block_(shape.max_block()),
          largest_(sizes.largest),
          next_size_(sizes.first) {}
    // Over a body in memory.
    explicit fclex_block_reader(const FCLEX* lex)
        : ends(-1, 0, fclex_shape(lex).blocks(), lex->block_offsets, nullptr),
          max_block_(UINT64_MAX),
          piece_(fclex_whole(lex)) {}

    // The bytes of a block, valid until the next call. 0, WARM_RC_CORRUPT, WARM_RC_NO_MEMORY, or as bo_reader_get.
    [[nodiscard]] inline int get(uint64_t block, std::span<const uint8_t>* bytes) {
        fclex_extent extent;
        const uint64_t ends_at_once = std::clamp<uint64_t>(next_size_ / BLOCK_BYTES, 2, bo_reader_t::RUN);
        ST_TRY(bo_reader_get(&ends, block, ends_at_once, &extent));
        ST_TRY(fclex_check_extent(extent, max_block_));
        if (!piece_.has(extent)) ST_TRY(load_piece(block, extent));
        *bytes = {piece_.data + (extent.start - piece_.start), extent.size()};
        return 0;
    }
    static constexpr uint64_t SLACK = 64;  // loadable bytes behind a piece, for copies of a fixed size

    // The end of the bytes that may be loaded with a block.
    const uint8_t* readable(std::span<const uint8_t> bytes) const {
        if (!buffer_.empty()) return buffer_.end();
        return piece_.end == fclex_piece::NO_END ? bytes.data() + bytes.size() : piece_.data + piece_.end;
    }

    bo_reader_t ends;

  private:
    static constexpr uint64_t BLOCK_BYTES = 32;  // a guess: decides how many block ends go with a piece

    // Reads the piece that begins with the block: all that fit, as far as the run of block ends tells and they ascend.
    // Where the file ends early, the whole blocks before are served.
    [[gnu::noinline]] int load_piece(uint64_t block, const fclex_extent& extent) {
        if (ends.fd < 0) return WARM_RC_CORRUPT;
        uint32_t end = extent.end;
        while (block + 1 < ends.count && bo_reader_holds(ends, ++block)) {
            const uint32_t candidate = bo_reader_extent(ends, block).end;
            if (candidate < end || candidate - extent.start > next_size_) break;
            end = candidate;
        }
        const uint64_t size = end - extent.start;
        const uint64_t wanted = std::max(size, next_size_) + SLACK;
        if (buffer_.size() < wanted && !buffer_.alloc(wanted)) return WARM_RC_NO_MEMORY;
        const int64_t got =
            fclex_read_piece(&piece_, ends.fd, blocks_offset_, extent.start, size, buffer_.data(), ends.stats);
        next_size_ = std::min(2 * next_size_, largest_);
        if (piece_.has(extent) && got >= 0) return 0;
        std::fputs("error preading block from offsets\n", stderr);
        return read_status(got);
    }

    uint64_t blocks_offset_ = 0;  // in the file
    uint64_t max_block_ = 0;
    uint64_t largest_ = 0;
    uint64_t next_size_ = 0;  // of the next read, in bytes
    buffer<uint8_t> buffer_;  // of a file
    fclex_piece piece_;
};

// The first place in [at, end) of a byte that stands behind another one, or the end. The byte before `at` and those up
// to `readable` may be loaded.
inline const uint8_t* fclex_find_pair(const uint8_t* at, const uint8_t* end, const uint8_t* readable, uint8_t before,
                                      uint8_t byte) {
    constexpr uint64_t ONES = 0x0101010101010101;
    for (; at < end && readable - at >= 8; at += 8) {
        const uint64_t word = (load_le64(at) ^ (ONES * byte)) | (load_le64(at - 1) ^ (ONES * before));
        // The lowest byte of zero is the lowest whose top bit is set.
        const uint64_t zeros = (word - ONES) & ~word & (ONES * 0x80);
        if (zeros != 0) return std::min(at + __builtin_ctzll(zeros) / 8, end);
    }
    while (at < end && (at[0] != byte || at[-1] != before)) at++;
    return std::min(at, end);
}

// Goes through the terms of a lexicon from the start of a block on.
class fclex_walker {
  public:
    // Terms without `infix`, which outlives the walker, are passed over.
    fclex_walker(const FCLEX* lex, uint64_t first_block, std::string_view infix, fclex_stream_sizes sizes,
                 st_query_info_t* stats)
        : shape_(lex), block_count_(shape_.blocks()), next_block_(first_block), infix_(infix) {
        if (fclex_in_file(lex)) {
            const uint8_t* const table = lex->known_block_ends.data();
            blocks_ = {lex->fd, static_cast<uint64_t>(lex->fclex_offset), shape_, table, sizes, stats};
        } else {
            blocks_ = fclex_block_reader(lex);
        }
    }

    // Goes to the next term that begins with the prefix (NUL-terminated), or to the end. 0; WARM_RC_NO_MEMORY;
    // WARM_RC_READ for a block that cannot be had, whatever is wrong with it; or as fclex_next_entry.
    [[nodiscard]] [[gnu::always_inline]] inline int next(std::string_view prefix) {
        for (;;) {
            if (cursor_.position == terms_) {
                if (next_block_ == block_count_) return at_end_ = true, 0;
                ST_TRY(start_block());
            }
            id_ = first_id_ + cursor_.position;
            fclex_entry entry;
            ST_TRY(fclex_next_term(&cursor_, &entry, text_));
            const bool holds = infix_.empty() || holds_infix(entry);
            if (!prefix.empty()) {
                const int order = std::strncmp(text_, prefix.data(), prefix.size());
                if (order > 0) return at_end_ = true, 0;
                if (order < 0) continue;
            }
            if (holds) return 0;
        }
    }

    bool at_end() const { return at_end_; }
    uint32_t id() const { return id_; }
    uint32_t length() const { return cursor_.length; }
    const char* text() const { return text_; }  // NUL-terminated

  private:
    // Whether the term holds the infix, given that of the term before. An occurrence that this one did not have has its
    // last byte in the rest, which is searched where the block has it: the text was only just written, and loads that
    // span several stores wait for them.
    [[gnu::noinline]] bool holds_infix(fclex_entry entry) {
        if (infix_end_ <= entry.shared) return true;
        infix_end_ = UINT32_MAX;
        const uint8_t* const end = entry.text + (cursor_.length - entry.shared);
        const auto last = static_cast<uint8_t>(infix_.back());
        const uint8_t* at = entry.text;
        if (infix_.size() == 1) return (at = std::find(at, end, last)) != end && ends_infix(entry, at);
        if (at != end && *at == last && ends_infix(entry, at)) return true;
        const auto before = static_cast<uint8_t>(infix_[infix_.size() - 2]);
        while (at++ < end && (at = fclex_find_pair(at, end, cursor_.readable, before, last)) != end) {
            if (ends_infix(entry, at)) return true;
        }
        return false;
    }
    bool ends_infix(fclex_entry entry, const uint8_t* at) {
        const size_t found = entry.shared + static_cast<size_t>(at - entry.text) + 1;
        const size_t size = infix_.size();
        if (found < size || std::memcmp(text_ + found - size, infix_.data(), size) != 0) return false;
        infix_end_ = static_cast<uint32_t>(found);
        return true;
    }

    [[nodiscard]] int start_block() {
        std::span<const uint8_t> bytes;
        if (const int status = blocks_.get(next_block_, &bytes)) {
            return status == WARM_RC_NO_MEMORY ? status : WARM_RC_READ;
        }
        cursor_ = {bytes, blocks_.readable(bytes), shape_.tperb};
        first_id_ = static_cast<uint32_t>(next_block_ * shape_.tperb);
        terms_ = shape_.terms_in(next_block_++);
        return 0;
    }

    fclex_shape shape_;
    uint64_t block_count_, next_block_;
    std::string_view infix_;
    uint32_t infix_end_ = UINT32_MAX;  // of its first occurrence in the term decoded last
    fclex_block_reader blocks_;
    fclex_block_cursor cursor_;
    uint32_t first_id_ = 0;  // of the block
    uint32_t terms_ = 0;     // in the block
    uint32_t id_ = 0;        // of the term
    bool at_end_ = false;
    fclex_text text_ = {};
};

}  // namespace veldar
