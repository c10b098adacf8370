// Bounded builders for paths and strings, and decimal formatting without the C library's formatted output. Nothing here
// allocates, and everything but the path builders' 4 KiB lives in the caller's memory, so it may run in a signal
// handler.
//
// A builder that has overflowed is invalid for good: the append that did not fit and all later ones write nothing, and
// only the finish call has to be checked.
#pragma once

#include <cstddef>
#include <cstdint>

namespace veldar {

using ospath_char_t = char;
inline constexpr size_t OSPATH_BUF_SIZE = 4096;
inline constexpr uint64_t BUILDER_INVALID = ~uint64_t{0};  // in space_left: an append did not fit

// A NUL-terminated path of at most 4095 bytes.
struct ospath_buf {
    ospath_char_t val[OSPATH_BUF_SIZE] = {};
};
// Copies the text with its NUL; 0, or -1 with nothing copied when it is longer than 4095 bytes.
[[nodiscard]] int ospath_buf_set(ospath_buf* buf, const char* text);

struct ospath_builder {
    ospath_buf buf;
    uint64_t space_left = OSPATH_BUF_SIZE;  // free bytes of buf, the next is at 4096 - space_left; or BUILDER_INVALID
};
void ospath_builder_start(ospath_builder* b);  // empty and valid again
bool ospath_builder_valid(const ospath_builder* b);
void ospath_builder_appendn(ospath_builder* b, const char* text, size_t length);
void ospath_builder_appendz(ospath_builder* b, const char* text);  // without the text's NUL
void ospath_builder_append1(ospath_builder* b, char c);
void ospath_builder_append_decimal_u64(ospath_builder* b, uint64_t value);
void ospath_builder_append_sep(ospath_builder* b);  // "/"
// Appends the terminating NUL: 0 when the path in `buf` is complete, -1 when anything did not fit. Then it is "", which
// is no file's.
[[nodiscard]] int ospath_builder_finish(ospath_builder* b);
// Start, both texts (the second form: with a "/" between them), finish.
[[nodiscard]] int ospath_builder_concat_two_paths(ospath_builder* b, const char* first, const char* second);
[[nodiscard]] int ospath_builder_concat_two_paths_with_sep(ospath_builder* b, const char* first, const char* second);

// The same over a buffer of the caller, which outlives the builder.
struct string_builder {
    char* out = nullptr;      // the next byte to write
    uint64_t space_left = 0;  // free bytes at `out`, or BUILDER_INVALID
};
void string_builder_start(string_builder* b, char* out, size_t size);
bool string_builder_valid(const string_builder* b);
void string_builder_appendn(string_builder* b, const char* text, size_t length);
void string_builder_appendz(string_builder* b, const char* text);
void string_builder_append1(string_builder* b, char c);
void string_builder_append_decimal_u64(string_builder* b, uint64_t value);
void string_builder_append_decimal_i64(string_builder* b, int64_t value);
// 1 to 4 bytes of UTF-8, all or none; a value above 0x10FFFF appends nothing and leaves the builder valid.
void string_builder_append_utf8_codepoint(string_builder* b, uint32_t codepoint);
[[nodiscard]] int string_builder_finish(string_builder* b);

// Writes the decimal digits ("-" and the magnitude's digits for a negative number), no NUL, and returns their number:
// at most 10 characters for U32, 11 for I32, 20 for U64 and I64.
uint32_t convertU32ToAscii(char* out, uint32_t value);
uint32_t convertU64ToAscii(char* out, uint64_t value);
uint32_t convertI32ToAscii(char* out, int32_t value);
uint32_t convertI64ToAscii(char* out, int64_t value);
// The number of characters that the matching convert function writes.
uint32_t decimalCharactersU32(uint32_t value);
uint32_t decimalCharactersU64(uint64_t value);
uint32_t decimalCharactersI32(int32_t value);
uint32_t decimalCharactersI64(int64_t value);
// As the convert functions, for a caller that has already asked the matching decimalCharacters function.
void convertU32ToAsciiSizeKnown(char* out, uint32_t value, uint32_t characters);
void convertU64ToAsciiSizeKnown(char* out, uint64_t value, uint32_t characters);
void convertI64ToAsciiSizeKnown(char* out, int64_t value, uint32_t characters);

}  // namespace veldar
