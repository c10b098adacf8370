// The record of an event: its value.
#pragma once

#include <cstddef>
#include <cstdint>

#include "searchthing/base/st_timeval.h"

namespace veldar {

using st_addr_t = uint32_t;
using st_multikv_seek_addr_t = double;
using st_measure_t = double;
using st_source_t = uint32_t;
using st_src_type_t = uint32_t;
using st_host_t = uint32_t;

inline constexpr uint32_t ST_DELETED_SOURCE = 0xFFFFFFFF;  // s of a deleted event

struct st_tsval {
    st_time_t time;     // seconds
    st_addr_t address;  // of the raw event; nanoseconds in slices with preambles
    union {
        double measure;
        struct {
            uint32_t measures;
            uint32_t first_measure;
        };
    };
    st_source_t s;
    st_src_type_t st;
    st_host_t h;
    uint32_t pad;
    uint64_t subsecond;  // nanoseconds in slices with preambles, else 0
};
static_assert(sizeof(st_tsval) == 40 && offsetof(st_tsval, s) == 16 && offsetof(st_tsval, subsecond) == 32);

struct st_tsval_encoded {  // the first eight bytes of a value: its key
    st_time_t time;
    st_addr_t address;
};

// Milliseconds, 0 to 999, of a decimal fraction encoded as ((2d + 1) << z): z leading zeros, then the digits of d. 0
// and powers of two stand for no fraction. "5" is 11 and gives 500, "05" is 22 and gives 50.
uint32_t tsval_decode_subsecond_to_millisecond(st_encoded_subsecond_t encoded);
// The fraction of 0 to 999 milliseconds in that encoding; 0 for 0.
st_encoded_subsecond_t tsval_encode_milliseconds(uint32_t milliseconds);
// A measure as the integer that the m array holds: NaN and negatives 0, at most 2^31 - 1.
uint32_t tsval_clamp_measure(double measure);

}  // namespace veldar
