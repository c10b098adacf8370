// Formats of a reader's own: a file with a line for each, its name and a regular expression whose named groups are the
// fields of a line.
//
//   # payments of the old shop
//   payments = ^<(?P<level>\w+)> (?P<time>.{16}) (?P<user>\w+) paid (?P<amount>[0-9.]+)
//   time = %d.%m.%Y %H:%M
//
// The group `time` is the line's time, in any shape or in that of the line "time = ..." behind it. Expressions are those
// of RE2, over bytes, and match anywhere in a line.
#pragma once

#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "tools/libveldar/formats/line_format.h"

namespace veldar::tool {

// Reads a file of formats; format_by_name and detect_format know them from then on, the latter before all others. False
// with "FILE:LINE: what is wrong", and then none of them is known. What other threads parse by meanwhile
// stays.
[[nodiscard]] bool user_formats_read(const std::string& path, std::string* error);
// The file that is read when none is named: veldar/formats in the directory of the user's settings. Empty: there is
// none.
std::string user_formats_path();

std::span<const line_format> user_formats();
// Sets where the lines say their time, unless the context knows.
void user_format_prepare(const user_format& format, format_context* context);
bool user_format_parse(const user_format& format, std::string_view line, parsed_line* out);

}  // namespace veldar::tool
