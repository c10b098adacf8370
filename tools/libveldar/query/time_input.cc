#include "tools/libveldar/query/time_input.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <vector>

#include "tools/libveldar/formats/log_stamp.h"
#include "tools/libveldar/formats/time_place.h"
#include "tools/libveldar/query/suggestion.h"
#include "tools/libveldar/store/failure.h"

namespace veldar::tool {

namespace {

constexpr int64_t DAY_S = 86400;
constexpr int64_t FARTHEST_S = int64_t{1} << 33;  // beyond any time that can be stored

int64_t local_now(log_zone* zone, int64_t now_s) {
    int64_t local_s = now_s;
    for (int i = 0; i < 2; i++) local_s = now_s + (local_s - log_zone_to_epoch(zone, local_s));
    return local_s;
}

int64_t midnight(int64_t local_s) {
    return local_s - ((local_s % DAY_S) + DAY_S) % DAY_S;
}

bool take_number(std::string_view* rest, int64_t* out) {
    size_t digits = 0;
    int64_t value = 0;
    while (digits < rest->size() && (*rest)[digits] >= '0' && (*rest)[digits] <= '9') {
        value = value * 10 + ((*rest)[digits] - '0');
        if (value > FARTHEST_S) return false;
        digits++;
    }
    rest->remove_prefix(digits);
    *out = value;
    return digits > 0;
}

// ".5" and ",5"; digits after the ninth are dropped.
bool take_fraction(std::string_view* rest, uint32_t* nanoseconds) {
    *nanoseconds = 0;
    if (!take_char(rest, '.') && !take_char(rest, ',')) return true;
    uint32_t unit = 100000000;
    size_t digits = 0;
    for (; digits < rest->size() && (*rest)[digits] >= '0' && (*rest)[digits] <= '9'; digits++, unit /= 10) {
        *nanoseconds += static_cast<uint32_t>((*rest)[digits] - '0') * unit;
    }
    rest->remove_prefix(digits);
    return digits > 0;
}

// "10:05", "10:05:03.5".
bool take_clock(std::string_view* rest, int64_t* second_of_day, uint32_t* nanoseconds) {
    int64_t hour, minute, second = 0;
    *nanoseconds = 0;
    if (!take_digits(rest, 2, &hour) || !take_char(rest, ':') || !take_digits(rest, 2, &minute)) return false;
    if (take_char(rest, ':') && (!take_digits(rest, 2, &second) || !take_fraction(rest, nanoseconds))) return false;
    *second_of_day = hour * 3600 + minute * 60 + second;
    return hour <= 24 && minute <= 59 && second <= 60 && *second_of_day <= DAY_S;
}

bool take_date(std::string_view* rest, int64_t* local_s) {
    int64_t year, month, day, days;
    if (!take_digits(rest, 4, &year) || !take_char(rest, '-') || !take_digits(rest, 2, &month) ||
        !take_char(rest, '-') || !take_digits(rest, 2, &day) || !days_from_date(year, month, day, &days)) {
        return false;
    }
    *local_s = days * DAY_S;
    return true;
}

bool parse_civil(std::string_view rest, log_zone* zone, int64_t now_s, st_timeval_t* out) {
    int64_t local_s, second_of_day = 0;
    uint32_t nanoseconds = 0;
    const bool clock_only = rest.size() > 2 && rest[2] == ':';
    if (clock_only) {
        local_s = midnight(local_now(zone, now_s));
    } else if (!take_date(&rest, &local_s)) {
        return false;
    }
    const bool more = clock_only || take_char(&rest, 'T') || take_char(&rest, 't') || take_char(&rest, ' ');
    if (more && !take_clock(&rest, &second_of_day, &nanoseconds)) return false;
    local_s += second_of_day;
    if (rest.empty()) return log_time_store(log_zone_to_epoch(zone, local_s), nanoseconds, out);
    log_zone offset;
    const char first = rest[0];
    if (first != '+' && first != '-' && rest != "Z" && rest != "z") return false;
    if ((first == '+' || first == '-') && !log_zone_from_name(rest, &offset)) return false;
    return log_time_store(local_s - offset.offset_s, nanoseconds, out);
}

// Units of time as they are written; months and years follow the calendar.
struct time_unit {
    std::string_view names;  // with blanks around each
    int64_t seconds, months;
};
constexpr std::array<time_unit, 7> UNITS = {{{" s sec secs second seconds ", 1, 0},
                                             {" m min mins minute minutes ", 60, 0},
                                             {" h hr hrs hour hours ", 3600, 0},
                                             {" d day days ", DAY_S, 0},
                                             {" w week weeks ", 7 * DAY_S, 0},
                                             {" mo month months ", 0, 1},
                                             {" y year years ", 0, 12}}};

std::string_view take_letters(std::string_view* rest) {
    size_t size = 0;
    while (size < rest->size() && (*rest)[size] >= 'a' && (*rest)[size] <= 'z') size++;
    const std::string_view letters = rest->substr(0, size);
    rest->remove_prefix(size);
    return letters;
}

bool take_unit(std::string_view* rest, int64_t count, int64_t* seconds, int64_t* months) {
    const std::string name = " " + std::string(take_letters(rest)) + " ";
    const auto* const unit = std::find_if(UNITS.begin(), UNITS.end(), [&](const time_unit& one) {
        return name.size() > 2 && one.names.find(name) != std::string_view::npos;
    });
    if (unit == UNITS.end()) return false;
    *seconds += count * unit->seconds;
    *months += count * unit->months;
    return *seconds <= FARTHEST_S && *months <= FARTHEST_S / DAY_S;
}

// So many months later, on the same day, or the last one of a month that has it not.
bool add_months(int64_t months, int64_t* local_s) {
    const time_t before = *local_s;
    struct tm parts = {};
    ::gmtime_r(&before, &parts);
    const int64_t month = (parts.tm_year + 1900) * int64_t{12} + parts.tm_mon + months;
    if (month < 12) return false;
    int64_t days = 0, day = parts.tm_mday;
    while (!days_from_date(month / 12, month % 12 + 1, day, &days)) {
        if (--day < 28) return false;
    }
    *local_s = days * DAY_S + (*local_s - midnight(*local_s));
    return true;
}

// "-2h", "+1h30m", "2h", "3 hours ago", "an hour 5 minutes ago", "last week", "in 2 days": without a sign it is in the past.
bool parse_relative(std::string_view rest, log_zone* zone, int64_t now_s, st_timeval_t* out) {
    bool later = take_char(&rest, '+');
    const bool is_signed = later || take_char(&rest, '-');
    if (!is_signed && rest.starts_with("in ")) {
        later = true;
        rest.remove_prefix(3);
    }
    int64_t seconds = 0, months = 0;
    do {
        int64_t count = 1;
        const bool article = rest.starts_with("a ") || rest.starts_with("an ") || rest.starts_with("last ");
        if (article ? take_letters(&rest).empty() : !take_number(&rest, &count)) return false;
        skip_blanks(&rest);
        if (!take_unit(&rest, count, &seconds, &months)) return false;
        skip_blanks(&rest);
    } while (!rest.empty() && rest != "ago");
    if (!rest.empty() && (is_signed || later)) return false;
    int64_t local_s = local_now(zone, now_s);
    if (months != 0) {
        if (!add_months(later ? months : -months, &local_s)) return false;
        now_s = log_zone_to_epoch(zone, local_s);
    }
    return log_time_store(now_s + (later ? seconds : -seconds), 0, out);
}

// "yesterday", "monday", "last mon", "today 10:05": the last day of the name before today; its beginning, or a time.
bool parse_day(std::string_view rest, log_zone* zone, int64_t now_s, st_timeval_t* out) {
    constexpr std::array<std::string_view, 3> DAYS = {"yesterday", "today", "tomorrow"};
    constexpr std::array<std::string_view, 7> WEEK = {"thursday", "friday",  "saturday", "sunday",
                                                      "monday",   "tuesday", "wednesday"};  // from 1970-01-01 on
    const bool last = rest.starts_with("last ");
    if (last) rest.remove_prefix(5);
    const std::string_view name = take_letters(&rest);
    int64_t day_s = midnight(local_now(zone, now_s));
    const auto* const near = std::find(DAYS.begin(), DAYS.end(), name);
    if (near != DAYS.end() && !last) {
        day_s += (near - DAYS.begin() - 1) * DAY_S;
    } else {
        const auto* const of_week = std::find_if(WEEK.begin(), WEEK.end(), [&](std::string_view one) {
            return name == one || (name.size() == 3 && one.starts_with(name));
        });
        if (of_week == WEEK.end()) return false;
        const int64_t today = day_s / DAY_S % 7, back = (today - (of_week - WEEK.begin()) + 14) % 7;
        day_s -= (back == 0 ? 7 : back) * DAY_S;
    }
    int64_t second_of_day = 0;
    uint32_t nanoseconds = 0;
    skip_blanks(&rest);
    if (!rest.empty() && (!take_clock(&rest, &second_of_day, &nanoseconds) || !rest.empty())) return false;
    return log_time_store(log_zone_to_epoch(zone, day_s + second_of_day), nanoseconds, out);
}

// Seconds, or by their size milliseconds, microseconds or nanoseconds, since the epoch.
bool parse_epoch(std::string_view rest, st_timeval_t* out) {
    const bool negative = take_char(&rest, '-');
    log_stamp stamp;
    std::string_view whole = rest;
    if (!negative && rest.size() > 11 && take_epoch(&whole, &stamp) && whole.empty()) {
        return log_time_store(stamp.local_s, stamp.nanoseconds, out);
    }
    int64_t seconds;
    uint32_t nanoseconds;
    if (!take_number(&rest, &seconds) || !take_fraction(&rest, &nanoseconds) || !rest.empty()) return false;
    if (!negative) return log_time_store(seconds, nanoseconds, out);
    const bool part = nanoseconds > 0;
    return log_time_store(-seconds - (part ? 1 : 0), part ? 1000000000 - nanoseconds : 0, out);
}

// Times as logs write them, also without their clock, day, month or year. These are put in: the year is the last one
// that gives no time to come.
bool parse_written(const std::string& text, log_zone* zone, int64_t now_s, st_timeval_t* out) {
    constexpr std::array<std::array<const char*, 2>, 10> COMPLETIONS = {{{"", ""},
                                                                         {"", ":00"},
                                                                         {"", " 00:00:00"},
                                                                         {"", "-01 00:00:00"},
                                                                         {"", "-01-01 00:00:00"},
                                                                         {"01 ", " 00:00:00"},
                                                                         {"", " YEAR"},
                                                                         {"", ":00 YEAR"},
                                                                         {"", " YEAR 00:00:00"},
                                                                         {"", " 00:00:00 YEAR"}}};
    const time_t local_s = local_now(zone, now_s);
    struct tm parts = {};
    ::gmtime_r(&local_s, &parts);
    for (const auto& [before, behind] : COMPLETIONS) {
        const std::string pattern = before + text + behind;
        const size_t gap = pattern.find("YEAR");
        for (int year = parts.tm_year + 1900, years = gap == std::string::npos ? 1 : 9; years > 0; years--, year--) {
            std::string whole = pattern;
            if (gap != std::string::npos) whole.replace(gap, 4, std::to_string(year));
            shape_time time;
            if (!time_place_take_whole(whole, &time) || !time.stamp.unclear_zone.empty()) continue;
            if (gap == std::string::npos || time.stamp.local_s <= local_s) return stamp_to_time(time.stamp, zone, out);
        }
    }
    return false;
}

std::string lower(std::string_view text) {
    std::string out(text);
    for (char& c : out) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
    return out;
}

}  // namespace

bool time_input_parse(std::string_view text, log_zone* zone, int64_t now_s, st_timeval_t* out) {
    while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
    while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
    if (text.empty()) return false;
    if (text[0] == '@') return parse_epoch(text.substr(1), out);
    const size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
    const bool number = digits > 8 && (digits == text.size() || text[digits] == '.');
    if (number && parse_epoch(text, out)) return true;
    const std::string small = lower(text);
    if (small == "now") return log_time_store(now_s, 0, out);
    return parse_relative(small, zone, now_s, out) || parse_day(small, zone, now_s, out) ||
           parse_civil(text, zone, now_s, out) || parse_written(std::string(text), zone, now_s, out);
}

// Before the epoch the fraction adds to the seconds' magnitude: half a second before it is @-0.5.
std::string time_input_text(const st_timeval_t& time) {
    if (time.time_s >= 0 || time.time_ns == 0) return fmt::format("@{}.{:09}", time.time_s, time.time_ns);
    return fmt::format("@-{}.{:09}", -(int64_t{time.time_s} + 1), 1000000000 - time.time_ns);
}

log_zone time_zone_of(const std::string& option) {
    log_zone zone;
    if (option.empty()) {
        static_cast<void>(::isatty(STDOUT_FILENO) == 1 && log_zone_from_name("local", &zone));
    } else if (!log_zone_from_name(option, &zone)) {
        throw failure_t{OUTCOME_USAGE, "unknown time zone " + option};
    }
    return zone;
}

std::string time_input_advice(std::string_view text) {
    const std::string small = lower(text);
    if (std::count(small.begin(), small.end(), '/') == 2) return "a date is written 2015-05-17";
    std::vector<std::string> names = {"now",      "today",  "yesterday", "tomorrow", "monday", "tuesday", "wednesday",
                                      "thursday", "friday", "saturday",  "sunday",   "ago",    "last"};
    for (const time_unit& unit : UNITS)
        names.emplace_back(unit.names.substr(unit.names.rfind(' ', unit.names.size() - 2) + 1));
    for (std::string& name : names) name.erase(name.find_last_not_of(' ') + 1);
    std::string_view rest = small;
    while (!rest.empty()) {
        const std::string word(take_letters(&rest));
        if (word.empty()) {
            rest.remove_prefix(1);
            continue;
        }
        const std::string meant = nearest_name(word, names);
        if (!meant.empty() && meant != word) return "did you mean '" + meant + "'?";
    }
    return {};
}

}  // namespace veldar::tool
