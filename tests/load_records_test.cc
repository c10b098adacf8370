// What lines become: which of them are a record, what time it has, and what is no log at all.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <random>

#include "tests/support/load_fixture.h"
#include "tools/libveldar/store/foreign_content.h"
#include "tools/veldar/output/terminal_observer.h"

namespace veldar {
namespace {

using LoadRecords = Load;

TEST_F(LoadRecords, ATableGoesOnInTheMiddleWithTheColumnsThatItHadThere) {
    const std::string head = "#Fields: date time a b\n", log = file("w3c.log");
    take(log, head + "2024-03-01 00:00:00 1 2\n");
    grow(log, "2024-03-01 00:00:01 1 3\n#Fields: b date time\n4 2024-03-01 00:00:02\n");
    grow(log, "4 2024-03-01 00:00:03\n" + head + "2024-03-01 00:00:04 1 4\n");
    take(file("forced"), head + "2024-03-01 00:00:05 1 5\n", {"--format", "w3c"});
    for (const auto& [query, found] : {std::pair("a=1", "4\n"), {"b=4", "3\n"}, {"*", "6\n"}}) {
        EXPECT_EQ(count({query}), found) << query;
    }
}

TEST_F(LoadRecords, RecordsAndTimes) {
    write_file(file("a.log"),
               "no time yet\n"
               "2024-05-01 10:00:00 ERROR failed code=7\n\tat Main.run(Main.java:5) depth=2\n at x\n\n"
               "then this\n"
               "2024-05-01 10:00:05 done\n");
    load_all({file("a.log"), "--host", "Web1", "--sourcetype", "app"});
    grow(file("a.log"), "trailing\n", {"--host", "Web1"});
    const std::vector<event_seen> all = events(store());
    lines seen;
    for (const event_seen& event : all) seen.push_back(time_text(event.time).substr(11) + " " + event.record);
    EXPECT_EQ(sorted(seen),
              (lines{"10:00:00 2024-05-01 10:00:00 ERROR failed code=7\n\tat Main.run(Main.java:5) depth=2\n"
                     " at x\n\nthen this",
                     "10:00:00 no time yet", "10:00:05 2024-05-01 10:00:05 done", "10:00:05 trailing"}));
    take(file("sys.log"), "<38>Jun  9 04:47:44 combo sshd[19939]: told\n", {"--host", "Web3"});
    EXPECT_EQ(count({"told", "host=web3"}), "1\n") << "not combo";
}

// What is cut out of a file is what is read back of it, also by a load that goes on in its middle.
TEST_F(LoadRecords, RecordsOfAllKinds) {
    const std::string sql = "10:00:00,1 LOG: select *\nfrom t\n\twhere a = '2024-05-01 10:00:00'\n\norder by b";
    const std::string one = R"({"t":"2024-05-01T10:00:00Z","a":{"b":["{",1]}})", two = "{\n \"t\": \"x\\\"]\"\n}";
    const struct {
        std::string text;
        lines records;
    } table[] = {
        {"2024-05-01 " + sql + "\n2024-05-01 10:00:01,0 LOG: b\n2024-05-01 10:00:02,0 c",
         {"2024-05-01 " + sql, "2024-05-01 10:00:01,0 LOG: b", "2024-05-01 10:00:02,0 c"}},
        {"\033[32m2024-05-01 10:00:00\033[0m a\nb\n\033[32m2024-05-01 10:00:01\033[0m c\n",
         {"\033[32m2024-05-01 10:00:00\033[0m a\nb", "\033[32m2024-05-01 10:00:01\033[0m c"}},
        {"1.2.3.4 - - [01/May/2024:10:00:00 +0000] \"GET / HTTP/1.1\" 200 5\nodd\n",
         {"1.2.3.4 - - [01/May/2024:10:00:00 +0000] \"GET / HTTP/1.1\" 200 5", "odd"}},
        {"[" + one + ", " + two + "," + one + "]", {one, two, one}},
        {"[\n" + one + ",\n" + two + "\n]\n", {one, two}},
        {"{ \"Records\": [" + two + ",\n" + one + "]}\n", {one, two}},
        {one + "\n" + two + "\n" + one + one + "\nplain\n  of two\n" + one + " tail\n",
         {one, two, one, one, "plain\n  of two", one + " tail"}},
        {one + "\n{\"cut\":{\"b\":1\n" + one + "\n{\"open\":\"\n" + one + "\n",
         {one, "{\"cut\":{\"b\":1", one, "{\"open\":\"", one}},
        {"time,text,id\n2024-05-01 10:00:00,\"a\n\"\"b\n\",1\n2024-05-01 10:00:01,5\" disk,2\n",
         {"2024-05-01 10:00:00,\"a\n\"\"b\n\",1", "2024-05-01 10:00:01,5\" disk,2"}},
    };
    lines all;
    int number = 0;
    for (const auto& row : table) {
        const std::string name = file("kind" + std::to_string(number++));
        write_file(name, "\xEF\xBB\xBF" + row.text);
        const tool_result result = load({name, "--flush"});
        all = all + row.records;
        EXPECT_EQ(records(), sorted(all)) << row.text << result.err;
    }
    std::string many;
    for (int i = 0; i < 20; i++) many += "2024-05-01 10:00:00 many\n";
    for (int i = 1; i < 1200; i++) many += "line\n";
    take(file("many"), many);
    EXPECT_EQ(records().size(), all.size() + 22) << "500 lines each";
}

TEST_F(LoadRecords, AnUnfinishedEndWaitsWhileTheFileIsYoung) {
    const std::string log = file("a.log"), json = file("b.json"),
                      object = "{\"time\":\"2024-05-01T10:00:00Z\",\n\"a\":1}\n";
    write_file(log, joined(log_lines(0, 3)) + std::string(100000, 'x'));
    write_file(json, object + "{\"time\":\n");
    const tool_result result = load({log, json});
    EXPECT_NE(result.err.find("2 unfinished last lines wait"), std::string::npos) << result.err;
    EXPECT_EQ(records().size(), 4u);
    grow(json, "\"2024-05-01T10:00:01Z\"}\n");
    EXPECT_EQ(records()[3], "{\"time\":\n\"2024-05-01T10:00:01Z\"}");
    const timespec old[2] = {{1714640400, 0}, {1714640400, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, log.c_str(), old, 0), 0);
    load_all({log});
    EXPECT_EQ(records().size(), 6u);
}

TEST_F(LoadRecords, TimesAreFoundInAnyPlaceAndTheirLackIsTold) {
    const auto says = [](const tool_result& result, const std::string& text, int status = 0) {
        EXPECT_EQ(result.status, status) << result.err;
        EXPECT_NE(result.err.find(text), std::string::npos) << result.err;
    };
    const auto times = [this] {
        lines all;
        for (const event_seen& event : events(store())) all.push_back(time_text(event.time));
        return sorted(all);
    };
    write_file(file("a.log"), "WARN 03/02/2024 10:00:00.5 up\nand on\nINFO 02/03/2024 10:00:01.25 x=1\n");
    says(load({file("a.log"), "--format", "syslog"}), "no line has the form of syslog; the first is: WARN 03/", 3);
    says(load({file("a.log"), "--time-format", "%Y %b %d %T"}), "the first is: WARN", 3);
    says(load({file("a.log"), "--time-format", "%Y %b"}), "%Y %b says no month and day", 2);
    says(load({file("a.log"), "--time-format", "%s", "--format", "json"}), "not json", 2);
    EXPECT_TRUE(events(store()).empty());
    const tool_result first = load({file("a.log"), "--date-order", "mdy"});
    says(first, ", 1 joined to the line before, 0 lines refused");
    EXPECT_EQ(first.err.find("date-order"), std::string::npos) << first.err;
    grow(file("a.log"), "WARN 02/13/2024 10:00:02 year 13/02/2024 10:00:03\n");
    EXPECT_EQ(times(), (lines{"2024-02-03 10:00:01", "2024-02-13 10:00:02", "2024-03-02 10:00:00"}))
        << "as the file began";
    const std::vector<std::string> asked = {
        "-s", store(), "count", "--since", "2024-02-03T10:00:01.2", "--until", "2024-02-03T10:00:01.3", "level=info"};
    EXPECT_EQ(run_tool("veldar/veldar", asked).out, "1\n") << "fractions";
    write_file(file("b.log"), "one\ntwo\n");
    says(load({file("b.log")}), "b.log: no line says a time that is understood; times are the file's modification time",
         3);
    says(load({file("b.log"), "--strict"}),
         "only 0 of its first 2 records say a time that is understood, not this one: one", 3);
    write_file(file("c.log"), "1 at 03/04/2024 10:00:00 CST\n\n" + std::string("more\nwords\n"));
    const tool_result third = load({file("c.log")});
    for (const char* text : {"03/04/2024 10:00:00 CST are taken as %", "CST has several", "3 joined to the line before",
                             "the first line joined to the line before: ", "c.log:2: \n"})
        says(third, text);
    std::string wild, table;
    for (int i = 0; i < 5; i++) {
        wild += R"({"n":1)" + std::to_string(i) + R"(,"at":{"when":"0)" + std::to_string(i + 1) +
                R"(/05/2024 10:00:00"},"closed":"1999-01-01","time":)" + std::to_string(1714557600 + i) + "}\n";
        table += "id;closing;opening\n" + std::to_string(i) + ";2024-05-2" + std::to_string(i) +
                 " 10:00:00;2024-05-01T12:00:0" + std::to_string(i) + "Z\n";
    }
    write_file(file("w.json"), wild);
    write_file(file("t.csv"), table);
    for (const char* name : {"none", "at", "n"}) {
        says(load({file("w.json"), "--time-field", name}), "no line says a time in the field " + std::string(name), 3);
    }
    load_all({file("w.json"), "--time-field", "at.when", "--date-order", "mdy"});
    load_all({file("t.csv"), "--time-field", "opening"});
    grow(file("w.json"), R"({"at":{"when":"06/05/2024 10:00:00"},"time":1})"
                         "\n");
    for (const char* time : {"02-05 10:00:00", "05-05 10:00:00", "06-05 10:00:00", "05-01 12:00:04"}) {
        const lines all = times();
        EXPECT_EQ(std::count(all.begin(), all.end(), std::string("2024-") + time), 1) << time;
    }
    write_file(file("d.log"), "[23:30:00] a\n[00:10:00] b\n[09:00:00] c\n[08:59:59] d\n[22:00:00] e\n");
    const time_t modified = 1714640400;  // 2024-05-02 09:00:00
    const timespec stamps[2] = {{modified, 0}, {modified, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, file("d.log").c_str(), stamps, 0), 0);
    write_file(file("e.log"), "[    1.5] a\n[    2.5] b\n");
    says(load({file("e.log"), "--time-format", "%u"}), "times since the start are counted from the last start of this");
    ASSERT_EQ(::utimensat(AT_FDCWD, file("e.log").c_str(), stamps, 0), 0);
    says(load({file("e.log"), "--time-format", "%u", "--again"}), "times count from a start of a machine that is not",
         3);
    says(load({file("d.log"), "--tz", "+01:00"}), "without a zone are taken as +01:00");
    for (const char* time :
         {"04-30 22:30:00", "04-30 23:10:00", "05-01 08:00:00", "05-01 07:59:59", "05-01 21:00:00"}) {
        const lines all = times();
        EXPECT_EQ(std::count(all.begin(), all.end(), std::string("2024-") + time), 1) << time;
    }
}

TEST_F(LoadRecords, ALogMayTakeAnotherFormInItsMiddle) {
    const auto put = [](std::string* text, int count, const char* format) {
        for (int i = 0; i < count; i++) {
            char line[100];
            std::snprintf(line, sizeof line, format, i % 60, i);
            *text += line;
        }
    };
    // By lines without a time of the file's, by other lines with times, and back again.
    std::string text;
    put(&text, 40, "05/13/2024 10:00:%02d a=%d\n");
    put(&text, 60, "[2.05.2024-11:00:%02d] b=%d\n  more\n");
    put(&text, 50, "2024-05-14T12:00:%02dZ web1 cron[1]: c=%d\n");
    put(&text, 30, "192.0.2.1 - - [15/May/2024:13:00:%02d +0000] \"GET /%d HTTP/1.1\" 200 5\n");
    // A bucket ends where the first of them does.
    const std::string border = std::to_string(text.find("[2.05"));
    take(file("a.log"), text.substr(0, text.rfind("c=30") + 5), {"--flush", "--bucket-bytes", border});
    take(file("a.log"), text, {"--flush"});
    load_all({file("a.log"), "--flush"});
    EXPECT_EQ(count({"*"}), "180\n");
    EXPECT_EQ(count({"a=*", "--since", "2024-05-13T10:00", "--until", "2024-05-13T10:01"}), "40\n");
    EXPECT_EQ(count({"b=*", "--since", "2024-05-02T11:00", "--until", "2024-05-02T11:01"}), "60\n");
    EXPECT_EQ(count({"c=* program=cron host=web1", "--since", "2024-05-14T12:00", "--until", "2024-05-14T12:01"}),
              "42\n")
        << "the first eight tell that lines are odd";
    EXPECT_EQ(count({"c=*"}), "50\n");
    EXPECT_EQ(count({"status=200", "--since", "2024-05-15T13:00"}), "22\n");
    EXPECT_EQ(count({"\"] b=7\n  more\""}), "1\n");
    std::string all;
    for (const std::string& record : records()) all += record + "\n";
    EXPECT_EQ(all.size(), text.size()) << "each byte in one record";
    EXPECT_EQ(run_tool("veldar/veldar", {"-s", store(), "forget", file("a.log")}).out,
              file("a.log") + ": 180 events deleted\n");
}

TEST_F(LoadRecords, FormatsOfTheUsersOwn) {
    const std::string formats = file("formats");
    write_file(file("pay.log"),
               "<info> 22.11.2024 10:00 ann paid 12.50\n<warn> 23.11.2024 10:00 bob paid 7\n\tlate a=1\nodd line\n");
    const std::pair<const char*, const char*> wrong[] = {
        {"pay\n", "formats:1: expected"},
        {"# a\n\npay = (\n", "formats:3: in the expression"},
        {"pay = x\n", "formats:1: the expression names no groups"},
        {"json = (?P<a>x)\n", "there is another format json"},
        {"a b = (?P<a>x)\n", "a format's name is"},
        {" = (?P<a>x)\n", "a format's name is"},
        {"time = %s\n", "formats:1: \"time"},
        {"p = (?P<a>x)\ntime = %s\n", "formats:2: the format p has no"},
        {"p = (?P<time>x)\ntime = %Q\n", "formats:2: %Q has an"}};
    for (const auto& [text, message] : wrong) {
        write_file(formats, text);
        const tool_result result = load({file("pay.log"), "--formats", formats});
        EXPECT_EQ(result.status, 2) << text;
        EXPECT_NE(result.err.find(message), std::string::npos) << result.err;
    }
    EXPECT_EQ(load({file("pay.log"), "--formats", file("none")}).status, 2);
    write_file(formats,
               "# shop\npay = ^<(?P<level>\\w+)> (?P<time>.{16}) (?P<user>\\w+) paid (?P<sum>[0-9.]+)\n"
               "  time = %d.%m.%Y %H:%M\nother=(?P<x>never)\n");
    load_all({file("pay.log"), "--formats", formats});
    std::filesystem::remove(formats);
    grow(file("pay.log"), "<info> 24.11.2024 10:00 eve paid 1\n");
    EXPECT_EQ(count({"user=bob sum>5 level=warn", "--since", "2024-11-23T10:00", "--until", "2024-11-23T10:01"}),
              "1\n");
    EXPECT_EQ(count({"time=*"}), "0\n") << "the time is no field";
    EXPECT_EQ(count({"\"ann paid\" sourcetype=pay"}), "1\n");
    EXPECT_EQ(count({"eve", "--since", "2024-11-24T10:00", "--until", "2024-11-24T10:00:00.5"}), "1\n")
        << "its shape is kept when the file is gone";
}

TEST_F(LoadRecords, WhatCannotBeReadIsNamedAndTheRestIsLoaded) {
    const lines all = log_lines(0, 5000);
    write_file(file("a.log"), joined(log_lines(5000, 10)));
    write_gzip(file("whole.gz"), joined(all));
    const std::string packed = read_file(file("whole.gz"));
    write_file(file("cut.gz"), packed.substr(0, packed.size() / 2));
    ASSERT_EQ(::mkfifo(file("fifo").c_str(), 0600), 0);
    write_file(file("x.lz"), "LZIP\1\nwords\n");
    write_gzip(file("tool.gz"), std::string("\x7F"
                                            "ELF\2\1\1\0\0\0\0\0\0\0\0\0\3\0>\0\1\0\0\0",
                                            24));
    const tool_result result = load({file("missing.log"), file("cut.gz"), dir.path(), file("fifo"), "/dev/zero",
                                     file("x.lz"), file("tool.gz"), file("a.log")});
    EXPECT_EQ(result.status, 3);
    EXPECT_EQ(load({"-"}, {file("x.lz")}).status, 3);
    for (const char* text :
         {"missing.log: No such file", "cut.gz: the compressed data is cut short", "a directory; its files",
          "fifo: a FIFO", "zero: a device", "x.lz: compressed (lzip)", "tool.gz: binary"}) {
        EXPECT_NE(result.err.find(text), std::string::npos) << result.err;
    }
    const lines first = records();
    EXPECT_GT(first.size(), 1000u);
    EXPECT_EQ(load({file("cut.gz")}).status, 3) << "told again";
    EXPECT_EQ(records(), first);
    take(file("cut.gz"), packed);
    EXPECT_EQ(records().size(), all.size() + 10 + 1) << "whole now: one line had been cut in two";
}

TEST(ForeignContent, IsToldByItsBytes) {
    const std::string log = "2024-05-01 10:00:00 start\n";
    for (const std::string& text :
         {std::string(), log, std::string(5000, '\0') + log, log + std::string("a\0b\n", 4), "BZhang was here\n" + log,
          log + "8=FIX.4.2\0019=65\00135=A\00110=1\n", log + "\033[1;31mred\033[m \b\a\n", log + "gr\xFC\xDF \x9B\n",
          std::string("\2\3\4\5 odd\n")}) {
        EXPECT_EQ(foreign_content(text), "") << text;
    }
    std::mt19937 random(3);
    std::string noise(300, ' ');
    for (char& c : noise) c = static_cast<char>(random());
    const std::pair<std::string, const char*> table[] = {{"BZh91AY&SY..", "a second time"},
                                                         {"LZIP\1", "lzip"},
                                                         {std::string("\0\0\xFE\xFF\0\0\0x", 8), "UTF-32"},
                                                         {std::string("a\0\0\0b\0\0\0", 8), "UTF-32"},
                                                         {noise, "binary"},
                                                         {std::string(10, '\0'), "binary"},
                                                         {"\2\3\4\5\6 odd\n", "binary"},
                                                         {log + std::string(231, 'x') + "ustar", "tar"}};
    for (const auto& [bytes, name] : table) {
        EXPECT_NE(foreign_content(bytes).find(name), std::string::npos) << name;
    }
}

TEST_F(LoadRecords, WideTextIsDecoded) {
    const std::string text = "2024-05-01 10:00:00 gr\xC3\xBC\xC3\x9F \xE2\x82\xAC \xF0\x9F\x98\x80 x=1\r\n";
    const std::u16string wide = u"2024-05-01 10:00:00 gr\u00FC\u00DF \u20AC \U0001F600 x=1\r\n";
    for (const bool big : {false, true}) {
        std::string bytes;
        const auto put = [&](char16_t unit) {
            const char high = static_cast<char>(unit >> 8), low = static_cast<char>(unit & 0xFF);
            bytes += big ? std::string{high, low} : std::string{low, high};
        };
        put(0xFEFF);
        for (int i = 0; i < 3000; i++) {
            for (const char16_t unit : wide) put(unit);
        }
        const std::string path = file(big ? "big" : "little"), added = "half \xEF\xBF\xBD pair " + std::to_string(big);
        take(path, bytes + (big ? std::string(1, '\0') : "h"));
        for (const char c : added + "\n") {
            if (c == '\xEF') put(0xD83D);
            if ((c & 0x80) == 0) put(static_cast<char16_t>(c));
        }
        write_file(path, bytes);
        write_file(path + ".gz", gzip_member(bytes));
        load_all({path, path + ".gz"});
        const lines all = records();
        EXPECT_EQ(std::count(all.begin(), all.end(), text.substr(0, text.size() - 2)), big ? 6000 : 3000) << all.back();
        EXPECT_EQ(std::count(all.begin(), all.end(), added), 1) << all.back();
    }
    take(file("mark"), "\xEF\xBB\xBF" + text);
    EXPECT_EQ(count({"x=1"}), "6001\n");
}

TEST_F(LoadRecords, LongLinesAndOddBytes) {
    lines all = {"2024-05-01 10:00:00 start", "2024-05-01 10:00:01 " + std::string(10 << 20, 'x') + " end",
                 std::string("nul \0 and \xff\xfe bytes", 18), "2024-05-01 10:00:02 stop"};
    for (size_t size = RECORD_MAX - 3; size < RECORD_MAX + 3; size++) {
        all.push_back("2024-05-01 10:00:03 " + std::string(size - 20, 'y'));
    }
    take(file("a.log"), joined(all));
    EXPECT_EQ(records() == sorted(all), true);
}

TEST(Progress, IsALineOfATerminalAtMostTenTimesASecond) {
    terminal_observer terminal;
    const observer prints = terminal_observer_open(&terminal);
    const observer_scope observed(&prints);
    terminal.is_terminal = true;
    progress shown = {.total = 2000000};
    testing::internal::CaptureStderr();
    progress_show(&shown, 1000000, 1234);
    progress_show(&shown, 1500000, 5);
    shown.shown_us = 0;
    progress_show_merge(&shown, 3000000);
    say_trouble("\x1b");
    progress_end();
    const temp_dir dir;
    load_totals totals;
    std::filesystem::create_symlink("merged", dir.file("9-1-5.tsidx"));
    totals_add_slices(&totals, dir.path(), {});  // says nothing of one that is gone
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "\r[###############               ]  50% 1,234 events, 1.0 MB, 0.0 MB/s\x1b[K"
              "\r[##############################] 100% merging, 3.0 MB of 2.0 MB, 0.0 MB/s\x1b[K\r\x1b[Kveldar: ^[\n");
    EXPECT_EQ(bytes_text(999) + bytes_text(1000) + bytes_text(1000000000) + number_text(999) + number_text(1000),
              "999 bytes1.0 kB1.00 GB9991,000");
}

TEST(Put, ASignalEndsIt) {
    const temp_dir dir;
    ASSERT_EQ(::mkfifo(dir.file("pipe").c_str(), 0600), 0);
    const unique_fd pipe(::open(dir.file("pipe").c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_EQ(::write(pipe.get(), "4\t4\t1\t1\t1\t0\td\n", 14), 14);
    tool_result ended;
    for (unsigned after = 100000; ended.status != 130 && after < 10000000; after *= 2) {
        ended = run_tool("veldar/veldar", {"put", dir.file("index"), "-"}, {dir.file("pipe"), SIGTERM, after});
    }
    EXPECT_TRUE(ended.status == 130 && ended.err.starts_with("interrupted; put so far: 1 event,")) << ended.err;
}

}  // namespace
}  // namespace veldar
