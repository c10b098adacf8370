// Runs the built tool over generated logs and compares what it prints with a naive evaluation over the lines.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "searchthing/reading/cursors.h"
#include "tests/support/damage.h"
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

TEST_F(SearchTool, EveryByteOfTheStoreIsToldOnce) {
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

TEST(TimeInput, Forms) {
    log_zone utc, berlin;
    ASSERT_TRUE(log_zone_from_name("Europe/Berlin", &berlin));
    const int64_t now = BEGIN + 3600 * 23 + 90;  // in Berlin it is 00:01:30 of the next day
    const std::vector<std::string> rows = data_rows("times");
    for (size_t i = 0; i + 1 < rows.size(); i += 2) {
        // In UTC and in Berlin, in seconds after BEGIN, and nanoseconds.
        std::string found;
        st_timeval_t time;
        for (log_zone* zone : {&utc, &berlin}) {
            EXPECT_TRUE(time_input_parse(rows[i].c_str(), zone, now, &time)) << rows[i];
            found += std::to_string(time.time_s - BEGIN) + " ";
        }
        EXPECT_EQ(found + std::to_string(time.time_ns), rows[i + 1]) << rows[i];
    }
    st_timeval_t time;
    EXPECT_FALSE(time_input_parse("", &utc, now, &time));
}

}  // namespace
}  // namespace veldar
