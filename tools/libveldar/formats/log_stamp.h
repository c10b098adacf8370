// Scanners for the ways in which logs write times. Each takes a time from the front of `rest` and moves `rest` behind
// it; a false result leaves `rest` and the output undefined. No scanner reads more than a few dozen bytes.
#pragma once

#include <cstdint>
#include <string_view>

#include "tools/libveldar/formats/log_time.h"

namespace veldar::tool {

struct log_stamp {
    int64_t local_s = 0;  // the civil time counted as if it were UTC
    uint32_t nanoseconds = 0;
    bool has_offset = false;  // the line itself says the offset; otherwise the context's zone holds
    int64_t offset_s = 0;
    std::string_view unclear_zone;  // a zone's name that means several offsets, as the line has it
    std::string_view named_zone;    // a zone such as "Europe/Berlin", as the line has it
};

// A time without its year.
struct yearless_stamp {
    unsigned month = 0, day = 0;
    int64_t second_of_day = 0;
    uint32_t nanoseconds = 0;
};

bool take_char(std::string_view* rest, char c);
bool take_digits(std::string_view* rest, size_t count, int64_t* out);  // exactly `count` digits
void skip_blanks(std::string_view* rest);
void skip_utf8_mark(std::string_view* rest);         // the byte order mark at the front of some files
std::string_view take_word(std::string_view* rest);  // up to a blank or the end, and the blanks behind it

bool take_fraction(std::string_view* rest, uint32_t* nanoseconds);           // its digits
void take_optional_fraction(std::string_view* rest, uint32_t* nanoseconds);  // "." or "," and digits, or nothing
bool ends_word(std::string_view rest);                                       // no letter or digit follows
// The zone behind a time, glued to it or behind one blank, where there is one.
void take_optional_zone(std::string_view* rest, log_stamp* out);
// A zone's name, known or not.
bool take_zone_name(std::string_view* rest, log_stamp* out);
bool check_clock(int64_t hour, int64_t minute, int64_t second, int64_t* second_of_day);

// Days since the epoch of a civil date; false when there is no such day.
bool days_from_date(int64_t year, int64_t month, int64_t day, int64_t* out);

bool take_iso8601(std::string_view* rest, log_stamp* out);         // 2015-07-29T17:41:44,747+02:00, blank or T, / or -
bool take_clf_time(std::string_view* rest, log_stamp* out);        // 17/May/2015:10:05:03 +0000
bool take_ctime(std::string_view* rest, log_stamp* out);           // Sun Dec 04 04:47:44.123456 2005
bool take_yymmdd(std::string_view* rest, log_stamp* out);          // 081109 203615
bool take_epoch(std::string_view* rest, log_stamp* out);           // 10 digits and a fraction, or 13, 16, 19 digits
bool take_month_day(std::string_view* rest, yearless_stamp* out);  // Jun  9 04:47:44.123

// Turns the stamp into the engine's time; false when its seconds do not fit 32 bits.
bool stamp_to_time(const log_stamp& stamp, log_zone* zone, st_timeval_t* out);

}  // namespace veldar::tool
