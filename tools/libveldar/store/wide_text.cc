#include "tools/libveldar/store/wide_text.h"

#include <algorithm>

namespace veldar::tool {

namespace {

using namespace std::string_view_literals;

constexpr uint64_t POINT_SPAN = uint64_t{4} << 20;
constexpr uint32_t REPLACEMENT = 0xFFFD, MARK = 0xFEFF;

void put_utf8(std::string* out, uint32_t c) {
    const auto put = [&](uint32_t byte) { out->push_back(static_cast<char>(byte)); };
    if (c < 0x80) return put(c);
    if (c < 0x800) {
        put(0xC0 | c >> 6);
    } else {
        if (c < 0x10000) {
            put(0xE0 | c >> 12);
        } else {
            put(0xF0 | c >> 18);
            put(0x80 | (c >> 12 & 0x3F));
        }
        put(0x80 | (c >> 6 & 0x3F));
    }
    put(0x80 | (c & 0x3F));
}

uint32_t unit_at(const wide_text& text, size_t at) {
    const auto a = static_cast<uint8_t>(text.undecoded[at]), b = static_cast<uint8_t>(text.undecoded[at + 1]);
    return text.big ? uint32_t{a} << 8 | b : uint32_t{b} << 8 | a;
}

bool is_high(uint32_t unit) {
    return unit >= 0xD800 && unit < 0xDC00;
}
bool is_low(uint32_t unit) {
    return unit >= 0xDC00 && unit < 0xE000;
}

}  // namespace

text_encoding_t text_encoding_of(std::string_view head) {
    size_t nuls[4] = {};
    for (size_t i = 0; i < head.size(); i++) nuls[i % 4] += head[i] == '\0' ? 1 : 0;
    const size_t quarter = head.size() / 4;
    const auto mostly = [&](size_t place) { return nuls[place] * 5 >= quarter * 4; };
    const auto hardly = [&](size_t place) { return nuls[place] * 20 <= quarter; };
    if (head.starts_with("\xFF\xFE\0\0"sv) || head.starts_with("\0\0\xFE\xFF"sv)) return TEXT_UTF32;
    if (head.starts_with("\xFF\xFE"sv)) return TEXT_UTF16_LITTLE;
    if (head.starts_with("\xFE\xFF"sv)) return TEXT_UTF16_BIG;
    if (quarter == 0) return TEXT_UTF8;
    if (mostly(1) && mostly(2) && ((mostly(0) && hardly(3)) || (mostly(3) && hardly(0)))) return TEXT_UTF32;
    if (mostly(1) && mostly(3) && hardly(0) && hardly(2)) return TEXT_UTF16_LITTLE;
    if (mostly(0) && mostly(2) && hardly(1) && hardly(3)) return TEXT_UTF16_BIG;
    return TEXT_UTF8;
}

void wide_text_decode(wide_text* text) {
    std::string out = text->decoded.substr(text->given);
    text->decoded.clear();
    text->given = 0;
    const size_t size = text->undecoded.size();
    size_t at = 0;
    while (at + 2 <= size) {
        const uint64_t here = text->out_offset + out.size();
        if (here >= POINT_SPAN + (text->points.empty() ? 0 : text->points.back().out)) {
            text->points.push_back({here, text->in_offset + at});
        }
        const uint32_t unit = unit_at(*text, at);
        if (is_high(unit) && at + 4 > size) break;
        const uint32_t next = is_high(unit) ? unit_at(*text, at + 2) : 0;
        const bool pair = is_low(next);
        if (pair) {
            put_utf8(&out, 0x10000 + ((unit & 0x3FF) << 10) + (next & 0x3FF));
        } else if (is_high(unit) || is_low(unit)) {
            put_utf8(&out, REPLACEMENT);
        } else if (unit != MARK || text->in_offset + at != 0) {
            put_utf8(&out, unit);
        }
        at += pair ? 4 : 2;
    }
    text->undecoded.erase(0, at);
    text->in_offset += at;
    text->decoded = std::move(out);
}

void wide_text_restart(wide_text* text, uint64_t out_offset) {
    const auto behind = std::upper_bound(text->points.begin(), text->points.end(), out_offset,
                                         [](uint64_t offset, const wide_point& point) { return offset < point.out; });
    const wide_point point = behind == text->points.begin() ? wide_point() : *(behind - 1);
    text->undecoded.clear();
    text->decoded.clear();
    text->given = 0;
    text->in_offset = point.in;
    text->out_offset = point.out;
}

}  // namespace veldar::tool
