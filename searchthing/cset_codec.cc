#include "searchthing/cset_codec.h"

#include <xxhash.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>

#include "libzero/assertions.h"
#include "libzero/endian.h"

namespace veldar {

namespace {

constexpr double INFINITE = std::numeric_limits<double>::infinity();
constexpr double NOT_A_NUMBER = std::numeric_limits<double>::quiet_NaN();

// The powers of ten that a double holds exactly, so that k / 10^e is the double nearest to the decimal number.
constexpr double POWERS[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,  1e8,  1e9,  1e10, 1e11,
                             1e12, 1e13, 1e14, 1e15, 1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
constexpr uint32_t MAX_EXPONENT = 22;
constexpr uint32_t MAX_EXPONENT_TRIED = 16;  // a 17th digit is noise
constexpr double MAX_K = 0x1p53;
// A field of this width at any bit of a byte lies within the eight bytes from there.
constexpr uint32_t MAX_WIDTH = 56;
constexpr uint32_t MAX_SHIFT = 63;
constexpr uint32_t EXCEPTION_SIZE = 10;
constexpr uint32_t SAMPLE = 32;
constexpr uint32_t UNFIT = 4;  // index of no RESIDUAL_BITS
constexpr uint8_t RESIDUAL_BITS[UNFIT] = {0, 2, 3, 4};

uint64_t whole_words(uint64_t bits) {
    return (bits + 63) / 64 * 8;
}

uint32_t bit_length(uint64_t number) {
    return static_cast<uint32_t>(std::bit_width(number));
}

uint64_t decimal_size(uint64_t count, uint32_t width, uint32_t residual_bits, uint64_t exceptions) {
    return 8 + whole_words(count * width) + whole_words(count * residual_bits) +
           whole_words(exceptions * EXCEPTION_SIZE * 8) + 8;
}
uint64_t delta_size(uint64_t count, uint32_t width) {
    return 16 + whole_words((count - 1) * width) + 8;
}
uint64_t bits_size(uint64_t count, uint32_t width) {
    return 8 + whole_words(count * width) + 8;
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

// Field `index` of a packed array that at least eight bytes follow.
uint64_t packed_field(const uint8_t* packed, uint64_t index, uint32_t width, uint64_t mask) {
    const uint64_t bit = index * width;
    return (load_le64(packed + bit / 8) >> (bit % 8)) & mask;
}

uint64_t low_bits(uint32_t width) {
    return (uint64_t{1} << width) - 1;
}

// k and the index into RESIDUAL_BITS of an element at an exponent; UNFIT for one that is no such decimal.
uint32_t to_decimal(double value, uint32_t exponent, int64_t* k, int64_t* residual) {
    const double scaled = value * POWERS[exponent];
    if (!(std::fabs(scaled) <= MAX_K)) return UNFIT;
    *k = static_cast<int64_t>(scaled + std::copysign(0.5, scaled));
    const double back = static_cast<double>(*k) / POWERS[exponent];
    // Unsigned: two values of different signs are farther apart than an int64 holds.
    const uint64_t distance = std::bit_cast<uint64_t>(value) - std::bit_cast<uint64_t>(back);
    *residual = static_cast<int64_t>(distance);
    if (distance == 0) return 0;
    if (distance + 2 < 4) return 1;
    if (distance + 4 < 8) return 2;
    return distance + 8 < 16 ? 3 : UNFIT;
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

// How elements at one exponent would be stored.
struct decimal_plan {
    uint64_t size = ~uint64_t{0};
    uint32_t exponent = 0;
    uint32_t width = 0;
    uint32_t residual_class = 0;
    int64_t base = 0;
};

// The elements at the exponent of one plan.
struct decimal_elements {
    int64_t k[CSET_BLOCK_ELEMENTS];
    int8_t residual[CSET_BLOCK_ELEMENTS];
    uint8_t residual_class[CSET_BLOCK_ELEMENTS];
};

// The two exponents that are best for a sample, or one: a second one can only be worse when every element of the
// sample is exact at the first.
uint32_t likely_exponents(std::span<const double> values, uint32_t out[2]) {
    uint64_t best[2] = {~uint64_t{0}, ~uint64_t{0}};
    const size_t sampled = std::min<size_t>(values.size(), SAMPLE);
    for (uint32_t exponent = 0; exponent <= MAX_EXPONENT_TRIED; exponent++) {
        interval range;
        uint32_t widest = 0;
        uint64_t unfit = 0;
        for (size_t i = 0; i < sampled; i++) {
            int64_t k, residual;
            const uint32_t fit = to_decimal(values[i * values.size() / sampled], exponent, &k, &residual);
            if (fit == UNFIT) {
                unfit++;
                continue;
            }
            range.add(k);
            widest = std::max(widest, fit);
        }
        const uint64_t cost =
            sampled * (bit_length(range.length()) + RESIDUAL_BITS[widest]) + unfit * EXCEPTION_SIZE * 8;
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
    uint32_t fitting = 0;
    for (size_t i = 0; i < count; i++) {
        if (elements.residual_class[i] > plan->residual_class) continue;
        fitting++;
        above[bit_length(static_cast<uint64_t>(elements.k[i]) - static_cast<uint64_t>(range.low))]++;
        below[bit_length(static_cast<uint64_t>(range.high) - static_cast<uint64_t>(elements.k[i]))]++;
    }
    uint64_t far_above = 0, far_below = 0;
    for (uint32_t width = bit_length(range.length()); width-- > 0;) {
        far_above += above[width + 1];
        far_below += below[width + 1];
        const uint64_t exceptions = count - fitting + std::min(far_above, far_below);
        const uint64_t size = decimal_size(count, width, RESIDUAL_BITS[plan->residual_class], exceptions);
        if (size >= plan->size) continue;
        plan->size = size;
        plan->width = width;
        plan->base = far_above <= far_below ? range.low : range.high - static_cast<int64_t>(low_bits(width));
    }
}

decimal_plan plan_decimal(std::span<const double> values, uint32_t exponent, decimal_elements* elements) {
    interval ranges[UNFIT];
    uint32_t counts[UNFIT + 1] = {};
    for (size_t i = 0; i < values.size(); i++) {
        int64_t k = 0, residual = 0;
        const uint32_t fit = to_decimal(values[i], exponent, &k, &residual);
        elements->k[i] = k;
        elements->residual[i] = static_cast<int8_t>(residual);
        elements->residual_class[i] = static_cast<uint8_t>(fit);
        counts[fit]++;
        if (fit != UNFIT) ranges[fit].add(k);
    }
    decimal_plan plan;
    plan.exponent = exponent;
    interval range, chosen;
    uint64_t exceptions = values.size();
    for (uint32_t fit = 0; fit < UNFIT; fit++) {
        range.add(ranges[fit]);
        exceptions -= counts[fit];
        const uint32_t width = bit_length(range.length());
        const uint64_t size = decimal_size(values.size(), width, RESIDUAL_BITS[fit], exceptions);
        if (counts[fit] == 0 || size >= plan.size) continue;
        plan.size = size;
        plan.width = width;
        plan.residual_class = fit;
        plan.base = range.low;
        chosen = range;
    }
    if (plan.width > 0) trim_outliers(*elements, values.size(), chosen, &plan);
    return plan;
}

uint8_t* put_decimal(std::span<const double> values, const decimal_plan& plan, const decimal_elements& elements,
                     cset_block_t* block, uint8_t* data) {
    const uint32_t residual_bits = RESIDUAL_BITS[plan.residual_class];
    store_le64(data, static_cast<uint64_t>(plan.base));
    bit_sink packed{data + 8};
    bit_sink residuals{data + 8 + whole_words(values.size() * plan.width)};
    uint8_t exceptions[CSET_BLOCK_ELEMENTS * EXCEPTION_SIZE + 8];
    uint8_t* exception = exceptions;
    for (size_t i = 0; i < values.size(); i++) {
        const uint64_t field = static_cast<uint64_t>(elements.k[i]) - static_cast<uint64_t>(plan.base);
        if (elements.residual_class[i] > plan.residual_class || field > low_bits(plan.width)) {
            const auto index = static_cast<uint16_t>(i);
            std::memcpy(exception, &index, sizeof index);
            std::memcpy(exception + sizeof index, &values[i], sizeof(double));
            exception += EXCEPTION_SIZE;
            packed.put(0, plan.width);
            residuals.put(0, residual_bits);
            continue;
        }
        packed.put(field, plan.width);
        residuals.put(static_cast<uint64_t>(elements.residual[i]) & low_bits(residual_bits), residual_bits);
    }
    packed.finish();
    uint8_t* at = residuals.finish();
    const auto size = static_cast<size_t>(exception - exceptions);
    std::memset(exception, 0, 8);
    std::memcpy(at, exceptions, whole_words(size * 8));
    block->codec = CSET_DECIMAL;
    block->exponent = static_cast<uint8_t>(plan.exponent);
    block->width = static_cast<uint8_t>(plan.width);
    block->residual_bits = static_cast<uint8_t>(residual_bits);
    block->exceptions = static_cast<uint16_t>(size / EXCEPTION_SIZE);
    return at + whole_words(size * 8);
}

interval differences(const decimal_elements& elements, size_t count) {
    interval range;
    for (size_t i = 1; i < count; i++) range.add(elements.k[i] - elements.k[i - 1]);
    return range;
}

uint8_t* put_delta(size_t count, uint32_t exponent, const interval& range, const decimal_elements& elements,
                   cset_block_t* block, uint8_t* data) {
    const uint32_t width = bit_length(range.length());
    store_le64(data, static_cast<uint64_t>(elements.k[0]));
    store_le64(data + 8, static_cast<uint64_t>(range.low));
    bit_sink packed{data + 16};
    for (size_t i = 1; i < count; i++) {
        packed.put(static_cast<uint64_t>(elements.k[i] - elements.k[i - 1]) - static_cast<uint64_t>(range.low), width);
    }
    block->codec = CSET_DELTA;
    block->exponent = static_cast<uint8_t>(exponent);
    block->width = static_cast<uint8_t>(width);
    return packed.finish();
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
    if (std::all_of(elements[best].residual_class, elements[best].residual_class + count,
                    [](uint8_t fit) { return fit == 0; })) {
        range = differences(elements[best], count);
        const uint64_t size = delta_size(count, bit_length(range.length()));
        if (size < smallest) {
            smallest = size;
            codec = CSET_DELTA;
        }
    }
    const auto shift = static_cast<uint32_t>(std::countr_zero(offsets));
    const uint32_t width = bit_length((highest - lowest) >> shift);
    if (width <= MAX_WIDTH && bits_size(count, width) < smallest) codec = CSET_BITS;

    switch (codec) {
        case CSET_DECIMAL:
            return put_decimal(values, plan, elements[best], block, data);
        case CSET_DELTA:
            return put_delta(count, plan.exponent, range, elements[best], block, data);
        case CSET_BITS:
            return put_bits(values, lowest, shift, width, block, data);
        default:
            block->codec = CSET_RAW;
            std::memcpy(data, values.data(), count * 8);
            return data + count * 8;
    }
}

bool get_decimal(const cset_block_t* block, const uint8_t* data, double* values) {
    const uint64_t base = load_le64(data);
    const uint8_t* packed = data + 8;
    const uint8_t* residuals = packed + whole_words(uint64_t{block->count} * block->width);
    const uint8_t* exception = residuals + whole_words(uint64_t{block->count} * block->residual_bits);
    const double divisor = POWERS[block->exponent];
    const uint64_t mask = low_bits(block->width);
    for (uint32_t i = 0; i < block->count; i++) {
        const uint64_t k = base + packed_field(packed, i, block->width, mask);
        values[i] = static_cast<double>(static_cast<int64_t>(k)) / divisor;
    }
    if (const uint32_t nbits = block->residual_bits; nbits > 0) {
        const uint64_t sign = uint64_t{1} << (nbits - 1);
        for (uint32_t i = 0; i < block->count; i++) {
            const uint64_t residual = (packed_field(residuals, i, nbits, low_bits(nbits)) ^ sign) - sign;
            values[i] = std::bit_cast<double>(std::bit_cast<uint64_t>(values[i]) + residual);
        }
    }
    for (uint32_t i = 0; i < block->exceptions; i++, exception += EXCEPTION_SIZE) {
        uint16_t index;
        std::memcpy(&index, exception, sizeof index);
        if (index >= block->count) return false;
        std::memcpy(&values[index], exception + sizeof index, sizeof(double));
    }
    return true;
}

void get_delta(const cset_block_t* block, const uint8_t* data, double* values) {
    uint64_t k = load_le64(data);
    const uint64_t base = load_le64(data + 8);
    const double divisor = POWERS[block->exponent];
    const uint64_t mask = low_bits(block->width);
    values[0] = static_cast<double>(static_cast<int64_t>(k)) / divisor;
    for (uint32_t i = 1; i < block->count; i++) {
        k += base + packed_field(data + 16, i - 1, block->width, mask);
        values[i] = static_cast<double>(static_cast<int64_t>(k)) / divisor;
    }
}

void get_bits(const cset_block_t* block, const uint8_t* data, double* values) {
    const uint64_t base = load_le64(data);
    const uint64_t mask = low_bits(block->width);
    for (uint32_t i = 0; i < block->count; i++) {
        const uint64_t offset = packed_field(data + 8, i, block->width, mask) << block->exponent;
        values[i] = std::bit_cast<double>(base + offset);
    }
}

}  // namespace

cs_stats_t cs_stats_none() {
    return {.count = 0, .nans = 0, .min = INFINITE, .max = -INFINITE, .sum = 0};
}

void cs_stats_add(cs_stats_t* stats, std::span<const double> values) {
    for (const double value : values) {
        if (std::isnan(value)) {
            stats->nans++;
            continue;
        }
        stats->count++;
        stats->min = std::min(stats->min, value);
        stats->max = std::max(stats->max, value);
        stats->sum += value;
    }
}

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
    store_le64(data + size, XXH32(data, size, 0));
    return size + 8;
}

uint64_t cset_block_size(const cset_block_t* block) {
    const uint64_t count = block->count;
    const uint32_t max_exponent = block->codec == CSET_BITS ? MAX_SHIFT : MAX_EXPONENT;
    if (count == 0 || count > CSET_BLOCK_ELEMENTS || block->exponent > max_exponent || block->width > MAX_WIDTH ||
        block->residual_bits > 4 || block->exceptions > count) {
        return 0;
    }
    switch (block->codec) {
        case CSET_CONST:
            return 16;
        case CSET_RAW:
            return count * 8 + 8;
        case CSET_DECIMAL:
            return decimal_size(count, block->width, block->residual_bits, block->exceptions);
        case CSET_DELTA:
            return delta_size(count, block->width);
        case CSET_BITS:
            return bits_size(count, block->width);
        default:
            return 0;
    }
}

bool cset_block_decode(const cset_block_t* block, std::span<const uint8_t> data, double* values) {
    ST_ASSERT(data.size() == cset_block_size(block) && !data.empty());
    const size_t size = data.size() - 8;
    if (load_le64(data.data() + size) != XXH32(data.data(), size, 0)) return false;
    switch (block->codec) {
        case CSET_CONST:
            std::fill_n(values, block->count, std::bit_cast<double>(load_le64(data.data())));
            return true;
        case CSET_RAW:
            std::memcpy(values, data.data(), size);
            return true;
        case CSET_DECIMAL:
            return get_decimal(block, data.data(), values);
        case CSET_DELTA:
            get_delta(block, data.data(), values);
            return true;
        default:
            get_bits(block, data.data(), values);
            return true;
    }
}

}  // namespace veldar
