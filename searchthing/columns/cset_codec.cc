// Decoding blocks, and the numbers of their elements.
#include "searchthing/columns/cset_codec.h"

#include <xxhash.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include "libzero/assertions.h"
#include "libzero/endian.h"
#include "searchthing/columns/cset_codec_internal.h"
#include "searchthing/columns/cset_doubles.h"
#include "searchthing/columns/cset_groups.h"

namespace veldar {

namespace {

constexpr double INFINITE = std::numeric_limits<double>::infinity();

// Where a block's corrections lie in its stream of bits.
struct corrections {
    uint64_t exceptions = 0;
    bool dense = false;      // residuals by a bitmap, else by indices
    uint64_t residuals = 0;  // how many
    uint64_t places_at = 0;  // the bitmap or the indices
    uint64_t codes_at = 0;
};

uint64_t set_bits(const cset_bit_source& source, uint64_t begin, uint64_t count) {
    uint64_t sum = 0;
    for (uint64_t at = 0; at < count; at += CSET_MAX_WIDTH) {
        const auto nbits = static_cast<uint32_t>(std::min<uint64_t>(CSET_MAX_WIDTH, count - at));
        sum += static_cast<uint64_t>(std::popcount(source.field(begin + at, nbits)));
    }
    return sum;
}

corrections get_corrections(const cset_block_t* block, cset_bit_source* source) {
    corrections out;
    if (block->has_exceptions) out.exceptions = source->get(CSET_COUNT_BITS);
    if (block->residual_bits == 0) return out;
    out.dense = source->get(1) != 0;
    if (out.dense) {
        out.places_at = source->skip(block->count);
        out.residuals = source->is_short ? 0 : set_bits(*source, out.places_at, block->count);
    } else {
        out.residuals = source->get(CSET_COUNT_BITS);
        out.places_at = source->skip(out.residuals * CSET_INDEX_BITS);
    }
    out.codes_at = source->skip(out.residuals * block->residual_bits);
    return out;
}

bool apply_residuals(const cset_block_t* block, const cset_bit_source& source, const corrections& at, double* values) {
    const uint32_t nbits = block->residual_bits;
    const uint64_t half = nbits == 0 ? 0 : uint64_t{1} << (nbits - 1);
    uint64_t next = at.codes_at;
    const auto move = [&](double* value) {
        const uint64_t code = source.field(next, nbits);
        const uint64_t residual = code - half + (code >= half ? 1 : 0);
        *value = std::bit_cast<double>(std::bit_cast<uint64_t>(*value) + residual);
        next += nbits;
    };
    if (!at.dense) {
        for (uint64_t i = 0; i < at.residuals; i++) {
            const uint64_t index = source.field(at.places_at + i * CSET_INDEX_BITS, CSET_INDEX_BITS);
            if (index >= block->count) return false;
            move(values + index);
        }
        return true;
    }
    for (uint32_t first = 0; first < block->count; first += CSET_MAX_WIDTH) {
        const uint32_t part = std::min(CSET_MAX_WIDTH, block->count - first);
        for (uint64_t word = source.field(at.places_at + first, part); word != 0; word &= word - 1) {
            move(values + first + static_cast<uint32_t>(std::countr_zero(word)));
        }
    }
    return true;
}

bool apply_exceptions(const cset_block_t* block, uint64_t exceptions, const uint8_t* at, double* values) {
    for (uint64_t i = 0; i < exceptions; i++, at += CSET_EXCEPTION_SIZE) {
        uint16_t index;
        std::memcpy(&index, at, sizeof index);
        if (index >= block->count) return false;
        std::memcpy(&values[index], at + sizeof index, sizeof(double));
    }
    return true;
}

void elements_of(const cset_block_t* block, uint64_t* numbers, double* values) {
    if (block->codec == CSET_BITS) {
        for (uint32_t i = 0; i < block->count; i++) {
            values[i] = std::bit_cast<double>(block->base + (numbers[i] << block->exponent));
        }
        return;
    }
    const bool is_delta = block->codec == CSET_DELTA;
    if (is_delta) numbers[0] = block->base;
    cset_to_doubles(numbers, block->count, block->exponent, is_delta, values);
}

bool get_packed(const cset_block_t* block, const uint8_t* bytes, uint64_t size, double* values) {
    const bool is_delta = block->codec == CSET_DELTA, is_bits = block->codec == CSET_BITS;
    cset_bit_source source{.bytes = bytes, .size = size * 8};
    cset_groups_t groups;
    const corrections fixes = is_bits ? corrections{} : get_corrections(block, &source);
    if (!cset_groups_get(&source, block->count - (is_delta ? 1u : 0u), &groups)) return false;
    const uint64_t packed_at = (source.at + 7) / 8;
    if (packed_at + groups.packed_size + fixes.exceptions * CSET_EXCEPTION_SIZE != size) return false;
    uint64_t numbers[CSET_BLOCK_ELEMENTS];
    const uint64_t low = is_bits ? 0 : is_delta ? block->low : block->base;
    if (!cset_groups_unpack(groups, source, bytes + packed_at, low, numbers + (is_delta ? 1 : 0))) return false;
    elements_of(block, numbers, values);
    return apply_residuals(block, source, fixes, values) &&
           apply_exceptions(block, fixes.exceptions, bytes + packed_at + groups.packed_size, values);
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

void cs_stats_add_fast(cs_stats_t* stats, std::span<const double> values) {
    constexpr size_t LANES = 4;  // chains of additions and comparisons that do not wait for one another
    double sum[LANES] = {}, low[LANES], high[LANES];
    std::fill_n(low, LANES, INFINITE);
    std::fill_n(high, LANES, -INFINITE);
    const size_t whole = values.size() / LANES * LANES;
    for (size_t i = 0; i < whole; i += LANES) {
        for (size_t lane = 0; lane < LANES; lane++) {
            const double value = values[i + lane];
            sum[lane] += value;
            low[lane] = value < low[lane] ? value : low[lane];
            high[lane] = value > high[lane] ? value : high[lane];
        }
    }
    const double total = (sum[0] + sum[1]) + (sum[2] + sum[3]);
    if (std::isnan(total)) return cs_stats_add(stats, values);
    stats->count += whole;
    stats->min = std::min(stats->min, std::min(std::min(low[0], low[1]), std::min(low[2], low[3])));
    stats->max = std::max(stats->max, std::max(std::max(high[0], high[1]), std::max(high[2], high[3])));
    stats->sum += total;
    cs_stats_add(stats, values.subspan(whole));
}

bool cset_block_decode(const cset_block_t* block, std::span<const uint8_t> data, double* values) {
    ST_ASSERT(data.size() == block->data_size && data.size() <= CSET_BLOCK_MAX_SIZE);
    if (block->codec == CSET_CONST) {
        std::fill_n(values, block->count, std::bit_cast<double>(block->base));
        return true;
    }
    const size_t size = data.size() - CSET_CHECKSUM_SIZE;
    if (load_le32(data.data() + size) != XXH32(data.data(), size, 0)) return false;
    if (block->codec == CSET_RAW) {
        if (size != block->count * sizeof(double)) return false;
        std::memcpy(values, data.data(), size);
        return true;
    }
    return get_packed(block, data.data(), size, values);
}

}  // namespace veldar
