// Bounded builders for paths and strings, and decimal formatting without the C library's formatted output.
#pragma once

#include <cstddef>
#include <cstdint>

namespace veldar {

using ospath_char_t = char;
inline constexpr size_t OSPATH_BUF_SIZE = 4096;
inline constexpr uint64_t BUILDER_INVALID = ~uint64_t{0};

struct ospath_buf {
    ospath_char_t val[OSPATH_BUF_SIZE] = {};
};
int ospath_buf_set(ospath_buf* buf, const char* text);

struct ospath_builder {
    ospath_buf buf;
    uint64_t space_left = OSPATH_BUF_SIZE;
};
void ospath_builder_start(ospath_builder* b);
bool ospath_builder_valid(const ospath_builder* b);
void ospath_builder_appendn(ospath_builder* b, const char* text, size_t length);
void ospath_builder_appendz(ospath_builder* b, const char* text);
void ospath_builder_append1(ospath_builder* b, char c);
void ospath_builder_append_decimal_u64(ospath_builder* b, uint64_t value);
void ospath_builder_append_sep(ospath_builder* b);
int ospath_builder_finish(ospath_builder* b);
int ospath_builder_concat_two_paths(ospath_builder* b, const char* first, const char* second);
int ospath_builder_concat_two_paths_with_sep(ospath_builder* b, const char* first, const char* second);

struct string_builder {
    char* out = nullptr;
    uint64_t space_left = 0;
};
void string_builder_start(string_builder* b, char* out, size_t size);
bool string_builder_valid(const string_builder* b);
void string_builder_appendn(string_builder* b, const char* text, size_t length);
void string_builder_appendz(string_builder* b, const char* text);
void string_builder_append1(string_builder* b, char c);
void string_builder_append_decimal_u64(string_builder* b, uint64_t value);
void string_builder_append_decimal_i64(string_builder* b, int64_t value);
void string_builder_append_utf8_codepoint(string_builder* b, uint32_t codepoint);
int string_builder_finish(string_builder* b);

uint32_t convertU32ToAscii(char* out, uint32_t value);
uint32_t convertU64ToAscii(char* out, uint64_t value);
uint32_t convertI32ToAscii(char* out, int32_t value);
uint32_t convertI64ToAscii(char* out, int64_t value);
uint32_t decimalCharactersU32(uint32_t value);
uint32_t decimalCharactersU64(uint64_t value);
uint32_t decimalCharactersI32(int32_t value);
uint32_t decimalCharactersI64(int64_t value);
void convertU32ToAsciiSizeKnown(char* out, uint32_t value, uint32_t characters);
void convertU64ToAsciiSizeKnown(char* out, uint64_t value, uint32_t characters);
void convertI32ToAsciiSizeKnown(char* out, int32_t value, uint32_t characters);
void convertI64ToAsciiSizeKnown(char* out, int64_t value, uint32_t characters);

}  // namespace veldar
