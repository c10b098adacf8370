// Term metadata: per term the event count and the earliest and latest time, in term order.
//
//   type  name             entry of term i
//   0     META_COUNT_ONLY  4 bytes at 4 x i: count, big-endian
//   1     META_FULL        12 bytes at 12 x i: count, earliest, latest, each 4 bytes big-endian
//   2     META_PACKED      C + 2T bits at bit (C + 2T) x i of a packed stream: count in C bits, earliest - E in T bits,
//                          latest - E in T bits
//
// C is the bit length of the header's num_values, T that of its latest - earliest, E its earliest. Where the section
// lies and which magic has which type: warmslice_header.h.
#pragma once

#include <cstdint>

#include "libzero/resource.h"
#include "searchthing/base/bitpack.h"
#include "searchthing/base/packed_array.h"
#include "searchthing/base/query_info.h"
#include "searchthing/base/warm_rc.h"
#include "searchthing/format/warmslice_header.h"

namespace veldar {

struct st_term_metadata {
    uint32_t count;
    uint32_t earliest;  // seconds, compared as signed
    uint32_t latest;
};

struct term_meta_reader_t {
    uint32_t _mtype = 0;
    array_reader_t ar;
    const uint8_t* entries = nullptr;  // in-memory 12-byte big-endian entries (type 1); not owned
    uint32_t num_terms = 0;
    uint32_t count_nbits = 0, time_nbits = 0;  // C, T
    uint32_t time_offset = 0;                  // E
    uint32_t next = 0;                         // the term that term_meta_reader_next reads
    st_term_metadata current = {};
    bool opened = false;
};
// Opens the section of the file, or the section in memory at `entries` when that is not null (not owned, outlives the
// reader, whole). With `sequential` set a read takes about 4 KB, else one entry; the byte-coded counts of type 0 are
// read at random only (WARM_RC_CORRUPT otherwise). WARM_RC_DOES_NOT_FIT when the section has more words than an array
// reader can count. A reader that failed to open holds nothing.
[[nodiscard]] int term_meta_reader_open(term_meta_reader_t* reader, int fd, const uint8_t* entries,
                                        const st_warm_slice_body* header, bool sequential, st_query_info_t* stats,
                                        warm_rc_t* rc);
// The record of term `next`, which advances: the reader's own storage, valid until the next call. Null:
// WARM_RC_CAPACITY past the last term, or the failure of a read. Type 0 leaves the two times as they were.
const st_term_metadata* term_meta_reader_next(term_meta_reader_t* reader, warm_rc_t* rc);
// Makes `term` the next one. A reader that is led forward in small steps reads ahead from then on; one that is led
// anywhere else reads single entries.
void term_meta_reader_seek(term_meta_reader_t* reader, uint32_t term);
// 0; does nothing to a reader that was never opened.
int term_meta_reader_close(term_meta_reader_t* reader);

struct term_meta_writer_t {
    uint32_t mtype = 0;
    uint32_t count_nbits = 0, time_nbits = 0;
    uint32_t time_offset = 0;
    bool buffer_mode = false;
    int fd = -1;  // not owned
    bitpack_writer_t bp;
    buffer<uint64_t> words;
    array_writer_t aw;
    uint8_t* out = nullptr;  // buffer mode: the caller's
    uint64_t capacity = 0;   // buffer mode: size / 8
    uint64_t cursor = 0;     // buffer mode, types 0 and 1: entries written
};
// Writes the section of the file from its start. WARM_RC_INVALID_ARGUMENT for a bad descriptor.
[[nodiscard]] int term_meta_writer_open(term_meta_writer_t* writer, int fd, const st_warm_slice_body* header,
                                        warm_rc_t* rc);
// Fills a buffer instead, which must be aligned to 8 (asserted for type 2) and is zeroed for type 2. It holds size / 8
// words of type 2, or size / 8 entries of types 0 and 1, which take 12 bytes each: a caller that appends that many must
// own 12 bytes for each, whatever `size` says.
void term_meta_writer_open_buffer_mode(term_meta_writer_t* writer, const st_warm_slice_body* header, void* out,
                                       uint64_t size);
// Appends the next term's record. Type 2 refuses what its fields cannot hold and writes nothing then:
// WARM_RC_INVALID_ARGUMENT for a time below E, WARM_RC_DOES_NOT_FIT for a count or time too large. WARM_RC_WRITE, or
// WARM_RC_CAPACITY for a full buffer.
[[nodiscard]] int term_meta_writer_append(term_meta_writer_t* writer, const st_term_metadata* record, warm_rc_t* rc);
// Writes what is buffered and resets the writer, whatever the result: 0 or WARM_RC_WRITE.
[[nodiscard]] int term_meta_writer_close(term_meta_writer_t* writer, warm_rc_t* rc);

}  // namespace veldar
