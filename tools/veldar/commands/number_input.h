// Whole numbers on command lines. What the parser makes of a number itself is too lenient: it takes -1 for the greatest
// number there is, and 010 for 8.
#pragma once

#include <CLI/CLI.hpp>
#include <charconv>
#include <cstdint>
#include <string>

namespace veldar::tool {

// For `transform` of an option whose value is a whole number from `least` to `most`, written in digits.
inline CLI::Validator whole_number(uint64_t least, uint64_t most) {
    const auto check = [least, most](std::string& text) {
        uint64_t value = 0;
        const char* const end = text.data() + text.size();
        const auto [rest, fault] = std::from_chars(text.data(), end, value);
        if (fault == std::errc() && rest == end && value >= least && value <= most) {
            text = std::to_string(value);
            return std::string();
        }
        const std::string range = most == UINT64_MAX ? std::to_string(least) + " or more"
                                                     : std::to_string(least) + " to " + std::to_string(most);
        return "'" + text + "' is no whole number of " + range;
    };
    return {check, ""};
}

}  // namespace veldar::tool
