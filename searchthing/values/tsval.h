// Event values: the record, the three encodings of the values section and the companion arrays.
//
// T is the header's time width and A its address width, in bits. Packed fields lie in a stream of 64-bit little-endian
// words, least significant bit first, so bit k of the stream is bit k % 8 of byte k / 8.
//
// Plain values (neither "packed" nor "preambles" flag), 8 bytes a value, big-endian:
//
//   offset   size   field
//   8i       4      time of value i, seconds
//   8i + 4   4      address of value i
//
// Packed values ("packed" flag, or "preambles" flag in an 80-byte header), T + A bits a value:
//
//   bit             size   field
//   i(T + A)        T      time of value i, minus the header's earliest time
//   i(T + A) + T    A      address of value i, minus the header's smallest address (minus 0 in an 80-byte header); with
//                          the "preambles" flag the milliseconds of value i instead
//
// Values with preambles ("preambles" flag alone, in a 120-byte header); P is the header's number of dimension sets:
//
//   bit                          size   field
//   64p                          32     time field of preamble p (p < P), host order: the first value of its run
//   64p + 32                     32     address field of preamble p, host order: the length of its run
//   64P + (i - P)(T + A)         T      time of value i (i >= P), minus the header's earliest time
//   64P + (i - P)(T + A) + T     A      milliseconds of value i, 0 to 999; A is 10, or 0 when the slice has none
//
// Companion arrays m (measure), s (source), st (source type), h (host) and d (deleted): n bits an entry, n from the
// header, entry i at bits i * n to i * n + n - 1 of the array, counted as above. The bit position wraps at 2^32, and a
// width of 32 decodes as 0. An m array of width 64 holds raw doubles. Example: the 3-bit entries 5, 1, 6 are 8D 01.
//
//   array   an absent array reads as   meaning
//   m       0.0                        the measure, truncated to an integer when it is written
//   s       all-ones                   the source; all-ones marks a deleted event
//   st      all-ones                   the source type
//   h       all-ones                   the host
//   d       0                          1 bit a value: 1 when the event is deleted, which makes s read as all-ones
#pragma once

#include <cstdint>
#include <span>

#include "libzero/resource.h"
#include "searchthing/base/bitpack.h"
#include "searchthing/base/packed_array.h"
#include "searchthing/base/query_info.h"
#include "searchthing/base/warm_rc.h"
#include "searchthing/format/warmslice_header.h"
#include "searchthing/values/st_tsval.h"

namespace veldar {

enum tsval_encoding_t : uint32_t { TSVAL_PLAIN = 0, TSVAL_PACKED = 1, TSVAL_WITH_PREAMBLES = 2 };

// The encoding of the values section that a header describes.
tsval_encoding_t tsval_encoding(const st_warm_slice_body* header);
// Whether the header's own numbers allow a values section: it cannot have more preambles than values.
bool tsval_counts_agree(const st_warm_slice_body* header);

// One companion array; null data means that it is absent.
struct tsval_companion_t {
    std::span<const uint8_t> bytes;
    uint32_t nbits = 0;
};

struct tsval_reader_t {
    const st_warm_slice_body* header = nullptr;  // the caller's, as long as the reader is open
    int fd = -1;
    uint64_t values_offset = 0;
    tsval_companion_t m, s, st, h, d;
    tsval_encoding_t encoding = TSVAL_PLAIN;
    bool milliseconds = false;  // the second packed field is a subsecond, not an address
    uint32_t time_nbits = 0, addr_nbits = 0;
    uint32_t time_base = 0, addr_base = 0;
    uint32_t num_values = 0, num_preambles = 0;
    std::span<const uint8_t> memory;  // the whole values section when the caller has it in memory
    array_reader_t words;             // packed values from the file
    array_reader_t preambles;         // preambles from the file
    buffer<uint8_t> cache;            // plain values from the file
    uint64_t cache_entries = 0, cache_first = 0, cache_count = 0;
    st_query_info_t* stats = nullptr;
};

// Opens a reader of the values that `header` describes. `values_in_memory` is the whole values section, or null: then
// values are read from `fd` in pieces of `cache_bytes`. In memory the cache size is ignored. From a file, the plain
// encoding refuses a cache of 1 to 7 bytes (WARM_RC_INVALID_ARGUMENT) and with 0 opens but cannot decode
// (WARM_RC_UNSUPPORTED); packed encodings read at least a word at a time. WARM_RC_CORRUPT when the header's counts
// contradict each other. The companion arrays are absent until tsval_reader_set_companions. The header, the memory and
// the descriptor stay the caller's and must outlive the reader; a reader serves one thread.
[[nodiscard]] int tsval_reader_open_partial(tsval_reader_t* reader, int fd, const st_warm_slice_body* header,
                                            uint64_t cache_bytes, st_query_info_t* stats,
                                            const uint8_t* values_in_memory, warm_rc_t* rc);
// Gives an open reader the five companion arrays of a slice in memory, which begins with the reader's header and is
// known to reach past all five.
void tsval_reader_set_companions(tsval_reader_t* reader, const uint8_t* slice);

// Decodes value `id` with its companions. With `cache_only` nothing is read from the file: a miss is WARM_RC_NOT_FOUND
// (WARM_RC_UNSUPPORTED when the plain cache is empty). A non-zero `hint` is the value that the caller will want later:
// when it lies outside the piece that a miss would read, only what `id` needs is read. WARM_RC_CORRUPT for an id past
// the last value and for a companion entry past its array's stored size, else the status of the read or of the
// unpacker.
[[nodiscard]] int tsval_reader_decode(tsval_reader_t* reader, uint32_t id, st_tsval* out, bool cache_only,
                                      uint32_t hint, warm_rc_t* rc);
// The time alone: what binary searches over the values need. Errors as tsval_reader_decode without the companions.
[[nodiscard]] int tsval_reader_decode_time(tsval_reader_t* reader, uint32_t id, st_time_t* seconds,
                                           uint64_t* nanoseconds, warm_rc_t* rc);
// Preamble `id`: its time and address fields; the companions as if absent. WARM_RC_CORRUPT for an id past the last
// preamble.
[[nodiscard]] int tsval_reader_decode_preamble(tsval_reader_t* reader, uint32_t id, st_tsval* out, warm_rc_t* rc);
// Frees the caches; a reader that was never opened may be closed.
void tsval_reader_close(tsval_reader_t* reader);

// Packed writing. Writers put their values in id order straight into the values section of `fd`, buffered.

inline constexpr uint32_t TSVAL_WRITER_BUFFER = 4096;  // words, or preambles

struct tsval_preamble_writer_t {
    int fd = -1;
    uint64_t word_offset = 0;  // file position of the buffer's first preamble, in 8-byte units
    buffer<uint64_t> buf;
    uint32_t count = 0;
};
[[nodiscard]] int tsval_preamble_writer_open(tsval_preamble_writer_t* writer, int fd, const st_warm_slice_body* header,
                                             warm_rc_t* rc);
[[nodiscard]] int tsval_preamble_writer_put_preamble(tsval_preamble_writer_t* writer, uint32_t time, uint32_t address,
                                                     warm_rc_t* rc);
// WARM_RC_WRITE "tsval_preamble_writer_flush_buffer failed" when the file does not take all of it.
[[nodiscard]] int tsval_preamble_writer_flush_buffer(tsval_preamble_writer_t* writer, warm_rc_t* rc);
// Drops the buffer without writing it.
void tsval_preamble_writer_clear(tsval_preamble_writer_t* writer);
[[nodiscard]] int tsval_preamble_writer_close(tsval_preamble_writer_t* writer, warm_rc_t* rc);

struct tsval_writer_t {
    uint32_t time_nbits = 0, addr_nbits = 0;
    int32_t earliest = 0, latest = 0;
    bool milliseconds = false;                     // the second field is a subsecond, not an address
    uint32_t addr_min = 0, addr_max = UINT32_MAX;  // of the addresses, where the header tells them
    buffer<uint64_t> words;
    bitpack_writer_t bp;
    tsval_preamble_writer_t preambles;
    uint8_t* preamble_at = nullptr;  // in memory: where the next preamble goes
};
// Begins the values section of a packed slice whose header is complete. WARM_RC_INVALID_ARGUMENT "earliest > latest",
// WARM_RC_DOES_NOT_FIT when the packed section would pass 2^32 bits.
[[nodiscard]] int tsval_writer_open(int fd, tsval_writer_t* writer, const st_warm_slice_body* header, warm_rc_t* rc);
// The same; with a `section` that is not null the values go there and not into the file: the zeroed values section of a
// slice in memory, which outlives the writer.
[[nodiscard]] int tsval_writer_open_section(int fd, uint8_t* section, tsval_writer_t* writer,
                                            const st_warm_slice_body* header, warm_rc_t* rc);
// Appends one value. A slice with preambles stores the value's address, taken as nanoseconds, as milliseconds.
// WARM_RC_INVALID_ARGUMENT for a time or an address outside the header's ranges, WARM_RC_DOES_NOT_FIT for 1000
// milliseconds and more.
[[nodiscard]] int tsval_writer_put(tsval_writer_t* writer, const st_tsval* value, warm_rc_t* rc);
[[nodiscard]] int tsval_writer_put_preamble(tsval_writer_t* writer, uint32_t time, uint32_t address, warm_rc_t* rc);
// Writes the values that are buffered, then the preambles, and frees the values' buffer whatever the result: 0, or
// WARM_RC_WRITE of the write that failed, behind which nothing is written.
[[nodiscard]] int tsval_writer_close(tsval_writer_t* writer, warm_rc_t* rc);

}  // namespace veldar
