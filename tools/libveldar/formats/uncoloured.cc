#include "tools/libveldar/formats/uncoloured.h"

namespace veldar::tool {
namespace {

constexpr char ESC = '\033';

// The bytes of the sequence at the front of the text, which begins with ESC; that byte alone when it is no whole one.
size_t sequence_size(std::string_view text) {
    if (text.starts_with("\033[")) {
        size_t end = 2;
        while (end < text.size() && text[end] >= 0x20 && text[end] < 0x40) end++;
        return end < text.size() && text[end] >= 0x40 && text[end] < 0x7F ? end + 1 : 1;
    }
    if (!text.starts_with("\033]")) return 1;
    const size_t close = text.find_first_of("\a\033\n", 1);
    return close != std::string_view::npos && text[close] == '\a' ? close + 1 : 1;
}

}  // namespace

std::string_view uncoloured(std::string_view text, std::string* scratch) {
    size_t escape = text.find(ESC);
    if (escape == std::string_view::npos) return text;
    std::string plain;
    while (escape != std::string_view::npos) {
        plain.append(text.substr(0, escape));
        text.remove_prefix(escape + sequence_size(text.substr(escape)));
        escape = text.find(ESC);
    }
    *scratch = plain.append(text);
    return *scratch;
}

}  // namespace veldar::tool
