#include "searchthing/base/st_timeval.h"

#include <cerrno>
#include <cstdlib>
#include <limits>

#include "libzero/assertions.h"
#include "libzero/ospath-builder.h"

namespace veldar {

namespace {

constexpr uint64_t NS_PER_SECOND = 1000000000;
constexpr uint32_t FRACTION_DIGITS = 9;
static_assert(NS_PER_SECOND == uint64_t{1000} * NANOSECONDS_PER_MILLISECOND);
constexpr int64_t MIN_SECONDS = std::numeric_limits<st_time_t>::min();
constexpr int64_t MAX_SECONDS = std::numeric_limits<st_time_t>::max();

st_timeval_t clamped(int64_t seconds, uint64_t nanoseconds) {
    if (seconds < MIN_SECONDS) return {static_cast<st_time_t>(MIN_SECONDS), 0};
    if (seconds > MAX_SECONDS) return {static_cast<st_time_t>(MAX_SECONDS), NS_PER_SECOND - 1};
    return {static_cast<st_time_t>(seconds), nanoseconds};
}

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

uint64_t scale_to_nanoseconds(uint64_t fraction) {
    uint32_t digits = decimalCharactersU64(fraction);
    for (; digits > FRACTION_DIGITS; digits--) fraction /= 10;
    for (; digits < FRACTION_DIGITS; digits++) fraction *= 10;
    ST_ASSERT(fraction < NS_PER_SECOND);
    return fraction;
}

}  // namespace

int st_timeval_add(const st_timeval_t* a, const st_timeval_t* b, st_timeval_t* out) {
    const uint64_t nanoseconds = a->time_ns + b->time_ns;
    const int64_t seconds = int64_t{a->time_s} + b->time_s + (nanoseconds >= NS_PER_SECOND ? 1 : 0);
    *out = clamped(seconds, nanoseconds % NS_PER_SECOND);
    return out->time_s;
}

void st_timeval_subtract(const st_timeval_t* a, st_time_t seconds, uint64_t nanoseconds, st_timeval_t* out) {
    const bool borrow = a->time_ns < nanoseconds;
    const uint64_t rest = a->time_ns + (borrow ? NS_PER_SECOND : 0) - nanoseconds;
    *out = clamped(int64_t{a->time_s} - seconds - (borrow ? 1 : 0), rest);
}

void st_timeval_subtract_one(bool nanosecond, const st_timeval_t* a, st_timeval_t* out) {
    st_timeval_subtract(a, nanosecond ? 0 : 1, nanosecond ? 1 : 0, out);
}

int st_timeval_from_ospath(st_timeval_t* out, const char* text) {
    char* end = nullptr;
    const long seconds = std::strtol(text, &end, 10);
    if (errno == ERANGE || end == text || seconds < MIN_SECONDS || seconds > MAX_SECONDS) return 0;
    uint64_t nanoseconds = 0;
    if (*end != '\0') {
        if (*end != '.' || !is_digit(end[1])) return 0;
        const unsigned long long fraction = std::strtoull(end + 1, &end, 10);
        if (errno == ERANGE || *end != '\0') return 0;
        nanoseconds = scale_to_nanoseconds(fraction);
    }
    *out = {static_cast<st_time_t>(seconds), nanoseconds};
    return 1;
}

uint32_t st_timeval_compute_range_over_span(const st_timeval_t* earliest, const st_timeval_t* latest,
                                            const st_timeval_t* span) {
    ST_ASSERT(span->time_s != 0 || span->time_ns != 0);
    st_timeval_t range;
    st_timeval_subtract(latest, earliest->time_s, earliest->time_ns, &range);
    if (span->time_s != 0) return static_cast<uint32_t>(int64_t{range.time_s} / span->time_s + 1);
    const uint32_t spans_per_second = static_cast<uint32_t>(NS_PER_SECOND / span->time_ns);
    const uint32_t spans_in_rest = static_cast<uint32_t>(range.time_ns / span->time_ns);
    return static_cast<uint32_t>(range.time_s) * spans_per_second + spans_in_rest + 1;
}

}  // namespace veldar
