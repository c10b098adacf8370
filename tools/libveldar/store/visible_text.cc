#include "tools/libveldar/store/visible_text.h"

#include <algorithm>
#include <array>
#include <cstdint>

namespace veldar::tool {

void put_visible(std::string* out, std::string_view text) {
    constexpr std::string_view HEX = "0123456789ABCDEF";
    for (size_t at = 0; at < text.size();) {
        const auto byte = static_cast<unsigned char>(text[at]);
        const size_t length = std::max<size_t>(utf8_length(text.substr(at)), 1);
        const bool wide_control = length == 2 && byte == 0xC2 && static_cast<unsigned char>(text[at + 1]) < 0xA0;
        const bool line_end = byte == '\r' && at + 1 < text.size() && text[at + 1] == '\n';
        if ((byte < 0x20 && byte != '\n' && byte != '\t') || byte == 0x7F) {
            if (!line_end) out->append({'^', static_cast<char>(byte ^ 0x40)});
        } else if (wide_control || (length == 1 && byte >= 0x80 && byte < 0xA0)) {
            const auto code = static_cast<unsigned char>(text[at + length - 1]);
            out->append({'\\', 'x', HEX[code >> 4], HEX[code & 15]});
        } else {
            out->append(text.substr(at, length));
        }
        at += length;
    }
}

size_t utf8_length(std::string_view text) {
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned lead = byte(0);
    const size_t length = lead < 0x80 ? 1 : lead >> 5 == 6 ? 2 : lead >> 4 == 14 ? 3 : lead >> 3 == 30 ? 4 : 0;
    if (length > text.size()) return 0;
    uint32_t code = length == 1 ? lead : lead & (0x7Fu >> length);
    for (size_t i = 1; i < length; i++) {
        if ((byte(i) & 0xC0) != 0x80) return 0;
        code = code << 6 | (byte(i) & 0x3F);
    }
    constexpr std::array<uint32_t, 5> LEAST = {0, 0, 0x80, 0x800, 0x10000};
    const bool surrogate = code >= 0xD800 && code < 0xE000;
    return code < LEAST[length] || surrogate || code > 0x10FFFF ? 0 : length;
}

}  // namespace veldar::tool
