// One block of a column set: 1 to 512 doubles, kept bit for bit. (Stores of version 1: cset_block1.h.)
//
// The heads of a column set's blocks lie together, apart from the data. A varint is seven bits a byte, the low ones
// first, the top bit set in all bytes but the last; a signed one counts 0, -1, 1, -2, ...
//
//   head         size    field
//   codec        1       bits 0 to 2 the codec below; bits 3 to 7 e: decimals, 0 to 22; of BITS half of its shift
//   flags        1       bits 0 to 2 r: 0 to 4; 3, 4, 5: minimum, maximum, sum are f64; 6: residuals of minimum and
//                        maximum; 7: exceptions, of BITS: the shift is odd
//   count        varint  n: 1 to 512
//   data_size    varint  bytes of the block's data; they follow those of the block before
//   base         f64 of CONST; 8 bytes of BITS; signed varint of DECIMAL and DELTA; nothing of RAW
//   low          signed varint of DELTA
//   residuals    1       with flag 6: 8 + residual, of the minimum in bits 0 to 3, of the maximum in bits 4 to 7
//   minimum      of the elements that are numbers: f64, or a signed varint, k - base; +infinity when there are none
//   maximum      likewise; -infinity when there are none
//   sum          of the elements: f64, or a signed varint k; NaN when any element is NaN, and then says nothing. It may
//                differ in the last digits from one made element by element.
//
// CONST has no minimum, maximum and sum (they follow from n and base), and no data.
//
//   codec      data, ended by the XXH32 of the bytes before it (4 bytes)
//   1 RAW      n x f64
//   2 DECIMAL  corrections, heads of groups of n numbers; their packed arrays; exceptions
//   3 DELTA    the same with n - 1 numbers
//   4 BITS     heads of groups of n numbers; their packed arrays
//
// The first part is a stream of bits (bit k is bit k % 8 of byte k / 8) that ends with a whole byte:
//
//   corrections  with flag 7:  10 bits x: exceptions, 1 to n
//                if r > 0:     1 bit; 1: n x 1 bit, set for an element with a residual; r bits for each such element
//                                     0: 10 bits m; m x 9 bits, elements with a residual, ascending; m x r bits
//   groups       see cset_groups.h
//   exceptions   x times {u16 index, f64 value}, ascending
//
// DECIMAL: k = base + number. DELTA: the first k is base, each further one the k before + low + number. An element is
// k / 10^e, rounded to a double, then moved by its residual in units in the last place. The r bits tell -2^(r-1) to -1,
// then 1 to 2^(r-1). Sums like 51.8 + 0.046 are what most series are made of: decimal numbers of few digits, some off by
// a unit. Elements that are no such number (NaN, infinities, -0.0) are exceptions, with any number. BITS: the bits of
// the double are base + number x 2^shift; suits noise, numbers that were floats once, multiples of a page.
//
//   51.846000000000004 and 44.508: e = 3, base = 44508, numbers 7338 and 0, residuals 1 and 0.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace veldar {

inline constexpr uint32_t CSET_BLOCK_ELEMENTS = 512;
inline constexpr uint64_t CSET_CHECKSUM_SIZE = 4;
// No data are longer: RAW.
inline constexpr uint64_t CSET_BLOCK_MAX_SIZE = CSET_BLOCK_ELEMENTS * sizeof(double) + CSET_CHECKSUM_SIZE;
inline constexpr size_t CSET_SLACK = 8;
inline constexpr uint64_t CSET_HEAD_MIN_SIZE = 8;
inline constexpr uint64_t CSET_HEAD_MAX_SIZE = 2 + 2 + 2 + 2 * 10 + 1 + 3 * 10;

enum cset_codec_t : uint8_t { CSET_CONST = 0, CSET_RAW = 1, CSET_DECIMAL = 2, CSET_DELTA = 3, CSET_BITS = 4 };

struct cset_block_t {  // what a head says
    uint16_t count;
    uint8_t codec;
    uint8_t exponent;  // of BITS the shift, 0 to 63
    uint8_t residual_bits;
    bool has_exceptions;
    uint32_t data_size;
    uint64_t base;
    uint64_t low;
    double minimum;
    double maximum;
    double sum;
};

// Numbers of a stretch of elements. NaN elements are counted apart and part of nothing else.
struct cs_stats_t {
    uint64_t count;  // elements that are numbers, infinities among them
    uint64_t nans;
    double min;  // +infinity for no number
    double max;  // -infinity for no number
    double sum;
};
// What no element gives.
cs_stats_t cs_stats_none();
// Adds elements, one after the other.
void cs_stats_add(cs_stats_t* stats, std::span<const double> values);
// Adds elements; the sum may differ in the last digits from that of cs_stats_add.
void cs_stats_add_fast(cs_stats_t* stats, std::span<const double> values);

// Encodes 1 to 512 elements (asserted) into `data` of CSET_BLOCK_MAX_SIZE bytes, in the smallest of the forms tried.
// Returns the bytes used, which are block->data_size. The same elements give the same bytes.
uint64_t cset_block_encode(std::span<const double> values, cset_block_t* block, uint8_t* data);

// Writes a block's head into room for CSET_HEAD_MAX_SIZE bytes and returns how many it took.
size_t cset_head_put(const cset_block_t* block, uint8_t* out);
// Reads the head at the beginning of `bytes`, and how long it is. False for one that says something impossible.
[[nodiscard]] bool cset_head_get(std::span<const uint8_t> bytes, cset_block_t* block, size_t* size);

// Decodes a block from its data, which are data_size bytes (asserted); CSET_SLACK bytes behind them can be read but say
// nothing. `values` has room for `count` elements. False, with any content of `values`, when the data are damaged.
[[nodiscard]] bool cset_block_decode(const cset_block_t* block, std::span<const uint8_t> data, double* values);

}  // namespace veldar
