#include "tools/libveldar/formats/json_text.h"

#include <cstdint>

#include "tools/libveldar/formats/log_stamp.h"

namespace veldar::tool {
namespace {

constexpr size_t UNICODE_ESCAPE = 6;  // bytes of "\u00e9"

bool is_surrogate(uint32_t code, uint32_t first) {
    return code >= first && code < first + 0x400;
}

// The code of "\uXXXX" at the front of the text.
bool code_of(std::string_view text, uint32_t* out) {
    if (text.size() < UNICODE_ESCAPE || !text.starts_with("\\u")) return false;
    *out = 0;
    for (const char c : text.substr(2, 4)) {
        constexpr std::string_view DIGITS = "0123456789abcdefABCDEF";
        const size_t digit = DIGITS.find(c);
        if (digit == std::string_view::npos) return false;
        *out = *out << 4 | static_cast<uint32_t>(digit < 16 ? digit : digit - 6);
    }
    return true;
}

void put_utf8(std::string* out, uint32_t code) {
    const auto put = [&](uint32_t byte) { out->push_back(static_cast<char>(byte)); };
    if (code < 0x80) return put(code);
    if (code < 0x800) {
        put(0xC0 | code >> 6);
    } else if (code < 0x10000) {
        put(0xE0 | code >> 12);
        put(0x80 | (code >> 6 & 0x3F));
    } else {
        put(0xF0 | code >> 18);
        put(0x80 | (code >> 12 & 0x3F));
        put(0x80 | (code >> 6 & 0x3F));
    }
    put(0x80 | (code & 0x3F));
}

// Decodes the escape at the front of the text; the bytes that it takes, 0 when it is none.
size_t decode_escape(std::string_view text, std::string* out) {
    constexpr std::string_view NAMES = "\"\\/bfnrt", MEANT = "\"\\/\b\f\n\r\t";
    uint32_t code = 0, low = 0;
    if (code_of(text, &code)) {
        const bool pair =
            is_surrogate(code, 0xD800) && code_of(text.substr(UNICODE_ESCAPE), &low) && is_surrogate(low, 0xDC00);
        put_utf8(out, pair ? 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00) : code);
        return pair ? 2 * UNICODE_ESCAPE : UNICODE_ESCAPE;
    }
    const size_t which = text.size() < 2 ? std::string_view::npos : NAMES.find(text[1]);
    if (which == std::string_view::npos) return 0;
    out->push_back(MEANT[which]);
    return 2;
}

// The text that the array of numbers behind `"MESSAGE":` is, as the journal writes one with odd bytes; a line of its own.
void append_message_bytes(std::string_view line, size_t at, std::string* out) {
    std::string_view rest = line.substr(at);
    skip_blanks(&rest);
    if (!take_char(&rest, ':')) return;
    skip_blanks(&rest);
    if (!take_char(&rest, '[')) return;
    out->push_back('\n');
    for (unsigned byte = 0; !rest.empty(); rest.remove_prefix(1)) {
        const char c = rest[0];
        if (c >= '0' && c <= '9') {
            byte = byte * 10 + static_cast<unsigned>(c - '0');
        } else if (c == ',' || c == ']') {
            out->push_back(static_cast<char>(byte));
            byte = 0;
            if (c == ']') return;
        } else if (c != ' ') {
            return;
        }
    }
}

}  // namespace

std::string_view json_text(std::string_view record, std::string* scratch) {
    std::string_view line = record.substr(0, record.find('\n')), content = line;
    skip_utf8_mark(&content);
    skip_blanks(&content);
    constexpr std::string_view MESSAGE = "\"MESSAGE\"";
    size_t escape = line.find('\\');
    const size_t message = line.find(MESSAGE);
    const bool plain = escape == std::string_view::npos && message == std::string_view::npos;
    if (plain || !content.starts_with('{')) return record;
    scratch->clear();
    size_t at = 0;
    for (; escape != std::string_view::npos; escape = line.find('\\', at)) {
        scratch->append(line, at, escape - at);
        const size_t taken = decode_escape(line.substr(escape), scratch);
        if (taken == 0) scratch->push_back('\\');
        at = escape + (taken == 0 ? 1 : taken);
    }
    scratch->append(record, at);
    if (message != std::string_view::npos) append_message_bytes(line, message + MESSAGE.size(), scratch);
    return *scratch;
}

}  // namespace veldar::tool
