// Times as people type them: for --since and --until.
//
//   2015-05-17T10:05:03.5+02:00   RFC 3339; a blank for the T; seconds, fraction and offset may be left out
//   2015-05-17, 2015-05, 2015     the beginning of that day, month or year; also 20150517, 17 May 2015, May 17
//   10:05, 10:05:03               today
//   @1431857103.5, 1431857103500  since the epoch, in seconds or by its size in milli-, micro- or nanoseconds
//   -2h, 2h, "2 hours ago"        before now, as "last hour" is: s, m, h, d (24 hours), w, mo, y or their names; also several, 1h30m
//   +2h, "in 2 hours"             after now
//   now, today, yesterday, tomorrow, monday, "last monday", "yesterday 10:05"
//   Sun, 17 May 2015 10:05:03 +0200, 17/May/2015:10:05:03 +0200, May 17 10:05:03 ...   as logs write them
//
// Times without an offset are local times of the zone. A day of the week is the last one before today, and a date
// without a year the last one that has come.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "searchthing/base/st_timeval.h"
#include "tools/libveldar/formats/log_time.h"

namespace veldar::tool {

inline constexpr char TIME_INPUT_FORMS[] =
    "a time such as 2015-05-17T10:05:03Z, 2015-05-17, 2015-05, 10:05, @1431857103, 2h, \"3 days ago\" or yesterday";

// False when the text is no time, or one that 32-bit seconds cannot hold. `now_s` is the present, in seconds since the
// epoch.
[[nodiscard]] bool time_input_parse(std::string_view text, log_zone* zone, int64_t now_s, st_timeval_t* out);

// "@1431857103.500000000", which time_input_parse reads back.
std::string time_input_text(const st_timeval_t& time);

// The zone in which a command reads and prints times: of --tz, or without it that of the machine when standard output is
// a terminal, and UTC else. Throws failure_t with OUTCOME_USAGE for an unknown one.
log_zone time_zone_of(const std::string& option);

// What may have been meant by a text that is no time; empty when nobody knows.
std::string time_input_advice(std::string_view text);

}  // namespace veldar::tool
