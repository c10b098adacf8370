#include "libzero/ospath-builder.h"

#include <cstring>
#include <limits>

#include "libzero/assertions.h"

namespace veldar {

namespace {

constexpr uint32_t MAX_DECIMAL_CHARACTERS = 20;
static_assert(std::numeric_limits<uint64_t>::digits10 + 1 == MAX_DECIMAL_CHARACTERS);

struct digit_pairs {
    char text[200];
    constexpr digit_pairs() : text() {
        for (int i = 0; i < 100; i++) {
            text[2 * i] = static_cast<char>('0' + i / 10);
            text[2 * i + 1] = static_cast<char>('0' + i % 10);
        }
    }
};
constexpr digit_pairs PAIRS;
static_assert(sizeof PAIRS.text == size_t{2} * 100 && PAIRS.text[199] == '9', "two digits for each rest of 100");

// NINES[k] is 10^k - 1, the largest number of k digits.
struct largest_numbers {
    uint64_t of[20];
    constexpr largest_numbers() : of() {
        for (int k = 1; k < 20; k++) of[k] = of[k - 1] * 10 + 9;
    }
};
constexpr largest_numbers NINES;
static_assert(NINES.of[19] == 9999999999999999999u && (64 * 1233 >> 12) == 19, "the longest estimate has its entry");

// The magnitude of a negative number without overflow at the smallest one.
constexpr uint64_t magnitude(int64_t value) {
    return value < 0 ? uint64_t{0} - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
}

// Where the next `length` bytes go, or null when the builder is invalid or becomes so because they do not fit.
char* path_claim(ospath_builder* b, size_t length) {
    if (!ospath_builder_valid(b)) return nullptr;
    ST_ASSERT(b->space_left <= OSPATH_BUF_SIZE);
    if (length > b->space_left) {
        b->space_left = BUILDER_INVALID;
        return nullptr;
    }
    char* at = b->buf.val + (OSPATH_BUF_SIZE - b->space_left);
    b->space_left -= length;
    return at;
}

char* string_claim(string_builder* b, size_t length) {
    if (!string_builder_valid(b)) return nullptr;
    if (length > b->space_left) {
        b->space_left = BUILDER_INVALID;
        return nullptr;
    }
    char* at = b->out;
    b->out += length;
    b->space_left -= length;
    return at;
}

void copy_if(char* to, const char* from, size_t length) {
    if (to != nullptr && length != 0) std::memcpy(to, from, length);
}

}  // namespace

int ospath_buf_set(ospath_buf* buf, const char* text) {
    const size_t length = std::strlen(text);
    if (length >= OSPATH_BUF_SIZE) return -1;
    std::memmove(buf->val, text, length + 1);
    return 0;
}

void ospath_builder_start(ospath_builder* b) {
    b->space_left = OSPATH_BUF_SIZE;
}

bool ospath_builder_valid(const ospath_builder* b) {
    return b->space_left != BUILDER_INVALID;
}

void ospath_builder_appendn(ospath_builder* b, const char* text, size_t length) {
    copy_if(path_claim(b, length), text, length);
}

void ospath_builder_appendz(ospath_builder* b, const char* text) {
    ospath_builder_appendn(b, text, std::strlen(text));
}

void ospath_builder_append1(ospath_builder* b, char c) {
    ospath_builder_appendn(b, &c, 1);
}

void ospath_builder_append_decimal_u64(ospath_builder* b, uint64_t value) {
    char digits[MAX_DECIMAL_CHARACTERS];
    ospath_builder_appendn(b, digits, convertU64ToAscii(digits, value));
}

void ospath_builder_append_sep(ospath_builder* b) {
    ospath_builder_append1(b, '/');
}

int ospath_builder_finish(ospath_builder* b) {
    ospath_builder_append1(b, '\0');
    if (!ospath_builder_valid(b)) b->buf.val[0] = '\0';
    return ospath_builder_valid(b) ? 0 : -1;
}

int ospath_builder_concat_two_paths(ospath_builder* b, const char* first, const char* second) {
    ospath_builder_start(b);
    ospath_builder_appendz(b, first);
    ospath_builder_appendz(b, second);
    return ospath_builder_finish(b);
}

int ospath_builder_concat_two_paths_with_sep(ospath_builder* b, const char* first, const char* second) {
    ospath_builder_start(b);
    ospath_builder_appendz(b, first);
    ospath_builder_append_sep(b);
    ospath_builder_appendz(b, second);
    return ospath_builder_finish(b);
}

void string_builder_start(string_builder* b, char* out, size_t size) {
    ST_ASSERT(size != BUILDER_INVALID);
    b->out = out;
    b->space_left = size;
}

bool string_builder_valid(const string_builder* b) {
    return b->space_left != BUILDER_INVALID;
}

void string_builder_appendn(string_builder* b, const char* text, size_t length) {
    copy_if(string_claim(b, length), text, length);
}

void string_builder_appendz(string_builder* b, const char* text) {
    string_builder_appendn(b, text, std::strlen(text));
}

void string_builder_append1(string_builder* b, char c) {
    string_builder_appendn(b, &c, 1);
}

void string_builder_append_decimal_u64(string_builder* b, uint64_t value) {
    char digits[MAX_DECIMAL_CHARACTERS];
    string_builder_appendn(b, digits, convertU64ToAscii(digits, value));
}

void string_builder_append_decimal_i64(string_builder* b, int64_t value) {
    char digits[MAX_DECIMAL_CHARACTERS];
    string_builder_appendn(b, digits, convertI64ToAscii(digits, value));
}

void string_builder_append_utf8_codepoint(string_builder* b, uint32_t codepoint) {
    if (codepoint > 0x10FFFF) return;
    const auto tail = [codepoint](int shift) { return static_cast<char>(0x80 | ((codepoint >> shift) & 0x3F)); };
    const auto lead = [codepoint](uint32_t mark, int shift) { return static_cast<char>(mark | (codepoint >> shift)); };
    if (codepoint <= 0x7F) {
        string_builder_append1(b, static_cast<char>(codepoint));
    } else if (codepoint <= 0x7FF) {
        const char bytes[] = {lead(0xC0, 6), tail(0)};
        string_builder_appendn(b, bytes, sizeof bytes);
    } else if (codepoint < 0x10000) {
        const char bytes[] = {lead(0xE0, 12), tail(6), tail(0)};
        string_builder_appendn(b, bytes, sizeof bytes);
    } else {
        const char bytes[] = {lead(0xF0, 18), tail(12), tail(6), tail(0)};
        string_builder_appendn(b, bytes, sizeof bytes);
    }
}

int string_builder_finish(string_builder* b) {
    string_builder_append1(b, '\0');
    return string_builder_valid(b) ? 0 : -1;
}

uint32_t decimalCharactersU64(uint64_t value) {
    const uint64_t v = value | 1;  // 0 has one digit; no even number is lifted over a power of ten minus one
    const uint32_t bits = 64 - static_cast<uint32_t>(__builtin_clzll(v));
    const uint32_t estimate = bits * 1233 >> 12;  // bits * log10(2), rounded down: the number of digits or one less
    return estimate + (v > NINES.of[estimate] ? 1 : 0);
}

uint32_t decimalCharactersU32(uint32_t value) {
    return decimalCharactersU64(value);
}
uint32_t decimalCharactersI32(int32_t value) {
    return decimalCharactersI64(value);
}

uint32_t decimalCharactersI64(int64_t value) {
    return decimalCharactersU64(magnitude(value)) + (value < 0 ? 1 : 0);
}

void convertU64ToAsciiSizeKnown(char* out, uint64_t value, uint32_t characters) {
    char* at = out + characters;
    while (value >= 100) {
        at -= 2;
        std::memcpy(at, PAIRS.text + 2 * (value % 100), 2);
        value /= 100;
    }
    ST_ASSERT(at - out == (value >= 10 ? 2 : 1));  // another length writes before the text or leaves a gap
    if (value >= 10) {
        std::memcpy(at - 2, PAIRS.text + 2 * value, 2);
    } else {
        at[-1] = static_cast<char>('0' + value);
    }
}

void convertU32ToAsciiSizeKnown(char* out, uint32_t value, uint32_t characters) {
    convertU64ToAsciiSizeKnown(out, value, characters);
}

void convertI64ToAsciiSizeKnown(char* out, int64_t value, uint32_t characters) {
    const uint32_t sign = value < 0 ? 1 : 0;
    if (value < 0) *out = '-';
    convertU64ToAsciiSizeKnown(out + sign, magnitude(value), characters - sign);
}

uint32_t convertU64ToAscii(char* out, uint64_t value) {
    const uint32_t characters = decimalCharactersU64(value);
    convertU64ToAsciiSizeKnown(out, value, characters);
    return characters;
}

uint32_t convertI64ToAscii(char* out, int64_t value) {
    const uint32_t characters = decimalCharactersI64(value);
    convertI64ToAsciiSizeKnown(out, value, characters);
    return characters;
}

uint32_t convertU32ToAscii(char* out, uint32_t value) {
    return convertU64ToAscii(out, value);
}
uint32_t convertI32ToAscii(char* out, int32_t value) {
    return convertI64ToAscii(out, value);
}

}  // namespace veldar
