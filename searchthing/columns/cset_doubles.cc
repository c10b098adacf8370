#include "searchthing/columns/cset_doubles.h"

#include <bit>
#include <cstring>

#include "searchthing/columns/cset_codec_internal.h"

#ifdef __x86_64__
#include <immintrin.h>
#endif

namespace veldar {

namespace {

// Integers of up to 51 bits become doubles by their place in the fraction of 1.5 x 2^52, which vectors without a
// conversion of 64-bit integers can do as well.
constexpr double SHIFTED = 0x1.8p52;
constexpr uint64_t HALF = uint64_t{1} << 51;

double divided(uint64_t k, double divisor) {
    return static_cast<double>(static_cast<int64_t>(k)) / divisor;
}

template <bool IS_DELTA>
void one_by_one(const uint64_t* k, uint32_t count, double divisor, double* out) {
    uint64_t at = 0;
    for (uint32_t i = 0; i < count; i++) {
        at = IS_DELTA ? at + k[i] : k[i];
        out[i] = divided(at, divisor);
    }
}

// Numbers from k on as a vector, and what passes 51 bits of them in `large`. `at` is the k before.
template <bool IS_DELTA, typename words, typename doubles>
inline __attribute__((always_inline)) void load(const uint64_t* k, uint64_t* at, words* large, doubles* numbers) {
    constexpr size_t LANES = sizeof(words) / sizeof(uint64_t);
    uint64_t sums[LANES];
    if (IS_DELTA) {
        for (size_t lane = 0; lane < LANES; lane++) sums[lane] = *at += k[lane];
    }
    words bits;
    std::memcpy(&bits, IS_DELTA ? sums : k, sizeof bits);
    *large |= (bits + HALF) >> 52;
    bits += std::bit_cast<uint64_t>(SHIFTED);
    std::memcpy(numbers, &bits, sizeof *numbers);
    *numbers -= SHIFTED;
}

template <bool IS_DELTA>
void in_pairs(const uint64_t* k, uint32_t count, double divisor, double* out) {
    using words = uint64_t __attribute__((vector_size(16)));
    using doubles = double __attribute__((vector_size(16)));
    words large = {};
    uint64_t at = 0;
    uint32_t i = 0;
    for (; i + 2 <= count; i += 2) {
        doubles numbers;
        load<IS_DELTA>(k + i, &at, &large, &numbers);
        numbers /= divisor;
        std::memcpy(out + i, &numbers, sizeof numbers);
    }
    if ((large[0] | large[1]) != 0) return one_by_one<IS_DELTA>(k, count, divisor, out);
    if (i < count) out[i] = divided(IS_DELTA ? at + k[i] : k[i], divisor);
}

#ifdef __x86_64__
// A product with the reciprocal is off by less than two units in the last place; each step behind it adds what is left
// of the dividend, times the reciprocal. The first one makes it one of the two doubles around the quotient, the second
// the nearest one (Markstein: Computation of Elementary Functions on the IBM RISC System/6000 Processor, 1990).
template <bool IS_DELTA>
__attribute__((target("avx2,fma"))) void in_fours(const uint64_t* k, uint32_t count, double divisor, double* out) {
    const __m256d divisors = _mm256_set1_pd(divisor), reciprocals = _mm256_set1_pd(1 / divisor);
    const __m256d shifted = _mm256_set1_pd(SHIFTED);
    const __m256i half = _mm256_set1_epi64x(static_cast<int64_t>(HALF));
    __m256i large = _mm256_setzero_si256();
    __m256i before = _mm256_setzero_si256();  // the k before, in each lane
    uint32_t i = 0;
    for (; i + 4 <= count; i += 4) {
        __m256i bits = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(k + i));
        if (IS_DELTA) {
            bits = _mm256_add_epi64(bits, _mm256_slli_si256(bits, 8));
            const __m256i low_sum = _mm256_permute4x64_epi64(bits, 0x55);
            bits = _mm256_add_epi64(bits, _mm256_blend_epi32(_mm256_setzero_si256(), low_sum, 0xF0));
            bits = _mm256_add_epi64(bits, before);
            before = _mm256_permute4x64_epi64(bits, 0xFF);
        }
        large = _mm256_or_si256(large, _mm256_srli_epi64(_mm256_add_epi64(bits, half), 52));
        bits = _mm256_add_epi64(bits, _mm256_castpd_si256(shifted));
        const __m256d numbers = _mm256_sub_pd(_mm256_castsi256_pd(bits), shifted);
        __m256d quotients = _mm256_mul_pd(numbers, reciprocals);
        quotients = _mm256_fmadd_pd(_mm256_fnmadd_pd(quotients, divisors, numbers), reciprocals, quotients);
        quotients = _mm256_fmadd_pd(_mm256_fnmadd_pd(quotients, divisors, numbers), reciprocals, quotients);
        _mm256_storeu_pd(out + i, quotients);
    }
    if (_mm256_testz_si256(large, large) == 0) return one_by_one<IS_DELTA>(k, count, divisor, out);
    uint64_t at = static_cast<uint64_t>(_mm256_extract_epi64(before, 0));
    for (; i < count; i++) {
        at = IS_DELTA ? at + k[i] : k[i];
        out[i] = divided(at, divisor);
    }
}

bool has_vectors() {
    static const bool has = __builtin_cpu_supports("avx2") != 0 && __builtin_cpu_supports("fma") != 0;
    return has && !cset_vectors_are_off;
}
#endif

template <bool IS_DELTA>
void to_doubles(const uint64_t* k, uint32_t count, double divisor, double* out) {
#ifdef __x86_64__
    if (has_vectors()) return in_fours<IS_DELTA>(k, count, divisor, out);
#endif
    in_pairs<IS_DELTA>(k, count, divisor, out);
}

}  // namespace

void cset_to_doubles(const uint64_t* k, uint32_t count, uint32_t exponent, bool is_delta, double* out) {
    const double divisor = CSET_POWERS[exponent];
    if (is_delta) {
        to_doubles<true>(k, count, divisor, out);
    } else {
        to_doubles<false>(k, count, divisor, out);
    }
}

}  // namespace veldar
