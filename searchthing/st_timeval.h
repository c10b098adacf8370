// The engine's time value and its arithmetic.
#pragma once

#include <cstdint>
#include <string_view>

namespace veldar {

using st_time_t = int32_t;               // seconds since the epoch
using st_encoded_subsecond_t = uint64_t;

struct st_timeval_t {
    st_time_t time_s = 0;
    uint64_t time_ns = 0;  // normally below 1000000000
};

static_assert(sizeof(st_timeval_t) == 16);

int st_timeval_add(const st_timeval_t* a, const st_timeval_t* b, st_timeval_t* out);
void st_timeval_subtract(const st_timeval_t* a, st_time_t seconds, uint64_t nanoseconds, st_timeval_t* out);
void st_timeval_subtract_one(bool nanosecond, const st_timeval_t* a, st_timeval_t* out);
int st_timeval_from_ospath(st_timeval_t* out, const char* text);
uint32_t st_timeval_compute_range_over_span(const st_timeval_t* earliest, const st_timeval_t* latest,
                                            const st_timeval_t* span);

}  // namespace veldar
