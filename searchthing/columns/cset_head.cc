// Heads of blocks as bytes.
#include <cstring>

#include "libzero/assertions.h"
#include "searchthing/columns/cset_codec.h"
#include "searchthing/columns/cset_codec_internal.h"

namespace veldar {

namespace {

constexpr uint8_t CODEC_MASK = 7, RESIDUAL_MASK = 7;
constexpr uint8_t MINIMUM_IS_DOUBLE = 8, MAXIMUM_IS_DOUBLE = 16, SUM_IS_DOUBLE = 32, HAS_RESIDUALS = 64,
                  HAS_EXCEPTIONS = 128;
constexpr int64_t RESIDUAL_ZERO = 8;  // in four bits

uint64_t zigzag(int64_t number) {
    return (static_cast<uint64_t>(number) << 1) ^ static_cast<uint64_t>(number >> 63);
}
int64_t unzigzag(uint64_t code) {
    return static_cast<int64_t>((code >> 1) ^ (0 - (code & 1)));
}

struct head_sink {
    uint8_t* at;

    void byte(uint8_t value) { *at++ = value; }
    void varint(uint64_t value) {
        for (; value >= 128; value >>= 7) byte(static_cast<uint8_t>(value | 128));
        byte(static_cast<uint8_t>(value));
    }
    void signed_varint(uint64_t value) { varint(zigzag(static_cast<int64_t>(value))); }
    void word(uint64_t value) {
        store_le64(at, value);
        at += sizeof value;
    }
};

// Reading past the end gives zeros and is remembered.
struct head_source {
    std::span<const uint8_t> bytes;
    size_t at = 0;
    bool is_short = false;

    uint8_t byte() {
        if (at < bytes.size()) return bytes[at++];
        is_short = true;
        return 0;
    }
    uint64_t varint() {
        uint64_t value = 0;
        for (uint32_t shift = 0; shift < 64; shift += 7) {
            const uint8_t next = byte();
            value |= uint64_t{next & 127u} << shift;
            if (next < 128) return value;
        }
        is_short = true;
        return 0;
    }
    uint64_t signed_varint() { return static_cast<uint64_t>(unzigzag(varint())); }
    uint64_t word() {
        if (bytes.size() - at < 8) {
            is_short = true;
            return 0;
        }
        at += 8;
        return load_le64(bytes.data() + at - 8);
    }
    double number() { return std::bit_cast<double>(word()); }
};

// A number as the head says it: k and a small residual, or the double.
struct head_number {
    bool is_double = true;
    int64_t k = 0;
    int64_t residual = 0;
};

head_number number_of(const cset_block_t* block, double value, bool with_residual) {
    head_number number;
    if (block->codec != CSET_DECIMAL && block->codec != CSET_DELTA) return number;
    if (cset_to_decimal(value, block->exponent, &number.k, &number.residual) == CSET_UNFIT) return number;
    const bool fits =
        with_residual ? number.residual >= -RESIDUAL_ZERO && number.residual < RESIDUAL_ZERO : number.residual == 0;
    number.is_double = !fits;
    return number;
}

void put_number(const head_number& number, double value, uint64_t base, head_sink* sink) {
    if (number.is_double) {
        sink->word(std::bit_cast<uint64_t>(value));
    } else {
        sink->signed_varint(static_cast<uint64_t>(number.k) - base);
    }
}

// Whether a codec has such flags and such an exponent. Numbers are doubles where there is no decimal exponent.
bool codec_is_sound(const cset_block_t& block, uint8_t flags) {
    constexpr uint8_t DOUBLES = MINIMUM_IS_DOUBLE | MAXIMUM_IS_DOUBLE | SUM_IS_DOUBLE;
    switch (block.codec) {
        case CSET_CONST:
            return flags == 0 && block.exponent == 0;
        case CSET_RAW:
            return flags == DOUBLES && block.exponent == 0;
        case CSET_DECIMAL:
        case CSET_DELTA:
            return block.exponent <= CSET_MAX_EXPONENT && block.residual_bits <= CSET_MAX_RESIDUAL_BITS;
        default:
            return block.codec == CSET_BITS && (flags | HAS_EXCEPTIONS) == (DOUBLES | HAS_EXCEPTIONS);
    }
}

void settle_const(cset_block_t* block) {
    const auto value = std::bit_cast<double>(block->base);
    cs_stats_t stats = cs_stats_none();
    cs_stats_add(&stats, {&value, 1});
    block->minimum = stats.min;
    block->maximum = stats.max;
    block->sum = value * block->count;
}

void get_numbers(head_source* source, uint8_t flags, cset_block_t* block) {
    const uint8_t residuals = (flags & HAS_RESIDUALS) != 0 ? source->byte() : RESIDUAL_ZERO * 17;
    const auto number = [&](uint8_t is_double, uint64_t base, int64_t residual) {
        if ((flags & is_double) != 0) return source->number();
        const auto k = static_cast<int64_t>(base + source->signed_varint());
        return cset_decimal(k, block->exponent, residual);
    };
    block->minimum = number(MINIMUM_IS_DOUBLE, block->base, (residuals & 15) - RESIDUAL_ZERO);
    block->maximum = number(MAXIMUM_IS_DOUBLE, block->base, (residuals >> 4) - RESIDUAL_ZERO);
    block->sum = number(SUM_IS_DOUBLE, 0, 0);
}

}  // namespace

size_t cset_head_put(const cset_block_t* block, uint8_t* out) {
    const bool is_bits = block->codec == CSET_BITS, is_const = block->codec == CSET_CONST;
    const bool is_decimal = block->codec == CSET_DECIMAL || block->codec == CSET_DELTA;
    const head_number minimum = number_of(block, block->minimum, true);
    const head_number maximum = number_of(block, block->maximum, true);
    const head_number sum = number_of(block, block->sum, false);
    uint32_t flags = block->residual_bits;
    if (!is_const) {
        flags |= (minimum.is_double ? MINIMUM_IS_DOUBLE : 0) | (maximum.is_double ? MAXIMUM_IS_DOUBLE : 0) |
                 (sum.is_double ? SUM_IS_DOUBLE : 0);
    }
    const int64_t low_residual = minimum.is_double ? 0 : minimum.residual;
    const int64_t high_residual = maximum.is_double ? 0 : maximum.residual;
    const bool has_residuals = low_residual != 0 || high_residual != 0;
    if (has_residuals) flags |= HAS_RESIDUALS;
    if (is_bits ? block->exponent % 2 != 0 : block->has_exceptions) flags |= HAS_EXCEPTIONS;
    head_sink sink{out};
    sink.byte(static_cast<uint8_t>(block->codec | (is_bits ? block->exponent / 2 : block->exponent) << 3));
    sink.byte(static_cast<uint8_t>(flags));
    sink.varint(block->count);
    sink.varint(block->data_size);
    if (is_const || is_bits) sink.word(block->base);
    if (is_decimal) sink.signed_varint(block->base);
    if (block->codec == CSET_DELTA) sink.signed_varint(block->low);
    if (has_residuals) {
        sink.byte(static_cast<uint8_t>((low_residual + RESIDUAL_ZERO) | (high_residual + RESIDUAL_ZERO) << 4));
    }
    if (!is_const) {
        put_number(minimum, block->minimum, block->base, &sink);
        put_number(maximum, block->maximum, block->base, &sink);
        put_number(sum, block->sum, 0, &sink);
    }
    const auto size = static_cast<size_t>(sink.at - out);
    ST_ASSERT(size >= CSET_HEAD_MIN_SIZE && size <= CSET_HEAD_MAX_SIZE);
    return size;
}

bool cset_head_get(std::span<const uint8_t> bytes, cset_block_t* block, size_t* size) {
    head_source source{bytes};
    const uint8_t first = source.byte(), flags = source.byte();
    *block = {};
    block->codec = first & CODEC_MASK;
    block->exponent = first >> 3;
    block->residual_bits = flags & RESIDUAL_MASK;
    const bool is_bits = block->codec == CSET_BITS, is_const = block->codec == CSET_CONST;
    if (is_bits) block->exponent = static_cast<uint8_t>(block->exponent * 2 + ((flags & HAS_EXCEPTIONS) != 0 ? 1 : 0));
    block->has_exceptions = !is_bits && (flags & HAS_EXCEPTIONS) != 0;
    if (!codec_is_sound(*block, flags)) return false;
    const uint64_t count = source.varint(), data_size = source.varint();
    if (count == 0 || count > CSET_BLOCK_ELEMENTS || data_size > CSET_BLOCK_MAX_SIZE) return false;
    if (is_const ? data_size != 0 : data_size < CSET_CHECKSUM_SIZE) return false;
    block->count = static_cast<uint16_t>(count);
    block->data_size = static_cast<uint32_t>(data_size);
    if (is_const || is_bits) block->base = source.word();
    if (block->codec == CSET_DECIMAL || block->codec == CSET_DELTA) block->base = source.signed_varint();
    if (block->codec == CSET_DELTA) block->low = source.signed_varint();
    if (is_const) {
        settle_const(block);
    } else {
        get_numbers(&source, flags, block);
    }
    *size = source.at;
    return !source.is_short;
}

}  // namespace veldar
