// Text from elsewhere, made harmless for a terminal.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace veldar::tool {

// Appends the text with its control characters visible, newlines and tabs aside: "^[", "^M", and "\\x9B" for the bytes
// that begin a command in an 8-bit set.
void put_visible(std::string* out, std::string_view text);
// The bytes of the UTF-8 character at the beginning of a text that is not empty; 0 when it is none.
size_t utf8_length(std::string_view text);

}  // namespace veldar::tool
