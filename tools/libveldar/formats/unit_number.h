// Numbers with a unit, as logs write them: 35ms, 1h2m3.5s, 1.2GB, 12KiB, 45%, 1,234.
#pragma once

#include <string>
#include <string_view>

namespace veldar::tool {

// Beside `name::35ms` an event has the term `name.number::0.035`, which comparisons and aggregates use.
inline constexpr std::string_view NUMBER_SUFFIX = ".number";

// The number in its base unit: seconds, bytes, percent. Units are ns, us, ms, s, m (minutes), h, d and their words; B,
// kB, KiB and the like up to P in any case; K, M, G, T alone, 1024 bytes and so on; and %. False for a plain number and
// for anything else.
bool unit_number(std::string_view text, double* out);
// Whether the text is worth asking for: it begins with a digit, and a unit or a comma may follow.
inline bool may_have_unit(std::string_view text) {
    if (text.size() < 2 || text.size() > 32) return false;
    const auto digit = [](char c) { return c >= '0' && c <= '9'; };
    if (!digit(text[0]) && (text[0] != '-' || !digit(text[1]))) return false;
    return !digit(text.back()) || text.substr(0, 5).find(',') != std::string_view::npos;
}
// The shortest text that gives the very number back.
std::string unit_text(double number);

}  // namespace veldar::tool
