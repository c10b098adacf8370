// Parses parameter files. A text that is refused leaves the limits alone; limits that were read survive being written
// and read again, and come out of the clamps within their ranges.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "searchthing/directory/tsidx_params.h"

using namespace veldar;

namespace {

bool same(const tsidx_limits_t& a, const tsidx_limits_t& b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const tsidx_limits_t before = tsidx_default_limits(false);
    tsidx_limits_t limits = before;
    if (!deserialize_params({reinterpret_cast<const char*>(data), size}, &limits)) {
        if (!same(limits, before)) std::abort();
        return 0;
    }
    tsidx_limits_t again = before;
    if (!deserialize_params(serialize_params(limits, 7).text, &again) || !same(limits, again)) std::abort();
    const tsidx_limits_t clamped = tsidx_clamp_limits(limits);
    if (clamped.max_terms < 257 || clamped.max_terms > uint64_t{1} << 26) std::abort();
    if (clamped.max_values < 1024 || clamped.max_values > uint64_t{1} << 28) std::abort();
    return 0;
}
