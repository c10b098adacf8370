// Bitmap posting lists and the iterator over the bits of a bitmap.
//
// A bitmap posting list, F being its first event:
//
//   offset  size                meaning
//   0       1 to 5              F as a variable-length integer
//   then    1 + (last - F) / 8  bit k % 8 of byte k / 8, least significant first, is set when the list has event F + k
//
//   1000 alone:        E8 07 01
//   1000, 1001, 1008:  E8 07 03 01
//
// The reader takes a list in chunks of 8192 bytes and looks for events in the first 8192 - v + v % 4 bytes of each
// chunk's bitmap, v being the length of the coded F. For v of 4 or 5 that leaves out the last 4 bytes of every chunk
// after the first. Lists were written to match, so the rule stays, and a writer must not choose this encoding for a
// list above 8192 bytes whose F takes 4 bytes or more.
#pragma once

#include <cstdint>

#include "libzero/resource.h"
#include "searchthing/base/bitset.h"
#include "searchthing/base/query_info.h"
#include "searchthing/base/st_timeval.h"
#include "searchthing/base/warm_rc.h"

namespace veldar {

// Writes one list through a buffer that it may share with a writer of other lists: the bytes before the start position
// belong to that one and go out with the first flush.
struct bitmap_writer_t {
    uint32_t first_id = 0;       // F
    uint8_t* buf = nullptr;      // the caller's
    uint64_t vbe_length = 0;     // bytes of the coded F, 0 before the first event
    uint64_t buf_start_pos = 0;  // where this buffer load's bitmap bytes begin
    uint64_t buf_size = 0;
    uint64_t buf_pos = 0;  // one past the last bitmap byte touched
    uint64_t flushed = 0;  // bitmap bytes written, the coded F not counted
    int fd = -1;           // not owned
    uint64_t offset = 0;   // file offset of the next write
};
// `fd` must not be -1 and `start` lies below `size` (asserted); zeroes the buffer from `start` on.
void bitmap_writer_init(bitmap_writer_t* bw, uint8_t* buf, uint64_t start, uint64_t size, int fd, uint64_t offset);
// Appends an event; events ascend. 0; WARM_RC_OPEN after close; WARM_RC_WRITE from a flush; WARM_RC_CAPACITY when the
// coded F leaves no room for a bitmap byte; WARM_RC_INVALID_ARGUMENT for an event below what has been written (one that
// still lies in the buffer is accepted).
[[nodiscard]] int bitmap_writer_append(bitmap_writer_t* bw, uint32_t id, warm_rc_t* rc);
// Writes the buffer up to the last byte touched. WARM_RC_OPEN after close, WARM_RC_WRITE with buffer and counters as
// they were.
[[nodiscard]] int bitmap_writer_flush(bitmap_writer_t* bw, warm_rc_t* rc);
// Tells the list's size, coded F included, and resets the writer. With `flush` set what is buffered is written first,
// and a failure is returned with the writer still open; otherwise the caller takes over the buffered bytes before.
[[nodiscard]] int bitmap_writer_close(bitmap_writer_t* bw, uint64_t* size, bool flush);

// Walks the set bits of a bitmap in ascending order and consumes it: a bit that has been returned is cleared.
struct bitmap_iterator_t {
    uint8_t* bytes = nullptr;  // at any alignment
    uint64_t bitmap_size = 0;  // bytes, a multiple of 4
    uint64_t position = 0;     // bytes, a multiple of 4
};
void _bitmap_itr_init(bitmap_iterator_t* itr, uint8_t* bytes, uint64_t bitmap_size);
// The next set bit, or all-ones at the end.
uint32_t _bitmap_itr_next(bitmap_iterator_t* itr);
// Moves to `bit`, clearing the bits below it in its 32-bit word, and takes the next set bit. Moving back is possible;
// words passed by keep their bits.
uint32_t _bitmap_itr_seek(bitmap_iterator_t* itr, uint32_t bit);

inline constexpr uint32_t BITMAP_CHUNK = 8192;
// Reads one list. May be moved while open.
struct bitmap_reader_t {
    uint32_t first_id = 0;  // F
    uint32_t vbe_length = 0;
    uint8_t chunk[BITMAP_CHUNK + 4] = {};  // the tail stays zero
    bitmap_iterator_t itr;
    uint32_t consumed = 0;             // bytes of the list up to the end of the current chunk
    uint32_t chunk_base = 0;           // event number of bit 0 of the current chunk's bitmap
    int fd = -1;                       // not owned; -1 in memory mode
    uint64_t offset = 0;               // file offset of the next chunk
    uint64_t bsize = 0;                // bytes of the list
    const uint8_t* src = nullptr;      // memory mode: the caller's list of at most 8192 bytes
    st_query_info_t* stats = nullptr;  // set by the caller: what the reads are accounted to, or null
};
static_assert(BITMAP_CHUNK % 4 == 0 && sizeof(bitmap_reader_t::chunk) >= BITMAP_CHUNK + 3,
              "read in words from any byte");
// Opens a list of `size` bytes in the file or, when `src` is not null, in memory, and loads its first chunk. 0;
// WARM_RC_INVALID_ARGUMENT without file and memory; WARM_RC_CORRUPT for a list that cannot be (too long for its mode or
// for 32-bit events, no first event); WARM_RC_READ.
[[nodiscard]] int bitmap_reader_init(bitmap_reader_t* br, int fd, uint64_t offset, uint64_t size, const uint8_t* src,
                                     warm_rc_t* rc);
// The next event, all-ones at the end. WARM_RC_NOT_FOUND for a reader that is not open, WARM_RC_READ, WARM_RC_CORRUPT.
[[nodiscard]] int bitmap_reader_next(bitmap_reader_t* br, uint32_t* id, warm_rc_t* rc);
// The next event at or after `target`, all-ones at the end; never goes back. Chunks that lie before the target's are
// skipped without being read.
[[nodiscard]] int bitmap_reader_seek(bitmap_reader_t* br, uint32_t target, uint32_t* id, warm_rc_t* rc);
void bitmap_reader_close(bitmap_reader_t* br);

// A search result over a run of values, for selections. `bm` has _calc_bitmap_size(begin, end) bytes, so that bit `end`
// exists (and is 0): the filter below includes it.
struct bitmap_and_bounds_s {
    st_timeval_t et;
    st_timeval_t lt;
    uint32_t begin = 0;
    uint32_t begin_preamble = 0;
    uint32_t end = 0;         // exclusive; bits from end on are 0
    buffer<uint8_t> bm;       // bit k is value begin + k
    uint8_t* ogbm = nullptr;  // not owned
};
using bitmap_and_bounds_t = bitmap_and_bounds_s;
// Whether value `id` is in the result: false without a bitmap and outside [begin, end].
bool bnb_tsval_passes_filter(const bitmap_and_bounds_t* bnb, uint32_t id);
// Frees the bitmap and zeroes the record, which stays the caller's.
void free_bitmap_and_bounds(bitmap_and_bounds_t* bnb);

}  // namespace veldar
