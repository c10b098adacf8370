// Runs the built tool over generated logs and compares what it prints with a naive evaluation over the lines.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <random>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "searchthing/reading/cursors.h"
#include "tests/support/forge_metric.h"
#include "tests/support/run_tool.h"
#include "tests/support/temp_dir.h"
#include "tools/libveldar/query/time_input.h"
#include "tools/libveldar/store/index_handle.h"
#include "tools/libveldar/store/slices.h"
#include "tools/veldar/output/event_output.h"

namespace veldar {

using namespace tool;
namespace {

namespace fs = std::filesystem;

constexpr int32_t BEGIN = 1709251200;  // 2024-03-01T00:00:00Z

std::string lower(std::string text) {
    for (char& c : text) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
    return text;
}

// One event as a person reads it: words by a rule of its own, fields known from how the line was made.
struct line_event {
    int32_t time = 0;
    std::string text;
    std::string level, user, path;
    int status = -1, bytes = -1;  // -1: the line has no such field
    std::set<std::string> words;

    bool has(const std::string& word) const { return words.contains(word); }
    bool holds(const std::string& part) const { return lower(text).find(part) != std::string::npos; }
};

std::set<std::string> words_of(const std::string& text) {
    std::set<std::string> words;
    std::string word;
    const std::string edges = "_.-";
    for (const char c : lower(text) + " ") {
        if (std::isalnum(static_cast<unsigned char>(c)) != 0 || edges.find(c) != std::string::npos) {
            word += c;
            continue;
        }
        const size_t first = word.find_first_not_of(edges);
        if (first != std::string::npos) words.insert(word.substr(first, word.find_last_not_of(edges) + 1 - first));
        word.clear();
    }
    return words;
}

std::string time_stamp(int32_t time) {
    return event_time_text(time, 0);
}

// Lines of a log with key=value pairs; some have a stack trace behind them, some seconds have several lines.
std::vector<line_event> make_lines(int count) {
    std::mt19937 random(7);
    const auto pick = [&](std::vector<const char*> from) { return from[random() % from.size()]; };
    std::vector<line_event> lines;
    int32_t time = BEGIN;
    for (int i = 0; i < count; i++) {
        line_event event;
        event.time = time += static_cast<int32_t>(random() % 4 == 0 ? 0 : random() % 60);
        event.level = pick({"INFO", "INFO", "INFO", "WARN", "Error"});
        event.user = pick({"alice", "bob", "carol", "mallory"});
        event.text = time_stamp(event.time) + " level=" + event.level + " user=" + event.user;
        if (random() % 3 != 0) {
            event.status = std::stoi(pick({"200", "200", "304", "404", "500"}));
            event.bytes = i % 8 == 0 ? 1000 : static_cast<int>(random() % 3000);
            event.path = pick({"/", "/cart", "/cart/checkout", "/img/logo.png", "/img/logo.pngx"});
            event.text += " status=" + std::to_string(event.status) + " bytes=" + std::to_string(event.bytes) +
                          " path=" + event.path;
        }
        event.text += std::string(" ") + pick({"Connection refused by peer-7", "connection REFUSED; retrying",
                                               "refused connection", "Connection refusedly odd", "all is well",
                                               "disk-full on node_12.example.org", "payload [42] ok"});
        if (random() % 9 == 0) event.text += "\n\tat Main.run(Main.java:" + std::to_string(i % 5) + ")\n\tat Thread";
        event.words = words_of(event.text);
        lines.push_back(std::move(event));
    }
    return lines;
}

struct SearchTool : testing::Test {
    static void SetUpTestSuite() {
        dir = new temp_dir;
        events = new std::vector<line_event>(make_lines(900));
        std::string first, second;
        for (size_t i = 0; i < events->size(); i++) (i < 500 ? first : second) += (*events)[i].text + "\n";
        write_file(dir->file("a.log"), first);
        write_file(dir->file("b.log"), second);
        // Two buckets and several slices in each.
        for (const char* name : {"a.log", "b.log"}) {
            const tool_result loaded = run({"load", dir->file(name), "--max-values", "97", "--bucket-bytes", "30000",
                                            "--host", "web", "--no-fsync"});
            ASSERT_EQ(loaded.status, 0) << loaded.err;
        }
        ASSERT_GT(slices_list(dir->file("store")).directories.size(), 1u);
        ASSERT_GT(slices_list(dir->file("store")).slices->size(), 6u);
    }
    static void TearDownTestSuite() {
        delete dir;
        delete events;
    }

    static tool_result run(const std::vector<std::string>& arguments, const tool_options& options = {}) {
        return run_at(dir->file("store"), arguments, options);
    }
    static tool_result run_at(const std::string& path, std::vector<std::string> arguments,
                              const tool_options& options = {}) {
        arguments.insert(arguments.begin(), {"-s", path});
        return run_tool("veldar/veldar", arguments, options);
    }
    // The texts of the events that a predicate takes, newest first, of one second the last ones of the log first.
    static std::vector<std::string> naive(const std::function<bool(const line_event&)>& wanted) {
        std::vector<std::string> texts;
        for (auto event = events->rbegin(); event != events->rend(); ++event) {
            if (wanted(*event)) texts.push_back(event->text);
        }
        return texts;
    }
    static std::string joined(const std::vector<std::string>& texts) {
        std::string all;
        for (const std::string& text : texts) all += text + "\n";
        return all;
    }

    static temp_dir* dir;
    static std::vector<line_event>* events;
};
temp_dir* SearchTool::dir = nullptr;
std::vector<line_event>* SearchTool::events = nullptr;

TEST_F(SearchTool, AgreesWithReadingEveryLine) {
    using event = const line_event&;
    const int32_t noon = BEGIN + 12000;
    const struct {
        std::vector<std::string> arguments;
        std::function<bool(event)> wanted;
        const char* hint = "";
    } table[] = {
        {{"refused"}, [](event e) { return e.has("refused"); }},
        {{"REFUSED"}, [](event e) { return e.has("refused"); }},
        {{"refused", "connection"}, [](event e) { return e.has("refused") && e.has("connection"); }},
        {{"peer-7 OR retrying"}, [](event e) { return e.has("peer-7") || e.has("retrying"); }},
        {{"connection -refused"}, [](event e) { return e.has("connection") && !e.has("refused"); }},
        {{"-refused"}, [](event e) { return !e.has("refused"); }},
        {{"NOT", "(refused", "OR", "well)"}, [](event e) { return !e.has("refused") && !e.has("well"); }},
        {{"(refused OR well) user=bob"},
         [](event e) { return e.user == "bob" && (e.has("refused") || e.has("well")); }},
        {{"node_12.example.org"}, [](event e) { return e.has("node_12.example.org"); }},
        {{"node_12 user!=bob"}, [](event) { return false; }, "0; `node_12~ user!=bob` would find "},
        {{"9user=bob user='mallory'"}, [](event) { return false; }},
        {{"user='bob' level=\"WARN\","}, [](event e) { return e.user == "bob" && e.level == "WARN"; }},
        {{"use=bob"}, [](event) { return false; }, "no event has a field 'use'; did you mean 'user'?"},
        {{"path>5"}, [](event e) { return !e.path.empty(); }, "the values of 'path' are no numbers, such as '/'"},
        {{"level=error"}, [](event e) { return e.level == "Error"; }},
        {{"level!=INFO"}, [](event e) { return e.level != "INFO"; }},
        {{"status=404 OR status=500"}, [](event e) { return e.status == 404 || e.status == 500; }},
        {{"status!=200"}, [](event e) { return e.status != -1 && e.status != 200; }},
        {{"NOT status=200"}, [](event e) { return e.status != 200; }},
        {{"bytes>2500"}, [](event e) { return e.bytes > 2500; }},
        {{"bytes>=100 bytes<=1000"}, [](event e) { return e.bytes >= 100 && e.bytes <= 1000; }},
        {{"NOT bytes<1500"}, [](event e) { return e.bytes == -1 || e.bytes >= 1500; }},
        {{"status>=400 -user=mallory"}, [](event e) { return e.status >= 400 && e.user != "mallory"; }},
        {{"re*ing"}, [](event e) { return e.has("retrying"); }},
        {{"*fused*"}, [](event e) { return e.has("refused") || e.has("refusedly"); }},
        {{"user=*o*"}, [](event e) { return e.user != "alice"; }},
        {{"NOT bytes=*00"}, [](event e) { return e.bytes <= 0 || e.bytes % 100 != 0; }},
        {{"[AND bytes::*00]", "--native"}, [](event e) { return e.bytes > 0 && e.bytes % 100 == 0; }},
        {{"path=/cart*"}, [](event e) { return e.path.starts_with("/cart"); }},
        {{"path=/"}, [](event e) { return e.path == "/"; }},
        {{"/img/logo.png"}, [](event e) { return e.path == "/img/logo.png"; }},
        {{"/img/logo.png*"}, [](event e) { return e.path.starts_with("/img/logo.png"); }},
        {{"\"connection refused\""}, [](event e) { return e.holds("connection refused"); }},
        {{"\"onnection refus*y odd\""}, [](event e) { return e.holds("connection refusedly odd"); }},
        {{"-\"onnection refus\""}, [](event e) { return !e.holds("connection refus"); }},
        {{"usedl~ -\"OD\"~"}, [](event) { return false; }},
        {{"usedl~ OR path=heck~"}, [](event e) { return e.has("refusedly") || e.path == "/cart/checkout"; }},
        {{"\"status\"=404 \"bytes\">9"}, [](event e) { return e.status == 404 && e.bytes > 9; }},
        {{"\"refused connection\" OR \"all is well\" OR user=carol"},
         [](event e) { return e.holds("refused connection") || e.holds("all is well") || e.user == "carol"; }},
        {{"\"payload [42]\""}, [](event e) { return e.holds("payload [42]"); }},
        {{"main.java"}, [](event e) { return e.has("main.java"); }},
        {{"*", "--since", "2024-03-01T03:20:00Z"}, [=](event e) { return e.time >= noon; }},
        {{"*", "--until", "2024-03-01 03:20"}, [=](event e) { return e.time < noon; }},
        {{"well", "--since", "@" + std::to_string(noon), "--until", "2024-03-01T06:40:00+01:00", "--tz", "+09:00"},
         [=](event e) { return e.has("well") && e.time >= noon && e.time < BEGIN + 20400; }},
        {{"\"connection refused\"", "--until", "2024-03-01T03:20:00"},
         [=](event e) { return e.time < noon && e.holds("connection refused"); }},
        {{"[AND [OR status::404 status::500] [NOT user::bob]]", "--native"},
         [](event e) { return (e.status == 404 || e.status == 500) && e.user != "bob"; }},
        {{"nosuchword"}, [](event) { return false; }},
        {{"host=web* sourcetype=*"}, [](event) { return true; }},
        {{"ho*"}, [](event) { return false; }},
    };
    for (const auto& row : table) {
        const std::vector<std::string> expected = naive(row.wanted);
        std::vector<std::string> arguments = row.arguments;
        arguments.insert(arguments.begin(), "search");
        const tool_result found = run(arguments);
        EXPECT_EQ(found.out, joined(expected)) << row.arguments[0];
        EXPECT_EQ(found.err.empty(), *row.hint == '\0') << found.err;
        EXPECT_NE(found.err.find(row.hint), std::string::npos) << found.err;
        EXPECT_EQ(found.status, expected.empty() ? 1 : 0) << row.arguments[0];
        arguments[0] = "count";
        const tool_result count = run(arguments);
        EXPECT_EQ(count.out, std::to_string(expected.size()) + "\n") << row.arguments[0];
        EXPECT_EQ(count.status, expected.empty() ? 1 : 0);
        arguments[0] = "explain";
        EXPECT_EQ(run(arguments).status, expected.empty() ? 1 : 0) << row.arguments[0];
        arguments[0] = "search";
        arguments.insert(arguments.end(), {"-n", "7"});
        const std::vector<std::string> newest(
            expected.begin(), expected.begin() + static_cast<long>(std::min<size_t>(7, expected.size())));
        EXPECT_EQ(run(arguments).out, joined(newest)) << row.arguments[0];
        arguments.emplace_back("-r");
        EXPECT_EQ(run(arguments).out, joined({newest.rbegin(), newest.rend()})) << row.arguments[0];
    }
}

TEST_F(SearchTool, ManyEventsOfOneSecondAreGivenOnceInEveryBatch) {
    const temp_dir other;
    std::string log;
    std::vector<std::string> texts;
    for (int i = 0; i < 6000; i++) texts.push_back(time_stamp(BEGIN + i / 2500) + " same second " + std::to_string(i));
    write_file(other.file("log"), joined(texts));
    ASSERT_EQ(run_at(other.file("store"), {"load", other.file("log"), "--no-fsync"}).status, 0);
    std::reverse(texts.begin(), texts.end());
    EXPECT_EQ(run_at(other.file("store"), {"search", "same"}).out, joined(texts));
    EXPECT_EQ(run_at(other.file("store"), {"search", "second", "OR", "\"same second\""}).out, joined(texts));
    EXPECT_EQ(run_at(other.file("store"), {"count", "second", "OR", "\"same second\""}).out, "6000\n");
}

// What each slice does for each plan, with an X for sizes, and for times that differ from run to run.
TEST_F(SearchTool, ExplainTellsPlansAndSlices) {
    const temp_dir other;
    for (const std::string day : {"01", "02", "03"}) {
        const std::string at = "2024-03-" + day, log = other.file(day);
        write_file(log, at + "T00:00:00Z level=info a\n" + at + "T00:00:01Z level=warn \"c d\" no. " + day + "\n");
        ASSERT_EQ(run_at(other.file("store"), {"load", log, "--no-fsync"}).status, 0);
    }
    const auto explain = [&](std::vector<std::string> query) {
        query.insert(query.begin(), "explain");
        std::string text = std::regex_replace(run_at(other.file("store"), query).out, std::regex(" +"), " ");
        text = std::regex_replace(text, std::regex("\n (\\d+ \\d+) \\d+ \\d+ (\\d+ \\d+) [\\d.]+ "), "\n$1 X X $2 X ");
        return std::regex_replace(text, std::regex("bucket-000001/(\\d+-\\d+)-\\d+.tsidx"), "$1");
    };
    const std::string head = "\n answers lists reads bytes values windows ms slice\n", none = " - - - - - - - ";
    EXPECT_EQ(explain({"level=warn", "\"c d\"", "-x", "--since", "2024-03-02T00:00:00.25Z", "--until",
                       "2024-03-03T00:00:01Z"}),
              "query level=warn \"c d\" -x\nsince 2024-03-02T00:00:00.25Z\nup to 2024-03-03T00:00:00.999999999Z\n"
              "plan 1 [AND level::warn *c d* [NOT x]]\n and the raw text holds \"c d\"\n" +
                  head + "0 1 X X 0 1 X 1709424001-1709424000\n1 3 X X 0 1 X 1709337601-1709337600\n" + none +
                  "1709251201-1709251200: outside the time bounds by its name\n1 4 X X 0 2 X in all\n");
    const std::string older = none + "1709337601-1709337600: older than the answers wanted\n" + none +
                              "1709251201-1709251200: older than the answers wanted\n";
    EXPECT_EQ(explain({"a", "OR", "-\"c d\"", "--limit", "1"}),
              "query a OR -\"c d\"\nplan 1 [AND]\n and the raw text does not hold \"c d\"\nplan 2 [AND a]\n" + head +
                  "1 0 X X 1 1 X 1709424001-1709424000\n" + older + head + "1 1 X X 1 1 X 1709424001-1709424000\n" +
                  older + "2 1 X X 2 2 X in all\n");
}

TEST_F(SearchTool, Formats) {
    const temp_dir other;
    write_file(other.file("log"), "x\n2024-03-01T00:00:00Z k=\"a,b\" \"q\"\\ \xFF\n\tmore\n");
    ASSERT_EQ(run_at(other.file("store"), {"load", other.file("log"), "--host", "h", "--no-fsync"}).status, 0);
    const auto search = [&](const char* format) {
        return run_at(other.file("store"), {"search", "more", "--format", format}).out;
    };
    const std::string source = other.file("log"), raw = "2024-03-01T00:00:00Z k=\"a,b\" \"q\"\\ ";
    const std::string type = read_file(other.file("store/sourcetypes")).substr(0, 7);
    ASSERT_EQ(type, "iso8601");
    const std::string common = "2024-03-01T00:00:00Z,h," + source + "," + type + ",bucket-000001,2,";
    EXPECT_EQ(search("raw"), raw + "\xFF\n\tmore\n");
    EXPECT_EQ(search("table"), "2024-03-01T00:00:00Z\th\t" + source + "\t" + raw + "\xFF\n");
    EXPECT_EQ(search("addr"), "2024-03-01T00:00:00Z\t2\tbucket-000001\n");
    EXPECT_EQ(search("csv"), "time,host,source,sourcetype,directory,address,raw\r\n" + common +
                                 "\"2024-03-01T00:00:00Z k=\"\"a,b\"\" \"\"q\"\"\\ \xFF\n\tmore\"\r\n");
    std::string tabs = common;
    std::replace(tabs.begin(), tabs.end(), ',', '\t');
    EXPECT_EQ(search("tsv"), "time\thost\tsource\tsourcetype\tdirectory\taddress\traw\n" + tabs +
                                 "2024-03-01T00:00:00Z k=\"a,b\" \"q\"\\\\ \xFF\\n\\tmore\n");
    EXPECT_EQ(search("jsonl"),
              "{\"time\":\"2024-03-01T00:00:00Z\",\"host\":\"h\",\"source\":\"" + source +
                  "\",\"sourcetype\":\"iso8601\",\"directory\":\"bucket-000001\",\"address\":2,\"raw\":"
                  "\"2024-03-01T00:00:00Z k=\\\"a,b\\\" \\\"q\\\"\\\\ \xEF\xBF\xBD\\n\\tmore\"}\n");
    const auto with = [&](std::vector<std::string> more) {
        more.insert(more.begin(), "search");
        return run_at(other.file("store"), more).out;
    };
    EXPECT_EQ(with({"more", "-B", "3"}), "x\n" + raw + "\xFF\n\tmore\n");
    EXPECT_EQ(with({"*", "-A1"}), "x\n" + raw + "\xFF\n\tmore\n");
    EXPECT_EQ(with({"more", "--fields", "host,K", "--tz", "+02:00"}),
              "time\thost\tk\n2024-03-01T02:00:00+02:00\th\ta,b\n");
    EXPECT_EQ(with({"k=a* OR x", "--color", "always"}),
              "2024-03-01T00:00:00Z k=\"\033[1;31ma\033[m,b\" \"q\"\\ \xFF\n\tmore\n\033[1;31mx\033[m\n");
}

TEST_F(SearchTool, FieldsAndLinesAroundEvents) {
    const temp_dir other;
    std::string log;
    for (int i = 0; i < 9; i++) {
        const std::string at = "2024-03-01T00:00:0" + std::to_string(i);
        log += at + (i == 4 ? ".250" : "") + "Z Level=Info n=" + std::to_string(i) + (i == 8 ? " n=x level=info" : "") +
               "\n";
    }
    write_file(other.file("log"), log);
    ASSERT_EQ(run_at(other.file("store"), {"load", other.file("log"), "--no-fsync"}).status, 0);
    const auto numbers = [&](std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "search");
        std::string out;
        const std::string text = run_at(other.file("store"), arguments).out + "\n";
        for (size_t begin = 0; begin + 1 < text.size(); begin = text.find('\n', begin) + 1) {
            const std::string line = text.substr(begin, text.find('\n', begin) - begin), group = "\"group\":";
            const size_t number = line.find("n=");
            if (const size_t at = line.find(group); at != std::string::npos) out += line[at + group.size()];
            out += line.find("context\":true") != std::string::npos ? "c" : "";
            out += number == std::string::npos ? line : line.substr(number + 2, 1);
            out += ' ';
        }
        return out;
    };
    EXPECT_EQ(numbers({"n=1 OR n=3 OR n=7", "-C1"}), "6 7 8 -- 0 1 2 3 4 ");
    EXPECT_EQ(numbers({"n=1 OR n=2 OR n=4", "-C1", "-r"}), "0 1 2 3 4 5 ");
    EXPECT_EQ(numbers({"n=1 OR n=8", "-B2", "--format", "jsonl"}), "1c6 1c7 18 2c0 21 ");
    // Lines that are longer than what is read at first.
    std::vector<std::string> lines;
    std::string around;
    for (size_t i = 0; i < 40; i++) {
        lines.push_back("2024-03-01T00:00:" + std::to_string(10 + i) + "Z " + (i % 9 == 4 ? "hit " : "") +
                        std::string(i * 7919 % 45000 * (i % 5), 'x'));
        if (i % 9 == 7) around += (i > 9 ? "--\n" : "") + joined({lines.end() - 6, lines.end()});
    }
    write_file(other.file("long"), joined(lines));
    ASSERT_EQ(run_at(other.file("other"), {"load", other.file("long"), "--no-fsync"}).status, 0);
    EXPECT_TRUE(run_at(other.file("other"), {"search", "hit", "-B2", "-A3", "-r"}).out == around);
    EXPECT_EQ(numbers({"n=8", "--fields", "n,level,nosuch", "--format", "csv"}),
              "time,n,level,nosuch\r 2024-03-01T00:00:08Z,8;x,Info;info,\r ");
    EXPECT_EQ(
        numbers({"n=4", "--fields", "all"}).find("time\thost\tsource\tsourcetype\tdirectory\taddress\traw\tlevel\tn "),
        0u);
    EXPECT_EQ(run_at(other.file("store"), {"search", "n=8 OR n=4", "--fields", "n", "--format", "jsonl"}).out,
              "{\"time\":\"2024-03-01T00:00:08Z\",\"n\":[\"8\",\"x\"]}\n"
              "{\"time\":\"2024-03-01T00:00:04.25Z\",\"n\":\"4\"}\n");
}

TEST_F(SearchTool, BoundsWithinASecondAreThoseOfTheLog) {
    const temp_dir other;
    const std::string path = other.file("store"), second = "2024-03-01T00:00:0";
    const std::vector<std::string> lines = {"before any time x",      second + "1.000Z x",       second + "1.500Z x",
                                            second + "1.250Z late x", second + "1.500Z x again", second + "1.501Z x y",
                                            second + "2Z x",          second + "2.75Z x"};
    write_file(other.file("log"), joined(lines));
    ASSERT_EQ(run_at(path, {"load", other.file("log"), "--no-fsync", "--max-values", "4"}).status, 0);
    const struct {
        std::string since, until;
        std::vector<size_t> found;  // by line, newest first
    } table[] = {
        {second + "1Z", second + "2Z", {5, 4, 3, 2, 1, 0}},
        {second + "1.5Z", second + "2Z", {5, 4, 2}},
        {second + "1.25Z", second + "1.501Z", {4, 3, 2}},
        {second + "1.5005Z", "", {7, 6, 5}},
        {"", second + "1.25Z", {1, 0}},
        {second + "1.6Z", second + "2.75Z", {6}},
        {second + "1.6Z", second + "1.7Z", {}},
    };
    for (const auto& row : table) {
        std::vector<std::string> expected;
        for (const size_t line : row.found) expected.push_back(lines[line]);
        const std::vector<std::string> bounds = {"--since", row.since, "--until", row.until};
        std::vector<std::string> search = {"search", "x"}, count = {"count", "x OR \"late x\""};
        search.insert(search.end(), bounds.begin(), bounds.end());
        count.insert(count.end(), bounds.begin(), bounds.end());
        EXPECT_EQ(run_at(path, search).out, joined(expected)) << row.since << " " << row.until;
        EXPECT_EQ(run_at(path, count).out, std::to_string(expected.size()) + "\n");
    }
    write_file(other.file("syslog"), "Mar  1 00:00:01.250 host app: w\n");  // of the file's year
    const timespec stamps[2] = {{BEGIN + 9, 0}, {BEGIN + 9, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, other.file("syslog").c_str(), stamps, 0), 0);
    ASSERT_EQ(run_at(path, {"load", other.file("syslog"), "--no-fsync"}).status, 0);
    EXPECT_EQ(run_at(path, {"count", "w", "--since", second + "1.25Z", "--until", second + "1.26Z"}).out, "1\n");
}

TEST_F(SearchTool, WordsAreThoseThatPeopleSee) {
    const temp_dir other;
    const std::string path = other.file("store");
    write_file(other.file("log"),
               R"({"log":"boom\nCaused by \"C:\\new\" \/api user=bob\n","time":"2024-03-01T00:00:00Z"})"
               "\n\tat C:\\next\n"
               R"({"log":"caf\u00e9 \ud83d\ude00x \u0041b\uzz","time":"2024-03-01T00:00:01Z"})"
               "\n{ plain \\tail\n");
    ASSERT_EQ(run_at(path, {"load", other.file("log"), "--no-fsync"}).status, 0);
    for (const char* query : {"caused", "boom", "new", "next", "user=bob", "log=boom*bob", "\"/api\"",
                              "\"\xC3\xA9 \xF0\x9F\x98\x80x\"", "ab", "uzz", "by time", "-/api caf", "ail"}) {
        EXPECT_EQ(run_at(path, {"count", query}).out, "1\n") << query;
    }
    for (const char* query : {"ncaused", "ew", "ext", "u00e9", "tail", "boom -/api"}) {
        EXPECT_EQ(run_at(path, {"count", query}).out, "0\n") << query;
    }
    write_file(other.file("coloured"),
               "\033[90m2024-03-01T00:00:02.5Z\033[0m \033[1;32mINFO\033[m all \033]0;title\awell "
               "\033[36mkey\033[0m=\033[4mblue\033[m\n");
    ASSERT_EQ(run_at(path, {"load", other.file("coloured"), "--no-fsync"}).status, 0);
    for (const char* query : {"level=info", "info", "key=blue", "\"info all well\"", "well"}) {
        EXPECT_EQ(run_at(path, {"count", query, "--since", "2024-03-01T00:00:02.5Z"}).out, "1\n") << query;
        EXPECT_EQ(run_at(path, {"count", query, "--since", "2024-03-01T00:00:02.6Z"}).out, "0\n") << query;
    }
}

// What a command prints on a terminal, with plain newlines.
std::string on_terminal(const std::string& store, std::vector<std::string> arguments) {
    const unique_fd terminal(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    EXPECT_EQ(::grantpt(terminal.get()) == 0 && ::unlockpt(terminal.get()) == 0, true);
    const unique_fd open(::open(::ptsname(terminal.get()), O_RDWR | O_NOCTTY | O_CLOEXEC));  // keeps what is written
    arguments.insert(arguments.begin(), {"-s", store});
    EXPECT_EQ(run_tool("veldar/veldar", arguments, {.output = ::ptsname(terminal.get())}).status, 0);
    char bytes[4096];
    std::string text(bytes, static_cast<size_t>(std::max<ssize_t>(::read(terminal.get(), bytes, sizeof bytes), 0)));
    std::erase(text, '\r');
    return text;
}

TEST_F(SearchTool, ATerminalIsShownControlCharactersAndDoesNotObeyThem) {
    const temp_dir other;
    const std::string path = other.file("store"), gr = "gr\xC3\xBC\xC3\x9F\xEE\x80\x80";
    const std::string line =
        "x \033[1;31m \033]0;t\a \x9B"
        "2J \xC2\x9B"
        "m \x7F " +
        gr + "\r\n\ty\rz";
    const std::string shown =
        " ^[[1;31m ^[]0;t^G \\x9B"
        "2J \\x9Bm ^? " +
        gr + "\n";
    write_file(other.file("log"), line + "\n");
    ASSERT_EQ(run_at(path, {"load", other.file("log"), "--no-fsync"}).status, 3);
    EXPECT_EQ(on_terminal(path, {"search", "x", "--color", "never"}), "x" + shown + "\ty^Mz\n");
    EXPECT_EQ(on_terminal(path, {"search", "x", "--color", "always"}), "\033[1;31mx\033[m" + shown + "\ty^Mz\n");
    EXPECT_EQ(on_terminal(path, {"search", "y", "-B1"}).substr(0, 1 + shown.size()), "x" + shown);
    for (const char* format : {"table", "jsonl", "csv", "tsv"}) {
        const std::string text = on_terminal(path, {"search", "x", "--format", format, "--color", "never"});
        EXPECT_EQ(text.find_first_of("\033\a\x9B\x7F"), std::string::npos) << format << ": " << text;
        EXPECT_NE(text.find(gr), std::string::npos) << text;
    }
    EXPECT_EQ(run_at(path, {"search", "x"}).out, line + "\n");
}

TEST_F(SearchTool, TermsFieldsSeen) {
    std::map<std::string, std::vector<int32_t>> users;  // the times of each
    for (const line_event& event : *events) users[event.user].push_back(event.time);
    std::string by_term;
    std::vector<std::pair<size_t, std::string>> by_count;
    for (const auto& [user, times] : users) {
        by_term += std::to_string(times.size()) + "\tuser=" + user + "\n";
        by_count.emplace_back(times.size(), user);
        EXPECT_EQ(run({"seen", "user=" + user}).out, "events\t" + std::to_string(times.size()) + "\nfirst\t" +
                                                         time_stamp(times.front()) + "\nlast\t" +
                                                         time_stamp(times.back()) + "\n");
    }
    std::sort(by_count.rbegin(), by_count.rend());
    EXPECT_EQ(run({"terms", "user=*", "--sort", "term"}).out, by_term);
    EXPECT_EQ(run({"terms", "user::*", "-n", "1"}).out,
              std::to_string(by_count[0].first) + "\tuser=" + by_count[0].second + "\n");
    EXPECT_EQ(run({"terms", "refus*", "--sort", "term", "-n", "1"}).out,
              std::to_string(naive([](const line_event& e) { return e.has("refused"); }).size()) + "\trefused\n");
    EXPECT_NE(run({"terms", "bytes=*00"}).out.find("\tbytes=1000\n"), std::string::npos);
    EXPECT_EQ(run({"terms", "user*"}).out, "900\tuser\n");  // the word, and not the field
    const std::string fields = run({"fields"}).out;
    EXPECT_NE(fields.find("900\t4\tuser\n"), std::string::npos) << fields;
    EXPECT_NE(fields.find("900\t2\tsource\n"), std::string::npos) << fields;
    EXPECT_EQ(run({"seen", "nobody"}).status, 1);
    EXPECT_EQ(run({"seen", "\"user\"=\"bob\"", "--tz", "+01:00"}).out.find("+01:00\n") == std::string::npos, false);
    // Every byte of the store is told once.
    const std::string costs = run({"fields", "--bytes"}).out;
    uint64_t told = 0, all = 0, stored = 0;
    std::set<std::string> names;
    for (size_t at = costs.find('\n') + 1; at < costs.size(); at = costs.find('\n', at) + 1) {
        const std::string line = costs.substr(at, costs.find('\n', at) - at);
        EXPECT_TRUE(names.insert(line.substr(line.rfind('\t'))).second) << line;
        (line.ends_with("\t(all)") ? all : told) += std::stoull(line);
    }
    for (const auto& entry : fs::recursive_directory_iterator(dir->file("store"))) {
        if (entry.is_regular_file()) stored += entry.file_size();
    }
    EXPECT_EQ(told, stored) << costs;
    EXPECT_EQ(all, stored);
    EXPECT_NE(costs.find("\tuser\n"), std::string::npos);
    EXPECT_EQ(run({"seen", "two words"}).status, 2);
    EXPECT_EQ(run({"terms", "nobody*"}).status, 1);
}

TEST_F(SearchTool, WrongUseIsRefusedWithTheSpot) {
    const struct {
        std::vector<std::string> arguments;
        const char* message;
    } table[] = {
        {{"search", "a ("}, "  a (\n     ^ expected a term\n"},
        {{"count", "a", "OR"}, "  a OR\n      ^ expected a term\n"},
        {{"search", "--native", "[AND a"}, "  [AND a\n        ^ expected "},
        {{"search", "--native", "[AND a] b"}, "  [AND a] b\n          ^ expected "},
        {{"search", "a", "--since", "noonish"}, "--since noonish: expected a time"},
        {{"search", "a", "--since", "3 huors ago"}, "did you mean 'hours'?"},
        {{"count", "a", "--since", "05/17/2024"}, "; a date is written 2015-05-17"},
        {{"stats", "--since", "-1h", "--until", "-2h"}, "--since -1h is later than --until -2h"},
        {{"search", "a", "--tz", "Mars/Base"}, "unknown time zone Mars/Base"},
        {{"search", "a", "-C", "2", "--format", "csv"}, "context lines go with"},
        {{"search", "a", "--format", "xml"}, "xml"},
        {{"search"}, "QUERY is required"},
        {{"serch", "a"}, "did you mean 'search'?"},
        {{"version"}, "did you mean '--version'?"},
        {{"metrics", "lod", "a"}, "did you mean 'load'?"},
        {{"count", "a", "--unti=now"}, "did you mean '--until'?"},
        {{"search", "a", "-n", "-1"}, "'-1' is no whole number of 1 or more"},
        {{"search", "a", "-n", "18446744073709551616"}, "is no whole number"},
        {{"search", "a", "-C", "0x1"}, "'0x1' is no whole number"},
        {{"explain", "a", "--limit=-1"}, "is no whole number"},
        {{"terms", "-n", "-1"}, "is no whole number"},
        {{"metrics", "query", "a", "-n", "-1"}, "is no whole number"},
        {{"fsck", "--max", "-1"}, "is no whole number"},
        {{"load", "a", "--year", "-1"}, "is no whole number"},
        {{"optimize", "--jobs", "-1"}, "is no whole number"},
        {{"optimize", "--target-size", "-1"}, "'-1' is no size"},
        {{}, "a subcommand is required"},
        {{"search", "--native", "[AND [GT a b]]"}, "^ expected a field and a number"},
        {{"search", "--native", "[AND \\a]"}, "^ expected a blank, a bracket or a backslash after this backslash"},
        {{"search", "--native", "[AND " + std::string(2049, 'x') + "]"}, "^ expected a token of at most 2048 bytes"},
        {{"search", "a", "--fields", "b", "--format", "table"}, "--fields goes with --format jsonl, csv and tsv only"},
        {{"load", "a", "--tz", "Mars/Base"}, "unknown time zone Mars/Base"},
        {{"metrics", "load", "a", "--tz", "Mars/Base"}, "unknown time zone Mars/Base"},
        {{"metrics", "load", "a", "--label", "x"}, "--label: "},
        {{"metrics", "query", "a", "--where", "b"}, "--where b: expected LABEL=VALUE or LABEL!=VALUE"},
        {{"metrics", "query", "a", "--format", "table"}, "--format table goes with --every, --agg, --by or --rate"},
        {{"stats", "--by", std::string(2046, 'a')}, "--by and --agg: expected names of fields of 1 to 2045 bytes"},
    };
    for (const auto& row : table) {
        const tool_result refused = run(row.arguments);
        EXPECT_EQ(refused.status, 2) << row.message;
        EXPECT_EQ(refused.out, "");
        EXPECT_NE(refused.err.find(row.message), std::string::npos) << refused.err;
    }
    EXPECT_EQ(run_at(dir->file("nothing"), {"search", "a"}).status, 2);
    EXPECT_EQ(run_at(dir->file("a.log/x"), {"search", "a"}).status, 2);
    EXPECT_EQ(run({"qqqqqqqq"}).err.find("did you mean"), std::string::npos);
    EXPECT_EQ(run({"search", "level=info", "-n", "010"}).out, run({"search", "level=info", "-n", "10"}).out);
    const std::string version = run_tool("veldar/veldar", {"--version"}).out;
    EXPECT_EQ(version.starts_with("veldar ") && version.ends_with("\n") && std::isdigit(version[7]) != 0, true)
        << version;
}

// A copy of the store, whose slices may be damaged.
struct store_copy {
    store_copy(const temp_dir& from) { fs::copy(from.file("store"), dir.file("store"), fs::copy_options::recursive); }
    temp_dir dir;
    std::string path() const { return dir.file("store"); }
};

TEST_F(SearchTool, AnUnreadableSliceIsNamedAndTheRestPrinted) {
    const store_copy copy(*dir);
    const slice_set set = slices_list(copy.path());
    const std::string victim = set.slices->path(set.slices->size() / 2);
    const size_t lost = std::stoul(run_at(victim, {"count", "*"}).out);
    ASSERT_GT(lost, 0u);
    const std::string bytes = read_file(victim);
    write_file(victim, bytes.substr(0, bytes.size() / 2));
    const tool_result dumped = run_tool("veldar/veldar", {"dump", fs::path(victim).parent_path()});
    const size_t stored = std::stoul(run_at(fs::path(victim).parent_path(), {"count", "*"}).out);
    EXPECT_EQ(static_cast<size_t>(std::count(dumped.out.begin(), dumped.out.end(), '\n')), stored);
    for (const char* command : {"search", "count", "explain"}) {
        const tool_result found = run_at(copy.path(), {command, "refused"});
        EXPECT_EQ(found.status, 3) << command;
        EXPECT_NE(found.err.find(victim), std::string::npos) << found.err;
        EXPECT_NE(found.out, "");
    }
    const tool_result terms = run_at(copy.path(), {"terms", "user=*"});
    EXPECT_EQ(terms.status, 3);
    EXPECT_NE(terms.err.find(victim), std::string::npos) << terms.err;
    const size_t left = std::stoul(run_at(copy.path(), {"count", "*"}).out);
    EXPECT_EQ(left, events->size() - lost);
    // A sentinel hides the slice, and then nothing is amiss. Neither are other files in the bucket.
    write_file(victim + ".deleted", "");
    write_file(victim.substr(0, victim.size() - 6) + ".mini.tsidx", "");
    write_file(victim.substr(0, victim.size() - 6) + ".pre-tsidx", "");
    EXPECT_EQ(run_at(copy.path(), {"count", "*"}).out, std::to_string(left) + "\n");
    EXPECT_EQ(run_at(copy.path(), {"count", "*"}).status, 0);
    write_file(copy.path() + "/bucket-000099", "");
    EXPECT_EQ(run_at(copy.path(), {"count", "*"}).status, 5) << "no directory that can be listed";
}

TEST_F(SearchTool, AMissingLogIsNamedAndTheRestPrinted) {
    const temp_dir other;
    const std::string path = other.file("store");
    write_file(other.file("one"), time_stamp(BEGIN) + " alpha beta\n");
    write_file(other.file("two"), time_stamp(BEGIN + 60) + " alpha beta\n");
    for (const char* name : {"one", "two"}) run_at(path, {"load", other.file(name), "--no-fsync"});
    fs::remove(other.file("two"));
    const tool_result raw = run_at(path, {"search", "alpha"});
    EXPECT_EQ(raw.out, time_stamp(BEGIN) + " alpha beta\n");
    EXPECT_EQ(raw.status, 3);
    EXPECT_NE(raw.err.find(other.file("two")), std::string::npos) << raw.err;
    const tool_result phrase = run_at(path, {"count", "\"alpha beta\""});
    EXPECT_EQ(phrase.out, "1\n");
    EXPECT_EQ(phrase.status, 3);
    EXPECT_EQ(run_at(path, {"count", "alpha"}).status, 0);
    const tool_result table = run_at(path, {"search", "alpha", "--format", "tsv"});
    EXPECT_EQ(std::count(table.out.begin(), table.out.end(), '\n'), 3);
    EXPECT_EQ(table.status, 3);
    write_file(other.file("none"), "");
    EXPECT_TRUE(run_at(other.file("empty"), {"load", other.file("none")}).err.starts_with("0 events, 0 bytes read"));
    EXPECT_EQ(run_at(other.file("empty"), {"count", "\"alpha beta\""}).status, 1) << "no log is missing";
}

TEST_F(SearchTool, ALogThatBecameShorterGivesWhatItStillHolds) {
    const temp_dir other;
    std::vector<std::string> texts;
    for (int i = 0; i < 4000; i++) texts.push_back(time_stamp(BEGIN + i) + " alpha " + std::string(40, 'x'));
    write_file(other.file("log"), joined(texts));
    ASSERT_EQ(run_at(other.file("store"), {"load", other.file("log"), "--no-fsync"}).status, 0);
    texts.resize(3000);
    write_file(other.file("log"), joined(texts));
    std::reverse(texts.begin(), texts.end());
    const tool_result found = run_at(other.file("store"), {"search", "alpha"});
    EXPECT_EQ(found.out, joined(texts));
    EXPECT_EQ(found.err, "veldar: " + other.file("log") + ": is shorter than what was loaded from it\n");
    EXPECT_EQ(found.status, 3);
}

TEST_F(SearchTool, BareDirectoriesAndSlicesHaveAddressesOnly) {
    const temp_dir other;
    const std::string index = other.file("index");
    write_file(other.file("events"), "1709251200\t7\t1\t2\t3\t0\talpha beta\n1709251260\t9\t1\t2\t3\t0\talpha\n");
    ASSERT_EQ(run_tool("veldar/veldar", {"put", index, other.file("events"), "--no-fsync"}).status, 0);
    const slice_set set = slices_list(index);
    ASSERT_EQ(set.slices->size(), 1u);
    for (const std::string& path : {index, index + "/", set.slices->path(0)}) {
        const tool_result found = run_at(path, {"search", "alpha"});
        EXPECT_EQ(found.out, "2024-03-01T00:01:00Z\t9\tindex\n2024-03-01T00:00:00Z\t7\tindex\n");
        EXPECT_EQ(found.status, 0);
        EXPECT_NE(found.err.find("no source map"), std::string::npos);
        EXPECT_EQ(run_at(path, {"count", "alpha", "-beta"}).out, "1\n");
        EXPECT_EQ(run_at(path, {"count", "\"alpha beta\""}).status, 2);
        EXPECT_EQ(run_at(path, {"count", "alpha", "--until", "@1709251260.5"}).status, 2)
            << "only whole seconds are known";
    }
    // One slice of a store knows its logs.
    const slice_set store = slices_list(dir->file("store"));
    const std::string oldest = store.slices->path(store.slices->size() - 1);
    const size_t held = std::stoul(run_at(oldest, {"count", "*"}).out);
    EXPECT_EQ(run_at(oldest, {"search", "*", "-n1"}).out, (*events)[held - 1].text + "\n");
    // Without -s the store is that of the environment, else that of this directory or one above.
    fs::create_directories(other.file("here/deep"));
    fs::copy(dir->file("store"), other.file("here/.veldar"), fs::copy_options::recursive);
    const fs::path before = fs::current_path();
    fs::current_path(other.file("here/deep"));
    EXPECT_EQ(run_tool("veldar/veldar", {"count", "*"}).out, "900\n");
    const variable_set named("VELDAR_STORE", index.c_str());
    EXPECT_EQ(run_tool("veldar/veldar", {"count", "*"}).out, "2\n");
    fs::current_path(before);
}

// While a search of everything is under way, slices that it has not opened yet are merged: it goes on with the merged
// ones, and so does one that takes over where it stands. `write` makes a slice of events, its path; `next` takes each
// event found.
template <typename Event, typename Write, typename Next>
void search_while_merging(const temp_dir& dir, std::mt19937* random, const std::vector<std::vector<Event>>& pieces,
                          const Write& write, const Next& next) {
    std::vector<std::pair<std::vector<Event>, std::string>> slices;
    for (const std::vector<Event>& piece : pieces) slices.emplace_back(piece, write(piece, slices.size()));
    const tsidx_ptr tsidx = index_handle_open(dir.path(), 0);
    event_cursor_options_t options;
    options.sources = {{.tsidx = tsidx.get(), .path = {}}};
    options.queries.emplace_back().lispy = "[AND]";
    options.limit = 1 + (*random)() % 30;
    warm_rc_t rc;
    event_cursor_ptr cursor = event_cursor_open(options, &rc);
    std::array<event_t, 3> events;
    for (uint64_t id = 1000;; id++) {
        const int count = event_cursor_next(cursor.get(), std::span(events).first(1 + (*random)() % 3), &rc);
        ASSERT_GE(count, 0) << rc.message;
        if (count == 0) break;
        for (int i = 0; i < count; i++) next(events[static_cast<size_t>(i)].value);
        if ((*random)() % 5 == 0) {
            options.after = event_cursor_position(cursor.get());
            cursor = event_cursor_open(options, &rc);
        }
        if ((*random)() % 3 != 0 || slices.size() < 2) continue;
        const auto merged = slices.begin() + static_cast<ptrdiff_t>((*random)() % (slices.size() - 1));
        for (const auto& gone : {merged[0], merged[1]}) fs::remove(gone.second);
        merged->first.insert(merged->first.end(), merged[1].first.begin(), merged[1].first.end());
        merged->second = write(merged->first, id);
        slices.erase(merged + 1);
    }
}

TEST(EventCursor, MergesMeanwhileChangeNoAnswer) {
    std::mt19937 random(11);
    for (uint32_t round = 0; round < 10; round++) {
        const temp_dir dir;
        std::vector<forge_event> all = forge_random_events(round, 400);
        std::vector<std::pair<int32_t, uint32_t>> expected, found;
        for (forge_event& event : all) {
            event.time /= 16;  // several events of one second
            if (!event.deleted) expected.emplace_back(event.time, event.address);
        }
        std::sort(expected.rbegin(), expected.rend());
        std::sort(all.begin(), all.end(), [](const auto& a, const auto& b) { return a.time < b.time; });
        std::vector<std::vector<forge_event>> pieces;
        for (auto begin = all.begin(); begin != all.end();) {
            const auto end = begin + std::min<ptrdiff_t>(1 + random() % 4, all.end() - begin);
            const auto from = begin - std::min<ptrdiff_t>(random() % 3, begin - all.begin());  // some lie in two slices
            pieces.emplace_back(from, end);
            begin = end;
        }
        const auto write = [&](const std::vector<forge_event>& events, uint64_t id) {
            return forge_file(dir.path(), events, forge_as_created(4), id);
        };
        search_while_merging(dir, &random, pieces, write,
                             [&](const st_tsval& value) { found.emplace_back(value.time, value.address); });
        EXPECT_EQ(found, expected) << round;
    }
}

TEST(EventCursor, MetricsThatLookAlikeAreAllGiven) {
    std::mt19937 random(12);
    for (uint32_t round = 0; round < 20; round++) {
        const temp_dir dir;
        std::vector<metric_event> all = random_metric_events(round, 200);
        std::vector<int32_t> expected, found;
        for (metric_event& event : all) {
            event.milliseconds = 0;
            expected.push_back(event.time /= 64);
        }
        std::sort(expected.rbegin(), expected.rend());
        std::stable_sort(all.begin(), all.end(), [](const auto& a, const auto& b) { return a.time < b.time; });
        std::vector<std::vector<metric_event>> pieces;
        for (auto begin = all.begin(); begin != all.end(); begin += 10) pieces.emplace_back(begin, begin + 10);
        const auto write = [&](const std::vector<metric_event>& events, uint64_t id) {
            return forge_metric_file(dir.path(), events, {}, id);
        };
        search_while_merging(dir, &random, pieces, write, [&](const st_tsval& value) { found.push_back(value.time); });
        EXPECT_EQ(found, expected) << round;
    }
    // Fractions of a second count before the directory.
    const temp_dir directories[2];
    event_cursor_options_t options;
    options.queries.emplace_back().lispy = "[AND]";
    std::vector<tsidx_ptr> handles;
    std::vector<metric_event> one = random_metric_events(1, 1);
    for (one[0].milliseconds = 2; one[0].milliseconds > 0; one[0].milliseconds--) {
        const std::string path = directories[handles.size()].path();
        forge_metric_file(path, one, {.milliseconds = true, .terms = {}});
        handles.push_back(index_handle_open(path, 0));
        options.sources.push_back({.tsidx = handles.back().get(), .path = {}});
    }
    std::array<event_t, 2> events;
    warm_rc_t rc;
    ASSERT_EQ(event_cursor_next(event_cursor_open(options, &rc).get(), events, &rc), 2) << rc.message;
    EXPECT_GT(events[0].value.subsecond, events[1].value.subsecond);
}

TEST_F(SearchTool, AClosedPipeEndsQuietly) {
    const temp_dir other;
    const std::string command = std::string(VELDAR_TOOLS_DIR) + "/veldar/veldar -s " + dir->file("store") +
                                " search '*' -C 50 2>" + other.file("err") + "; echo $? >" + other.file("status");
    const std::string shell = "{ " + command + "; } | head -n 1 >" + other.file("head");
    ASSERT_EQ(std::system(shell.c_str()), 0);  // NOLINT(cert-env33-c): the shell is what is tested
    EXPECT_EQ(read_file(other.file("status")), "0\n");
    EXPECT_EQ(read_file(other.file("err")), "");
}

TEST(TimeInput, Forms) {
    log_zone utc, berlin;
    ASSERT_TRUE(log_zone_from_name("Europe/Berlin", &berlin));
    const int64_t now = BEGIN + 3600 * 23 + 90;  // in Berlin it is 00:01:30 of the next day
    const struct {
        const char* text;
        int64_t utc, berlin;  // seconds after BEGIN
        uint32_t nanoseconds;
    } table[] = {
        {"2024-03-01", 0, -3600, 0},
        {"2024-03-01T10:05", 36300, 32700, 0},
        {"2024-03-01 10:05:03,5", 36303, 32703, 500000000},
        {"2024-03-01t10:05:03.000000001z", 36303, 36303, 1},
        {"2024-03-01T10:05:03+02:00", 29103, 29103, 0},
        {"2024-03-01T24:00", 86400, 82800, 0},
        {"10:05", 36300, 86400 + 32700, 0},
        {"00:00:07", 7, 82807, 0},
        {"today", 0, 82800, 0},
        {"yesterday", -86400, -3600, 0},
        {"tomorrow", 86400, 169200, 0},
        {"now", 82890, 82890, 0},
        {"-90s", 82800, 82800, 0},
        {"-1h30m", 77490, 77490, 0},
        {"+1d", 169290, 169290, 0},
        {"-1w", -521910, -521910, 0},
        {"@1709251200", 0, 0, 0},
        {"@1709251200.25", 0, 0, 250000000},
        {"@-0.2500000009", -1709251201, -1709251201, 750000000},
        {"1709251200250", 0, 0, 250000000},
        {"1h30m", 77490, 77490, 0},
        {"3 hours ago", 72090, 72090, 0},
        {"a day 2 Minutes ago", -3630, -3630, 0},
        {"last week", 82890 - 7 * 86400, 82890 - 7 * 86400, 0},
        {"in 2 days", 255690, 255690, 0},
        {"1 month ago", 82890 - 29 * 86400, 82890 - 29 * 86400, 0},
        {"2y", 82890 - 731 * 86400, 82890 - 731 * 86400, 0},
        {"2024", -60 * 86400, -60 * 86400 - 3600, 0},
        {"2024-02", -29 * 86400, -29 * 86400 - 3600, 0},
        {"monday", -4 * 86400, -4 * 86400 - 3600, 0},
        {"last fri 10:05", -7 * 86400 + 36300, 36300 - 3600, 0},
        {"Yesterday 10:05", 36300 - 86400, 36300 - 3600, 0},
        {"Fri, 01 Mar 2024 10:05:03 GMT", 36303, 36303, 0},
        {"01/Mar/2024:10:05:03 +0200", 29103, 29103, 0},
        {"Mar  1 10:05:03.5", 36303, 32703, 500000000},
        {"Dec 31", -61 * 86400, -61 * 86400 - 3600, 0},
    };
    for (const auto& row : table) {
        st_timeval_t time;
        EXPECT_TRUE(time_input_parse(row.text, &utc, now, &time)) << row.text;
        EXPECT_EQ(time.time_s - BEGIN, row.utc) << row.text;
        EXPECT_EQ(time.time_ns, row.nanoseconds) << row.text;
        EXPECT_TRUE(time_input_parse(row.text, &berlin, now, &time)) << row.text;
        EXPECT_EQ(time.time_s - BEGIN, row.berlin) << row.text;
    }
    for (const char* text : {"",
                             "-",
                             "-h",
                             "-5",
                             "5z",
                             "1 hour 5",
                             "-2h ago",
                             "an",
                             "last now",
                             "1/3/2024",
                             "Mar 1 10:05:03 IST",
                             "@",
                             "@x",
                             "2024-02-30",
                             "2024-03-01T",
                             "25:00",
                             "10",
                             "10:5",
                             "10:05x",
                             "2024-03-01T10:05+25:00",
                             "2040-01-01",
                             "-99999999999d",
                             "@99999999999"}) {
        st_timeval_t time;
        EXPECT_FALSE(time_input_parse(text, &utc, now, &time)) << text;
    }
}

}  // namespace
}  // namespace veldar
