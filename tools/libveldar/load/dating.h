// How the lines of a load came to their times: how many of each kind, and the first of it.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace veldar::tool {

enum dating_t : uint8_t { DATED_ITSELF, DATED_BY_LINE, DATED_BY_FILE, LINE_JOINED, LINE_REFUSED, DATINGS };

struct dating_report {
    std::array<uint64_t, DATINGS> counts{};
    std::array<std::string, DATINGS> examples;  // "app.log:17: text"
};

// A line that is told of: the file's name, the line's number in it (0: not known) and the text from the line on.
struct dated_line {
    std::string_view path;
    uint64_t number = 0;
    std::string_view text;
};

// Counts so many lines of a kind, the first of which is given.
void dating_add(dating_report* report, dating_t kind, const dated_line& line, uint64_t count = 1);
// What the summary says besides numbers: the first line of each kind but those that say their time.
std::vector<std::string> dating_examples(const dating_report& report);

}  // namespace veldar::tool
