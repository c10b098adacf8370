#include "searchthing/columns/cset_block1.h"

#include <xxhash.h>

#include <algorithm>
#include <bit>
#include <cstring>

#include "libzero/assertions.h"
#include "libzero/endian.h"
#include "searchthing/columns/cset_codec_internal.h"

namespace veldar {

namespace {

// The bytes of a block's data. The checksum follows them, so that eight bytes can be loaded from each of them.
struct byte_source {
    const uint8_t* at;
    uint64_t left;
    bool is_short = false;

    // The next bytes; zeros when there are fewer, which is remembered.
    const uint8_t* take(uint64_t size) {
        static constexpr uint8_t ZEROS[CSET_BLOCK1_MAX_SIZE] = {};
        is_short |= size > left;
        const uint8_t* const taken = is_short ? ZEROS : at;
        const uint64_t used = std::min(size, left);
        at += used;
        left -= used;
        return taken;
    }
};

// Field `index` of a packed array that at least eight bytes follow.
uint64_t packed_field(const uint8_t* packed, uint64_t index, uint32_t width, uint64_t mask) {
    const uint64_t bit = index * width;
    return (load_le64(packed + bit / 8) >> (bit % 8)) & mask;
}

double decimal(uint64_t k, double divisor) {
    return static_cast<double>(static_cast<int64_t>(k)) / divisor;
}

// Moves the elements whose bits are set; false for bits of no element.
bool apply_residuals(const cset_block1_t* block, byte_source* source, double* values) {
    const uint64_t size = cset_words_size(block->count);
    const uint8_t* bitmap = source->take(size);
    if (block->count % 64 != 0 && load_le64(bitmap + size - 8) >> (block->count % 64) != 0) return false;
    uint64_t moved = 0;
    for (uint64_t at = 0; at < size; at += 8) moved += static_cast<uint64_t>(std::popcount(load_le64(bitmap + at)));
    const uint32_t nbits = block->residual_bits;
    const uint8_t* residuals = source->take(cset_words_size(moved * nbits));
    const uint64_t half = uint64_t{1} << (nbits - 1);
    uint64_t index = 0;
    for (uint64_t at = 0; at < size; at += 8) {
        for (uint64_t word = load_le64(bitmap + at); word != 0; word &= word - 1) {
            double* value = values + at * 8 + static_cast<uint32_t>(std::countr_zero(word));
            const uint64_t code = packed_field(residuals, index++, nbits, cset_low_bits(nbits));
            const uint64_t residual = code - half + (code >= half ? 1 : 0);
            *value = std::bit_cast<double>(std::bit_cast<uint64_t>(*value) + residual);
        }
    }
    return true;
}

bool apply_corrections(const cset_block1_t* block, byte_source* source, double* values) {
    if (block->residual_bits > 0 && !apply_residuals(block, source, values)) return false;
    const uint8_t* exception = source->take(cset_words_size(uint64_t{block->exceptions} * CSET_EXCEPTION_SIZE * 8));
    for (uint32_t i = 0; i < block->exceptions; i++, exception += CSET_EXCEPTION_SIZE) {
        uint16_t index;
        std::memcpy(&index, exception, sizeof index);
        if (index >= block->count) return false;
        std::memcpy(&values[index], exception + sizeof index, sizeof(double));
    }
    return true;
}

bool get_decimal(const cset_block1_t* block, byte_source* source, double* values) {
    const uint8_t* head = source->take(8);
    const uint8_t* packed = source->take(cset_words_size(uint64_t{block->count} * block->width));
    const uint64_t base = load_le64(head);
    const double divisor = CSET_POWERS[block->exponent];
    const uint64_t mask = cset_low_bits(block->width);
    for (uint32_t i = 0; i < block->count; i++) {
        values[i] = decimal(base + packed_field(packed, i, block->width, mask), divisor);
    }
    return apply_corrections(block, source, values);
}

bool get_delta(const cset_block1_t* block, byte_source* source, double* values) {
    const uint8_t* head = source->take(16);
    const uint8_t* packed = source->take(cset_words_size(uint64_t{block->count - 1u} * block->width));
    uint64_t k = load_le64(head);
    const uint64_t base = load_le64(head + 8);
    const double divisor = CSET_POWERS[block->exponent];
    const uint64_t mask = cset_low_bits(block->width);
    values[0] = decimal(k, divisor);
    for (uint32_t i = 1; i < block->count; i++) {
        k += base + packed_field(packed, i - 1, block->width, mask);
        values[i] = decimal(k, divisor);
    }
    return apply_corrections(block, source, values);
}

bool get_bits(const cset_block1_t* block, byte_source* source, double* values) {
    const uint8_t* head = source->take(8);
    const uint8_t* packed = source->take(cset_words_size(uint64_t{block->count} * block->width));
    const uint64_t base = load_le64(head);
    const uint64_t mask = cset_low_bits(block->width);
    for (uint32_t i = 0; i < block->count; i++) {
        const uint64_t offset = packed_field(packed, i, block->width, mask) << block->exponent;
        values[i] = std::bit_cast<double>(base + offset);
    }
    return true;
}

bool get_elements(const cset_block1_t* block, byte_source* source, double* values) {
    switch (block->codec) {
        case CSET_CONST:
            std::fill_n(values, block->count, std::bit_cast<double>(load_le64(source->take(8))));
            return true;
        case CSET_RAW: {
            const uint64_t size = uint64_t{block->count} * sizeof(double);
            std::memcpy(values, source->take(size), size);
            return true;
        }
        case CSET_DECIMAL:
            return get_decimal(block, source, values);
        case CSET_DELTA:
            return get_delta(block, source, values);
        default:
            return get_bits(block, source, values);
    }
}

}  // namespace

bool cset_block1_is_sound(const cset_block1_t* block) {
    const uint32_t max_exponent = block->codec == CSET_BITS ? CSET_MAX_SHIFT : CSET_MAX_EXPONENT;
    return block->count > 0 && block->count <= CSET_BLOCK1_ELEMENTS && block->codec <= CSET_BITS &&
           block->exponent <= max_exponent && block->width <= CSET_MAX_WIDTH &&
           block->residual_bits <= CSET_MAX_RESIDUAL_BITS && block->exceptions <= block->count;
}

bool cset_block1_decode(const cset_block1_t* block, std::span<const uint8_t> data, double* values) {
    ST_ASSERT(cset_block1_is_sound(block));
    if (data.size() < 8) return false;
    byte_source source{.at = data.data(), .left = data.size() - 8};
    if (load_le64(data.data() + source.left) != XXH32(data.data(), source.left, 0)) return false;
    return get_elements(block, &source, values) && !source.is_short && source.left == 0;
}

}  // namespace veldar
