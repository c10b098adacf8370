// The `key=value` pairs of a text.
#include <algorithm>
#include <array>

#include "tools/libveldar/formats/line_format_internal.h"

namespace veldar::tool {
namespace {

constexpr size_t KEY_MAX = 64;
constexpr size_t PAIRS_MAX = 256;  // a line that has more holds data rather than fields

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}
bool is_key_start(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}
bool is_key_byte(char c) {
    return is_key_start(c) || is_digit(c) || c == '.' || c == '-';
}

// The key that ends before `equals`; empty when there is none.
std::string_view key_before(std::string_view text, size_t equals) {
    size_t start = equals;
    size_t lowest = equals > KEY_MAX ? equals - KEY_MAX : 0;
    while (start > lowest && is_key_byte(text[start - 1])) start--;
    bool whole_run = start == 0 || !is_key_byte(text[start - 1]);
    if (start == equals || !whole_run || !is_key_start(text[start])) return {};
    return text.substr(start, equals - start);
}

enum value_byte : uint8_t { PLAIN, END, SEPARATOR, OPEN, CLOSE };
constexpr std::array<value_byte, 256> VALUE_BYTES = [] {
    std::array<value_byte, 256> table{};
    for (size_t c = 0; c < 0x20; c++) table[c] = END;
    table[0x7F] = END;
    for (const char c : std::string_view(" \"'")) table[static_cast<unsigned char>(c)] = END;
    for (const char c : std::string_view(",;&")) table[static_cast<unsigned char>(c)] = SEPARATOR;
    for (const char c : std::string_view("([{<")) table[static_cast<unsigned char>(c)] = OPEN;
    for (const char c : std::string_view(")]}>")) table[static_cast<unsigned char>(c)] = CLOSE;
    return table;
}();

// Whether the text is digits and `comma` stands in front of three more, as in 1,234.
bool is_thousand(std::string_view text, size_t comma) {
    if (text[comma] != ',' || comma + 3 >= text.size()) return false;
    const auto digits = [&](size_t from, size_t to) {
        return from < to && std::all_of(text.begin() + static_cast<ptrdiff_t>(from),
                                        text.begin() + static_cast<ptrdiff_t>(to), is_digit);
    };
    const size_t after = comma + 4;
    if (!digits(comma + 1, after) || (after < text.size() && is_key_byte(text[after]) && text[after] != '.')) {
        return false;
    }
    const size_t sign = text[0] == '-' ? 1 : 0;
    const size_t first = std::min(text.find(','), comma);
    return first - sign <= 3 && digits(sign, first) && (first == comma || (comma - first) % 4 == 0);
}

// Whether the value begins as a URL: a scheme and "://", or a path that has a "?" before this place.
bool is_url(std::string_view text, size_t at) {
    const std::string_view before = text.substr(0, at);
    const size_t colon = before.find(':');
    const bool scheme = colon != std::string_view::npos && colon > 0 && before.substr(colon).starts_with("://") &&
                        std::all_of(before.begin(), before.begin() + static_cast<ptrdiff_t>(colon), is_key_byte);
    return scheme || (before.starts_with('/') && before.find('?') != std::string_view::npos);
}

// The size of a value without quotes.
size_t plain_size(std::string_view text) {
    int open = 0;
    bool url = false;
    for (size_t i = 0; i < text.size(); i++) {
        switch (VALUE_BYTES[static_cast<unsigned char>(text[i])]) {
            case END:
                return i;
            case SEPARATOR:
                if (url || is_thousand(text, i)) break;
                url = is_url(text, i);
                if (!url) return i;
                break;
            case OPEN:
                open++;
                break;
            case CLOSE:
                if (open-- == 0) return i;
                break;
            case PLAIN:
                break;
        }
    }
    return text.size();
}

// Without the punctuation of the sentence that the value stands in, and without brackets around it.
std::string_view bare_value(std::string_view value) {
    for (int brackets = 0; !value.empty() && brackets < 4;) {
        const char last = value.back();
        const value_byte front = VALUE_BYTES[static_cast<unsigned char>(value[0])];
        if (std::string_view(".,;:!?").find(last) != std::string_view::npos) {
            value.remove_suffix(1);
            continue;
        }
        const size_t inside = front == OPEN ? plain_size(value.substr(1)) : 0;
        if (inside == 0 || inside + 2 < value.size()) return value;
        value = value.substr(1, inside);  // the closing bracket may stand behind a blank
        brackets++;
    }
    return value;
}

}  // namespace

size_t key_size(std::string_view text) {
    size_t size = 0;
    while (size < text.size() && size <= KEY_MAX && is_key_byte(text[size])) size++;
    return size > 0 && size <= KEY_MAX && is_key_start(text[0]) ? size : 0;
}

void add_pairs(parsed_line* out, std::string_view text) {
    size_t pairs = 0;
    for (size_t at = text.find('='); at != std::string_view::npos && pairs < PAIRS_MAX; at = text.find('=', at)) {
        std::string_view key = key_before(text, at);
        std::string_view value = text.substr(++at);
        if (key.empty() || value.empty()) continue;
        if (value[0] == '=' || value[0] == '>') {
            at++;
            continue;
        }
        bool quoted = value[0] == '"' || value[0] == '\'';
        size_t size = quoted ? quoted_size(value.substr(1), value[0]) : plain_size(value);
        if (size == std::string_view::npos) continue;
        value = value.substr(quoted ? 1 : 0, size);
        add_field(out, key, quoted ? value : bare_value(value));
        pairs++;
        at += size;
    }
}

}  // namespace veldar::tool
