#include "tools/libveldar/formats/log_stamp.h"

#include <algorithm>
#include <chrono>

#include "tools/libveldar/formats/month_name.h"

namespace veldar::tool {
namespace {

constexpr int64_t DAY_S = 86400;

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}
bool next_is_digit(std::string_view rest) {
    return !rest.empty() && is_digit(rest[0]);
}

// "17:41:44"
bool take_clock(std::string_view* rest, int64_t* second_of_day) {
    int64_t hour = 0, minute = 0, second = 0;
    bool taken = take_digits(rest, 2, &hour) && take_char(rest, ':') && take_digits(rest, 2, &minute) &&
                 take_char(rest, ':') && take_digits(rest, 2, &second);
    return taken && check_clock(hour, minute, second, second_of_day);
}

// "174144"
bool take_packed_clock(std::string_view* rest, int64_t* second_of_day) {
    int64_t hour = 0, minute = 0, second = 0;
    return take_digits(rest, 2, &hour) && take_digits(rest, 2, &minute) && take_digits(rest, 2, &second) &&
           check_clock(hour, minute, second, second_of_day);
}

// "9", " 9", "09", "19"
bool take_day(std::string_view* rest, unsigned* day) {
    skip_blanks(rest);
    if (!next_is_digit(*rest)) return false;
    *day = 0;
    for (int i = 0; i < 2 && next_is_digit(*rest); i++, rest->remove_prefix(1)) {
        *day = *day * 10 + static_cast<unsigned>((*rest)[0] - '0');
    }
    return !next_is_digit(*rest);
}

// "+0200", "+02:00", "+02". Nothing is taken unless all of it is there.
bool take_numeric_offset(std::string_view* rest, log_stamp* out) {
    std::string_view left = *rest;
    bool west = take_char(&left, '-');
    int64_t hour = 0, minute = 0;
    if (!west && !take_char(&left, '+')) return false;
    if (!take_digits(&left, 2, &hour)) return false;
    bool colon = take_char(&left, ':');
    bool minutes = take_digits(&left, 2, &minute);
    if ((colon && !minutes) || hour > 23 || minute > 59 || next_is_digit(left)) return false;
    out->has_offset = true;
    out->offset_s = (hour * 60 + minute) * (west ? -60 : 60);
    *rest = left;
    return true;
}

// Up to four letters as one number, to be compared at once.
constexpr uint32_t packed(std::string_view letters) {
    uint32_t number = 0;
    for (const char c : letters) number = number << 8 | static_cast<unsigned char>(c);
    return number;
}

struct zone_name {
    constexpr zone_name(std::string_view letters, int east) : name(packed(letters)), minutes(east) {}
    uint32_t name;
    int minutes;  // east of UTC
};

// The abbreviations that mean one offset only, as far as the zone database goes today and programs write them.
constexpr zone_name ZONE_NAMES[] = {
    {"WET", 0},     {"WEST", 60},  {"CET", 60},   {"CEST", 120}, {"MEZ", 60},   {"MESZ", 120}, {"EET", 120},
    {"EEST", 180},  {"MSK", 180},  {"YEKT", 300}, {"IDT", 180},  {"SAST", 120}, {"CAT", 120},  {"EAT", 180},
    {"WAT", 60},    {"EST", -300}, {"EDT", -240}, {"MST", -420}, {"MDT", -360}, {"PDT", -420}, {"AKST", -540},
    {"AKDT", -480}, {"HST", -600}, {"NST", -210}, {"NDT", -150}, {"BRT", -180}, {"ART", -180}, {"JST", 540},
    {"KST", 540},   {"HKT", 480},  {"SGT", 480},  {"MYT", 480},  {"WIB", 420},  {"WITA", 480}, {"WIT", 540},
    {"ICT", 420},   {"PKT", 300},  {"AWST", 480}, {"ACST", 570}, {"ACDT", 630}, {"AEST", 600}, {"AEDT", 660},
    {"NZST", 720},  {"NZDT", 780}};
constexpr uint32_t UNCLEAR_ZONES[] = {packed("CST"), packed("CDT"), packed("PST"), packed("IST"), packed("BST"),
                                      packed("AST"), packed("ADT"), packed("SST"), packed("GST"), packed("AMT")};

// The capitals at the front of the text.
std::string_view front_capitals(std::string_view text) {
    size_t size = 0;
    while (size < text.size() && text[size] >= 'A' && text[size] <= 'Z') size++;
    return ends_word(text.substr(size)) ? text.substr(0, size) : std::string_view();
}

// A zone of the tables above at the front of the text.
bool take_listed_zone(std::string_view* rest, log_stamp* out) {
    const std::string_view name = front_capitals(*rest);
    if (name.size() < 3 || name.size() > 4) return false;
    const uint32_t number = packed(name);
    const auto* zone = std::find_if(std::begin(ZONE_NAMES), std::end(ZONE_NAMES),
                                    [number](const zone_name& listed) { return listed.name == number; });
    const bool clear = zone != std::end(ZONE_NAMES);
    if (clear) {
        out->has_offset = true;
        out->offset_s = zone->minutes * 60;
    } else if (std::find(std::begin(UNCLEAR_ZONES), std::end(UNCLEAR_ZONES), number) != std::end(UNCLEAR_ZONES)) {
        out->unclear_zone = name;
    } else {
        return false;
    }
    rest->remove_prefix(name.size());
    return true;
}

// "Z", "UTC", "GMT", also with an offset from it: "GMT+0100", "UTC+2".
bool take_named_utc(std::string_view* rest, log_stamp* out) {
    for (std::string_view name : {"Z", "z", "UTC", "GMT"}) {
        if (!rest->starts_with(name) || !ends_word(rest->substr(name.size()))) continue;
        rest->remove_prefix(name.size());
        out->has_offset = true;
        if (name.size() < 3 || take_numeric_offset(rest, out) || rest->size() < 2 || !is_digit((*rest)[1])) return true;
        const bool west = (*rest)[0] == '-';
        if ((!west && (*rest)[0] != '+') || !ends_word(rest->substr(2))) return true;
        out->offset_s = ((*rest)[1] - '0') * (west ? -3600 : 3600);
        rest->remove_prefix(2);
        return true;
    }
    return false;
}

// "Europe/Berlin": no other words look like that behind a time.
bool take_zone_of_place(std::string_view* rest, log_stamp* out) {
    constexpr std::string_view REGIONS[] = {"Africa/",    "America/", "Antarctica/", "Asia/",   "Atlantic/",
                                            "Australia/", "Europe/",  "Indian/",     "Pacific/"};
    const auto starts = [rest](std::string_view region) { return rest->starts_with(region); };
    if (std::none_of(std::begin(REGIONS), std::end(REGIONS), starts)) return false;
    size_t size = 0;
    for (; size < rest->size(); size++) {
        const char c = (*rest)[size];
        const bool letter = (c | 0x20) >= 'a' && (c | 0x20) <= 'z';
        if (!letter && !is_digit(c) && c != '/' && c != '_' && c != '-') break;
    }
    out->named_zone = rest->substr(0, size);
    rest->remove_prefix(size);
    return true;
}

bool stamp_set(int64_t year, int64_t month, int64_t day, int64_t second_of_day, log_stamp* out) {
    int64_t days = 0;
    if (!days_from_date(year, month, day, &days)) return false;
    out->local_s = days * DAY_S + second_of_day;
    return true;
}

// "20150729T174144"
bool take_basic_iso8601(std::string_view* rest, log_stamp* out) {
    int64_t year = 0, month = 0, day = 0, second_of_day = 0;
    bool taken = take_digits(rest, 4, &year) && take_digits(rest, 2, &month) && take_digits(rest, 2, &day) &&
                 take_char(rest, 'T') && take_packed_clock(rest, &second_of_day);
    return taken && !next_is_digit(*rest) && stamp_set(year, month, day, second_of_day, out);
}

bool take_extended_iso8601(std::string_view* rest, log_stamp* out) {
    int64_t year = 0, month = 0, day = 0, second_of_day = 0;
    if (!take_digits(rest, 4, &year) || rest->empty()) return false;
    char mark = (*rest)[0];
    if (mark != '-' && mark != '/') return false;
    bool date =
        take_char(rest, mark) && take_digits(rest, 2, &month) && take_char(rest, mark) && take_digits(rest, 2, &day);
    if (!date || !(take_char(rest, 'T') || take_char(rest, ' ') || take_char(rest, 't'))) return false;
    return take_clock(rest, &second_of_day) && !next_is_digit(*rest) && stamp_set(year, month, day, second_of_day, out);
}

}  // namespace

// Digits past the ninth are dropped.
bool take_fraction(std::string_view* rest, uint32_t* nanoseconds) {
    if (!next_is_digit(*rest)) return false;
    uint32_t value = 0, unit = 1000000000;
    for (; next_is_digit(*rest); rest->remove_prefix(1)) {
        unit /= 10;
        value += static_cast<uint32_t>((*rest)[0] - '0') * unit;
    }
    *nanoseconds = value;
    return true;
}

// A fraction behind '.' or ','; nothing is taken when no digit follows the mark, or when a comma may part columns.
void take_optional_fraction(std::string_view* rest, uint32_t* nanoseconds) {
    if (rest->size() < 2 || ((*rest)[0] != '.' && (*rest)[0] != ',') || !is_digit((*rest)[1])) return;
    if ((*rest)[0] == ',') {
        size_t end = 1;
        while (end < rest->size() && is_digit((*rest)[end])) end++;
        const bool column = end + 1 < rest->size() && (*rest)[end] == ',' && (*rest)[end + 1] != ' ';
        if (end < 4 || column) return;
    }
    rest->remove_prefix(1);
    take_fraction(rest, nanoseconds);
}

bool check_clock(int64_t hour, int64_t minute, int64_t second, int64_t* second_of_day) {
    if (hour > 23 || minute > 59 || second > 60) return false;  // 60: a leap second, counted as the next minute's first
    *second_of_day = hour * 3600 + minute * 60 + second;
    return true;
}

bool ends_word(std::string_view rest) {
    return rest.empty() ||
           !((rest[0] >= 'a' && rest[0] <= 'z') || (rest[0] >= 'A' && rest[0] <= 'Z') || is_digit(rest[0]));
}

// The zone behind a time, glued to it or behind one blank. Behind a blank only what cannot be anything else is one.
void take_optional_zone(std::string_view* rest, log_stamp* out) {
    if (take_named_utc(rest, out) || take_numeric_offset(rest, out)) return;
    std::string_view left = *rest;
    if (!take_char(&left, ' ')) return;
    bool full_offset = left.size() >= 5 && (is_digit(left[3]) || left[3] == ':');
    const bool zone = take_named_utc(&left, out) || (full_offset && take_numeric_offset(&left, out)) ||
                      take_listed_zone(&left, out) || take_zone_of_place(&left, out);
    if (zone) *rest = left;
}

bool take_zone_name(std::string_view* rest, log_stamp* out) {
    if (take_named_utc(rest, out) || take_numeric_offset(rest, out) || take_listed_zone(rest, out)) return true;
    const std::string_view name = front_capitals(*rest);
    if (name.empty() || name.size() > 5) return false;
    out->unclear_zone = name;
    rest->remove_prefix(name.size());
    return true;
}

bool take_char(std::string_view* rest, char c) {
    if (rest->empty() || (*rest)[0] != c) return false;
    rest->remove_prefix(1);
    return true;
}

bool take_digits(std::string_view* rest, size_t count, int64_t* out) {
    if (rest->size() < count) return false;
    int64_t value = 0;
    for (size_t i = 0; i < count; i++) {
        if (!is_digit((*rest)[i])) return false;
        value = value * 10 + ((*rest)[i] - '0');
    }
    rest->remove_prefix(count);
    *out = value;
    return true;
}

void skip_blanks(std::string_view* rest) {
    while (!rest->empty() && ((*rest)[0] == ' ' || (*rest)[0] == '\t')) rest->remove_prefix(1);
}

void skip_utf8_mark(std::string_view* rest) {
    if (rest->starts_with("\xEF\xBB\xBF")) rest->remove_prefix(3);
}

std::string_view take_word(std::string_view* rest) {
    size_t size = 0;
    while (size < rest->size() && (*rest)[size] != ' ' && (*rest)[size] != '\t') size++;
    std::string_view word = rest->substr(0, size);
    rest->remove_prefix(size);
    skip_blanks(rest);
    return word;
}

bool days_from_date(int64_t year, int64_t month, int64_t day, int64_t* out) {
    std::chrono::year_month_day date{std::chrono::year(static_cast<int>(year)),
                                     std::chrono::month(static_cast<unsigned>(month)),
                                     std::chrono::day(static_cast<unsigned>(day))};
    if (!date.ok()) return false;
    *out = std::chrono::sys_days(date).time_since_epoch().count();
    return true;
}

bool take_iso8601(std::string_view* rest, log_stamp* out) {
    bool basic = rest->size() > 4 && is_digit((*rest)[4]);
    if (!(basic ? take_basic_iso8601(rest, out) : take_extended_iso8601(rest, out))) return false;
    take_optional_fraction(rest, &out->nanoseconds);
    take_optional_zone(rest, out);
    return true;
}

bool take_clf_time(std::string_view* rest, log_stamp* out) {
    unsigned month = 0;
    int64_t day = 0, year = 0, second_of_day = 0;
    bool taken = take_digits(rest, 2, &day) && take_char(rest, '/') && take_month(rest, &month) &&
                 take_char(rest, '/') && take_digits(rest, 4, &year) && take_char(rest, ':') &&
                 take_clock(rest, &second_of_day);
    if (!taken || !stamp_set(year, month, day, second_of_day, out)) return false;
    take_optional_fraction(rest, &out->nanoseconds);
    take_optional_zone(rest, out);
    return true;
}

bool take_ctime(std::string_view* rest, log_stamp* out) {
    if (rest->size() < 4 || (*rest)[3] != ' ') return false;
    rest->remove_prefix(4);  // the day of the week
    yearless_stamp stamp;
    int64_t year = 0;
    if (!take_month_day(rest, &stamp) || !take_char(rest, ' ') || !take_digits(rest, 4, &year)) return false;
    out->nanoseconds = stamp.nanoseconds;
    return stamp_set(year, stamp.month, stamp.day, stamp.second_of_day, out);
}

bool take_yymmdd(std::string_view* rest, log_stamp* out) {
    int64_t year = 0, month = 0, day = 0, second_of_day = 0;
    bool taken = take_digits(rest, 2, &year) && take_digits(rest, 2, &month) && take_digits(rest, 2, &day) &&
                 take_char(rest, ' ');
    if (!taken) return false;
    skip_blanks(rest);
    bool colons = rest->size() > 2 && (*rest)[2] == ':';
    bool clock = colons ? take_clock(rest, &second_of_day) : take_packed_clock(rest, &second_of_day);
    if (!clock || !ends_word(*rest)) return false;
    take_optional_fraction(rest, &out->nanoseconds);
    return stamp_set(year + (year < 70 ? 2000 : 1900), month, day, second_of_day, out);
}

bool take_epoch(std::string_view* rest, log_stamp* out) {
    size_t count = 0;
    while (count < rest->size() && count < 20 && is_digit((*rest)[count])) count++;
    if (count != 10 && count != 13 && count != 16 && count != 19) return false;
    take_digits(rest, 10, &out->local_s);
    if (count == 10) take_optional_fraction(rest, &out->nanoseconds);
    if (count > 10) take_fraction(rest, &out->nanoseconds);
    out->has_offset = true;
    return ends_word(*rest);
}

bool take_month_day(std::string_view* rest, yearless_stamp* out) {
    bool taken = take_month(rest, &out->month) && take_char(rest, ' ') && take_day(rest, &out->day) &&
                 take_char(rest, ' ') && take_clock(rest, &out->second_of_day);
    if (!taken || out->day < 1 || out->day > 31 || next_is_digit(*rest)) return false;
    take_optional_fraction(rest, &out->nanoseconds);
    return true;
}

bool stamp_to_time(const log_stamp& stamp, log_zone* zone, st_timeval_t* out) {
    int64_t epoch_s = stamp.has_offset ? stamp.local_s - stamp.offset_s : log_zone_to_epoch(zone, stamp.local_s);
    return log_time_store(epoch_s, stamp.nanoseconds, out);
}

}  // namespace veldar::tool
