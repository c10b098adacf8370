// Hands out a lexicon's blocks in order, read in large pieces: what walks and cursors share.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <span>

#include "libzero/resource.h"
#include "searchthing/lexicon/fclex_internal.h"
#include "searchthing/base/warmslice_util.h"

namespace veldar {

inline constexpr uint64_t FCLEX_MAX_PIECE = uint64_t{128} << 10;

// Bytes of the first read and of the largest; reads in between double.
struct fclex_stream_sizes {
    uint64_t first;
    uint64_t largest;
};

// Hands out the blocks from `first_block` on. In memory they are where they are; from a file they come in large pieces,
// through buffers of the walk's own, so that the callback may look terms up in the same handle.
class fclex_block_stream {
  public:
    fclex_block_stream(FCLEX* lex, uint64_t first_block, fclex_stream_sizes sizes, st_query_info_t* stats)
        : lex_(lex),
          stats_(stats),
          block_count_(fclex_block_count(lex)),
          next_(first_block),
          max_piece_(sizes.largest),
          piece_size_(sizes.first) {}

    // Sets the next block's bytes, and the end of the bytes that may be loaded. 0, -8, -12 or -2.
    int next(std::span<const uint8_t>* bytes, const uint8_t** readable) {
        if (!fclex_in_file(lex_)) return next_in_memory(bytes, readable);
        fclex_extent extent;
        ST_TRY(next_extent(&extent));
        ST_TRY(fclex_check_extent(lex_, extent));
        if (extent.start < piece_start_ || extent.end > piece_end_) ST_TRY(load_piece(extent));
        *bytes = {piece_.data() + (extent.start - piece_start_), extent.size()};
        *readable = piece_.data() + piece_.size();
        next_++;
        return 0;
    }

  private:
    static constexpr uint64_t SLACK =
        64;  // loadable bytes behind a piece, so that its last terms take the fast path too
    static constexpr uint64_t BLOCK_BYTES_PER_OFFSET = 32;  // how many entries of the offset table go with a piece

    int next_in_memory(std::span<const uint8_t>* bytes, const uint8_t** readable) {
        ST_TRY(fclex_fetch_block(lex_, next_, stats_, bytes));
        *readable = lex_->body_limit != 0 ? lex_->body + lex_->body_limit : bytes->data() + bytes->size();
        next_++;
        return 0;
    }

    // Entry i of the offset table, which must be one that load_offsets was asked for.
    uint32_t offset_at(uint64_t i) const {
        const uint64_t k = i - offsets_start_;
        return k < offsets_count_ ? load_be32(offsets_.data() + 4 * k) : FCLEX_BAD_OFFSET;
    }

    int next_extent(fclex_extent* extent) {
        const uint64_t first = next_ == 0 ? 0 : next_ - 1;
        if (next_ >= offsets_start_ + offsets_count_) ST_TRY(load_offsets(first));
        *extent = {next_ == 0 ? 0 : offset_at(first), offset_at(next_)};
        return 0;
    }

    // Loads entries from `first` on; those that the file does not give stay absent and read as FCLEX_BAD_OFFSET.
    int load_offsets(uint64_t first) {
        const uint64_t count =
            std::min(block_count_ - first, std::max<uint64_t>(piece_size_ / BLOCK_BYTES_PER_OFFSET, 2));
        if (offsets_.size() < 4 * count && !offsets_.alloc(4 * count)) return WARM_RC_NO_MEMORY;
        const uint64_t at = static_cast<uint64_t>(lex_->fclex_offset) + FCLEX_HEADER_SIZE + 4 * first;
        const int64_t got = st_timed_pread_msg(lex_->fd, offsets_.data(), 4 * count, at, stats_, false);
        offsets_start_ = first;
        offsets_count_ = got < 0 ? 0 : static_cast<uint64_t>(got) / 4;
        if (offsets_start_ + offsets_count_ <= next_) std::fputs("read failed in get_block_offset_fd\n", stderr);
        return 0;
    }

    // The end of the run of blocks behind the next one that fits one piece, as far as the loaded offsets ascend.
    uint32_t run_end(const fclex_extent& extent) const {
        uint32_t end = extent.end;
        for (uint64_t i = next_ + 1; i < offsets_start_ + offsets_count_; i++) {
            const uint32_t candidate = offset_at(i);
            if (candidate < end || candidate - extent.start > piece_size_) break;
            end = candidate;
        }
        return end;
    }

    // Reads the piece that begins with the next block. Where the file ends early, the whole blocks before are served.
    int load_piece(const fclex_extent& extent) {
        const uint32_t end = run_end(extent);
        const uint64_t size = end - extent.start;
        const uint64_t wanted = std::max(size, piece_size_) + SLACK;
        if (piece_.size() < wanted && !piece_.alloc(wanted)) return WARM_RC_NO_MEMORY;
        const uint64_t at =
            static_cast<uint64_t>(lex_->fclex_offset) + fclex_blocks_offset(block_count_) + extent.start;
        const int64_t got = st_timed_pread_msg(lex_->fd, piece_.data(), size, at, stats_, false);
        piece_start_ = extent.start;
        piece_end_ = extent.start + (got < 0 ? 0 : static_cast<uint64_t>(got));
        piece_size_ = std::min(2 * piece_size_, max_piece_);
        if (extent.end <= piece_end_ && got >= 0) return 0;
        std::fputs("error preading block from offsets\n", stderr);
        return WARM_RC_READ;
    }

    FCLEX* lex_;
    st_query_info_t* stats_;
    uint64_t block_count_;
    uint64_t next_;
    uint64_t max_piece_;
    uint64_t piece_size_;  // of the next read, in bytes
    buffer<uint8_t> offsets_;
    uint64_t offsets_start_ = 0, offsets_count_ = 0;
    buffer<uint8_t> piece_;
    uint64_t piece_start_ = 0, piece_end_ = 0;  // in the blocks area
};

}  // namespace veldar
