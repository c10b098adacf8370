// Where the lines of a log say their time, and in which shape, as a sample of them shows.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "tools/libveldar/formats/time_shape.h"

namespace veldar::tool {

inline constexpr size_t TIME_HEAD = 200;  // no time begins behind these bytes of a line

// Copies are independent; a default one has no time in any line.
struct time_place {
    std::string pattern;  // of the shape; empty: none
    time_shape shape;
    uint8_t words = 0;    // the time begins in one of the first words of a line: behind at most so many blanks
    std::string also;     // when found: another pattern that fits the sample as well, day and month in another order
    std::string example;  // when found: the time, as the first line writes it
    bool known() const { return shape.count != 0; }
};

// What is known beforehand.
struct time_hints {
    int64_t now_s = 0;       // the later of now and the file's modification: logs do not tell of the future
    int64_t modified_s = 0;  // of two shapes that fit, the one whose times are nearer to it is taken
    std::string_view order;  // dmy, mdy or ymd for dates in numbers; empty: what the values say
};

// The patterns that are looked for.
std::span<const char* const> time_patterns();
// The place in most of these lines. When it is not known(), they have none.
time_place time_place_find(std::span<const std::string_view> lines, const time_hints& hints);
// Takes the first time of the line that is of this shape at this place, and where it stands in the line.
bool time_place_take(const time_place& place, std::string_view line, shape_time* out, std::string_view* where);
// The line's time at the place, or else a full date and clock of one meaning only (a year, no question of day and month,
// no bare number) that begins in its first four words: files of mixed formats. A line that begins with a blank has only
// the former. What it says of a line depends on nothing but the place and the line.
bool time_place_take_any(const time_place& place, std::string_view line, shape_time* out, std::string_view* where);
// A text that is a time and nothing else but a word before it, in one of the shapes that mean one time only.
bool time_place_take_whole(std::string_view text, shape_time* out);

// A place as one line of text, and back; the text of none is empty. False when the text is no place's.
std::string time_place_text(const time_place& place);
bool time_place_from_text(std::string_view text, time_place* out);
// A place anywhere in a line for a pattern; null or what is wrong with it, as a literal.
const char* time_place_from_pattern(std::string_view pattern, time_place* out);

}  // namespace veldar::tool
