#include "searchthing/postings/gap_groups.h"

#ifdef __x86_64__

#include <immintrin.h>

#include "libzero/assertions.h"
#include "libzero/endian.h"

#define GAP_VECTORS __attribute__((target("avx2")))

namespace veldar {

namespace {

constexpr uint64_t ONES = 0x0101010101010101, TOPS = 0x8080808080808080, PAIRS = 0x00FF00FF00FF00FF;
// Eight gaps of one byte that add up to no more are set as bits of one word.
constexpr uint64_t DENSE = 56;

// By which bytes of a group have another byte behind them: where the bytes of each 16-bit number come from, and how many
// numbers there are. The last byte of a group belongs to the next one if its own second byte does.
struct split_table {
    alignas(16) uint8_t from[256][16] = {};
    uint8_t ends[256][8] = {};
    uint8_t numbers[256] = {};

    constexpr split_table() {
        constexpr uint8_t NOTHING = 0x80;
        for (unsigned firsts = 0; firsts < 256; firsts++) {
            unsigned number = 0;
            for (unsigned byte = 0; byte < 8; number++) {
                const bool is_two = (firsts >> byte & 1) != 0;
                if (is_two && byte == 7) break;
                from[firsts][2 * number] = static_cast<uint8_t>(byte);
                from[firsts][2 * number + 1] = is_two ? static_cast<uint8_t>(byte + 1) : NOTHING;
                byte += is_two ? 2 : 1;
                ends[firsts][number] = static_cast<uint8_t>(byte);
            }
            numbers[firsts] = static_cast<uint8_t>(number);
            for (unsigned i = 2 * number; i < 16; i++) from[firsts][i] = NOTHING;
        }
    }
};
constexpr split_table SPLITS;

// Eight gaps of one byte each, if that is what the word is, and their sum.
inline bool are_one_byte_gaps(uint64_t word, uint64_t* sum) {
    *sum = (((word & PAIRS) + (word >> 8 & PAIRS)) * 0x0001000100010001) >> 48;
    return ((word | (word - ONES)) & TOPS) == 0;
}

GAP_VECTORS inline __m256i sums_of(__m256i gaps) {
    gaps = _mm256_add_epi32(gaps, _mm256_slli_si256(gaps, 4));
    gaps = _mm256_add_epi32(gaps, _mm256_slli_si256(gaps, 8));
    const __m256i of_low_half = _mm256_permutevar8x32_epi32(gaps, _mm256_set1_epi32(3));
    return _mm256_add_epi32(gaps, _mm256_blend_epi32(_mm256_setzero_si256(), of_low_half, 0xF0));
}

GAP_VECTORS inline uint32_t top_bits_of_eight(__m128i bytes) {
    return static_cast<uint32_t>(_mm_movemask_epi8(bytes)) & 0xFF;
}

struct group_t {
    __m256i sums;         // of the gaps up to each event; behind the last event its own
    uint32_t numbers;     // events
    uint32_t used;        // bytes
    const uint8_t* ends;  // of each event, in bytes; null where each is one byte
};

// The group of gaps of one and two bytes and runs of one event at `at`; false for any other.
GAP_VECTORS inline bool read_group(const uint8_t* at, group_t* group) {
    const __m128i bytes = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(at));
    const uint32_t zeros = top_bits_of_eight(_mm_cmpeq_epi8(bytes, _mm_setzero_si128()));
    const uint32_t firsts = top_bits_of_eight(bytes) | zeros;
    if (firsts == 0) {
        *group = {sums_of(_mm256_cvtepu8_epi32(bytes)), 8, 8, nullptr};
        return true;
    }
    const uint32_t ones = top_bits_of_eight(_mm_cmpeq_epi8(bytes, _mm_set1_epi8(1)));
    // No number of three bytes or with a zero as its last, no run of more than one event.
    if (((firsts & firsts << 1) | (zeros << 1 & ~ones & 0xFF)) != 0) return false;
    const __m128i from = _mm_load_si128(reinterpret_cast<const __m128i*>(SPLITS.from[firsts]));
    const __m128i pairs = _mm_shuffle_epi8(bytes, from);
    const __m128i low = _mm_and_si128(pairs, _mm_set1_epi16(0x7F));
    const __m128i high = _mm_srli_epi16(_mm_and_si128(pairs, _mm_set1_epi16(0x7F00)), 1);
    const __m128i runs = _mm_cmpeq_epi16(pairs, _mm_set1_epi16(0x0100));
    const __m128i gaps = _mm_blendv_epi8(_mm_or_si128(low, high), _mm_set1_epi16(1), runs);
    *group = {sums_of(_mm256_cvtepu16_epi32(gaps)), SPLITS.numbers[firsts], 8 - (firsts >> 7), SPLITS.ends[firsts]};
    return true;
}

GAP_VECTORS inline uint32_t last_sum(const group_t& group) {
    return static_cast<uint32_t>(_mm256_extract_epi32(group.sums, 7));
}

GAP_VECTORS inline uint64_t add_up(__m128i bytes) {
    const __m128i sums = _mm_sad_epu8(bytes, _mm_setzero_si128());
    return static_cast<uint64_t>(_mm_cvtsi128_si64(sums) + _mm_extract_epi64(sums, 1));
}

// The sum of 32 gaps of one byte each; 0 for anything else.
GAP_VECTORS inline uint64_t sum_of_one_byte_gaps(const uint8_t* at) {
    const __m256i bytes = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at));
    const __m256i zero = _mm256_setzero_si256();
    if (_mm256_movemask_epi8(_mm256_or_si256(bytes, _mm256_cmpeq_epi8(bytes, zero))) != 0) return 0;
    const __m256i sums = _mm256_sad_epu8(bytes, zero);
    const __m128i half = _mm_add_epi64(_mm256_castsi256_si128(sums), _mm256_extracti128_si256(sums, 1));
    return static_cast<uint64_t>(_mm_cvtsi128_si64(half) + _mm_extract_epi64(half, 1));
}

// The sum of the gaps of a group of 16 bytes and how many bytes it took; 0 for a group that is something else.
GAP_VECTORS inline uint64_t sum_of_group(const uint8_t* at, uint32_t* used) {
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
    const __m128i zeros = _mm_cmpeq_epi8(bytes, _mm_setzero_si128());
    const __m128i firsts = _mm_or_si128(bytes, zeros);  // by the top bits
    const auto mask = static_cast<uint32_t>(_mm_movemask_epi8(firsts));
    const __m128i lengths = _mm_slli_si128(zeros, 1);  // the bytes behind a run's mark
    const __m128i not_one = _mm_andnot_si128(_mm_cmpeq_epi8(bytes, _mm_set1_epi8(1)), lengths);
    if ((mask & mask << 1) != 0 || _mm_movemask_epi8(not_one) != 0) return 0;
    const __m128i are_firsts = _mm_cmplt_epi8(firsts, _mm_setzero_si128());
    const __m128i are_high = _mm_andnot_si128(lengths, _mm_slli_si128(are_firsts, 1));
    const uint64_t low = add_up(_mm_andnot_si128(are_high, _mm_and_si128(bytes, _mm_set1_epi8(0x7F))));
    const uint64_t high = add_up(_mm_and_si128(are_high, bytes));
    const uint64_t of_next_group = mask >> 15 != 0 ? at[15] & 0x7F : 0;
    *used = 16 - (mask >> 15);
    return low + 128 * high - of_next_group;
}

// Of a group with an event at or after `target`, `last` being the event before the group: takes the events up to that.
GAP_VECTORS inline bool land(gap_span* span, uint32_t target, uint32_t num_values, const group_t& group) {
    const __m256i distance = _mm256_set1_epi32(static_cast<int>(target - span->last));
    const __m256i are_before = _mm256_cmpgt_epi32(distance, group.sums);
    const auto before = static_cast<uint32_t>(_mm256_movemask_ps(_mm256_castsi256_ps(are_before)));
    const auto number = static_cast<uint32_t>(__builtin_ctz(~before));
    alignas(32) uint32_t sums[8];
    _mm256_store_si256(reinterpret_cast<__m256i*>(sums), group.sums);
    if (uint64_t{span->last} + sums[number] >= num_values) return false;
    span->last += sums[number];
    span->at += group.ends == nullptr ? number + 1 : group.ends[number];
    return true;
}

GAP_VECTORS bool seek(gap_span* span, uint32_t target, uint32_t num_values) {
    ST_ASSERT(target < num_values);
    for (bool is_near = false; span->at < span->stop && span->end - span->at >= 8;) {
        if (!is_near && span->end - span->at >= 32) {
            // Where the bytes that are taken do not depend on what they are, the next ones need not wait for them.
            const uint64_t sum = sum_of_one_byte_gaps(span->at);
            is_near = sum != 0 && span->last + sum >= target;
            if (sum != 0 && !is_near) {
                span->last += static_cast<uint32_t>(sum);
                span->at += 32;
                continue;
            }
        }
        if (!is_near && span->end - span->at >= 16) {
            uint32_t used = 0;
            const uint64_t sum = sum_of_group(span->at, &used);
            is_near = sum != 0 && span->last + sum >= target;
            if (sum != 0 && !is_near) {
                span->last += static_cast<uint32_t>(sum);
                span->at += used;
                continue;
            }
        }
        group_t group;
        if (!read_group(span->at, &group)) return false;
        if (uint64_t{span->last} + last_sum(group) >= target) return land(span, target, num_values, group);
        span->last += last_sum(group);
        span->at += group.used;
    }
    return false;
}

GAP_VECTORS uint64_t copy(gap_span* span, uint64_t bound, uint32_t* out, uint64_t room) {
    uint64_t count = 0;
    uint64_t last = span->last;
    const uint8_t* at = span->at;
    group_t group;
    while (at < span->stop && span->end - at >= 8 && room - count >= 8 && read_group(at, &group)) {
        const __m256i events = _mm256_add_epi32(group.sums, _mm256_set1_epi32(static_cast<int>(last)));
        if (last + last_sum(group) >= bound) break;
        last += last_sum(group);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + count), events);
        count += group.numbers;
        at += group.used;
    }
    span->last = static_cast<uint32_t>(last);
    span->at = at;
    return count;
}

// The bits of eight gaps of one byte that add up to DENSE at most, counted from the event before.
GAP_VECTORS inline uint64_t bits_of_gaps(uint64_t word) {
    const __m128i sums = _mm_cvtsi64_si128(static_cast<int64_t>(word * ONES));
    const __m256i one = _mm256_set1_epi64x(1);
    const __m256i bits = _mm256_or_si256(_mm256_sllv_epi64(one, _mm256_cvtepu8_epi64(sums)),
                                         _mm256_sllv_epi64(one, _mm256_cvtepu8_epi64(_mm_srli_si128(sums, 4))));
    const __m128i half = _mm_or_si128(_mm256_castsi256_si128(bits), _mm256_extracti128_si256(bits, 1));
    return static_cast<uint64_t>(_mm_cvtsi128_si64(_mm_or_si128(half, _mm_unpackhi_epi64(half, half))));
}

inline void set_bit(uint8_t* bitmap, uint64_t bit) {
    bitmap[bit / 8] = static_cast<uint8_t>(bitmap[bit / 8] | 1u << (bit % 8));
}

// The bits that were found of one word of a bitmap, until the word is done.
struct open_word {
    uint8_t* bitmap;
    uint64_t bits = 0;
    uint64_t first = 0;  // number of its first bit

    void add_behind(uint64_t bit, uint64_t more, uint64_t sum) {
        const uint64_t shift = bit - first;
        bits |= more << shift;
        if (shift + sum < 64) return;
        flush();
        bits = more >> 1 >> (63 - shift);
        first += 64;
    }
    void flush() {
        if (bits != 0) store_le64(bitmap + first / 8, load_le64(bitmap + first / 8) | bits);
        bits = 0;
    }
    void move_to(uint64_t bit) {
        flush();
        first = bit / 64 * 64;
    }
};

GAP_VECTORS void set_bits(gap_span* span, uint64_t bound, uint8_t* bitmap, uint32_t begin) {
    const uint64_t safe = bound <= begin ? 0 : (bound - begin) / 64 * 64;  // the end of the last whole word
    uint64_t last = span->last - begin;
    const uint8_t* at = span->at;
    open_word word = {.bitmap = bitmap};
    word.move_to(last);
    while (at < span->stop && span->end - at >= 8) {
        uint64_t gaps = load_le64(at), sum = 0;
        if (are_one_byte_gaps(gaps, &sum)) {
            if (last + sum >= safe) break;
            if (sum <= DENSE) {
                word.add_behind(last, bits_of_gaps(gaps), sum);
                last += sum;
            } else {
                for (int i = 0; i < 8; i++, gaps >>= 8) set_bit(bitmap, last += gaps & 0xFF);
                word.move_to(last);
            }
            at += 8;
            continue;
        }
        group_t group;
        if (!read_group(at, &group) || last + last_sum(group) >= safe) break;
        alignas(32) uint32_t sums[8];
        _mm256_store_si256(reinterpret_cast<__m256i*>(sums), group.sums);
        for (uint32_t i = 0; i < group.numbers; i++) set_bit(bitmap, last + sums[i]);
        last += sums[7];
        at += group.used;
        word.move_to(last);
    }
    word.flush();
    span->last = static_cast<uint32_t>(last + begin);
    span->at = at;
}

}  // namespace

bool gap_groups_usable() {
    static const bool has_vectors = __builtin_cpu_supports("avx2") != 0;
    return has_vectors && !gap_groups_are_off;
}

bool gap_groups_seek(gap_span* span, uint32_t target, uint32_t num_values) {
    return seek(span, target, num_values);
}

uint64_t gap_groups_copy(gap_span* span, uint64_t bound, uint32_t* out, uint64_t room) {
    return copy(span, bound, out, room);
}

void gap_groups_set_bits(gap_span* span, uint64_t bound, uint8_t* bitmap, uint32_t begin) {
    set_bits(span, bound, bitmap, begin);
}

}  // namespace veldar

#else

namespace veldar {

bool gap_groups_usable() {
    return false;
}
bool gap_groups_seek(gap_span*, uint32_t, uint32_t) {
    return false;
}
uint64_t gap_groups_copy(gap_span*, uint64_t, uint32_t*, uint64_t) {
    return 0;
}
void gap_groups_set_bits(gap_span*, uint64_t, uint8_t*, uint32_t) {}

}  // namespace veldar

#endif
