// Bit-packed streams: values of 0 to 32 bits in 64-bit little-endian words.
//
// Bit k of a stream is bit k % 64 of word k / 64, counted from the least significant one; a value of n bits at position
// p occupies bits p to p + n - 1, least significant bit first, and may straddle two words. Read as bytes, bit k is bit
// k % 8 of byte k / 8.
//
//   5 in 3 bits, then 0x1234 in 13 bits, then 1 in 1 bit, in the first three bytes:   A5 91 01
#pragma once

#include <cstdint>

#include "libzero/assertions.h"
#include "libzero/endian.h"
#include "searchthing/base/packed_array.h"
#include "searchthing/base/warm_rc.h"

namespace veldar {

// Appends to a buffer of words that is written whenever it is full. A partial last word is written as it is and again,
// completed, by the next flush: the file is never read. With fd -1 nothing is written and the buffer is the stream.
struct bitpack_writer_t {
    int fd = -1;                // not owned; -1 after close
    uint64_t* words = nullptr;  // owned by the caller; zero from the bit cursor on
    uint64_t capacity = 0;      // in words
    uint64_t bit_cursor = 0;    // bits used in the buffer
    uint64_t word_offset = 0;   // file position of words[0] in 8-byte units
};
// Zeroes the buffer.
void bp_writer_open(bitpack_writer_t* bp, int fd, uint64_t* words, uint64_t capacity, uint64_t word_offset);
// bp_writer_append of no bits, of too many, or of more than the buffer has room for.
[[nodiscard]] int _bp_writer_append_checked(bitpack_writer_t* bp, uint32_t value, uint32_t nbits, warm_rc_t* rc);

// Appends a value that the caller has kept below 2^nbits. WARM_RC_INVALID_ARGUMENT "val_nbits invalid" above 32 bits,
// WARM_RC_WRITE from a flush, WARM_RC_CAPACITY when the buffer is full and there is no file; the stream is then as
// before.
[[nodiscard]] inline int bp_writer_append(bitpack_writer_t* bp, uint32_t value, uint32_t nbits, warm_rc_t* rc) {
    const uint64_t end = bp->bit_cursor + nbits;
    if (nbits == 0 || nbits > 32 || end > 64 * bp->capacity) return _bp_writer_append_checked(bp, value, nbits, rc);
    uint64_t* const word = bp->words + bp->bit_cursor / 64;
    const uint32_t shift = bp->bit_cursor % 64;
    word[0] |= uint64_t{value} << shift;
    if (shift + nbits > 64) word[1] |= uint64_t{value} >> (64 - shift);
    bp->bit_cursor = end;
    rc->warm_rc = WARM_RC_OK;
    return 0;
}
// Zero bits up to the next word. More than 32 of them are refused as bp_writer_append refuses them.
[[nodiscard]] int bp_writer_pad64(bitpack_writer_t* bp, warm_rc_t* rc);
// Writes the words begun so far: 0 (also without a file) or WARM_RC_WRITE "bp_writer_flush failed".
[[nodiscard]] int bp_writer_flush_buffer(bitpack_writer_t* bp, warm_rc_t* rc);
// Flushes and resets the writer, whatever the flush's result; 0 without a file.
[[nodiscard]] int bp_writer_close(bitpack_writer_t* bp, warm_rc_t* rc);

// bitunpack_word32 through the array reader, for a value that is not wholly cached.
[[nodiscard]] int _bitunpack_fetch(array_reader_t* words, uint32_t nbits, uint64_t bit, bool cache_only,
                                   uint64_t hint_bit, uint32_t* out, warm_rc_t* rc);

// The value of `nbits` bits at position `bit` of a stream, `words` being a reader of 8-byte elements. The hint is the
// bit position that the caller wants next; cache_only and the failures are those of _ar_get_i. A width of 0 reads
// nothing and gives 0.
[[nodiscard]] inline int bitunpack_word32(array_reader_t* words, uint32_t nbits, uint64_t bit, bool cache_only,
                                          uint64_t hint_bit, uint32_t* out, warm_rc_t* rc) {
    ST_ASSERT(nbits <= 32);
    // Little-endian words are one string of bytes, so that one load at the value's first byte holds all of it (at most
    // 39 bits), straddling or not. A position before the cache wraps to one far behind it.
    const uint64_t cached_bit = bit - words->cache_start * 64;
    const uint64_t byte = cached_bit / 8;
    if (byte + 8 > words->cache_count * 8) return _bitunpack_fetch(words, nbits, bit, cache_only, hint_bit, out, rc);
    const uint64_t mask = (uint64_t{1} << nbits) - 1;
    *out = static_cast<uint32_t>((load_le64(words->data + byte) >> (cached_bit % 8)) & mask);
    rc->warm_rc = WARM_RC_OK;
    return 0;
}

}  // namespace veldar
