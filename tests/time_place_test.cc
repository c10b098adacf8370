// Times written by a printer of its own are found and read again, wherever they stand.
#include "tools/veldar/formats/time_place.h"

#include <gtest/gtest.h>

#include <cmath>
#include <ctime>
#include <random>
#include <string>
#include <vector>

#include "tools/veldar/formats/line_format.h"

namespace veldar {

using namespace tool;
namespace {

constexpr int64_t MODIFIED = 1772000000;  // 2026-02-25 06:13:20
constexpr int64_t BOOTED = MODIFIED - 30 * 86400;
constexpr time_hints HINTS = {MODIFIED, MODIFIED, ""};

struct printer {
    std::mt19937 random{11};
    int64_t time_s = 0;
    int64_t ns = 0;  // only as much as is written
    int64_t offset_s = 0;
    int64_t day_s = 86400;  // what is not written is cut from the time: 86400 nothing, 60 the seconds

    size_t any(size_t n) { return random() % n; }
    const char* one_of(const std::vector<const char*>& all) { return all[any(all.size())]; }
    std::string print(const std::string& format, auto... values) {
        char text[64];
        std::snprintf(text, sizeof text, format.c_str(), values...);
        return text;
    }
    std::string fraction() {
        const size_t digits = any(4) * 3;
        if (digits == 0) return "";
        ns = static_cast<int64_t>(any(1000000000));
        std::string text = print(",%09lld", static_cast<long long>(ns)).substr(0, digits + 1);
        for (size_t i = digits; i < 9; i++) ns -= ns % static_cast<int64_t>(std::pow(10, 9 - digits));
        if (any(2) == 0) text[0] = '.';
        return text;
    }
    std::string clock(const std::tm& tm, bool seconds) {
        const bool half = any(4) == 0 && (zone_text.empty() || zone_text[0] == ' ');
        std::string text = print(any(3) == 0 ? "%d" : "%02d", half ? (tm.tm_hour + 11) % 12 + 1 : tm.tm_hour);
        text += print(":%02d", tm.tm_min);
        if (seconds) text += print(":%02d", tm.tm_sec) + fraction();
        if (half) text += print(any(2) == 0 ? " %cM" : "%cm", any(1) + (tm.tm_hour < 12 ? 'A' : 'P'));
        return text + zone();
    }
    std::string zone_text;
    std::string zone() const { return zone_text; }
    void choose_zone() {
        const struct {
            const char* text;
            int64_t offset_s;
        } zones[] = {{"", 0},  {"", 0},         {" CEST", 7200}, {" +0530", 19800}, {"-03:30", -12600},
                     {"Z", 0}, {" EST", -18000}};
        const auto& chosen = zones[any(std::size(zones))];
        zone_text = chosen.text;
        offset_s = chosen.offset_s;
    }
    std::string epoch() {
        const auto s = static_cast<long long>(time_s);
        const size_t digits = any(5) * 3;
        if (digits == 12) return print("%lld", s);
        ns = static_cast<int64_t>(any(1000)) * 1000000;
        if (digits == 0) return print("%lld.%03lld", s, static_cast<long long>(ns / 1000000));
        return print("%lld%09lld", s, static_cast<long long>(ns)).substr(0, 10 + digits);
    }
    std::string operator()(const std::string& pattern) {
        choose_zone();
        const bool zoned = pattern.find_first_of("TRzZ") != std::string::npos;
        if (!zoned) offset_s = 0;
        if (pattern.find('Z') != std::string::npos && zone_text.empty()) zone_text = " UTC";
        ns = 0;
        const bool minutes = pattern.find("%R") != std::string::npos;
        if (minutes) time_s -= time_s % 60;
        const time_t local_s = time_s + offset_s;
        std::tm tm;
        ::gmtime_r(&local_s, &tm);
        const bool thin = any(2) == 0;  // numbers without leading zeros, where that can be read
        std::string text;
        for (size_t i = 0; i < pattern.size(); i++) {
            if (pattern[i] != '%') {
                text += pattern[i];
                continue;
            }
            const char kind = pattern[++i];
            const auto is_number = [&](size_t at) {
                return at < pattern.size() && pattern[at] == '%' &&
                       std::string("YymdHMS").find(pattern[at + 1]) != std::string::npos;
            };
            const bool joined = is_number(i + 1) || (i >= 3 && is_number(i - 3));
            const std::string two = thin && !joined ? "%d" : "%02d";
            char names[32];
            switch (kind) {
                case 'Y':
                    text += print("%d", tm.tm_year + 1900);
                    break;
                case 'y':
                    text += print("%02d", tm.tm_year % 100);
                    break;
                case 'm':
                    text += print(two, tm.tm_mon + 1);
                    break;
                case 'd':
                    text += print(two, tm.tm_mday);
                    break;
                case 'H':
                    text += print(two, tm.tm_hour);
                    break;
                case 'M':
                    text += print(two, tm.tm_min);
                    break;
                case 'S':
                    text += print(two, tm.tm_sec);
                    break;
                case 'b':
                    std::strftime(names, sizeof names, thin ? "%B" : "%b", &tm);
                    text += names;
                    break;
                case 'q':
                    text += fraction();
                    break;
                case 'L':
                    ns = static_cast<int64_t>(any(1000)) * 1000000;
                    text += print("%lld", static_cast<long long>(ns / 1000000));
                    break;
                case 'z':
                    text += zone();
                    break;
                case 'Z':
                    text += zone_text.substr(zone_text[0] == ' ' ? 1 : 0);
                    break;
                case 'T':
                case 'R':
                    text += clock(tm, kind == 'T');
                    break;
                case 't':
                    text += one_of({" ", "  ", "\t", "T", "_", "-", ", "});
                    break;
                case 's':
                    text += epoch();
                    break;
                case 'n':
                    ns = static_cast<int64_t>(any(1000000000));
                    text += print("%016llx%08llx", 0x400000000000000aull + static_cast<unsigned long long>(time_s),
                                  static_cast<unsigned long long>(ns));
                    break;
                case 'u':
                    ns = static_cast<int64_t>(any(1000000)) * 1000;
                    text += print("%5lld.%06lld", static_cast<long long>(time_s - BOOTED),
                                  static_cast<long long>(ns / 1000));
                    break;
                case 'l':
                    text += one_of({"I", "W", "E", "F"});
                    break;
                default:
                    ADD_FAILURE() << pattern;
            }
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
            const char* const prefix = put.one_of(before);
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
                if (lines[i][0] == ' ') continue;  // goes on with the line before
                ASSERT_EQ(time_in(lines[i], &again), times[i])
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
    EXPECT_EQ(found({"x 1999999999", "y 1999999998"}), "") << "of the future";
    EXPECT_EQ(found({"words", "", " 2005-06-03 15:40:50"}), "");
    std::vector<std::string_view> lines(60, "Setting up a package");
    lines[0] = lines[40] = "Log started: 2026-01-02  10:00:00";
    EXPECT_EQ(found(lines), "2 %Y-%m-%d%t%T") << "heads of lines without a time";
    lines[40] = "until 2026-01-02  10:00:00";
    EXPECT_EQ(found(lines), "");
}

TEST(TimePlace, PatternsAreChecked) {
    time_place place;
    for (const char* bad : {"", "%Q%m%d %T", "%Y-%m-%d", "%T", "%m %T", "%Y-%m-%d %T %",
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
