// The days of a log whose lines say the time of day only.
#pragma once

#include <cstdint>
#include <string>

#include "tools/libveldar/load/log_event.h"
#include "tools/libveldar/store/log_input.h"

namespace veldar::tool {

// Sets the day of the first line behind `start`: the last line of the file is taken for the day of its modification,
// and the clock went over midnight between them as often as it went back. A line with a date tells the day at once.
// Reads the file from `start`, and leaves its position anywhere; does nothing when lines say their day. False with a
// message when the file cannot be read.
[[nodiscard]] bool clock_days_find(log_event_maker* maker, log_input* input, uint64_t start, std::string* error);

}  // namespace veldar::tool
