// Encoding blocks: what a block costs in each form, and writing it in the smallest.
#include <xxhash.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include "libzero/assertions.h"
#include "libzero/endian.h"
#include "searchthing/columns/cset_codec.h"
#include "searchthing/columns/cset_codec_internal.h"

namespace veldar {

namespace {

constexpr double NOT_A_NUMBER = std::numeric_limits<double>::quiet_NaN();
constexpr uint32_t MAX_EXPONENT_TRIED = 16;  // a 17th digit is noise
static_assert(MAX_EXPONENT_TRIED <= CSET_MAX_EXPONENT);
constexpr double MAX_K = 0x1p53;
constexpr uint32_t SAMPLE = 32;
constexpr uint32_t UNFIT = CSET_MAX_RESIDUAL_BITS + 1;  // residual bits of an element that is no decimal

uint32_t bit_length(uint64_t number) {
    return static_cast<uint32_t>(std::bit_width(number));
}

// Writes fields of up to 63 bits into words from `at` on.
struct bit_sink {
    uint8_t* at;
    uint64_t word = 0;
    uint32_t used = 0;

    void put(uint64_t value, uint32_t nbits) {
        word |= value << used;
        used += nbits;
        if (used < 64) return;
        store_le64(at, word);
        at += 8;
        used -= 64;
        word = used == 0 ? 0 : value >> (nbits - used);
    }
    uint8_t* finish() {
        if (used > 0) {
            store_le64(at, word);
            at += 8;
        }
        return at;
    }
};

// k of an element at an exponent and the bits that its residual takes: 0 for none, UNFIT for one that is too large.
uint32_t to_decimal(double value, uint32_t exponent, int64_t* k, int64_t* residual) {
    const double scaled = value * CSET_POWERS[exponent];
    if (!(std::fabs(scaled) <= MAX_K)) return UNFIT;
    *k = static_cast<int64_t>(scaled + std::copysign(0.5, scaled));
    const double back = static_cast<double>(*k) / CSET_POWERS[exponent];
    // Unsigned: two values of different signs are farther apart than an int64 holds.
    const uint64_t distance = std::bit_cast<uint64_t>(value) - std::bit_cast<uint64_t>(back);
    *residual = static_cast<int64_t>(distance);
    if (distance == 0) return 0;
    const uint64_t magnitude = *residual < 0 ? 0 - distance : distance;
    return std::min(bit_length(magnitude - 1) + 1, UNFIT);
}

struct interval {
    int64_t low = std::numeric_limits<int64_t>::max();
    int64_t high = std::numeric_limits<int64_t>::min();

    void add(int64_t k) {
        low = std::min(low, k);
        high = std::max(high, k);
    }
    void add(const interval& other) {
        low = std::min(low, other.low);
        high = std::max(high, other.high);
    }
    uint64_t length() const { return low > high ? 0 : static_cast<uint64_t>(high) - static_cast<uint64_t>(low); }
};

// The elements at one exponent.
struct decimal_elements {
    int64_t k[CSET_BLOCK_ELEMENTS];
    int8_t residual[CSET_BLOCK_ELEMENTS];
    uint8_t residual_bits[CSET_BLOCK_ELEMENTS];
    uint32_t counts[UNFIT + 1];  // by residual bits
};

// How they would be stored. Elements that need more residual bits are exceptions, as are those outside the width.
struct decimal_plan {
    uint64_t size = ~uint64_t{0};
    uint32_t exponent = 0;
    uint32_t width = 0;
    uint32_t residual_bits = 0;
    uint32_t exceptions = 0;  // that need more residual bits
    int64_t base = 0;
};

uint64_t corrections_size(uint64_t count, uint32_t residual_bits, uint64_t residuals, uint64_t exceptions) {
    const uint64_t residuals_size =
        residual_bits == 0 ? 0 : cset_words_size(count) + cset_words_size(residuals * residual_bits);
    return residuals_size + cset_words_size(exceptions * CSET_EXCEPTION_SIZE * 8);
}

uint64_t residual_count(const decimal_elements& elements, uint32_t residual_bits) {
    uint64_t count = 0;
    for (uint32_t nbits = 1; nbits <= residual_bits; nbits++) count += elements.counts[nbits];
    return count;
}

// Bytes of a DECIMAL block with this width and this many exceptions, checksum included.
uint64_t decimal_size(const decimal_elements& elements, size_t count, uint32_t width, uint32_t residual_bits,
                      uint64_t exceptions) {
    return 8 + cset_words_size(count * width) +
           corrections_size(count, residual_bits, residual_count(elements, residual_bits), exceptions) + 8;
}

// The two exponents that are best for a sample, or one: a second one can only be worse when every element of the
// sample is exact at the first.
uint32_t likely_exponents(std::span<const double> values, uint32_t out[2]) {
    uint64_t best[2] = {~uint64_t{0}, ~uint64_t{0}};
    const size_t sampled = std::min<size_t>(values.size(), SAMPLE);
    for (uint32_t exponent = 0; exponent <= MAX_EXPONENT_TRIED; exponent++) {
        interval range;
        uint32_t widest = 0;
        uint64_t unfit = 0, moved = 0;
        for (size_t i = 0; i < sampled; i++) {
            int64_t k, residual;
            const uint32_t fit = to_decimal(values[i * values.size() / sampled], exponent, &k, &residual);
            if (fit == UNFIT) {
                unfit++;
                continue;
            }
            range.add(k);
            widest = std::max(widest, fit);
            moved += fit > 0 ? 1 : 0;
        }
        const uint64_t residual_bits = widest == 0 ? 0 : sampled + moved * widest;
        const uint64_t cost = sampled * bit_length(range.length()) + residual_bits + unfit * CSET_EXCEPTION_SIZE * 8;
        if (cost < best[0]) {
            best[1] = best[0];
            out[1] = out[0];
            best[0] = cost;
            out[0] = exponent;
        } else if (cost < best[1]) {
            best[1] = cost;
            out[1] = exponent;
        }
        if (unfit == 0 && widest == 0) return out[0] == exponent ? 1 : 2;
    }
    return 2;
}

// Takes outliers, all above or all below, out of the packed array where that makes the block smaller.
void trim_outliers(const decimal_elements& elements, size_t count, const interval& range, decimal_plan* plan) {
    uint32_t above[65] = {}, below[65] = {};
    for (size_t i = 0; i < count; i++) {
        if (elements.residual_bits[i] > plan->residual_bits) continue;
        above[bit_length(static_cast<uint64_t>(elements.k[i]) - static_cast<uint64_t>(range.low))]++;
        below[bit_length(static_cast<uint64_t>(range.high) - static_cast<uint64_t>(elements.k[i]))]++;
    }
    uint64_t far_above = 0, far_below = 0;
    for (uint32_t width = bit_length(range.length()); width-- > 0;) {
        far_above += above[width + 1];
        far_below += below[width + 1];
        const uint64_t exceptions = plan->exceptions + std::min(far_above, far_below);
        const uint64_t size = decimal_size(elements, count, width, plan->residual_bits, exceptions);
        if (size >= plan->size) continue;
        plan->size = size;
        plan->width = width;
        plan->base = far_above <= far_below ? range.low : range.high - static_cast<int64_t>(cset_low_bits(width));
    }
}

decimal_plan plan_decimal(std::span<const double> values, uint32_t exponent, decimal_elements* elements) {
    interval ranges[UNFIT];
    std::fill_n(elements->counts, UNFIT + 1, 0u);
    for (size_t i = 0; i < values.size(); i++) {
        int64_t k = 0, residual = 0;
        const uint32_t fit = to_decimal(values[i], exponent, &k, &residual);
        elements->k[i] = k;
        elements->residual[i] = static_cast<int8_t>(residual);
        elements->residual_bits[i] = static_cast<uint8_t>(fit);
        elements->counts[fit]++;
        if (fit != UNFIT) ranges[fit].add(k);
    }
    auto exceptions = static_cast<uint32_t>(values.size());
    decimal_plan plan;
    plan.exponent = exponent;
    plan.exceptions = exceptions;
    interval range, chosen;
    for (uint32_t fit = 0; fit < UNFIT; fit++) {
        range.add(ranges[fit]);
        exceptions -= elements->counts[fit];
        const uint32_t width = bit_length(range.length());
        const uint64_t size = decimal_size(*elements, values.size(), width, fit, exceptions);
        if (elements->counts[fit] == 0 || size >= plan.size) continue;
        plan.size = size;
        plan.width = width;
        plan.residual_bits = fit;
        plan.exceptions = exceptions;
        plan.base = range.low;
        chosen = range;
    }
    if (plan.width > 0) trim_outliers(*elements, values.size(), chosen, &plan);
    return plan;
}

uint8_t* put_corrections(std::span<const double> values, const decimal_plan& plan, const decimal_elements& elements,
                         cset_block_t* block, uint8_t* data) {
    const uint32_t nbits = plan.residual_bits;
    if (nbits > 0) {
        bit_sink bitmap{data};
        bit_sink residuals{data + cset_words_size(values.size())};
        const int32_t half = 1 << (nbits - 1);
        for (size_t i = 0; i < values.size(); i++) {
            const bool moved = elements.residual_bits[i] > 0 && elements.residual_bits[i] <= nbits;
            bitmap.put(moved ? 1 : 0, 1);
            const int32_t residual = elements.residual[i];
            if (moved) residuals.put(static_cast<uint64_t>(half + residual - (residual > 0 ? 1 : 0)), nbits);
        }
        bitmap.finish();
        data = residuals.finish();
    }
    uint8_t* at = data;
    for (size_t i = 0; i < values.size(); i++) {
        if (elements.residual_bits[i] <= nbits) continue;
        const auto index = static_cast<uint16_t>(i);
        std::memcpy(at, &index, sizeof index);
        std::memcpy(at + sizeof index, &values[i], sizeof(double));
        at += CSET_EXCEPTION_SIZE;
        block->exceptions++;
    }
    uint8_t* end = data + cset_words_size(static_cast<uint64_t>(at - data) * 8);
    std::fill(at, end, uint8_t{0});
    block->exponent = static_cast<uint8_t>(plan.exponent);
    block->residual_bits = static_cast<uint8_t>(nbits);
    return end;
}

uint8_t* put_decimal(std::span<const double> values, const decimal_plan& plan, decimal_elements* elements,
                     cset_block_t* block, uint8_t* data) {
    ST_ASSERT(plan.width <= CSET_MAX_WIDTH);  // no k is farther from 0 than MAX_K
    store_le64(data, static_cast<uint64_t>(plan.base));
    bit_sink packed{data + 8};
    for (size_t i = 0; i < values.size(); i++) {
        const uint64_t field = static_cast<uint64_t>(elements->k[i]) - static_cast<uint64_t>(plan.base);
        if (field > cset_low_bits(plan.width)) elements->residual_bits[i] = UNFIT;
        packed.put(elements->residual_bits[i] > plan.residual_bits ? 0 : field, plan.width);
    }
    block->codec = CSET_DECIMAL;
    block->width = static_cast<uint8_t>(plan.width);
    return put_corrections(values, plan, *elements, block, packed.finish());
}

// Gives exceptions the k before, or that of the first other element, and returns the range of differences.
interval differences(const decimal_plan& plan, size_t count, decimal_elements* elements) {
    const auto is_exception = [&](size_t i) { return elements->residual_bits[i] > plan.residual_bits; };
    size_t first = 0;
    while (is_exception(first)) first++;
    int64_t before = elements->k[first];
    interval range;
    for (size_t i = 0; i < count; i++) {
        if (is_exception(i)) elements->k[i] = before;
        if (i > 0) range.add(elements->k[i] - before);
        before = elements->k[i];
    }
    return range;
}

uint8_t* put_delta(std::span<const double> values, const decimal_plan& plan, const interval& range,
                   const decimal_elements& elements, cset_block_t* block, uint8_t* data) {
    const uint32_t width = bit_length(range.length());
    ST_ASSERT(width <= CSET_MAX_WIDTH);  // of differences of two k, which are at most 2 MAX_K apart from 0
    store_le64(data, static_cast<uint64_t>(elements.k[0]));
    store_le64(data + 8, static_cast<uint64_t>(range.low));
    bit_sink packed{data + 16};
    for (size_t i = 1; i < values.size(); i++) {
        packed.put(static_cast<uint64_t>(elements.k[i] - elements.k[i - 1]) - static_cast<uint64_t>(range.low), width);
    }
    block->codec = CSET_DELTA;
    block->width = static_cast<uint8_t>(width);
    return put_corrections(values, plan, elements, block, packed.finish());
}

uint8_t* put_bits(std::span<const double> values, uint64_t base, uint32_t shift, uint32_t width, cset_block_t* block,
                  uint8_t* data) {
    store_le64(data, base);
    bit_sink packed{data + 8};
    for (const double value : values) packed.put((std::bit_cast<uint64_t>(value) - base) >> shift, width);
    block->codec = CSET_BITS;
    block->exponent = static_cast<uint8_t>(shift);
    block->width = static_cast<uint8_t>(width);
    return packed.finish();
}

// Chooses a form, writes it and returns the end of the data without the checksum.
uint8_t* put_smallest(std::span<const double> values, cset_block_t* block, uint8_t* data) {
    uint64_t lowest = ~uint64_t{0}, highest = 0;
    for (const double value : values) {
        lowest = std::min(lowest, std::bit_cast<uint64_t>(value));
        highest = std::max(highest, std::bit_cast<uint64_t>(value));
    }
    uint64_t offsets = 0;  // all of their bits
    for (const double value : values) offsets |= std::bit_cast<uint64_t>(value) - lowest;
    if (offsets == 0) {
        block->codec = CSET_CONST;
        store_le64(data, lowest);
        return data + 8;
    }
    // Sizes are compared in the order of codecs, so that a tie goes to the lower number.
    const size_t count = values.size();
    uint64_t smallest = count * 8 + 8;
    cset_codec_t codec = CSET_RAW;

    uint32_t exponents[2] = {};
    const uint32_t tries = likely_exponents(values, exponents);
    decimal_elements elements[2];
    decimal_plan plans[2];
    for (uint32_t i = 0; i < tries; i++) plans[i] = plan_decimal(values, exponents[i], &elements[i]);
    const uint32_t best = plans[1].size < plans[0].size ? 1 : 0;
    const decimal_plan& plan = plans[best];
    if (plan.size < smallest) {
        smallest = plan.size;
        codec = CSET_DECIMAL;
    }
    interval range;
    if (plan.exceptions < count) {
        range = differences(plan, count, &elements[best]);
        const uint64_t residuals = residual_count(elements[best], plan.residual_bits);
        const uint64_t size = 16 + cset_words_size((count - 1) * bit_length(range.length())) +
                              corrections_size(count, plan.residual_bits, residuals, plan.exceptions) + 8;
        if (size < smallest) {
            smallest = size;
            codec = CSET_DELTA;
        }
    }
    const auto shift = static_cast<uint32_t>(std::countr_zero(offsets));
    const uint32_t width = bit_length((highest - lowest) >> shift);
    const uint64_t bits_size = 8 + cset_words_size(count * width) + 8;
    if (width <= CSET_MAX_WIDTH && bits_size < smallest) {
        smallest = bits_size;
        codec = CSET_BITS;
    }

    uint8_t* end = data + count * 8;
    switch (codec) {
        case CSET_DECIMAL:
            end = put_decimal(values, plan, &elements[best], block, data);
            break;
        case CSET_DELTA:
            end = put_delta(values, plan, range, elements[best], block, data);
            break;
        case CSET_BITS:
            end = put_bits(values, lowest, shift, width, block, data);
            break;
        default:
            block->codec = CSET_RAW;
            std::memcpy(data, values.data(), count * 8);
    }
    // A plan counts the residuals of outliers too, which are not written.
    ST_ASSERT(static_cast<uint64_t>(end - data) + 8 <= smallest);
    return end;
}

}  // namespace

uint64_t cset_block_encode(std::span<const double> values, cset_block_t* block, uint8_t* data) {
    ST_ASSERT(!values.empty() && values.size() <= CSET_BLOCK_ELEMENTS);
    *block = {};
    block->count = static_cast<uint16_t>(values.size());
    cs_stats_t stats = cs_stats_none();
    cs_stats_add(&stats, values);
    block->minimum = stats.min;
    block->maximum = stats.max;
    block->sum = stats.nans > 0 || std::isnan(stats.sum) ? NOT_A_NUMBER : stats.sum;
    const auto size = static_cast<uint64_t>(put_smallest(values, block, data) - data);
    ST_ASSERT(size <= 8 * values.size() && cset_block_is_sound(block));
    store_le64(data + size, XXH32(data, size, 0));
    return size + 8;
}

}  // namespace veldar
