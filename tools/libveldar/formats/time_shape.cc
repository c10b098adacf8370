#include "tools/libveldar/formats/time_shape.h"

#include <algorithm>

#include "tools/libveldar/formats/month_name.h"

namespace veldar::tool {
namespace {

constexpr int64_t DAY_S = 86400;
constexpr std::string_view KINDS = "YymdjbaHIMSpfqLzZTRtsunl%", TWO_DIGITS = "mdHIMS", NUMBERS = "YymdjHIMSLsfTR";
constexpr size_t TAI_DIGITS = 16, DIGITS_MAX = 31, NAME_MAX_BYTES = 16;
constexpr int64_t TAI_EPOCH = (int64_t{1} << 62) + 10;  // as programs that write these labels have it

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}
bool is_letter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
// Whether it is the kind of a part, and one of these.
bool is_in(std::string_view kinds, char kind) {
    return kind != 0 && kinds.find(kind) != std::string_view::npos;
}
bool is_blank(char c) {
    return c == ' ' || c == '\t';
}

// What the parts of a shape have said so far.
struct scan {
    std::string_view rest;
    shape_time* out;
    int64_t year = -1, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    int64_t day_of_year = 0;  // instead of month and day
    int half_of_day = -1;     // 0 AM, 1 PM
    bool whole = false;       // the stamp is complete as it is: seconds since some moment
};

bool take_number(std::string_view* rest, bool fixed, int64_t* out) {
    if (fixed || (rest->size() > 1 && is_digit((*rest)[1]))) return take_digits(rest, 2, out);
    return take_digits(rest, 1, out);
}

bool take_blanks(std::string_view* rest) {
    if (rest->empty() || !is_blank((*rest)[0])) return false;
    skip_blanks(rest);
    return true;
}

// "AM", "pm"; nothing is taken when it is something else.
bool take_half_of_day(scan* in) {
    if (in->rest.size() < 2 || (in->rest[1] | 0x20) != 'm' || !ends_word(in->rest.substr(2))) return false;
    const char half = static_cast<char>(in->rest[0] | 0x20);
    if (half != 'a' && half != 'p') return false;
    in->half_of_day = half == 'p';
    in->rest.remove_prefix(2);
    return true;
}

bool take_day_name(std::string_view* rest) {
    constexpr std::string_view NAMES[] = {"monday", "tuesday", "wednesday", "thursday", "friday", "saturday", "sunday"};
    size_t size = 0;
    while (size < rest->size() && is_letter((*rest)[size])) size++;
    const std::string_view word = rest->substr(0, size);
    if (size < 3) return false;
    rest->remove_prefix(size);
    return std::any_of(std::begin(NAMES), std::end(NAMES), [word](std::string_view name) {
        return (word.size() == 3 || word.size() == name.size()) &&
               std::equal(word.begin(), word.end(), name.begin(), [](char a, char b) { return (a | 0x20) == b; });
    });
}

// ":606", milliseconds behind a clock.
void take_colon_milliseconds(scan* in) {
    std::string_view left = in->rest;
    int64_t value = 0;
    if (!take_char(&left, ':') || !take_digits(&left, 3, &value) || !ends_word(left)) return;
    in->out->stamp.nanoseconds = static_cast<uint32_t>(value) * 1000000;
    in->rest = left;
}

void take_clock_end(scan* in) {
    constexpr std::string_view NARROW_BLANK = "\u202F";  // Java's locales put it before AM
    const std::string_view before = in->rest;
    if (in->rest.starts_with(NARROW_BLANK)) in->rest.remove_prefix(NARROW_BLANK.size());
    skip_blanks(&in->rest);
    if (!take_half_of_day(in)) in->rest = before;
    take_optional_zone(&in->rest, &in->out->stamp);
}

bool take_clock(scan* in, bool seconds) {
    const bool minutes = take_number(&in->rest, false, &in->hour) && take_char(&in->rest, ':') &&
                         take_number(&in->rest, false, &in->minute);
    if (!minutes) return false;
    if (seconds && (!take_char(&in->rest, ':') || !take_number(&in->rest, false, &in->second))) return false;
    if (seconds) take_optional_fraction(&in->rest, &in->out->stamp.nanoseconds);
    if (seconds) take_colon_milliseconds(in);
    take_clock_end(in);
    return true;
}

bool take_separator(std::string_view* rest) {
    if (!rest->empty() && is_in("Tt-_:", (*rest)[0])) {
        rest->remove_prefix(1);
        return true;
    }
    const size_t before = rest->size();
    const bool quoted = take_char(rest, '"');
    skip_blanks(rest);
    if (!rest->empty() && is_in(",;|", (*rest)[0])) rest->remove_prefix(1);
    skip_blanks(rest);
    if (rest->size() + (quoted ? 1 : 0) == before) return false;
    if (rest->starts_with("at ")) rest->remove_prefix(3);
    size_t name = 0;
    while (name < rest->size() && name <= NAME_MAX_BYTES && is_letter((*rest)[name])) name++;
    if (name > 0 && name < rest->size() && (*rest)[name] == '=') rest->remove_prefix(name + 1);
    take_char(rest, '"');
    return true;
}

bool take_day_of_year(scan* in) {
    in->month = 1;
    return take_digits(&in->rest, 3, &in->day_of_year) && in->day_of_year > 0;
}

bool take_milliseconds(scan* in) {
    int64_t value = 0;
    size_t size = 0;
    while (size < in->rest.size() && size < 4 && is_digit(in->rest[size])) size++;
    if (size < 1 || size > 3 || !take_digits(&in->rest, size, &value)) return false;
    in->out->stamp.nanoseconds = static_cast<uint32_t>(value) * 1000000;
    return true;
}

// "400000004a32392b2aa21dac", or its first 16 digits: TAI64.
bool take_tai64n(scan* in) {
    uint64_t values[2] = {};  // seconds, nanoseconds
    size_t size = 0;
    for (; size < in->rest.size() && size < TAI_DIGITS + 8; size++) {
        const char c = in->rest[size];
        if (!is_digit(c) && !(c >= 'a' && c <= 'f')) break;
        values[size / TAI_DIGITS] =
            values[size / TAI_DIGITS] << 4 | static_cast<uint64_t>(is_digit(c) ? c - '0' : c - 'a' + 10);
    }
    if (size != TAI_DIGITS && size != TAI_DIGITS + 8) return false;
    if (values[0] >> 62 != 1 || values[1] >= 1000000000) return false;
    in->rest.remove_prefix(size);
    in->out->stamp.local_s = static_cast<int64_t>(values[0]) - TAI_EPOCH;
    in->out->stamp.nanoseconds = static_cast<uint32_t>(values[1]);
    in->out->stamp.has_offset = in->whole = true;
    return true;
}

bool take_since_boot(scan* in) {
    size_t size = 0;
    skip_blanks(&in->rest);
    while (size < in->rest.size() && size < 9 && is_digit(in->rest[size])) size++;
    if (size == 0 || !take_digits(&in->rest, size, &in->out->stamp.local_s)) return false;
    if (!take_char(&in->rest, '.') || !take_fraction(&in->rest, &in->out->stamp.nanoseconds)) return false;
    in->out->stamp.has_offset = in->out->since_boot = in->whole = true;
    return true;
}

bool take_level_letter(scan* in) {
    constexpr std::string_view LETTERS = "VDIWEF", NAMES[] = {"VERBOSE", "DEBUG", "INFO", "WARNING", "ERROR", "FATAL"};
    const size_t which = in->rest.empty() ? std::string_view::npos : LETTERS.find(in->rest[0]);
    if (which == std::string_view::npos) return false;
    in->out->level = NAMES[which];
    in->rest.remove_prefix(1);
    return true;
}

bool take_month_name(scan* in) {
    unsigned month = 0;
    if (!take_month(&in->rest, &month)) return false;
    if (in->rest.starts_with(". ")) in->rest.remove_prefix(1);  // "Nov. 22"
    in->month = month;
    return true;
}

bool take_short_year(scan* in) {
    if (!take_digits(&in->rest, 2, &in->year)) return false;
    in->year += in->year < 70 ? 2000 : 1900;
    return true;
}

bool take_part(const time_part& part, scan* in) {
    std::string_view* const rest = &in->rest;
    log_stamp* const stamp = &in->out->stamp;
    switch (part.kind) {
        case 0:
            return part.literal == ' ' ? take_blanks(rest) : take_char(rest, part.literal);
        case 'Y':
            return take_digits(rest, 4, &in->year);
        case 'y':
            return take_short_year(in);
        case 'm':
            return take_number(rest, part.fixed, &in->month);
        case 'd':
            return take_number(rest, part.fixed, &in->day);
        case 'j':
            return take_day_of_year(in);
        case 'b':
            return take_month_name(in);
        case 'a':
            return take_day_name(rest);
        case 'H':
        case 'I':
            return take_number(rest, part.fixed, &in->hour);
        case 'M':
            return take_number(rest, part.fixed, &in->minute);
        case 'S':
            return take_number(rest, part.fixed, &in->second);
        case 'p':
            return take_half_of_day(in);
        case 'f':
            return take_fraction(rest, &stamp->nanoseconds);
        case 'q':
            take_optional_fraction(rest, &stamp->nanoseconds);
            return true;
        case 'L':
            return take_milliseconds(in);
        case 'z':
            take_optional_zone(rest, stamp);
            return true;
        case 'Z':
            return take_zone_name(rest, stamp);
        case 'T':
        case 'R':
            return take_clock(in, part.kind == 'T');
        case 't':
            return take_separator(rest);
        case 's':
            return in->whole = take_epoch(rest, stamp);
        case 'u':
            return take_since_boot(in);
        case 'n':
            return take_tai64n(in);
        default:
            return take_level_letter(in);
    }
}

bool has(const time_shape& shape, std::string_view kinds) {
    return std::any_of(shape.parts.begin(), shape.parts.begin() + shape.count,
                       [kinds](const time_part& part) { return is_in(kinds, part.kind); });
}

// Month and day from the day of the year; false when the year has no such day.
bool set_day_of_year(scan* in) {
    int64_t first = 0, next = 0;
    if (!days_from_date(in->year, 1, 1, &first) || !days_from_date(in->year + 1, 1, 1, &next)) return false;
    int64_t left = in->day_of_year;
    if (left > next - first) return false;
    for (in->month = 1; in->month < 12; in->month++) {
        int64_t begin = 0, end = 0;
        if (!days_from_date(in->year, in->month, 1, &begin) || !days_from_date(in->year, in->month + 1, 1, &end))
            return false;
        if (left <= end - begin) break;
        left -= end - begin;
    }
    in->day = left;
    return true;
}

// Puts the numbers together; false when there is no such day or time of day.
bool finish(const time_shape& shape, scan* in) {
    shape_time* const out = in->out;
    if (in->half_of_day >= 0) {
        if (in->hour < 1 || in->hour > 12) return false;
        in->hour = in->hour % 12 + 12 * in->half_of_day;
    }
    int64_t second_of_day = 0, days = 0;
    if (!check_clock(in->hour, in->minute, in->second, &second_of_day)) return false;
    if (!shape.has_date) {
        out->of_day = true;
        out->yearless = {0, 0, second_of_day, out->stamp.nanoseconds};
        return true;
    }
    out->has_year = in->year >= 0;
    if (in->day_of_year != 0 && !set_day_of_year(in)) return false;
    // Of a day whose year is not known all that can be said is that a leap year has it.
    if (!days_from_date(out->has_year ? in->year : 2000, in->month, in->day, &days)) return false;
    out->stamp.local_s = days * DAY_S + second_of_day;
    out->yearless = {static_cast<unsigned>(in->month), static_cast<unsigned>(in->day), second_of_day,
                     out->stamp.nanoseconds};
    return true;
}

// Whether the time ends here, and is not the beginning of a longer number or clock.
bool ends_time(std::string_view rest) {
    const bool goes_on = rest.size() > 1 && (rest[0] == ':' || rest[0] == '/') && is_digit(rest[1]);
    return ends_word(rest) && !goes_on;
}

const char* check_parts(const time_shape& shape) {
    if (has(shape, "sun")) return nullptr;
    if (has(shape, "j") && !shape.has_year) return "says no year";
    if (shape.has_date != has(shape, "mbdYyj")) return "says no month and day";
    return shape.has_date || has(shape, "TR") || (has(shape, "HI") && has(shape, "M")) ? nullptr
                                                                                       : "says no hour and minute";
}

// The order of a date in numbers. A year of four digits tells itself; day and month behind it never change places.
std::string_view order_of(const time_shape& shape) {
    constexpr std::string_view ORDERS[] = {"dmy", "mdy", "ymd", "dm", "md"};
    char letters[TIME_SHAPE_PARTS];
    size_t count = 0;
    for (size_t i = 0; i < shape.count; i++) {
        const char kind = shape.parts[i].kind;
        if (kind == 'b' || (kind == 'Y' && count == 0)) return {};
        if (kind == 'd' || kind == 'm' || kind == 'y' || kind == 'Y') letters[count++] = kind == 'Y' ? 'y' : kind;
    }
    const std::string_view order(letters, count);
    const auto* found = std::find(std::begin(ORDERS), std::end(ORDERS), order);
    return found == std::end(ORDERS) ? std::string_view() : *found;
}

// Sets how many digits its times begin with, as far as that is plain, and what is behind them.
void set_front(time_shape* shape) {
    uint32_t least = 0, spare = 0;
    size_t i = 0;
    if (shape->parts[0].kind == 's') {
        shape->digits = 1u << 10 | 1u << 13 | 1u << 16 | 1u << 19;
        return;
    }
    if (is_in("zZpqtuTR", shape->parts[0].kind)) return;
    for (; i < shape->count && is_in("YymdHIMS", shape->parts[i].kind); i++) {
        const time_part& part = shape->parts[i];
        const bool loose = part.kind != 'Y' && part.kind != 'y' && !part.fixed;
        least += part.kind == 'Y' ? 4 : loose ? 1 : 2;
        spare += loose;
    }
    if (least + spare > DIGITS_MAX || (i < shape->count && is_in("fLsunTR", shape->parts[i].kind))) return;
    shape->digits = 1u << least | 1u << (least + spare);
    if (i > 0 && i < shape->count && shape->parts[i].kind == 0) shape->after = shape->parts[i].literal;
}

}  // namespace

const char* time_shape_compile(std::string_view pattern, time_shape* out) {
    *out = {};
    for (size_t i = 0; i < pattern.size(); i++) {
        if (out->count == TIME_SHAPE_PARTS) return "is too long";
        time_part part;
        part.literal = pattern[i] == '\t' ? ' ' : pattern[i];
        if (pattern[i] == '%') {
            const char kind = ++i < pattern.size() ? pattern[i] : '\0';
            if (KINDS.find(kind) == std::string_view::npos) return "has an unknown letter behind '%'";
            if (kind != '%') part = {kind, 0, false};
        }
        const bool joined = is_in(NUMBERS, part.kind);
        time_part* const before = out->count == 0 ? nullptr : &out->parts[out->count - 1u];
        if (before != nullptr && joined && is_in(NUMBERS, before->kind)) {
            before->fixed = is_in(TWO_DIGITS, before->kind);
            part.fixed = is_in(TWO_DIGITS, part.kind);
        }
        out->parts[out->count++] = part;
    }
    out->has_year = has(*out, "Yysun");
    out->has_date = has(*out, "sunj") || (has(*out, "mb") && has(*out, "d"));
    out->has_clock = has(*out, "sunHITR");
    out->order = order_of(*out);
    set_front(out);
    return check_parts(*out);
}

time_front time_front_of(std::string_view text) {
    time_front front;
    while (front.digits < text.size() && front.digits < DIGITS_MAX && is_digit(text[front.digits])) front.digits++;
    if (!text.empty()) front.first = text[0];
    if (front.digits < text.size()) front.after = text[front.digits] == '\t' ? ' ' : text[front.digits];
    unsigned month = 0;
    front.month = is_letter(front.first) && take_month(&text, &month);
    return front;
}

bool time_shape_take(const time_shape& shape, std::string_view* rest, shape_time* out) {
    *out = {};
    scan in;
    in.rest = *rest;
    in.out = out;
    for (size_t i = 0; i < shape.count; i++) {
        if (!take_part(shape.parts[i], &in)) return false;
    }
    const time_part& last = shape.parts[shape.count - 1u];
    if (last.kind != 0 && !ends_time(in.rest)) return false;
    if (in.whole) out->has_year = !out->since_boot;
    if (!in.whole && !finish(shape, &in)) return false;
    *rest = in.rest;
    return true;
}

}  // namespace veldar::tool
