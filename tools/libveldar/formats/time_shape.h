// Shapes of times: a pattern such as "%d/%m/%Y %T" says how a log writes its times.
//
//   %Y %y    year of four or two digits (70 to 99: 1970 to 1999)   %s  seconds since 1970, also with a fraction, or in
//   %m %d %j month, day, day of the year                               milliseconds, micro- or nanoseconds, by its size
//   %b %a    names: Nov, November or Okt, Sun or Sunday            %u  seconds since the machine started
//   %H %M %S hour (also %I), minute, second                      %n  TAI64N without its "@"
//   %p       AM or PM                                              %l  level as one letter: I W E F D V
//   %f       digits of a fraction     %q  "." or "," and a fraction, or nothing
//   %L       milliseconds as a number: 7 is 0.007
//   %z       an offset or a zone that means one offset, or nothing; also behind a blank
//   %Z       a zone, whatever it means
//   %T %R    "%H:%M:%S%q" and "%H:%M", with what may follow: AM or PM, %z; milliseconds also behind a colon
//   %t       what stands between a date and a clock: blanks, " at ", one of T t - _ : , or , ; | with blanks or quotes
//            around it; and then a name, as in "time="
//   %%       a percent sign
//
// A blank stands for one or more; anything else for itself. Numbers may lack their leading zero unless digits follow. A
// pattern without a date tells the time of day only, one without a clock the day.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include "tools/libveldar/formats/log_stamp.h"

namespace veldar::tool {

inline constexpr size_t TIME_SHAPE_PARTS = 40;

struct time_part {
    char kind = 0;       // the letter behind '%'; 0: a literal
    char literal = 0;    // of kind 0
    bool fixed = false;  // exactly two digits
};

struct time_shape {
    std::array<time_part, TIME_SHAPE_PARTS> parts;
    uint8_t count = 0;  // 0: no shape
    bool has_year = false, has_date = false, has_clock = false;
    std::string_view order;  // "dmy", "md" ...: what a date that is written in numbers begins with; else empty
    uint32_t digits = ~0u;   // bit n: its times may begin with just n digits
    char after = 0;          // what follows those digits; 0: several things
};

// What a text begins with, to pass over what no time begins with.
struct time_front {
    uint8_t digits = 0;  // at most 31
    char first = 0, after = 0;
    bool month = false;  // the name of one
};

// A time as a shape finds it.
struct shape_time {
    bool has_year = false,
         since_boot = false,  // neither: `yearless` holds; since_boot: stamp.local_s counts from there
        of_day = false;       // yearless.second_of_day alone holds
    log_stamp stamp;
    yearless_stamp yearless;
    std::string_view level;  // constant text, or empty
};

// Compiles a pattern. Returns null, or what is wrong with it as a literal.
const char* time_shape_compile(std::string_view pattern, time_shape* out);
time_front time_front_of(std::string_view text);
// Whether a time of this shape can begin so.
inline bool time_shape_begins(const time_shape& shape, const time_front& front) {
    if ((shape.digits >> front.digits & 1) == 0 || (shape.after != 0 && shape.after != front.after)) return false;
    const time_part& part = shape.parts[0];
    return part.kind == 0 ? part.literal == front.first : part.kind != 'b' || front.month;
}
// Takes a time from the front of `rest` and moves `rest` behind it; false leaves `rest` as it is.
bool time_shape_take(const time_shape& shape, std::string_view* rest, shape_time* out);

}  // namespace veldar::tool
