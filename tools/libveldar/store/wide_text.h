// Logs in UTF-16, told by their first bytes, decoded to UTF-8.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace veldar::tool {

enum text_encoding_t : uint8_t { TEXT_UTF8, TEXT_UTF16_LITTLE, TEXT_UTF16_BIG, TEXT_UTF32 };

// The encoding of a text that begins like this: by its mark, or by the NULs of its ASCII characters. UTF-8 is what is
// none of the others.
text_encoding_t text_encoding_of(std::string_view head);

struct wide_point {
    uint64_t out = 0, in = 0;
};

// Decodes from front to back. Where a character begins is noted every few MiB, as offsets in the two encodings.
struct wide_text {
    bool big = false;
    std::string undecoded;   // what has been read of the file, and not decoded
    uint64_t in_offset = 0;  // of the first of these
    std::string decoded;     // what has not been given, from `given` on
    size_t given = 0;
    uint64_t out_offset = 0;  // of the first of these
    std::vector<wide_point> points;
};

// Decodes what has been read, but for half a character at its end. The mark at the text's front is left out; half a
// pair becomes U+FFFD.
void wide_text_decode(wide_text* text);
// Begins anew at the last point not behind an offset of the decoded text.
void wide_text_restart(wide_text* text, uint64_t out_offset);

}  // namespace veldar::tool
