// Bins of time as people ask for them, cut in a zone.
//
//   500ms 10s 5m 1h     seconds and fractions of the clock: a span that divides a day begins at local midnight
//   1d 2d               local days, counted from 1970-01-01; 1w from Mondays
//   1mo 3mo 1y          calendar months, counted from a January
//
// Where the clocks change, days keep their midnights and so have 23 or 25 hours. A span within a day goes on evenly as
// long as the change is a multiple of it (hours, mostly); otherwise, as 6 hours are, it is cut at its local times too,
// and the bin of the change is longer or shorter. A span that is no part of a day in whole seconds (7h) knows no change at all.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "searchthing/base/st_timeval.h"
#include "tools/libveldar/formats/log_time.h"

namespace veldar::tool {

inline constexpr char BIN_WIDTH_FORMS[] = "a width such as 500ms, 10s, 5m, 1h, 1d, 1w, 1mo, 1y or auto";

struct bin_width {
    enum unit_t { NANOSECONDS, DAYS, MONTHS };
    unit_t unit = NANOSECONDS;
    int64_t count = 0;    // of the unit
    bool weekly = false;  // days counted from a Monday
};
// False when the text is no width, or one of more than 68 years.
[[nodiscard]] bool bin_width_parse(std::string_view text, bin_width* out);
// The narrowest round width that cuts the times inclusive into no more bins than wanted.
bin_width bin_width_for(int64_t earliest_s, int64_t latest_s, uint64_t bins);
// About; months have 30 days.
double bin_width_seconds(const bin_width& width);

// What a selection is given: a span and its offset, or where bins begin.
struct time_bins {
    st_timeval_t span;
    int64_t offset_s = 0;
    std::vector<int64_t> starts_s;
};
// The bins of that width for times from the earliest to the latest inclusive. False when there would be too many.
[[nodiscard]] bool time_bins_make(const bin_width& width, const log_zone& zone, int64_t earliest_s, int64_t latest_s,
                                  time_bins* out);

}  // namespace veldar::tool
