// Front-coded lexicon: the sorted dictionary of a slice's terms. A term's id is its ordinal in ascending byte order,
// counting from 0; metadata and posting lists are indexed by it.
//
// Body. Every integer of the header and the offset table is big-endian.
//
//   offset       size                       field
//   0            4                          terms               never 0
//   4            4                          tperb               terms per block, never 0
//   8            4                          uncompressed_size   reported, never interpreted
//   12           4 x B                      block_end[B]        B = terms / tperb, rounded up; counted from where the
//                                                               first block starts
//   12 + 4 x B   block_end[B - 1]           the blocks, back to back; block i starts where block i - 1 ends
//
// Block i holds terms i x tperb and up, in ascending order. Lengths are VBE numbers (libzero/vbe.h), text is raw bytes.
// With p the length of the longest prefix shared with the term before, and s the length of the rest:
//
//   position in the block      stored as
//   0                          VBE(length)  the whole term
//   1 to tperb - 2             VBE(p)  VBE(s)  the rest
//   tperb - 1                  VBE(p)  the rest, which runs to the end of the block
//
// The last term of a block that is not full has both numbers. With tperb 4 the terms "", "ab", "abc", "b", "ba" are
//
//   00 00 00 05  00 00 00 04  00 00 00 08    five terms, four a block, 8 characters
//   00 00 00 0A  00 00 00 0D                 the blocks end at 10 and 13
//   00 | 00 02 61 62 | 02 01 63 | 00 62      whole "" | 0 shared, 2 new | 2 shared, 1 new | 0 shared, the rest is new
//   02 62 61                                 whole "ba"
//
// A reader keeps the first 2047 bytes of a longer term. A prefix above 2046 bytes, or longer than the term before, a
// length that leaves its block, and block ends that do not ascend are damage.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

#include "libzero/endian.h"
#include "libzero/resource.h"
#include "searchthing/base/query_info.h"
#include "searchthing/base/warm_rc.h"
#include "searchthing/lexicon/term_choice.h"

namespace veldar {

struct st_fclex_body {
    be32 terms;
    be32 tperb;
    be32 uncompressed_size;
};
static_assert(sizeof(st_fclex_body) == 12 && alignof(st_fclex_body) == 1);

// An open lexicon. File mode is fd >= 0, and memory mode is anything else. A memory-mode handle is read-only and may be
// shared by threads; a file-mode handle reads through its one block cache and belongs to one thread at a time.
struct st_fclex_handle {
    const uint8_t* body = nullptr;           // memory mode: the caller's body; file mode: the owned 16-byte copy
    const uint8_t* block_offsets = nullptr;  // memory mode only
    const uint8_t* blocks = nullptr;         // memory mode only
    int32_t fd = -1;                         // borrowed
    int64_t fclex_offset = -1;               // file mode: where the body begins in the file
    uint8_t* block_cache = nullptr;          // file mode: room for the largest legal block
    uint64_t block_cache_size = 0;           // file mode: tperb * 2052
    uint64_t body_limit = 0;                 // memory mode: bytes of the body that may be touched; 0 = unlimited
    buffer<uint8_t> owned_body;
    buffer<uint8_t> owned_cache;
    // File mode, what lookups keep for those after them (fclex_lookup.cc).
    uint64_t cached_start = 0, cached_end = 0;  // of what the block cache holds, in the blocks area
    buffer<uint8_t> known_first_terms;
    uint32_t lookups = 0;
    buffer<uint8_t> known_block_ends;  // all of them, or none
};
using FCLEX = st_fclex_handle;

// Receives each term of a walk: its id, its text (NUL-terminated, at most 2047 bytes, valid for this call only), the
// text's length and the caller's context. -1 stops the walk; any other result is added to the walk's total.
using st_term_fn = int (*)(int32_t id, const char* term, size_t length, void* context);

// Opens a body in memory, which stays the caller's and must outlive the handle. Null when the body has no terms or no
// terms per block, or when memory is short. The body is trusted as far as its offset table reaches.
FCLEX* st_fclex_open(const void* body);

// As st_fclex_open, and no byte of the body at or past `body.size()` is ever touched. Null also when the offset table
// does not fit; a block that does not fit cannot be fetched.
FCLEX* _fclex_open_bounded(std::span<const uint8_t> body);

// Opens the body at `offset` of a file. The descriptor stays the caller's and must outlive the handle. Null when 16
// bytes cannot be read there (with a line on standard error), when the body has no terms or no terms per block, when
// its blocks would need a cache above 1 GiB, or when memory is short.
FCLEX* st_fclex_open_fd(int fd, int64_t offset);

// Frees the handle and what it owns; a null handle is ignored.
void st_fclex_close(FCLEX* lex);
struct fclex_closer {
    void operator()(FCLEX* handle) const { st_fclex_close(handle); }
};
using fclex_ptr = std::unique_ptr<FCLEX, fclex_closer>;

// The id of a term. A key longer than 2047 bytes stands for its first 2047. -1 when an argument is null, the term is
// absent or the search for its block failed; WARM_RC_READ when its block cannot be fetched, WARM_RC_CORRUPT when the
// block is damaged.
// `stats` is an optional record into which file reads are accounted, here and below.
int32_t st_fclex_get(FCLEX* lex, const char* text, st_query_info_t* stats);

// st_fclex_get that tells "absent" from "unreadable": 0 and the id, WARM_RC_NOT_FOUND for a term that is not there,
// or the failure: WARM_RC_READ, CORRUPT, NO_LEXICON for a null handle, INVALID_ARGUMENT for a null text.
[[nodiscard]] int _fclex_get_with_status(FCLEX* lex, const char* text, uint32_t* id, st_query_info_t* stats,
                                         warm_rc_t* rc);

// Copies the text of a term, NUL-terminated, to `out`, which holds 2048 bytes or more (else WARM_RC_INVALID_ARGUMENT).
// WARM_RC_CAPACITY for an id that is not below the number of terms, WARM_RC_READ when its block cannot be fetched,
// WARM_RC_NOT_FOUND when the block is damaged.
[[nodiscard]] int st_fclex_get_term_from_id(FCLEX* lex, uint32_t id, char* out, size_t out_size, st_query_info_t* stats,
                                            warm_rc_t* rc);

// Walks the terms that begin with `prefix` (all terms when it is null or empty) in ascending order. The total of the
// callback's results; -1 when the callback stopped the walk. Failures: WARM_RC_NO_LEXICON for a null handle, READ for
// a block that cannot be fetched, CORRUPT for damage, -1 for a shared prefix above 2046, NO_MEMORY; the terms before the
// failing place have been handed out. Memory is constant: a file is read in pieces of up to 128 KiB, more only for a
// block that is itself larger. The callback may use the same handle.
int64_t st_fclex_apply(FCLEX* lex, const char* prefix, st_term_fn fn, void* context, st_query_info_t* stats);
// The same for those of the terms that hold `infix`, which may be empty: what a term shares with the one before is not
// searched again.
int64_t fclex_apply_holding(FCLEX* lex, const char* prefix, std::string_view infix, st_term_fn fn, void* context,
                            st_query_info_t* stats);

// Stores the first `capacity` terms that begin with the prefix; returns how many. With the case flag the terms that
// begin with a blank and the prefix are tried first (stored without the blank): they are the answer if one of them
// holds a capital letter A to Z. Those before a failing place count; fclex_enum_told tells the failure as well, or 0.
int st_fclex_enum(FCLEX* lex, const char* prefix, st_enum_answer* answers, uint32_t capacity, bool case_flag);
[[nodiscard]] int fclex_enum_told(FCLEX* lex, const char* prefix, st_enum_answer* answers, uint32_t capacity,
                                  bool case_flag, uint32_t* count);

uint32_t st_fclex_terms(const FCLEX* lex);
uint32_t st_fclex_blocksize(const FCLEX* lex);  // terms per block
uint32_t st_fclex_how_many_blocks(const FCLEX* lex);
uint32_t st_fclex_uncompressed_size(const FCLEX* lex);

// The body's size in bytes; 0 when the last block offset cannot be read from the file (with a line on standard error).
uint64_t st_fclex_size(FCLEX* lex);
// The size of the body at `offset` of a file, without opening it; 0 as above, and when there are no terms per block.
uint64_t st_fclex_size_fd(int fd, int64_t offset);

// Copies the body of a memory-mode handle to a buffer of at least st_fclex_size bytes and goes on with the copy.
void st_fclex_relocate(FCLEX* lex, void* new_body);

// Upper bound of the bytes that st_fclex_create writes for `num_terms` terms of `total_length` bytes, terminator
// included.
uint64_t fclex_body_bound(uint64_t num_terms, uint64_t total_length, uint32_t tperb);

// Writes a body into `body`, which holds the bytes needed (see fclex_body_bound; a smaller one is an assertion), and
// opens it in memory mode. The terms are NUL-terminated and strictly ascending by byte; the first may be empty. Null
// when two neighbours are out of order or equal, when a number is 0, when the blocks pass 4 GiB, or when memory is
// short; `body` then holds nothing useful.
FCLEX* st_fclex_create(void* body, uint64_t size, const char* const* sorted_terms, uint32_t num_terms, uint32_t tperb,
                       uint32_t uncompressed_size);

// Prints nothing; 0.
int st_fclex_dump_block(void* output, const FCLEX* lex, uint32_t block);

}  // namespace veldar
