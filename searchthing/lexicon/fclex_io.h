// Lexicon bodies as streams: a writer that takes ascending terms and never holds the body in one piece, a reader that
// walks a body in a file with few large reads, and the merge of up to 64 bodies into one. The body is drawn in fclex.h.
//
// All three belong to one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "libzero/resource.h"
#include "searchthing/base/bitset.h"
#include "searchthing/base/list.h"
#include "searchthing/base/stop_check.h"
#include "searchthing/base/warm_rc.h"
#include "searchthing/lexicon/fclex.h"
#include "searchthing/lexicon/fclex_walker_internal.h"

namespace veldar {

inline constexpr uint64_t LEX_WRITER_PAGE_SIZE = 0x100000;
inline constexpr uint32_t LEX_MERGE_MAX_SOURCES = 64;
static_assert(LEX_MERGE_MAX_SOURCES <= 8 * sizeof(bmap64_t), "a bit for each source");
// Terms are copied in pieces of this size: buffers have as much room behind their last byte.
inline constexpr uint32_t LEX_SLACK = FCLEX_TEXT_SLACK;
static_assert(LEX_SLACK <= fclex_block_reader::SLACK);

struct lex_page_list_deleter {
    void operator()(list_t* pages) const;
};

// A body being written. The blocks wait in pages, each a 64-bit word with its free bytes and then its data. What it
// holds is freed by _lex_writer_close or with the record.
struct lex_writer_t {
    uint32_t _cursor = 0;             // terms accepted; the id of the last one plus 1
    uint64_t _uncompressed_size = 0;  // bytes of the terms accepted
    uint64_t _blocks_off = 0;         // bytes of blocks so far
    uint64_t _page_sz = 0;            // of a page, its free-space word included
    buffer<uint32_t> _block_end_offsets;
    uint32_t _bo_idx = 0;  // how many of them are set
    uint32_t tperb = 0;
    uint32_t position = 0;  // of the next term in its block, tperb when that begins a new one
    uint32_t previous_length = 0;
    fclex_text previous = {};
    std::unique_ptr<list_t, lex_page_list_deleter> pages;
    uint8_t* page_at = nullptr;  // where the next byte of the last page goes
};

// Starts a body of `tperb` terms a block. A page takes `page_size` bytes, at least 9 (asserted; 0 for 1 MiB).
// `expected_terms` is a hint. 0, or WARM_RC_NO_MEMORY with nothing allocated.
[[nodiscard]] int _lex_writer_open(bool verbose, lex_writer_t* writer, uint32_t tperb, uint64_t page_size,
                                   uint32_t expected_terms);

// Appends a term of at most 2047 bytes, which need not be terminated. 0, also when it equals the term before and is
// left out; WARM_RC_NO_MEMORY; WARM_RC_DOES_NOT_FIT when a number of the body would pass 32 bits or the term is longer;
// WARM_RC_INVALID_ARGUMENT for a term below the one before. After a failure the writer can only be closed or dropped.
[[nodiscard]] int _lex_writer_put(lex_writer_t* writer, const char* term, size_t length);

// Writes the body at `offset` of a file, tells where it ends and frees what the writer holds. 0, WARM_RC_WRITE with
// errno set, or WARM_RC_DOES_NOT_FIT. Without terms it writes a header that no reader accepts.
[[nodiscard]] int _lex_writer_close(bool verbose, lex_writer_t* writer, int fd, uint64_t offset, uint64_t* end_offset);

inline uint64_t lex_writer_buf_sz(const lex_writer_t* writer) {
    return writer->_page_sz - sizeof(uint64_t);
}

// A walk over the terms of a body in a file, each with what it shares with the one before.
struct lex_reader_t {
    int fd = -1;  // the caller's, for as long as the reader is open
    int64_t body_offset = 0;
    fclex_shape shape;
    fclex_block_reader blocks;

    uint32_t cursor = 0;    // id of the current term; the number of terms at the end
    uint32_t block = 0;     // where the current term is
    fclex_block_cursor at;  // behind it, with its length
    uint32_t common = 0;    // leading bytes that it shares with the one before, as many as there are
    fclex_text term = {};   // not terminated
};

// Opens the body at `body_offset`. Blocks are read in pieces of 1 MiB, or one block when that is more. 0;
// WARM_RC_ZERO_TERMS for a body without terms or terms per block; WARM_RC_NO_MEMORY for one whose blocks may pass 1 GiB;
// a failed read's READ, SHORT_READ or END_OF_FILE. The cursor is 0, and its term is not decoded yet.
[[nodiscard]] int _lex_reader_open(lex_reader_t* reader, int fd, int64_t body_offset);

// Goes to the start of a block (below their number, asserted): its bytes, until the next call. Null with
// WARM_RC_NO_MEMORY, CORRUPT or a read's failure.
const uint8_t* _lex_reader_get(lex_reader_t* reader, uint32_t block, warm_rc_t* rc);

// The size of the body in bytes. 0, or a read's failure.
[[nodiscard]] int _lex_reader_get_size(lex_reader_t* reader, uint64_t* size);

// Frees the pieces; the descriptor stays the caller's.
void _lex_reader_close(lex_reader_t* reader);

// Decodes the term at the cursor, from the start of its block. 0, a failure of _lex_reader_get, or WARM_RC_CORRUPT when
// the cursor is at the end, the block is damaged, or the term is longer than 2047 bytes.
[[nodiscard]] int _reload_term(lex_reader_t* reader);

// Advances and decodes the next term, on top of the current one. 0, also when that was the last and the cursor is now
// at the end; WARM_RC_FAILED when it was there already; a failure of _reload_term, and WARM_RC_CORRUPT for a term that
// is not above the one before.
[[nodiscard]] int _increment_cursor(lex_reader_t* reader);

// Merges up to 64 (asserted) bodies, each in a file of its own or not, into an open writer, in one pass over each.
//
//   fds, body_offsets   the sources, `src_sz` of each
//   terms_per_block     of the merged body, never 0
//   page_size           of the writer
//   writer              is opened here and left open: _lex_writer_close puts the body where it belongs
//   merged_count        terms of the merged body
//   source_bitmaps      bit k of entry i tells that source k has the merged term i; allocated here, 32 bits wide up to
//                       32 sources, with as many entries as the sources have terms
//   body_end_offsets    where each source's body ends in its file, `src_sz` of them
//   old2new             null, or for each source null or an array of as many entries as its body has terms (the first
//                       word of the body; callers that size it by another count must compare first): the merged id of
//                       each of its terms
//   passed_over         null, or for each source none or as many bits as it has terms: those set stay out, as if the
//                       source had no such term
//   stop                null, or asked every few thousand terms
//
// The code is also left in `rc`, with the source as detail: what the readers and the writer report,
// WARM_RC_CORRUPT also for a body that is longer than its file, WARM_RC_CANCELLED when it was stopped. On failure the writer and the bitmaps hold nothing.
[[nodiscard]] int st_fclex_merge_n(bool verbose, const int* fds, const int64_t* body_offsets, uint32_t src_sz,
                                   uint32_t terms_per_block, uint64_t page_size, lex_writer_t* writer,
                                   uint32_t* merged_count, bmap_array_t* source_bitmaps, uint64_t* body_end_offsets,
                                   uint32_t* const* old2new, warm_rc_t* rc,
                                   const std::vector<bool>* passed_over = nullptr, stop_check* stop = nullptr);

// _lex_writer_put of a term of which the caller knows how many leading bytes it shares with the one before, and behind
// which LEX_SLACK bytes may be read.
[[nodiscard]] int lex_writer_put_after(lex_writer_t* writer, std::string_view term, uint32_t common);

}  // namespace veldar
