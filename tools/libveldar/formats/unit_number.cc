#include "tools/libveldar/formats/unit_number.h"

#include <algorithm>
#include <charconv>

namespace veldar::tool {
namespace {

struct unit_row {
    std::string_view name;
    double times = 1, parts = 1;  // the base unit; a division by a whole number rounds once only
    enum kind_t { TIME, BYTES, OTHER } kind = TIME;
};
constexpr double KI = 1024, MI = KI * KI, GI = MI * KI, TI = GI * KI, PI = TI * KI;
constexpr unit_row UNITS[] = {
    {"s", 1, 1},
    {"ms", 1, 1e3},
    {"us", 1, 1e6},
    {"\xC2\xB5s", 1, 1e6},
    {"\xCE\xBCs", 1, 1e6},
    {"ns", 1, 1e9},
    {"m", 60, 1},
    {"h", 3600, 1},
    {"d", 86400, 1},
    {"sec", 1, 1},
    {"secs", 1, 1},
    {"second", 1, 1},
    {"seconds", 1, 1},
    {"msec", 1, 1e3},
    {"msecs", 1, 1e3},
    {"millis", 1, 1e3},
    {"milliseconds", 1, 1e3},
    {"usec", 1, 1e6},
    {"microseconds", 1, 1e6},
    {"nanoseconds", 1, 1e9},
    {"min", 60, 1},
    {"mins", 60, 1},
    {"minute", 60, 1},
    {"minutes", 60, 1},
    {"hr", 3600, 1},
    {"hrs", 3600, 1},
    {"hour", 3600, 1},
    {"hours", 3600, 1},
    {"day", 86400, 1},
    {"days", 86400, 1},
    {"%", 1, 1, unit_row::OTHER},
    {"b", 1, 1, unit_row::BYTES},
    {"byte", 1, 1, unit_row::BYTES},
    {"bytes", 1, 1, unit_row::BYTES},
    {"kb", 1e3, 1, unit_row::BYTES},
    {"mb", 1e6, 1, unit_row::BYTES},
    {"gb", 1e9, 1, unit_row::BYTES},
    {"tb", 1e12, 1, unit_row::BYTES},
    {"pb", 1e15, 1, unit_row::BYTES},
    {"kib", KI, 1, unit_row::BYTES},
    {"mib", MI, 1, unit_row::BYTES},
    {"gib", GI, 1, unit_row::BYTES},
    {"tib", TI, 1, unit_row::BYTES},
    {"pib", PI, 1, unit_row::BYTES},
};
// These alone are capitals; a small m is a minute.
constexpr unit_row CAPITALS[] = {{"K", KI, 1, unit_row::BYTES},
                                 {"M", MI, 1, unit_row::BYTES},
                                 {"G", GI, 1, unit_row::BYTES},
                                 {"T", TI, 1, unit_row::BYTES}};

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

// Digits, with or without commas between thousands, and a fraction, from the front.
bool take_number(std::string_view* rest, double* out, bool* has_commas) {
    char digits[40];
    size_t size = 0, at = 0, group = 0;
    *has_commas = false;
    for (; at < rest->size() && size + 1 < sizeof digits; at++) {
        const char c = (*rest)[at];
        if (is_digit(c)) {
            digits[size++] = c;
            group++;
        } else if (c == ',') {
            if (group > 3 || group == 0 || (*has_commas && group != 3)) return false;
            *has_commas = true;
            group = 0;
        } else {
            break;
        }
    }
    if (size == 0 || (*has_commas && group != 3)) return false;
    if (at + 1 < rest->size() && (*rest)[at] == '.' && is_digit((*rest)[at + 1])) {
        do {
            digits[size++] = (*rest)[at++];
        } while (at < rest->size() && size + 1 < sizeof digits && is_digit((*rest)[at]));
    }
    rest->remove_prefix(at);
    return std::from_chars(digits, digits + size, *out).ec == std::errc();
}

const unit_row* find_unit(std::string_view name) {
    const auto* capital =
        std::find_if(std::begin(CAPITALS), std::end(CAPITALS), [&](const unit_row& unit) { return unit.name == name; });
    if (capital != std::end(CAPITALS)) return capital;
    const auto* found = std::find_if(std::begin(UNITS), std::end(UNITS), [&](const unit_row& unit) {
        return std::equal(name.begin(), name.end(), unit.name.begin(), unit.name.end(), [](char a, char b) {
            return a == b || (a >= 'A' && a <= 'Z' && static_cast<char>(a | 0x20) == b);
        });
    });
    return found == std::end(UNITS) ? nullptr : found;
}

const unit_row* take_unit(std::string_view* rest) {
    if (rest->size() > 1 && (*rest)[0] == ' ') rest->remove_prefix(1);
    size_t size = 0;
    while (size < rest->size() && !is_digit((*rest)[size])) size++;
    const unit_row* const unit = find_unit(rest->substr(0, size));
    rest->remove_prefix(size);
    return unit;
}

}  // namespace

bool unit_number(std::string_view text, double* out) {
    const bool negative = text.starts_with('-');
    if (negative) text.remove_prefix(1);
    bool has_commas = false;
    if (!take_number(&text, out, &has_commas)) return false;
    if (text.empty()) {
        if (negative) *out = -*out;
        return has_commas;
    }
    const unit_row* unit = take_unit(&text);
    if (unit == nullptr) return false;
    *out = *out * unit->times / unit->parts;
    // "1h2m3.5s": times only, the smaller behind the greater.
    while (!text.empty()) {
        double more = 0;
        const unit_row* const before = unit;
        if (before->kind != unit_row::TIME || !take_number(&text, &more, &has_commas)) return false;
        unit = take_unit(&text);
        if (unit == nullptr || unit->kind != unit_row::TIME) return false;
        if (unit->times / unit->parts >= before->times / before->parts) return false;
        *out += more * unit->times / unit->parts;
    }
    if (negative) *out = -*out;
    return true;
}

std::string unit_text(double number) {
    char text[64];
    const bool plain = number == 0 || (number < 1e15 && number > -1e15 && (number >= 1e-9 || number <= -1e-9));
    const auto form = plain ? std::chars_format::fixed : std::chars_format::scientific;
    return {text, std::to_chars(text, text + sizeof text, number, form).ptr};
}

}  // namespace veldar::tool
