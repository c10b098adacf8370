// Times written by a printer of its own are found and read again, wherever they stand.
#include "tools/libveldar/formats/time_place.h"

#include <gtest/gtest.h>

#include <cstring>
#include <ctime>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "tests/support/damage.h"
#include "tools/libveldar/formats/line_format.h"

namespace veldar {

using namespace tool;
namespace {

constexpr int64_t MODIFIED = 1772000000;  // 2026-02-25 06:13:20
constexpr int64_t BOOTED = MODIFIED - 30 * 86400;
constexpr time_hints HINTS = {MODIFIED, MODIFIED, ""};

// Writes times as a pattern says, with whatever freedom it leaves.
struct printer {
    std::mt19937 random{11};
    int64_t time_s = 0, ns = 0;  // what was written, to the digit
    std::string zone;
    int64_t offset_s = 0;

    size_t any(size_t n) { return random() % n; }
    int64_t any_ns(int64_t unit) { return ns = static_cast<int64_t>(any(1000000000)) / unit * unit; }
    const char* one_of(const std::vector<const char*>& all) { return all[any(all.size())]; }
    std::string print(const std::string& format, auto... values) {
        char text[64];
        std::snprintf(text, sizeof text, format.c_str(), values...);
        return text;
    }
    std::string fraction() {
        const size_t digits = any(4) * 3;
        if (digits == 0) return "";
        any_ns(digits == 3 ? 1000000 : digits == 6 ? 1000 : 1);
        return one_of({".", ","}) + print("%09ld", ns).substr(0, digits);
    }
    std::string clock(const std::tm& tm, bool seconds) {
        const bool half = any(4) == 0 && (zone.empty() || zone[0] == ' ');
        std::string text = print(any(3) == 0 ? "%d" : "%02d", half ? (tm.tm_hour + 11) % 12 + 1 : tm.tm_hour);
        text += print(":%02d", tm.tm_min);
        if (seconds) text += print(":%02d", tm.tm_sec) + fraction();
        if (half) text += print(any(2) == 0 ? " %cM" : "%cm", tm.tm_hour < 12 ? 'A' : 'P');
        return text + zone;
    }
    std::string epoch() {
        const size_t digits = any(5) * 3;
        if (digits == 12) return std::to_string(time_s);
        any_ns(1000000);
        if (digits == 0) return print("%ld.%03ld", time_s, ns / 1000000);
        return print("%ld%09ld", time_s, ns).substr(0, 10 + digits);
    }
    void choose_zone(const std::string& pattern) {
        const std::pair<const char*, int64_t> zones[] = {
            {"", 0}, {" UTC", 0}, {" CEST", 7200}, {" +0530", 19800}, {"-03:30", -12600}, {"Z", 0}, {" EST", -18000}};
        std::tie(zone, offset_s) = zones[pattern.find('Z') != std::string::npos ? 1 + any(3) : any(std::size(zones))];
        if (pattern.find_first_of("TRzZ") == std::string::npos) offset_s = 0;
    }
    std::string part(char kind, const std::tm& tm, bool thin, bool joined) {
        const std::string number = thin && !joined ? "%d" : "%02d";
        const std::string letters = "YymdHMS";
        const int values[] = {tm.tm_year + 1900, tm.tm_year % 100, tm.tm_mon + 1, tm.tm_mday,
                              tm.tm_hour,        tm.tm_min,        tm.tm_sec};
        if (const size_t which = letters.find(kind); which != std::string::npos) return print(number, values[which]);
        char name[16];
        std::strftime(name, sizeof name, thin ? "%B" : "%b", &tm);
        switch (kind) {
            case 'b':
                return name;
            case 'a':
                std::strftime(name, sizeof name, thin ? "%A" : "%a", &tm);
                return name;
            case 'q':
                return fraction();
            case 'L':
                return std::to_string(any_ns(1000000) / 1000000);
            case 'z':
                return zone;
            case 'Z':
                return zone.substr(1);
            case 't':
                return one_of({" ", "  ", "\t", "T", "_", "-", ", "});
            case 's':
                return epoch();
            case 'n':
                return print("%016lx%08lx", 0x400000000000000a + time_s, any_ns(1));
            case 'u':
                return print("%5ld.%06ld", time_s - BOOTED, any_ns(1000) / 1000);
            case 'j':
                return print("%03d", tm.tm_yday + 1);
            case 'l':
                return one_of({"I", "W", "E", "F"});
            default:
                return clock(tm, kind == 'T');
        }
    }
    std::string operator()(const std::string& pattern) {
        choose_zone(pattern);
        ns = 0;
        if (pattern.find_first_of("TRMsnu") == std::string::npos) time_s -= time_s % 86400;
        if (pattern.find("%R") != std::string::npos) time_s -= time_s % 60;
        const time_t local_s = time_s + offset_s;
        std::tm tm;
        ::gmtime_r(&local_s, &tm);
        const bool thin = any(2) == 0;  // numbers without leading zeros, where that can be read
        const auto is_number = [&](size_t at) {
            return at + 1 < pattern.size() && pattern[at] == '%' && strchr("YymdHMS", pattern[at + 1]) != nullptr;
        };
        std::string text;
        for (size_t i = 0; i < pattern.size(); i++) {
            const bool joined = is_number(i + 2) || (i >= 2 && is_number(i - 2));
            text += pattern[i] == '%' ? part(pattern[++i], tm, thin, joined) : std::string(1, pattern[i]);
        }
        return text;
    }
};

std::string time_in(std::string_view line, format_context* context) {
    parsed_line parsed;
    format_by_name("text")->parse(line, context, &parsed);
    if (!parsed.has_time) return "-";
    return std::to_string(parsed.time.time_s) + "." + std::to_string(parsed.time.time_ns);
}

TEST(TimePlace, EveryShapeIsFoundAndReadWhereverItStands) {
    const std::vector<const char*> before = {"",
                                             "INFO ",
                                             "[",
                                             "app-1  | ",
                                             "pod7 container [main] ",
                                             "n=7 at=\"",
                                             "nova.log.1.2017-05-16_13:53:08 "},
                                   after = {" done", "] done n=1", "|done", "", ", done: 2016"},
                                   without = {"no time here", "retry 3 of 10 in 10:20, 4.5% at 127.0.0.1:8080", "",
                                              "  at 2011-11-11 11:11:11", "Caused by: 20"};
    printer put;
    for (const char* pattern : time_patterns()) {
        for (int round = 0; round < 15; round++) {
            std::vector<std::string> lines, times;
            const bool bare = strcmp(pattern, "%R") == 0 || strcmp(pattern, "%Y%m%d") == 0;
            const char* const prefix = bare ? "" : put.one_of(before);
            for (int i = 0; i < 30; i++) {
                put.time_s = MODIFIED - 3 * 86400 - static_cast<int64_t>(put.any(17 * 86400));
                std::string line = put.one_of(without), time = "-";
                if (i < 5 || put.any(3) != 0) {
                    line = prefix + put(pattern) + put.one_of(after);
                    time = std::to_string(put.time_s) + "." + std::to_string(put.ns);
                }
                lines.push_back(line);
                times.push_back(time);
            }
            format_context context;
            context.modified_s = MODIFIED;
            context.boot_s = BOOTED;
            context.times = time_place_find(std::vector<std::string_view>(lines.begin(), lines.end()), HINTS);
            format_context again = context;
            ASSERT_EQ(format_by_record(format_record(*format_by_name("text"), context), &again),
                      format_by_name("text"));
            for (size_t i = 0; i < lines.size(); i++) {
                if (lines[i][0] == ' ') continue;                // goes on with the line before
                const auto day = [&](const std::string& time) {  // a time of day has any day
                    const bool any = strpbrk(pattern, "djsnu") == nullptr && time != "-";
                    return any ? std::to_string(std::stol(time) % 86400) + time.substr(time.find('.')) : time;
                };
                ASSERT_EQ(day(time_in(lines[i], &again)), day(times[i]))
                    << pattern << ", found " << context.times.pattern << ": " << lines[i];
            }
        }
    }
}

// The pattern that is found, the last word that it may begin with, and behind "or" another that fits.
std::string found(const std::vector<std::string_view>& lines, std::string_view order = "") {
    time_hints hints = HINTS;
    hints.order = order;
    const time_place place = time_place_find(lines, hints);
    return time_place_text(place) + (place.also.empty() ? "" : " or " + place.also);
}

TEST(TimePlace, ValuesTellTheOrderOfDayAndMonthWhereTheyCan) {
    EXPECT_EQ(found({"03/04/2025 10:00:00 a", "13/04/2025 10:00:00 a"}), "0 %d/%m/%Y%t%T");
    EXPECT_EQ(found({"03/04/2025 10:00:00 a", "03/14/2025 10:00:00 a", "no time"}), "0 %m/%d/%Y%t%T");
    EXPECT_EQ(found({"a 11/02/2026 10:00:00"}), "1 %d/%m/%Y%t%T") << "or it would lie in the future";
    EXPECT_EQ(found({"02/01/2026 10:00"}), "0 %m/%d/%Y%t%R or %d/%m/%Y%t%R") << "the nearer one";
    EXPECT_EQ(found({"02/05/2025 23:59", "02/06/2025 00:00"}), "0 %m/%d/%Y%t%R or %d/%m/%Y%t%R") << "a day apart";
    EXPECT_EQ(found({"05/02/2025 23:59", "06/02/2025 00:00"}), "0 %d/%m/%Y%t%R or %m/%d/%Y%t%R");
    const std::vector<std::string_view> monthly = {"01/01/2026 10:00", "02/01/2026 10:00"};
    const time_hints then = {1769940000, 1769940000, ""};  // 2026-02-01 10:00
    EXPECT_EQ(time_place_text(time_place_find(monthly, then)), "0 %m/%d/%Y%t%R")
        << "its last line is as old as the file";
    EXPECT_EQ(found({"02/01/2026 10:00"}, "dmy"), "0 %d/%m/%Y%t%R");
    EXPECT_EQ(found({"26/02/25 10:00:00"}), "0 %y/%m/%d%t%T or %d/%m/%y%t%T");
    EXPECT_EQ(found({"[02.11 10:00:00] a", "[02.13 10:00:00] a"}, "ymd"), "0 [%m.%d %T]");
    EXPECT_EQ(found({"2026-03-04 10:00:00"}, "dmy"), "0 %Y-%m-%d%t%T");
}

TEST(TimePlace, ANumberIsATimeWhenItAgreesWithTheDateBesideItOrNoDateIsThere) {
    EXPECT_EQ(found({"- 1117838570 2005.06.03 R02 2005-06-03-15.42.50.363779 R02 RAS",
                     "APP 1117869872 2005.06.04 R04 2005-06-04-00.24.32.432192 R04 RAS"}),
              "1 %s");
    EXPECT_EQ(found({"- 1131566461 2005.11.09 dn228 Nov 9 12:01:01 dn228/dn228 crond[2915]: x"}), "1 %s");
    EXPECT_EQ(found({"1117838570 at 2005-06-03 15:40:50 done"}), "2 %Y-%m-%d%t%T") << "a number of something else";
    EXPECT_EQ(found({"134681 node-246 unix.hw down 1077804742 1 Component"}), "4 %s");
    EXPECT_EQ(found({"x 1077804742", "words", "words"}), "") << "too few";
    EXPECT_EQ(found({"10:00:00,500 a", "10:00:01 b", "-- day is 2025-11-22 10:00:00", "[10:00:02] c", "10:00:03 d"}),
              "0 %T");
    EXPECT_EQ(found({"20 listopada 2026 10:00:00 a", "2026-W47 10:00:00 a", "20.11. 10:00:00"}), "");
    EXPECT_EQ(found({"4711 10:00:00 open(x)", "12 10:00:01 close(x)"}), "1 %T");
    EXPECT_EQ(found({"2025-11-22 started", "2025-11-23 10:00 o'clock"}), "0 %Y-%m-%d%t%R");
    EXPECT_EQ(found({"2025-11-22 started", "2025-11-23 stopped"}), "0 %Y-%m-%d");
    EXPECT_EQ(found({"  71:20251122:100000.5 a", " 912:20251122:100001.5 b", "    c"}), "0 %Y%m%d%t%H%M%S%q%z");
    EXPECT_EQ(found({"x 1999999999", "y 1999999998"}), "") << "of the future";
    EXPECT_EQ(found({"words", "", " 2005-06-03 15:40:50"}), "");
    std::vector<std::string_view> lines(60, "Setting up a package");
    lines[0] = lines[40] = "Log started: 2026-01-02  10:00:00";
    EXPECT_EQ(found(lines), "2 %Y-%m-%d%t%T") << "heads of lines without a time";
    lines[40] = "until 2026-01-02  10:00:00";
    EXPECT_EQ(found(lines), "");
}

TEST(TimePlace, AnotherTimeThanTheFilesCountsWhenItCanMeanNothingElse) {
    time_place syslog;
    ASSERT_TRUE(time_place_from_text("0 %b %d%t%T", &syslog));
    const std::vector<std::string> rows = data_rows("other-times");
    for (size_t i = 0; i + 1 < rows.size(); i += 2) {
        shape_time out;
        std::string_view where;
        EXPECT_EQ(time_place_take_any(syslog, rows[i], &out, &where), !rows[i + 1].empty()) << rows[i];
        EXPECT_EQ(where, rows[i + 1]) << rows[i];
    }
}

TEST(TimePlace, PatternsAreChecked) {
    time_place place;
    for (const char* bad : {"", "%Q%m%d %T", "%Y-%m %T", "%H", "%m %T", "%Y-%m-%d %T %",
                            "%Y%m%d%T0123456789012345678901234567890123456789"}) {
        EXPECT_NE(time_place_from_pattern(bad, &place), nullptr) << bad;
        EXPECT_FALSE(time_place_from_text(std::string("0 ") + bad, &place)) << bad;
    }
    for (const char* bad : {"1", "x %s", "256 %s", "-1 %s"}) EXPECT_FALSE(time_place_from_text(bad, &place)) << bad;
    format_context context;
    const char* const fault =
        time_place_from_pattern("%A day %d of %B", &context.times);  // no such letters: those of a locale
    EXPECT_NE(fault, nullptr);
    ASSERT_EQ(time_place_from_pattern("<%d of %b%%%y, %I:%M %p>", &context.times), nullptr);
    EXPECT_EQ(time_in("x <3 of May%24,  2:05 pm>", &context), "1714745100.0");
    EXPECT_EQ(time_in("x <3 of May%24, 13:05 pm>", &context), "-");
    EXPECT_EQ(time_in("x <30 of Feb%24, 1:05 pm> <3 of May%24, 2:05 PM>", &context), "1714745100.0");
}

}  // namespace
}  // namespace veldar
