// Times as people type them: for --since and --until.
//
//   2015-05-17T10:05:03.5+02:00   RFC 3339; a blank for the T; seconds, fraction and offset may be left out
//   2015-05-17                    the beginning of that day
//   10:05, 10:05:03               today
//   @1431857103.5                 seconds since the epoch
//   -2h, -1h30m, +5m, -3d, -1w    from now: s, m, h, d (24 hours), w
//   now, today, yesterday, tomorrow
//
// Times without an offset are local times of the zone.
#pragma once

#include <cstdint>
#include <string_view>

#include "searchthing/base/st_timeval.h"
#include "tools/veldar/formats/log_time.h"

namespace veldar::tool {

inline constexpr char TIME_INPUT_FORMS[] =
    "a time such as 2015-05-17T10:05:03Z, 2015-05-17, 10:05, @1431857103, -2h or yesterday";

// False when the text is no time, or one that 32-bit seconds cannot hold. `now_s` is the present, in seconds since the
// epoch.
[[nodiscard]] bool time_input_parse(std::string_view text, log_zone* zone, int64_t now_s, st_timeval_t* out);

}  // namespace veldar::tool
