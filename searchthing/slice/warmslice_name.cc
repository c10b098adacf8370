// Names of new warm slice files.
#include <unistd.h>

#include <cstring>

#include "libzero/assertions.h"
#include "libzero/osfile.h"
#include "libzero/ospath-builder.h"
#include "searchthing/slice/warmslice.h"

namespace veldar {

namespace {

void append_i32(ospath_builder* b, int32_t value) {
    char digits[16];
    ospath_builder_appendn(b, digits, convertI32ToAscii(digits, value));
}

}  // namespace

uint64_t st_warm_slice_unique_id(xorshift128plus_state* rng) {
    portable_timeval now;
    portable_timeval_now(&now);
    const uint64_t microseconds = static_cast<uint64_t>(now.seconds * 1000000 + now.microseconds);
    const uint64_t process = static_cast<uint64_t>(::getpid()) % 65535;
    return microseconds << 32 | process << 16 | (xorshift128plus_next(rng) & 0xFFFF);
}

int st_warm_slice_filename(ospath_buf* out, const char* prefix, const char* suffix, st_time_t earliest,
                           st_time_t latest, uint64_t id) {
    ST_ASSERT(prefix != nullptr);
    size_t length = std::strlen(prefix);
    if (length == 0) return WARM_RC_INVALID_ARGUMENT;
    if (prefix[length - 1] == '/') length--;
    ospath_builder b;
    ospath_builder_start(&b);
    ospath_builder_appendn(&b, prefix, length);
    ospath_builder_append_sep(&b);
    append_i32(&b, latest);
    ospath_builder_append1(&b, '-');
    append_i32(&b, earliest);
    ospath_builder_append1(&b, '-');
    ospath_builder_append_decimal_u64(&b, id);
    ospath_builder_appendz(&b, suffix);
    if (ospath_builder_finish(&b) != 0) return WARM_RC_PATH_TOO_LONG;
    return ospath_buf_set(out, b.buf.val);
}

int st_warm_slice_filename_from_time(ospath_buf* out, const char* prefix, const char* suffix, st_time_t earliest,
                                     st_time_t latest, xorshift128plus_state* rng) {
    return st_warm_slice_filename(out, prefix, suffix, earliest, latest, st_warm_slice_unique_id(rng));
}

}  // namespace veldar
