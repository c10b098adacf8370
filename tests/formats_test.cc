#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <random>
#include <string>
#include <vector>

#include "tests/support/damage.h"
#include "tools/libveldar/formats/json_text.h"
#include "tools/libveldar/formats/line_format.h"
#include "tools/libveldar/formats/terms.h"
#include "tools/libveldar/formats/unit_number.h"

namespace veldar {

using namespace tool;
namespace {

constexpr int64_t DAY = 86400;
constexpr int64_t MODIFIED = 1772000000;  // 2026-02-25 06:13:20

// "seconds.nanoseconds" or "-", then " name=value" for each field.
std::string describe(const parsed_line& parsed) {
    std::string text = "-";
    if (parsed.has_time) text = std::to_string(parsed.time.time_s) + "." + std::to_string(parsed.time.time_ns);
    for (const field_view& field : parsed.fields) {
        text.append(" ").append(field.name).append("=").append(field.value);
    }
    const bool told = !parsed.host.empty() && text.find("=" + std::string(parsed.host)) == std::string::npos;
    if (told) text.append(" @").append(parsed.host);
    return text;
}

std::string parse_with(const char* format, std::string_view line, format_context context = {}) {
    if (context.modified_s == NO_TIME_SEEN) context.modified_s = MODIFIED;
    parsed_line parsed;
    bool formed = format_by_name(format)->parse(line, &context, &parsed);
    return (formed ? "" : "not: ") + describe(parsed);
}

// A format, a line, and what comes of it. Each line is also what its format must be recognised by.
TEST(Formats, LinesGiveTheirTimeAndFieldsAndAreRecognisedAmongOddOnes) {
    std::vector<std::string> rows = data_rows("log-lines");
    for (
        const char* more :
        {"json",
         R"({"level":"info","time":"2015-05-17T10:05:03.5Z","a":{"b":[1.50,{"c":"x\ny"}]},"n":null,"e":"","msg":"k=v"})",
         "1431857103.500000000 level=info a.b=1.50 a.b.c=x\ny msg=k=v k=v"}) {
        rows.emplace_back(more);
    }
    for (size_t i = 0; i + 2 < rows.size(); i += 3) {
        const std::string &format = rows[i], &line = rows[i + 1], &expected = rows[i + 2];
        EXPECT_EQ(parse_with(format.c_str(), line), expected) << line;
        EXPECT_EQ(parse_with(format.c_str(), "\xEF\xBB\xBF" + line + "\r"), expected) << line;
        std::vector<std::string_view> lines{"Logging starts", "", "   continued", line, "1 2 3", line};
        EXPECT_EQ(detect_format(lines, {})->name, format) << line;
    }
    EXPECT_STREQ(detect_format({}, {})->name, "text");
    std::vector<std::string_view> rare(9, "words");
    rare.push_back("081109 203615 148 INFO x");
    EXPECT_STREQ(detect_format(rare, {})->name, "text");
}

TEST(Formats, HeadsNameTheColumnsOfTables) {
    struct table_case {
        const char* format;
        std::vector<std::string_view> lines;
        const char* expected;  // of the last line
    };
    const std::vector<table_case> CASES = {
        {"csv",
         {"Time,Host,Message", "2015-07-01T12:00:00Z,h,\"say \"\"a,b\"\" k=v\""},
         "1435752000.0 Host=h Message=say \"a,b\" k=v k=v"},
        {"csv",
         {"\xEF\xBB\xBF\"id\";\"Event Time\";\"x\"\r", "1;2015-07-01 12:00:00;\"\"\r", "7;2015-07-01 12:00:01;-\r"},
         "1435752001.0 id=7"},
        {"csv", {"date\ttime\tn", "2015-07-01\t12:00:00\t\"a\nb\""}, "1435752000.0 n=a\nb"},
        {"csv", {"date,time,ts,n", "soon,now,2015-07-01T12:00:00Z,1"}, "1435752000.0 date=soon time=now n=1"},
        {"csv", {"# a|b|c", "1|2|3", "x|y|z", "a|b|c"}, "head"},
        {"w3c",
         {"#Software: x", "#Date: 2015-07-01 12:00:00", "#Fields: date time cs-uri-query cs(Referer) sc-status",
          "2015-07-01 12:00:00 q=1+2&r=%41 - 404"},
         "1435752000.0 cs-uri-query=q=1+2&r=%41 query.q=1 2 query.r=A sc-status=404"},
        {"w3c", {"#Fields: date time a b", "2015-07-01\t12:00:00\tx y\tz"}, "1435752000.0 a=x y b=z"},
        {"w3c",
         {"#Fields: date time a", "2015-07-01 12:00:00 1", "#Fields: b date time", "2 2015-07-01 12:00:01"},
         "1435752001.0 b=2"},
        {"zeek",
         {"#separator \\x09", "#fields\tts\tuid\tn", "#types\ttime\tstring\tcount", "1435752000.5\tC1\t(empty)"},
         "1435752000.500000000 uid=C1"},
        {"w3c", {"#Fields: a date time", "cut", "x 2015-07-01 12:00:00"}, "1435752000.0 a=x"},
        {"none", {"Starting up, loading, done", "one, two", "a, b, c, d"}, nullptr},
        {"none", {"2015-07-01,12:00:00,x", "2015-07-01,12:00:01,y", "2015-07-01,12:00:01,y"}, nullptr},

        {"none", {"a,b,c", "", ""}, nullptr},
        {"none", {"a,b,c", "1,2,3", "1,2,3", "1,2,3", "1,2,3", "1,2,3", "1", "2", "3", "4"}, nullptr},
    };
    for (const table_case& one : CASES) {
        format_context context;
        const line_format* const format = detect_columns(one.lines, nullptr, &context);
        ASSERT_STREQ(format == nullptr ? "none" : format->name, one.format) << one.lines[0];
        if (format == nullptr) continue;
        format_context again;  // what a store keeps reads the lines as well
        ASSERT_EQ(format_by_record(format_record(*format, context), &again), format);
        parsed_line parsed;
        for (const std::string_view line : one.lines) format->parse(line, &again, &parsed);
        EXPECT_EQ(parsed.no_event ? "head" : describe(parsed), one.expected) << one.lines[0];
    }
}

TEST(Formats, TheJournalsExportHasFieldsOfAnyBytes) {
    const std::string bytes = std::string("MESSAGE\n\x0d\0\0\0\0\0\0\0", 16) + "k=v\n__CURSOR=\n_PID=7\n";
    const std::string record = "__CURSOR=s=1\n__REALTIME_TIMESTAMP=1435752000000001\n_HOSTNAME=h\n" + bytes;
    EXPECT_EQ(parse_with("journal-export", record), "1435752000.1000 _HOSTNAME=h MESSAGE=k=v\n__CURSOR= _PID=7 k=v");
    for (size_t size = 0; size < record.size(); size++) parse_with("journal-export", record.substr(0, size));
    const std::vector<std::string_view> lines = {"__CURSOR=s=1", "_PID=7"};
    EXPECT_STREQ(detect_format(lines, {})->name, "journal-export");
}

TEST(Formats, LinesOfAnotherFormHaveNoTimeButTheirPairs) {
    for (const char* line : {"", "k=v", "{\"a\" k=v\r", "{", "<192>Jun 14 15:16:01 h k=v", "Jun 31x", "<1>1 2003",
                             "[Sun Dec 04 04:47:44 2005", "2015-13-01 00:00:00 k=v", "2015-01-01 24:00:00",
                             "081109 2036150", "12865363081", "286536308", "a b c [17/May/2015"}) {
        for (const line_format& format : line_formats().first(line_formats().size() - 1)) {
            bool pair = std::string_view(line).find("k=v") != std::string_view::npos;
            EXPECT_EQ(parse_with(format.name, line), pair ? "not: - k=v" : "not: -") << format.name << ": " << line;
        }
    }
    EXPECT_EQ(parse_with("iso8601", "2038-01-19 03:14:07"), "2147483647.0");
    EXPECT_EQ(parse_with("iso8601", "2038-01-19 03:14:08"), "-");
    EXPECT_EQ(parse_with("iso8601", "1901-12-13 20:45:52 k=v"), "-2147483648.0 k=v");
    EXPECT_EQ(parse_with("epoch", "9999999999 k=v"), "- k=v");
    EXPECT_EQ(parse_with("epoch", "9999999999 k=v\x7Fw"), "- k=v");
}

TEST(Formats, YearsFollowTheModificationTimeAndTheLinesBefore) {
    auto years = [](format_context context, std::vector<std::string_view> days) {
        std::string text;
        parsed_line parsed;
        for (std::string_view day : days) {
            std::string line = std::string(day) + " 12:00:00 h p: x";
            format_by_name("syslog")->parse(line, &context, &parsed);
            auto date = std::chrono::floor<std::chrono::days>(
                std::chrono::sys_time<std::chrono::seconds>(std::chrono::seconds(parsed.time.time_s)));
            text += " " + (parsed.has_time ? std::to_string(static_cast<int>(std::chrono::year_month_day(date).year()))
                                           : "-");
        }
        return text;
    };
    format_context inferred;
    inferred.modified_s = MODIFIED;
    EXPECT_EQ(years(inferred, {"Dec 30", "Jan  2", "Dec 31", "Jan  3", "Feb 25", "Feb 27"}),
              " 2025 2026 2025 2026 2026 2025");
    EXPECT_EQ(years(inferred, {"Feb 29", "Mar  1"}), " 2024 2024");
    EXPECT_EQ(years(inferred, {"Mar  1", "Jan  1", "Jun  1", "Feb  1"}), " 2025 2025 2025 2025");
    EXPECT_EQ(years(inferred, {"Feb 30"}), " -");
    format_context given = inferred;
    given.year = 2004;
    EXPECT_EQ(years(given, {"Aug  1", "Jan  1", "Aug  2", "Dec 31", "Jan  1"}), " 2004 2005 2004 2004 2005");
    given.year = 2005;
    EXPECT_EQ(years(given, {"Feb 29", "Mar  1"}), " - 2005");
    format_context resumed = inferred;
    resumed.last_local_s = MODIFIED - 400 * DAY;
    EXPECT_EQ(years(resumed, {"Jan 23"}), " 2025");
}

TEST(Formats, TimesWithoutAZoneAreInTheContextsZone) {
    const std::vector<std::string> rows = data_rows("zones");
    for (size_t i = 0; i + 2 < rows.size(); i += 3) {
        format_context context;
        ASSERT_TRUE(log_zone_from_name(rows[i], &context.zone)) << rows[i];
        EXPECT_EQ(parse_with("iso8601", rows[i + 1], context), rows[i + 2] + ".0") << rows[i] << rows[i + 1];
    }
    format_context berlin;
    ASSERT_TRUE(log_zone_from_name("Europe/Berlin", &berlin.zone));
    berlin.times = time_place_find(std::vector<std::string_view>{"2015-10-25 02:30:00 x"}, {});
    const auto seconds = [&](std::vector<std::string> lines) {
        format_context context = berlin;
        parsed_line parsed;
        std::string text;
        for (const std::string& line : lines) {
            parsed.time.time_s = 0;
            parse_log_line(*format_by_name("text"), line, &context, &parsed);
            text += " " + std::to_string(parsed.time.time_s - 1445731200);  // from 2 o'clock of that night on
        }
        return text;
    };
    EXPECT_EQ(seconds({"2015-10-25 02:00:30", "2015-10-25 02:59:58", "2015-10-25 02:59:57", "2015-10-25 02:00:01",
                       "2015-10-25 02:59:59", "2015-10-25 03:00:00"}),
              " 30 3598 3597 3601 7199 7200")
        << "an hour that occurs twice follows the order of lines";
    EXPECT_EQ(seconds({"2015-10-25 10:00:00 Asia/Tokyo", "2015-10-25 02:00:00 GMT+1", "2015-10-25 02:00:00 UTC+0130",
                       "2015-10-25 02:00:00 MESZ", "2015-10-25 02:00:00 Europe/Nowhere"}),
              " 3600 3600 1800 0 0");
    log_zone zone;
    for (const char* name : {"", "Nowhere/None", "../etc/passwd", "+1", "+25:00", "+01:0x"}) {
        EXPECT_FALSE(log_zone_from_name(name, &zone)) << name;
    }
    // A zone that remembers the last offset gives what one that has seen nothing gives.
    log_zone kept;
    ASSERT_TRUE(log_zone_from_name("Europe/Berlin", &kept));
    const log_zone fresh = kept;
    for (int64_t local_s = 1420000000; local_s < 1460000000; local_s += 1801) {
        log_zone other = fresh;
        ASSERT_EQ(log_zone_to_epoch(&kept, local_s), log_zone_to_epoch(&other, local_s)) << local_s;
    }
}

TEST(Formats, HugeAndHostileLinesStayCheap) {
    constexpr size_t SIZE = 4 << 20;
    auto repeat = [](std::string_view unit) {
        std::string text;
        while (text.size() < SIZE) text += unit;
        return text;
    };
    std::string access = R"(1.2.3.4 - - [17/May/2015:10:05:03 +0000] )";
    std::vector<std::string> lines = {"{\"a\":" + repeat("["), "{" + repeat("\"a\":{"), access + "\"" + repeat("\\\""),
                                      "<1>1 - - - - - [" + repeat("a=\"\\\""), std::string(SIZE, '\0')};
    for (const char* unit : {"x", "a=", "a=\"", "a=\"\\", "[", "{\"a\":", "[{", "a=b ", " "})
        lines.push_back(repeat(unit));
    for (const std::string& line : lines) {
        for (const line_format& format : line_formats()) {
            format_context context;
            parsed_line parsed;
            format.parse(line, &context, &parsed);
            EXPECT_LE(parsed.fields.size(), 1300u) << format.name;
        }
    }
}

// The terms of a text and its fields, by the plainest means.
std::vector<std::string> naive_terms(std::string_view text, const std::vector<field_view>& fields) {
    std::vector<std::string> terms;
    auto add = [&](std::string term) {
        term.resize(std::min(term.size(), TERM_MAX));
        if (std::find(terms.begin(), terms.end(), term) == terms.end()) terms.push_back(std::move(term));
    };
    auto fold = [](std::string_view part) {
        std::string folded(part);
        for (char& c : folded) c = c == '\0' ? ' ' : c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
        return folded;
    };
    constexpr std::string_view TOKEN = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_.-";
    for (size_t at = 0; (at = text.find_first_of(TOKEN, at)) != text.npos;) {
        size_t end = std::min(text.find_first_not_of(TOKEN, at), text.size());
        std::string_view run = text.substr(at, end - at);
        size_t first = run.find_first_not_of("_.-");
        if (first != run.npos) add(fold(run.substr(first, run.find_last_not_of("_.-") + 1 - first)));
        at = end;
    }
    for (const field_view& field : fields) {
        if (!field.name.empty() && !field.value.empty() && field.name.size() + 2 < TERM_MAX) {
            add(fold(field.name) + "::" + fold(field.value));
        }
    }
    return terms;
}

TEST(Terms, EqualANaiveImplementationOnRandomBytes) {
    std::mt19937 random(7);
    term_set set;
    std::string mixed = "aAzZ@[`{09/:_.- \t\"=,";
    mixed.append({'\0', '\x7f', '\x80', '\xc3', '\xda', '\xff'});
    for (int round = 0; round < 400; round++) {
        bool few = round % 2 == 0;  // few different bytes: many equal terms
        std::string text(random() % (round % 40 == 0 ? 20000 : 300), '\0');
        for (char& c : text) c = few ? mixed[random() % mixed.size()] : static_cast<char>(random());
        if (round % 50 == 1) text.insert(text.size() / 2, 3000, 'Q');
        std::vector<field_view> fields;
        for (int i = 0; i < 5; i++) {
            size_t name = random() % (text.size() + 1), value = random() % (text.size() + 1);
            fields.push_back({std::string_view(text).substr(name, random() % 8), std::string_view(text).substr(value)});
        }
        term_set_reset(&set);
        term_set_add_text(&set, text);
        for (const field_view& field : fields) term_set_add_field(&set, field.name, field.value);
        std::vector<std::string> expected = naive_terms(text, fields);
        std::span<const std::string_view> terms = term_set_terms(&set);
        ASSERT_TRUE(std::equal(terms.begin(), terms.end(), expected.begin(), expected.end())) << "round " << round;
    }
}

TEST(Formats, BytesOfTheJournalAreText) {
    std::string scratch;
    EXPECT_EQ(json_text(R"({"MESSAGE" : [104, 105,255],"a":"\t"})", &scratch),
              "{\"MESSAGE\" : [104, 105,255],\"a\":\"\t\"}\nhi\xFF");
    EXPECT_EQ(json_text(R"({"a":"\u00e9\u20AC\ud83d\ude00\ud83d\u0041\ud83dx\u12\q\/"})", &scratch),
              "{\"a\":\"\u00E9\u20AC\U0001F600\xED\xA0\xBD"
              "A\xED\xA0\xBDx\\u12\\q/\"}");
    for (const char* line : {R"({"MESSAGE":"x"})", R"({"MESSAGE"})", "{\"MESSAGE\":"}) {
        EXPECT_EQ(json_text(line, &scratch), line);
    }
}

TEST(Terms, ValuesWithAUnitAreNumbersOfTheirBaseUnit) {
    const std::vector<std::string> rows = data_rows("units");
    for (size_t i = 0; i + 1 < rows.size(); i += 2) {
        double number = 0;
        const bool taken = unit_number(rows[i], &number);
        EXPECT_EQ(taken ? unit_text(number) : "none", rows[i + 1]) << rows[i];
        EXPECT_TRUE(!taken || may_have_unit(rows[i])) << rows[i];
    }
}

TEST(Terms, PartsOfWords) {
    const struct {
        const char *text, *parts;
    } table[] = {{"com.android.systemui nova-api_v2.LOG", "com android systemui nova api v2 log"},
                 {"NullPointerException: NIOServerCnxn blk_-16a9f", "null pointer exception nio server cnxn blk 16a9f"},
                 {"userIDs java.io.IOException ABC2DEF", "user ds java io ioexception exception abc def"},
                 {"plain Capital 10.0.0.1 0xA", ""}};
    for (const auto& row : table) {
        term_set set;
        term_set_add_parts(&set, row.text);
        std::string parts;
        for (const std::string_view part : term_set_terms(&set))
            parts += (parts.empty() ? "" : " ") + std::string(part);
        EXPECT_EQ(parts, row.parts);
    }
}

TEST(Terms, QueriesFoldAsEventsDo) {
    std::string value("A\0\xc4Z[{", 6);
    EXPECT_EQ(fold_value(value), std::string("a \xc4z[{"));
    EXPECT_EQ(fold_value({}), "");
    for (size_t size : {0u, 1u, 2040u, 2044u, 2045u, 3000u}) {
        std::string name(size, 'N');
        for (const std::string& one : {std::string(), value, std::string(5000, 'V')}) {
            term_set set;
            term_set_add_field(&set, name, one);
            std::string term = fold_field_term(name, one);
            std::span<const std::string_view> terms = term_set_terms(&set);
            ASSERT_EQ(terms.size(), term.empty() ? 0u : 1u) << size;
            for (std::string_view added : terms) EXPECT_EQ(added, term) << size;
        }
    }
}

}  // namespace
}  // namespace veldar
