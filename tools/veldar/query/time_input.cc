#include "tools/veldar/query/time_input.h"

#include <array>

#include "tools/veldar/formats/log_stamp.h"

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

bool parse_relative(std::string_view rest, int64_t now_s, st_timeval_t* out) {
    const int64_t sign = rest[0] == '-' ? -1 : 1;
    rest.remove_prefix(1);
    int64_t seconds = 0;
    do {
        int64_t count;
        if (!take_number(&rest, &count) || rest.empty()) return false;
        constexpr std::string_view UNITS = "smhdw";
        constexpr std::array<int64_t, 5> SECONDS = {1, 60, 3600, DAY_S, 7 * DAY_S};
        const size_t unit = UNITS.find(rest[0]);
        if (unit == std::string_view::npos) return false;
        seconds += count * SECONDS[unit];
        if (seconds > FARTHEST_S) return false;
        rest.remove_prefix(1);
    } while (!rest.empty());
    return log_time_store(now_s + sign * seconds, 0, out);
}

bool parse_epoch(std::string_view rest, st_timeval_t* out) {
    const bool negative = take_char(&rest, '-');
    int64_t seconds;
    uint32_t nanoseconds;
    if (!take_number(&rest, &seconds) || !take_fraction(&rest, &nanoseconds) || !rest.empty()) return false;
    if (!negative) return log_time_store(seconds, nanoseconds, out);
    const bool part = nanoseconds > 0;
    return log_time_store(-seconds - (part ? 1 : 0), part ? 1000000000 - nanoseconds : 0, out);
}

}  // namespace

bool time_input_parse(std::string_view text, log_zone* zone, int64_t now_s, st_timeval_t* out) {
    if (text.empty()) return false;
    if (text == "now") return log_time_store(now_s, 0, out);
    constexpr std::array<std::string_view, 3> DAYS = {"yesterday", "today", "tomorrow"};
    for (size_t i = 0; i < DAYS.size(); i++) {
        if (text != DAYS[i]) continue;
        const int64_t day = midnight(local_now(zone, now_s)) + (static_cast<int64_t>(i) - 1) * DAY_S;
        return log_time_store(log_zone_to_epoch(zone, day), 0, out);
    }
    if (text[0] == '@') return parse_epoch(text.substr(1), out);
    if (text[0] == '-' || text[0] == '+') return parse_relative(text, now_s, out);
    return parse_civil(text, zone, now_s, out);
}

}  // namespace veldar::tool
