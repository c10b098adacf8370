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
#include "searchthing/columns/cset_groups.h"

namespace veldar {

namespace {

constexpr double NOT_A_NUMBER = std::numeric_limits<double>::quiet_NaN();
constexpr uint32_t MAX_EXPONENT_TRIED = 16;  // a 17th digit is noise
static_assert(MAX_EXPONENT_TRIED <= CSET_MAX_EXPONENT);
constexpr uint32_t SAMPLE = 32;
constexpr uint32_t MAX_WIDER_DELTAS = 3;
constexpr uint32_t MAX_PATCH_GAIN = 8;  // bits a number that groups may save

uint32_t bit_length(uint64_t number) {
    return static_cast<uint32_t>(std::bit_width(number));
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
    uint32_t counts[CSET_UNFIT + 1];  // by residual bits
};

// How they would be stored. Elements that need more residual bits are exceptions.
struct decimal_plan {
    uint64_t bits = ~uint64_t{0};  // without patches
    uint64_t corrections_bits = 0;
    uint32_t exponent = 0;
    uint32_t residual_bits = 0;
    uint32_t exceptions = 0;  // that need more residual bits
};

// Numbers from 0 on, and how they are packed.
struct packed_numbers {
    uint64_t numbers[CSET_BLOCK_ELEMENTS];
    size_t count = 0;
    int64_t low = 0;     // of what they stand for
    uint32_t width = 0;  // bits of the largest
    cset_groups_t groups;

    std::span<const uint64_t> all() const { return {numbers, count}; }
};

// Bits that the corrections take in the stream, and bytes of the exceptions, in bits.
uint64_t corrections_bits(uint64_t count, uint32_t residual_bits, uint64_t residuals, uint64_t exceptions) {
    const uint64_t places = std::min(count, CSET_COUNT_BITS + residuals * CSET_INDEX_BITS);
    const uint64_t of_residuals = residual_bits == 0 ? 0 : 1 + places + residuals * residual_bits;
    return of_residuals + (exceptions == 0 ? 0 : CSET_COUNT_BITS + exceptions * CSET_EXCEPTION_SIZE * 8);
}

uint64_t residual_count(const decimal_elements& elements, uint32_t residual_bits) {
    uint64_t count = 0;
    for (uint32_t nbits = 1; nbits <= residual_bits; nbits++) count += elements.counts[nbits];
    return count;
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
            const uint32_t fit = cset_to_decimal(values[i * values.size() / sampled], exponent, &k, &residual);
            if (fit == CSET_UNFIT) {
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

decimal_plan plan_decimal(std::span<const double> values, uint32_t exponent, decimal_elements* elements) {
    interval ranges[CSET_UNFIT];
    std::fill_n(elements->counts, CSET_UNFIT + 1, 0u);
    for (size_t i = 0; i < values.size(); i++) {
        int64_t k = 0, residual = 0;
        const uint32_t fit = cset_to_decimal(values[i], exponent, &k, &residual);
        elements->k[i] = k;
        elements->residual[i] = static_cast<int8_t>(residual);
        elements->residual_bits[i] = static_cast<uint8_t>(fit);
        elements->counts[fit]++;
        if (fit != CSET_UNFIT) ranges[fit].add(k);
    }
    auto exceptions = static_cast<uint32_t>(values.size());
    decimal_plan plan;
    plan.exponent = exponent;
    plan.exceptions = exceptions;
    interval range;
    for (uint32_t fit = 0; fit < CSET_UNFIT; fit++) {
        range.add(ranges[fit]);
        exceptions -= elements->counts[fit];
        const uint64_t residuals = residual_count(*elements, fit);
        const uint64_t bits =
            values.size() * bit_length(range.length()) + corrections_bits(values.size(), fit, residuals, exceptions);
        if (elements->counts[fit] == 0 || bits >= plan.bits) continue;
        plan.bits = bits;
        plan.residual_bits = fit;
        plan.exceptions = exceptions;
    }
    plan.corrections_bits = corrections_bits(values.size(), plan.residual_bits,
                                             residual_count(*elements, plan.residual_bits), plan.exceptions);
    return plan;
}

void put_corrections(const decimal_plan& plan, const decimal_elements& elements, size_t count, cset_bit_sink* sink) {
    const uint32_t nbits = plan.residual_bits;
    if (plan.exceptions > 0) sink->put(plan.exceptions, CSET_COUNT_BITS);
    if (nbits == 0) return;
    const auto is_moved = [&](size_t i) { return elements.residual_bits[i] > 0 && elements.residual_bits[i] <= nbits; };
    const uint64_t moved = residual_count(elements, nbits);
    const bool dense = count <= CSET_COUNT_BITS + moved * CSET_INDEX_BITS;
    sink->put(dense ? 1 : 0, 1);
    if (!dense) sink->put(moved, CSET_COUNT_BITS);
    for (size_t i = 0; i < count; i++) {
        if (dense) {
            sink->put(is_moved(i) ? 1 : 0, 1);
        } else if (is_moved(i)) {
            sink->put(i, CSET_INDEX_BITS);
        }
    }
    const int32_t half = 1 << (nbits - 1);
    for (size_t i = 0; i < count; i++) {
        const int32_t residual = elements.residual[i];
        if (is_moved(i)) sink->put(static_cast<uint64_t>(half + residual - (residual > 0 ? 1 : 0)), nbits);
    }
}

uint8_t* put_exceptions(std::span<const double> values, const decimal_plan& plan, const decimal_elements& elements,
                        uint8_t* at) {
    for (size_t i = 0; i < values.size(); i++) {
        if (elements.residual_bits[i] <= plan.residual_bits) continue;
        const auto index = static_cast<uint16_t>(i);
        std::memcpy(at, &index, sizeof index);
        std::memcpy(at + sizeof index, &values[i], sizeof(double));
        at += CSET_EXCEPTION_SIZE;
    }
    return at;
}

// Gives exceptions the k before, or that of the first other element; the k and their differences as numbers above the
// lowest.
void numbers_of(const decimal_plan& plan, size_t count, decimal_elements* elements, packed_numbers* decimals,
                packed_numbers* deltas) {
    const auto is_exception = [&](size_t i) { return elements->residual_bits[i] > plan.residual_bits; };
    size_t first = 0;
    while (is_exception(first)) first++;
    int64_t before = elements->k[first];
    interval range, steps;
    for (size_t i = 0; i < count; i++) {
        if (is_exception(i)) elements->k[i] = before;
        range.add(elements->k[i]);
        if (i > 0) steps.add(elements->k[i] - before);
        before = elements->k[i];
    }
    decimals->low = range.low;
    decimals->count = count;
    deltas->low = count > 1 ? steps.low : 0;
    deltas->count = count - 1;
    decimals->width = bit_length(range.length());
    deltas->width = bit_length(steps.length());
    for (size_t i = 0; i < count; i++) {
        decimals->numbers[i] = static_cast<uint64_t>(elements->k[i] - range.low);
        if (i > 0) deltas->numbers[i - 1] = static_cast<uint64_t>(elements->k[i] - elements->k[i - 1] - steps.low);
    }
}

// What a block becomes, with the smallest form so far.
struct block_plan {
    cset_codec_t codec = CSET_RAW;
    uint64_t size = 0;  // without checksum
    packed_numbers packed;
};

uint64_t packed_size(const packed_numbers& packed, uint64_t more_bits) {
    return (packed.groups.head_bits + more_bits + 7) / 8 + packed.groups.packed_size;
}

// Plans the packed form of numbers and takes it if the block is smaller so.
void try_packed(cset_codec_t codec, packed_numbers* packed, const decimal_plan* decimal, block_plan* best) {
    cset_groups_plan(packed->all(), &packed->groups);
    uint64_t more_bits = decimal == nullptr ? 0 : decimal->corrections_bits;
    // Exceptions stand behind the packed arrays, on bytes.
    const uint64_t exceptions = decimal == nullptr ? 0 : uint64_t{decimal->exceptions} * CSET_EXCEPTION_SIZE;
    more_bits -= exceptions * 8;
    const uint64_t size = packed_size(*packed, more_bits) + exceptions;
    if (size >= best->size) return;
    best->codec = codec;
    best->size = size;
    best->packed = *packed;
}

// Plain bits of doubles above the lowest, in steps of the largest power of two that they all are a multiple of.
void bits_of(std::span<const double> values, uint64_t lowest, uint64_t offsets, packed_numbers* packed,
             uint32_t* shift) {
    *shift = static_cast<uint32_t>(std::countr_zero(offsets));
    packed->low = 0;
    packed->count = values.size();
    packed->width = bit_length(offsets >> *shift);
    for (size_t i = 0; i < values.size(); i++) {
        packed->numbers[i] = (std::bit_cast<uint64_t>(values[i]) - lowest) >> *shift;
    }
}

// Chooses a form, writes it and returns the end of the data without the checksum.
uint8_t* put_smallest(std::span<const double> values, cset_block_t* block, uint8_t* data) {
    uint64_t lowest = ~uint64_t{0}, offsets = 0;
    for (const double value : values) lowest = std::min(lowest, std::bit_cast<uint64_t>(value));
    for (const double value : values) offsets |= std::bit_cast<uint64_t>(value) - lowest;
    if (offsets == 0) {
        block->codec = CSET_CONST;
        block->base = lowest;
        return data;
    }
    const size_t count = values.size();
    uint32_t exponents[2] = {};
    const uint32_t tries = likely_exponents(values, exponents);
    decimal_elements elements[2];
    decimal_plan plans[2];
    for (uint32_t i = 0; i < tries; i++) plans[i] = plan_decimal(values, exponents[i], &elements[i]);
    decimal_elements& chosen = elements[plans[1].bits < plans[0].bits ? 1 : 0];
    const decimal_plan& plan = plans[plans[1].bits < plans[0].bits ? 1 : 0];

    // Sizes are compared in the order of codecs, so that a tie goes to the lower number.
    block_plan best;
    best.size = count * sizeof(double);
    packed_numbers packed, deltas;
    uint32_t shift = 0;
    if (plan.exceptions < count) {
        numbers_of(plan, count, &chosen, &packed, &deltas);
        try_packed(CSET_DECIMAL, &packed, &plan, &best);
        // Groups with patches rarely make up for steps that are this much longer.
        if (deltas.width <= packed.width + MAX_WIDER_DELTAS) try_packed(CSET_DELTA, &deltas, &plan, &best);
    }
    bits_of(values, lowest, offsets, &packed, &shift);
    if (packed.width <= CSET_MAX_WIDTH && count * packed.width < best.size * 8 + count * MAX_PATCH_GAIN) {
        try_packed(CSET_BITS, &packed, nullptr, &best);
    }
    block->codec = best.codec;
    if (best.codec == CSET_RAW) {
        std::memcpy(data, values.data(), best.size);
        return data + best.size;
    }
    cset_bit_sink sink{data};
    if (best.codec == CSET_BITS) {
        block->base = lowest;
        block->exponent = static_cast<uint8_t>(shift);
    } else {
        block->base = static_cast<uint64_t>(best.codec == CSET_DELTA ? chosen.k[0] : best.packed.low);
        block->low = best.codec == CSET_DELTA ? static_cast<uint64_t>(best.packed.low) : 0;
        block->exponent = static_cast<uint8_t>(plan.exponent);
        block->residual_bits = static_cast<uint8_t>(plan.residual_bits);
        block->has_exceptions = plan.exceptions > 0;
        put_corrections(plan, chosen, count, &sink);
    }
    cset_groups_put_heads(best.packed.all(), best.packed.groups, &sink);
    uint8_t* at = sink.finish();
    cset_groups_put_packed(best.packed.all(), best.packed.groups, at);
    at += best.packed.groups.packed_size;
    if (best.codec != CSET_BITS) at = put_exceptions(values, plan, chosen, at);
    ST_ASSERT(static_cast<uint64_t>(at - data) == best.size);
    return at;
}

// A sum that takes fewer bytes in the head, if there is one as near as rounding comes.
double short_sum(const cset_block_t& block, double sum) {
    if (block.codec != CSET_DECIMAL && block.codec != CSET_DELTA) return sum;
    const double scaled = sum * CSET_POWERS[block.exponent];
    if (!(std::fabs(scaled) < CSET_MAX_K)) return sum;
    const double near = std::round(scaled) / CSET_POWERS[block.exponent];
    return std::fabs(near - sum) <= cset_sum_tolerance(block) ? near : sum;
}

}  // namespace

uint64_t cset_block_encode(std::span<const double> values, cset_block_t* block, uint8_t* data) {
    ST_ASSERT(!values.empty() && values.size() <= CSET_BLOCK_ELEMENTS);
    *block = {};
    block->count = static_cast<uint16_t>(values.size());
    uint8_t bytes[CSET_BLOCK_MAX_SIZE + CSET_SLACK];
    auto size = static_cast<uint64_t>(put_smallest(values, block, bytes) - bytes);
    ST_ASSERT(size <= CSET_BLOCK_MAX_SIZE - CSET_CHECKSUM_SIZE);
    if (block->codec != CSET_CONST) {
        store_le32(bytes + size, XXH32(bytes, size, 0));
        size += CSET_CHECKSUM_SIZE;
    }
    block->data_size = static_cast<uint32_t>(size);
    cs_stats_t stats = cs_stats_none();
    cs_stats_add(&stats, values);
    block->minimum = stats.min;
    block->maximum = stats.max;
    block->sum = stats.nans > 0 || std::isnan(stats.sum) ? NOT_A_NUMBER : short_sum(*block, stats.sum);
    std::memcpy(data, bytes, size);
    return size;
}

}  // namespace veldar
