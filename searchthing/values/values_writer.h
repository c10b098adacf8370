// Writes the values section and the companion arrays of a slice, into a file or into the slice in memory, and decides
// how wide the arrays are.
#pragma once

#include <cstdint>

#include "libzero/resource.h"
#include "searchthing/base/bitpack.h"
#include "searchthing/base/packed_array.h"
#include "searchthing/values/tsval.h"

namespace veldar {

// What all values of a slice have in common.
struct value_ranges_t {
    uint32_t measure = 0, s = 0, st = 0, h = 0;  // the largest; s without that of deleted events
    uint32_t address_min = UINT32_MAX, address_max = 0;

    void add(const st_tsval& value);
};

struct companion_widths_t {
    uint32_t m, s, st, h;
};
companion_widths_t values_companion_widths(const value_ranges_t& ranges);

// Sets the size and the width of a companion array in a header: 0, or WARM_RC_DOES_NOT_FIT for an array of more than
// 2^32 bits.
[[nodiscard]] int warm_slice_set_companion(be32* size_field, be32* nbits_field, uint32_t num_values, uint32_t nbits,
                                           warm_rc_t* rc);
// Sets the number of values and all five companion arrays.
[[nodiscard]] int values_set_header(st_warm_slice_body* header, uint32_t num_values, const companion_widths_t& widths,
                                    warm_rc_t* rc);

struct values_writer_t {
    tsval_encoding_t encoding = TSVAL_PLAIN;
    tsval_writer_t packed;
    array_writer_t plain;         // plain values to a file
    uint8_t* plain_at = nullptr;  // plain values in memory: where the next one goes
    buffer<uint64_t> words;       // of the companions on their way to a file
    struct {
        bitpack_writer_t bits;
        uint32_t nbits;
    } companions[5] = {};  // m, s, st, h, d
};

// Begins the sections that a complete header describes: in the zeroed slice in memory that begins at `slice`, or with a
// null slice in the file. WARM_RC_INVALID_ARGUMENT "earliest > latest", WARM_RC_DOES_NOT_FIT for packed values that do
// not fit.
[[nodiscard]] int values_writer_open(values_writer_t* writer, const st_warm_slice_body* header, int fd, uint8_t* slice,
                                     warm_rc_t* rc);
// Appends a value; in a slice with preambles its address is taken as nanoseconds. An s of all-ones sets the value's d
// bit, but in slices with preambles, which have no deletes, becomes 0. WARM_RC_WRITE, and as tsval_writer_put.
[[nodiscard]] int values_writer_put(values_writer_t* writer, const st_tsval& value, warm_rc_t* rc);
// Appends a preamble: its run begins with value `first` and has `count` values.
[[nodiscard]] int values_writer_put_preamble(values_writer_t* writer, uint32_t first, uint32_t count, warm_rc_t* rc);
[[nodiscard]] int values_writer_close(values_writer_t* writer, warm_rc_t* rc);

}  // namespace veldar
