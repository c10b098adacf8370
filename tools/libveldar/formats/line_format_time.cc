// From the stamps of lines to the times of events: what the context knows of zones, years and days fills what a stamp
// does not say.
#include <chrono>
#include <cstdlib>
#include <ctime>

#include "tools/libveldar/formats/line_format_internal.h"

namespace veldar::tool {
namespace {

constexpr int64_t DAY_S = 86400;
constexpr int64_t HALF_YEAR_S = 182 * DAY_S;
constexpr int64_t UNORDERED_S = 60;   // lines of one log may stand that far behind their order
constexpr int64_t MIDNIGHT_S = 3600;  // a time of day that lies further before the last one is another day's

// The zone that the stamp names, else the context's.
log_zone* zone_of(const log_stamp& stamp, format_context* context) {
    if (!stamp.unclear_zone.empty() && context->unclear_zones++ == 0) context->unclear_zone = stamp.unclear_zone;
    if (!stamp.named_zone.empty()) {
        if (context->named_zone != stamp.named_zone) {
            context->named_zone = stamp.named_zone;
            if (!log_zone_from_name(stamp.named_zone, &context->named)) context->named = context->zone;
        }
        return &context->named;
    }
    context->zone_taken = true;
    return &context->zone;
}

int64_t to_epoch(format_context* context, log_zone* zone, int64_t local_s) {
    return log_zone_to_epoch(zone, local_s, context->last_s);
}

void store_time(parsed_line* out, int64_t epoch_s, uint32_t nanoseconds, format_context* context) {
    out->has_time = log_time_store(epoch_s, nanoseconds, &out->time);
    if (out->has_time) context->last_s = epoch_s;
}

int64_t day_of(int64_t local_s) {
    return local_s - ((local_s % DAY_S) + DAY_S) % DAY_S;
}

int64_t year_of(int64_t local_s) {
    std::chrono::sys_days day(std::chrono::floor<std::chrono::days>(std::chrono::seconds(local_s)));
    return static_cast<int>(std::chrono::year_month_day(day).year());
}

int64_t latest_s(const format_context& context) {
    if (context.year != 0) return std::numeric_limits<int64_t>::max();
    int64_t modified_s = context.modified_s;
    if (modified_s == NO_TIME_SEEN) modified_s = static_cast<int64_t>(time(nullptr));
    return modified_s + DAY_S;
}

// The stamp in a given year; false when the year lacks the day or the time would be too late for the file.
bool stamp_in_year(const yearless_stamp& stamp, int64_t year, format_context* context, int64_t* local_s) {
    int64_t days = 0;
    if (!days_from_date(year, stamp.month, stamp.day, &days)) return false;
    *local_s = days * DAY_S + stamp.second_of_day;
    return log_zone_to_epoch(&context->zone, *local_s) <= latest_s(*context);
}

// The first line's year: the given one, else the latest that the file's modification time allows.
bool first_year(const yearless_stamp& stamp, format_context* context, int64_t* local_s) {
    if (context->year != 0) return stamp_in_year(stamp, context->year, context, local_s);
    int64_t newest = year_of(latest_s(*context)) + 1;  // + 1: the zone may be ahead
    for (int64_t year = newest; year > newest - 10; year--) {
        if (stamp_in_year(stamp, year, context, local_s)) return true;
    }
    return false;
}

// A later line's year: the one that brings it nearest to the line before. So a log runs over New Year in either
// direction, and one odd line (a clock that was not set yet) does not carry the rest away.
bool next_year(const yearless_stamp& stamp, format_context* context, int64_t* local_s) {
    int64_t year = year_of(context->last_local_s);
    bool found = stamp_in_year(stamp, year, context, local_s);
    auto distance = [&](int64_t at_s) { return std::abs(at_s - context->last_local_s); };
    if (found && distance(*local_s) < HALF_YEAR_S) return true;
    for (int64_t other : {year - 1, year + 1}) {
        int64_t other_s = 0;
        if (!stamp_in_year(stamp, other, context, &other_s)) continue;
        if (!found || distance(other_s) < distance(*local_s)) *local_s = other_s;
        found = true;
    }
    return found;
}

// The day of a time of day: the last one's, or the next when the clock went over midnight.
int64_t clock_day(int64_t second_of_day, format_context* context) {
    if (context->last_local_s == NO_TIME_SEEN) {
        const int64_t now_s = context->modified_s == NO_TIME_SEEN ? time(nullptr) : context->modified_s;
        return day_of(now_s + log_zone_at(context->zone, now_s).offset_s);
    }
    const int64_t day = day_of(context->last_local_s), later_s = day + second_of_day - context->last_local_s;
    if (later_s > DAY_S - UNORDERED_S) return day - DAY_S;
    return later_s + MIDNIGHT_S < 0 ? day + DAY_S : day;
}

void set_clock_time(parsed_line* out, const shape_time& time, format_context* context) {
    const int64_t local_s = clock_day(time.yearless.second_of_day, context) + time.yearless.second_of_day;
    const int64_t epoch_s = time.stamp.has_offset ? local_s - time.stamp.offset_s
                                                  : to_epoch(context, zone_of(time.stamp, context), local_s);
    store_time(out, epoch_s, time.stamp.nanoseconds, context);
    context->last_local_s = local_s;
}

}  // namespace

void set_time(parsed_line* out, const log_stamp& stamp, format_context* context) {
    const int64_t epoch_s =
        stamp.has_offset ? stamp.local_s - stamp.offset_s : to_epoch(context, zone_of(stamp, context), stamp.local_s);
    store_time(out, epoch_s, stamp.nanoseconds, context);
    if (context->times.known() && !context->times.shape.has_date) context->last_local_s = stamp.local_s;
}

void set_yearless_time(parsed_line* out, const yearless_stamp& stamp, format_context* context) {
    int64_t local_s = 0;
    bool first = context->last_local_s == NO_TIME_SEEN;
    if (!(first ? first_year(stamp, context, &local_s) : next_year(stamp, context, &local_s))) return;
    store_time(out, to_epoch(context, zone_of({}, context), local_s), stamp.nanoseconds, context);
    if (out->has_time) context->last_local_s = local_s;
}

void set_field_time(parsed_line* out, format_context* context) {
    shape_time time;
    std::string_view where;
    out->has_time = false;
    for (const field_view& field : out->fields) {
        if (field.name != context->time_field) continue;
        if (time_place_take_any(context->times, field.value, &time, &where)) set_shape_time(out, time, context);
        return;
    }
}

void set_shape_time(parsed_line* out, const shape_time& time, format_context* context) {
    if (time.of_day) return set_clock_time(out, time, context);
    if (!time.has_year && !time.since_boot) {
        if (!time.stamp.unclear_zone.empty()) zone_of(time.stamp, context);
        const log_zone zone = context->zone;
        const bool taken = context->zone_taken;
        const bool says_zone = time.stamp.has_offset || !time.stamp.named_zone.empty();
        if (says_zone)
            context->zone =
                time.stamp.has_offset ? log_zone{nullptr, time.stamp.offset_s} : *zone_of(time.stamp, context);
        set_yearless_time(out, time.yearless, context);
        if (says_zone) {
            context->zone = zone;
            context->zone_taken = taken;
        }
        return;
    }
    log_stamp stamp = time.stamp;
    if (time.since_boot && context->boot_s == NO_TIME_SEEN) return;
    if (time.since_boot) stamp.local_s += context->boot_s;
    set_time(out, stamp, context);
}

}  // namespace veldar::tool
