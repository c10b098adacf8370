#include "libzero/xorshift128plus.h"

#include <sys/prctl.h>
#include <sys/time.h>
#include <unistd.h>

#if defined(__x86_64__)
#include <x86intrin.h>
#endif

#include <atomic>
#include <bit>
#include <cerrno>
#include <cstring>
#include <limits>

#include "libzero/endian.h"

namespace veldar {

namespace {

enum tsc_permission : uint32_t { TSC_UNKNOWN = 0, TSC_READABLE = 1, TSC_FORBIDDEN = 2 };

// Racing first users all ask the kernel and store the same answer.
std::atomic<uint32_t> tsc_cache{TSC_UNKNOWN};

uint32_t ask_tsc_permission() {
    int mode = 0;
    return ::prctl(PR_GET_TSC, &mode) == 0 && mode == PR_TSC_SIGSEGV ? TSC_FORBIDDEN : TSC_READABLE;
}

uint64_t time_stamp_counter() {
#if defined(__x86_64__)
    uint32_t permission = tsc_cache.load(std::memory_order_relaxed);
    if (permission == TSC_UNKNOWN) {
        permission = ask_tsc_permission();
        tsc_cache.store(permission, std::memory_order_relaxed);
    }
    return permission == TSC_READABLE ? __rdtsc() : 0;
#else
    return 0;
#endif
}

uint64_t mix(uint64_t z) {
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9;
    z = (z ^ (z >> 27)) * 0x94d049bb133111eb;
    return z ^ (z >> 31);
}

struct entropy {
    uint64_t x;
    uint64_t y;
};

entropy sample_entropy() {
    const uint64_t counter = time_stamp_counter();
    struct timeval now = {};
    ::gettimeofday(&now, nullptr);
    const uint64_t seconds = __builtin_bswap64(static_cast<uint64_t>(now.tv_sec));
    const uint64_t microseconds = static_cast<uint64_t>(now.tv_usec);
    return {mix(counter - seconds), mix(microseconds + __builtin_bswap64(counter))};
}

uint64_t reversed_pid() {
    return __builtin_bswap64(static_cast<uint64_t>(::getpid()));
}
uint64_t address_of(const void* object) {
    return reinterpret_cast<uintptr_t>(object);
}

}  // namespace

void xorshift128plus_init(xorshift128plus_state* state) {
    const entropy e = sample_entropy();
    state->s0 = e.x ^ reversed_pid() ^ (address_of(&errno) >> 2) ^ 0x9b391dc19a7337cd;
    state->s1 = e.y ^ address_of(state) ^ 0x273b2dbaf60df78b;
}

void xorshift128plus_init_with_seed(xorshift128plus_state* state, uint64_t seed) {
    state->s0 = mix(seed);
    uint64_t z = (seed ^ (seed >> 31)) * 0x7fb5d329728ea185;
    z = (z ^ (z >> 27)) * 0x81dadef4bc2dd44d;
    state->s1 = z ^ (z >> 33);
}

void xorshift128plus_init_with_mixers(xorshift128plus_state* state, uint64_t m0, uint64_t m1) {
    const entropy e = sample_entropy();
    state->s0 = m0 ^ e.x;
    state->s1 = e.y ^ m1;
}

void xorshift128plus_mix_in_initial_seed(xorshift128plus_state* state) {
    const entropy e = sample_entropy();
    const uint64_t o0 = state->s0;
    const uint64_t o1 = state->s1;
    state->s0 = e.x ^ ((reversed_pid() ^ (address_of(&errno) >> 2)) + o1);
    state->s1 = o0 ^ e.y;
}

uint64_t xorshift128plus_next(xorshift128plus_state* state) {
    uint64_t a = state->s0;
    const uint64_t b = state->s1;
    a ^= a << 23;
    state->s0 = b;
    state->s1 = a ^ b ^ (a >> 17) ^ (b >> 26);
    return state->s1 + b;
}

double xorshift128plus_get_ratio(xorshift128plus_state* state) {
    static_assert(std::numeric_limits<double>::is_iec559 && std::numeric_limits<double>::digits == 52 + 1);
    const uint64_t fraction = xorshift128plus_next(state) & ((uint64_t{1} << 52) - 1);
    return std::bit_cast<double>(uint64_t{0x3ff0000000000000} | fraction) - 1.0;
}

void xorshift128plus_fill_memory(xorshift128plus_state* state, void* out, size_t size) {
    uint8_t* at = static_cast<uint8_t*>(out);
    while (size != 0) {
        uint8_t bytes[8];
        store_le64(bytes, xorshift128plus_next(state));
        const size_t count = size < sizeof bytes ? size : sizeof bytes;
        std::memcpy(at, bytes, count);
        at += count;
        size -= count;
    }
}

}  // namespace veldar
