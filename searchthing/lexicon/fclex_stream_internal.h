// A lexicon's blocks in order, read in large pieces, and the terms in them: what walks, cursors and merges share.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <span>

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

// Hands out the blocks of a body in a file, through a buffer of its own: the callback of a walk may look terms up in
// the same handle.
class fclex_block_reader {
  public:
    fclex_block_reader() = default;
    fclex_block_reader(int fd, uint64_t body_offset, uint64_t block_count, uint32_t tperb, fclex_stream_sizes sizes,
                       st_query_info_t* stats)
        : ends(fd, body_offset, block_count, stats),
          blocks_offset_(body_offset + fclex_blocks_offset(block_count)),
          max_block_(tperb * FCLEX_MAX_TERM_BYTES),
          largest_(sizes.largest),
          piece_size_(sizes.first) {}

    // The bytes of a block, valid until the next call. 0, WARM_RC_CORRUPT, WARM_RC_NO_MEMORY, or as bo_reader_get.
    [[nodiscard]] inline int get(uint64_t block, std::span<const uint8_t>* bytes) {
        if (!bo_reader_holds(ends, block)) {
            ST_TRY(bo_reader_load(&ends, block, std::clamp<uint64_t>(piece_size_ / BLOCK_BYTES, 2, bo_reader_t::RUN)));
        }
        const fclex_extent extent = bo_reader_extent(ends, block);
        ST_TRY(fclex_check_file_extent(extent, max_block_));
        if (extent.start < start_ || extent.end > end_) ST_TRY(load_piece(block, extent));
        *bytes = {piece_.data() + (extent.start - start_), extent.size()};
        return 0;
    }
    static constexpr uint64_t SLACK = 64;  // loadable bytes behind a piece, for copies of a fixed size

    // The end of the bytes that may be loaded.
    const uint8_t* readable() const { return piece_.data() + piece_.size(); }

    bo_reader_t ends;

  private:
    static constexpr uint64_t BLOCK_BYTES = 32;  // a guess: decides how many block ends go with a piece

    // Reads the piece that begins with the block: all that fit, as far as the run of block ends tells and they ascend.
    // Where the file ends early, the whole blocks before are served.
    [[gnu::noinline]] int load_piece(uint64_t block, const fclex_extent& extent) {
        uint32_t end = extent.end;
        while (bo_reader_holds(ends, ++block)) {
            const uint32_t candidate = bo_reader_extent(ends, block).end;
            if (candidate < end || candidate - extent.start > piece_size_) break;
            end = candidate;
        }
        const uint64_t size = end - extent.start;
        const uint64_t wanted = std::max(size, piece_size_) + SLACK;
        if (piece_.size() < wanted && !piece_.alloc(wanted)) return WARM_RC_NO_MEMORY;
        const int64_t got =
            st_timed_pread_msg(ends.fd, piece_.data(), size, blocks_offset_ + extent.start, ends.stats, false);
        start_ = extent.start;
        end_ = extent.start + (got < 0 ? 0 : static_cast<uint64_t>(got));
        piece_size_ = std::min(2 * piece_size_, largest_);
        if (extent.end <= end_ && got >= 0) return 0;
        std::fputs("error preading block from offsets\n", stderr);
        return read_status(got);
    }

    uint64_t blocks_offset_ = 0;  // in the file
    uint64_t max_block_ = 0;
    uint64_t largest_ = 0;
    uint64_t piece_size_ = 0;  // of the next read, in bytes
    buffer<uint8_t> piece_;
    uint64_t start_ = 0, end_ = 0;  // of the piece, in the blocks area
};

// Goes through a lexicon block by block; in memory the blocks are where they are.
struct fclex_walker {
    fclex_walker(FCLEX* lexicon, uint64_t first_block, fclex_stream_sizes sizes, st_query_info_t* stats)
        : lex(lexicon), block_count(fclex_block_count(lexicon)), next_block(first_block) {
        if (!fclex_in_file(lex)) return;
        blocks = {lex->fd, static_cast<uint64_t>(lex->fclex_offset), block_count, fclex_tperb(lex), sizes, stats};
    }

    // Puts the cursor at the start of the next block, of which there is one. 0, WARM_RC_NO_MEMORY, or WARM_RC_READ
    // whatever is wrong with it.
    [[nodiscard]] int start_block(fclex_block_cursor* cursor) {
        ST_ASSERT(next_block < block_count);
        std::span<const uint8_t> bytes;
        const bool in_file = fclex_in_file(lex);
        const int status = in_file ? blocks.get(next_block, &bytes) : fclex_block_in_memory(lex, next_block, &bytes);
        if (status != 0) return status == WARM_RC_NO_MEMORY ? status : WARM_RC_READ;
        const uint8_t* const readable = in_file                ? blocks.readable()
                                        : lex->body_limit != 0 ? lex->body + lex->body_limit
                                                               : bytes.data() + bytes.size();
        *cursor = fclex_start_block(bytes, readable, fclex_tperb(lex));
        first_id = static_cast<uint32_t>(next_block * fclex_tperb(lex));
        terms = fclex_terms_in_block(lex, next_block++);
        return 0;
    }

    FCLEX* lex;
    uint64_t block_count, next_block;
    fclex_block_reader blocks;
    uint32_t first_id = 0;  // of the block
    uint32_t terms = 0;     // in the block
};

}  // namespace veldar
