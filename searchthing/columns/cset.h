// A column set: the values of one measure in a slice, by value number. Values that carry a measure lie together, so a
// set knows its value numbers as runs of consecutive numbers. An element's place among all of the set, in the order of
// value numbers, is its ordinal.
//
// Little-endian, offsets from the set's start, which is a multiple of 8 in the section:
//
//   offset  size  field
//   0       4     magic "CST2"
//   4       1     element type: 1 = double
//   5       1     b1: bits of a run's first value number
//   6       1     b2: bits of a run's first ordinal
//   7       1     zero
//   8       4     n: elements
//   12      4     nb: blocks
//   16      4     nr: runs
//   20      4     bytes of the block heads and what fills them up
//   24      4     zero
//   28      4     XXH32 of the run table and the block heads, with the XXH32 of bytes 0 to 27 as seed
//   32            run table: nr x b1 bits, then nr x b2 bits, each a packed array (bitpack.h) of whole words
//                 heads of the blocks (cset_codec.h), in order, without gaps; then as few zeros as make the set a
//                 multiple of 8
//                 data of the blocks, in order, without gaps, to the end of the set
//
// In a section of version 1 the magic is "CST1", bytes 5 to 7 are zero, b1 and b2 stand at 20 and 21, zeros at 22 and
// 23, the bytes of all data in 8-byte units at 24, and the run table is followed by nb x 40 bytes of block headers
// (cset_block1.h) and the data.
//
//   Elements of values 7, 8, 9 and 12 are two runs: first value numbers 7 and 12 in 4 bits, ordinals 0 and 3 in 2 bits.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "libzero/resource.h"
#include "searchthing/base/query_info.h"
#include "searchthing/base/warm_rc.h"
#include "searchthing/columns/cset_codec.h"

namespace veldar {

struct cs_reader_t;

inline constexpr uint32_t CSET_END = 0xFFFFFFFF;  // no value has this number

struct cset_run_t {
    uint32_t first_value;
    uint32_t first_ordinal;
};

// Collects the elements of one set and encodes them a block at a time. The functions throw std::bad_alloc: they serve
// the builder of the section alone.
struct cset_writer_t {
    uint32_t term_id = 0;
    uint32_t elements = 0;
    uint64_t next_value = 0;      // the last value number + 1
    std::vector<double> pending;  // of the block that is not full yet
    std::vector<cset_run_t> runs;
    uint32_t blocks = 0;         // encoded
    std::vector<uint8_t> heads;  // of the encoded blocks
    std::vector<uint8_t> data;
    std::vector<uint8_t> head;  // after finish: all that precedes the data
};
// Appends the element of a value whose number is not below next_value (asserted). At `set_changed` a block of 256
// elements or more ends before this one, so that the numbers kept for a block are mostly those of one dimension set.
void cset_writer_add(cset_writer_t* writer, uint32_t value_no, bool set_changed, double value);
// Encodes what is pending and makes the head. Returns the bytes of the whole set, a multiple of 8.
uint64_t cset_writer_finish(cset_writer_t* writer);

// Where a block lies, and what its head says.
struct cset_place_t {
    cset_block_t block;
    uint8_t version = 0;
    uint8_t width = 0;  // these two in version 1
    uint16_t exceptions = 0;
    uint32_t first_ordinal = 0;
    uint64_t data_offset = 0;  // in the set's data
};

// What a set's head, run table and block heads say.
struct cset_tables_t {
    uint32_t elements = 0;
    uint64_t data_offset = 0;  // in the file
    uint64_t data_size = 0;
    buffer<cset_run_t> runs;  // ascending; an ordinal tells where the run before ends
    buffer<cset_place_t> blocks;
    uint64_t size() const { return runs.size() * sizeof(cset_run_t) + blocks.size() * sizeof(cset_place_t); }
};

// Reads one set. Used by one thread at a time, while the section's reader is open.
struct cset_reader_t {
    const cs_reader_t* section = nullptr;         // not owned; null when closed
    st_query_info_t* stats = nullptr;             // accounts the reads; may be null
    std::shared_ptr<const cset_tables_t> tables;  // the next five show it
    uint32_t elements = 0;
    uint64_t data_offset = 0;
    uint64_t data_size = 0;
    std::span<const cset_run_t> runs;
    std::span<const cset_place_t> blocks;
    uint32_t block_first = 0;  // its first ordinal
    uint32_t block_count = 0;
    buffer<double> values;   // its elements
    buffer<uint8_t> window;  // bytes of the data from window_offset on
    uint64_t window_offset = 0;
    uint64_t window_size = 0;
    uint64_t read_size = 0;  // of the last read, doubled while reads follow one another
    uint32_t run = 0;        // of the last look-up
    uint32_t next_run = 0;   // of the element that cset_reader_next gives next
    uint32_t ordinal = 0;    // of that element
    uint32_t run_end = 0;    // the ordinal behind that run; 0 before the first element
    uint32_t to_value = 0;   // what an ordinal of that run is short of its value number
};
// Opens the set of a measure's term number: 0; WARM_RC_NOT_FOUND "metric tid is not found in cstore"; the status of a
// read "cset_reader_open: columnset header failed"; WARM_RC_CORRUPT "columnset header is corrupted" or "element_type is
// unsupported/corrupted"; WARM_RC_NO_MEMORY "ar_open: block headers memory alloc failed". Reads the run table and the
// block heads, unless the section's reader remembers them.
[[nodiscard]] int cset_reader_open(cset_reader_t* reader, const cs_reader_t* section, uint32_t term_id,
                                   st_query_info_t* stats, warm_rc_t* rc);
// The functions below report a read of data that failed by its status, damaged data as WARM_RC_CORRUPT "columnset data
// are corrupted", both with the block's number, and a value number that is none of the slice (a preamble, or past the
// last) as WARM_RC_CORRUPT "invalid tsval_id range" with that number.

// The measure of one value. A value without it is no failure: `present` is false and `v` is 0.
[[nodiscard]] int cset_reader_get(cset_reader_t* reader, uint32_t value_no, double* v, bool* present, warm_rc_t* rc);
// The measures of values first to first + n - 1: out[i] and present[i] (0 or 1) of value first + i, 0 where there is
// none. Both arrays have room for n entries.
[[nodiscard]] int cset_reader_range(cset_reader_t* reader, uint32_t first, uint32_t n, double* out, uint8_t* present,
                                    warm_rc_t* rc);
// Numbers of the measures of values first to first + n - 1. Blocks that lie in the range as a whole and hold no NaN are
// not read; the sum adds the sums of such blocks, so it may differ in the last digits from one made element by element.
[[nodiscard]] int cset_reader_stats(cset_reader_t* reader, uint32_t first, uint32_t n, cs_stats_t* out, warm_rc_t* rc);
// The elements in the order of value numbers, each once since the set was opened; CSET_END after the last.
[[nodiscard]] int cset_reader_next(cset_reader_t* reader, uint32_t* value_no, double* v, warm_rc_t* rc);
// Frees what the reader holds; nothing on a closed one.
void cset_reader_close(cset_reader_t* reader);

// Decodes every block and compares the numbers in its header with its elements: 0 or a failure as above.
[[nodiscard]] int cset_reader_verify(cset_reader_t* reader, warm_rc_t* rc);

}  // namespace veldar
