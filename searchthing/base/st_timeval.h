// The engine's time value and its arithmetic.
#pragma once

#include <cstdint>

#include "searchthing/base/language.h"

namespace veldar {

using st_time_t = int32_t;  // seconds since the epoch
using st_encoded_subsecond_t = uint64_t;

inline constexpr uint32_t NANOSECONDS_PER_MILLISECOND = 1000000;

struct st_timeval_t {
    st_time_t time_s = 0;
    uint64_t time_ns = 0;  // normally below 1000000000
    bool operator==(const st_timeval_t&) const = default;
};

static_assert(sizeof(st_timeval_t) == 16);

// The arithmetic never wraps: a sum or difference that 32-bit seconds cannot hold becomes (INT32_MAX, 999999999) or
// (INT32_MIN, 0). `out` may be an argument as well.

// a + b; a nanosecond sum above 999999999 carries one second. Returns the seconds.
int st_timeval_add(const st_timeval_t* a, const st_timeval_t* b, st_timeval_t* out);
// a minus an amount, borrowing one second when a's nanoseconds are fewer.
void st_timeval_subtract(const st_timeval_t* a, st_time_t seconds, uint64_t nanoseconds, st_timeval_t* out);
// a minus one nanosecond, or minus one second when the flag is false.
void st_timeval_subtract_one(bool nanosecond, const st_timeval_t* a, st_timeval_t* out);

// Parses "seconds" or "seconds.fraction" from a component of a file name; 1, or 0 with `out` unchanged. The fraction is
// scaled from its value to 9 digits, so that its leading zeros are lost: "5.05" is the same time as "5.5". A range
// error that stands in errno already fails the parse, so callers clear errno first.
[[nodiscard]] int st_timeval_from_ospath(st_timeval_t* out, const char* text);

// The number of spans in a range: (latest - earliest) / span + 1, where a span of whole seconds divides the seconds
// alone. The span is not zero.
uint32_t st_timeval_compute_range_over_span(const st_timeval_t* earliest, const st_timeval_t* latest,
                                            const st_timeval_t* span);

}  // namespace veldar
