// veldar stats, top, new, diff and metrics query --every over generated logs and samples, beside naive counting.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <map>
#include <numeric>
#include <random>
#include <set>
#include <sstream>

#include "tests/support/run_tool.h"
#include "tests/support/temp_dir.h"
#include "tools/libveldar/query/stats_input.h"
#include "tools/libveldar/query/time_bins.h"
#include "tools/veldar/output/event_output.h"
#include "tools/veldar/output/table_output.h"

namespace veldar {

using namespace tool;
namespace {

using strings = std::vector<std::string>;

constexpr int64_t BEGIN = 1711584000;   // 2024-03-28T00:00:00Z
constexpr int64_t CHANGE = 1711846800;  // 2024-03-31T01:00:00Z: 02:00 in Berlin becomes 03:00

struct line_event {
    int64_t time = 0;
    std::map<std::string, strings> fields;
    std::string text;
    bool holds(const char* part) const { return text.find(part) != std::string::npos; }
    bool is(const char* field, const char* value) const {
        const auto found = fields.find(field);
        return found != fields.end() && std::count(found->second.begin(), found->second.end(), value) > 0;
    }
};

// Fields that stand twice, that are missing, and that are numbers or not.
std::vector<line_event> make_events(int count) {
    std::mt19937 random(11);
    std::vector<line_event> events;
    int64_t time = BEGIN;
    for (int i = 0; i < count; i++) {
        line_event event;
        event.time = time += static_cast<int64_t>(random() % 1400);
        const auto put = [&](const std::string& field, const std::string& value) {
            event.text += " " + field + "=" + value;
            strings& values = event.fields[field];
            if (std::count(values.begin(), values.end(), value) == 0) values.push_back(value);
        };
        put("level", strings{"info", "warn", "error"}[random() % 3]);
        if (random() % 3 != 0) put("status", strings{"200", "404", "500"}[random() % 3]);
        for (int k = static_cast<int>(random() % 3); k > 0; k--) put("tag", strings{"a", "b", "c"}[random() % 3]);
        if (random() % 4 != 0) put("bytes", random() % 9 == 0 ? "many" : std::to_string(random() % 5000));
        event.text = event_time_text(static_cast<st_time_t>(event.time), 0) + event.text +
                     strings{" connection refused", " refused connection", " fine"}[random() % 3];
        event.fields["host"] = {"web"};  // as the load was told
        events.push_back(event);
    }
    return events;
}

int64_t floor_to(int64_t value, int64_t step) {
    return value - ((value % step) + step) % step;
}
int64_t berlin(int64_t time) {
    return time < CHANGE ? 3600 : 7200;
}
// Where the local day, or the quarter of one, begins.
std::function<int64_t(int64_t)> berlin_bin(int64_t span, int64_t from = 0) {
    return [=](int64_t time) {
        const int64_t local = floor_to(time + berlin(time) - from, span) + from;
        return local - (local - 3600 < CHANGE ? 3600 : 7200);
    };
}

struct width {
    std::string every, zone;
    std::function<int64_t(int64_t)> start;
    std::function<int64_t(int64_t)> offset;
};
const std::vector<width> WIDTHS = {
    {"", "UTC", [](int64_t) { return 0; }, nullptr},
    {"1h", "UTC", [](int64_t t) { return floor_to(t, 3600); }, [](int64_t) { return 0; }},
    {"1h", "+05:30", [](int64_t t) { return floor_to(t + 19800, 3600) - 19800; }, [](int64_t) { return 19800; }},
    {"1d", "Europe/Berlin", berlin_bin(86400), berlin},
    {"6h", "Europe/Berlin", berlin_bin(21600), berlin},
    {"1w", "Europe/Berlin", berlin_bin(7 * 86400, 4 * 86400), berlin},
    {"1mo", "Europe/Berlin", [](int64_t t) { return t < 1711922400 ? 1709247600 : 1711922400; }, berlin},
};

std::string time_text(const width& w, int64_t start) {
    const int64_t offset = w.offset(start);
    std::string text = event_time_text(static_cast<st_time_t>(start + offset), 0);
    if (offset != 0)
        text.replace(text.size() - 1, 1, offset == 19800 ? "+05:30" : offset == 3600 ? "+01:00" : "+02:00");
    return text;
}

const std::string AGGREGATES =
    "count,count(bytes),sum(bytes),sumsq(bytes),min(bytes),max(bytes),avg(bytes),p90(bytes),dc(tag),values(tag)";

struct row {
    uint64_t count = 0, values = 0;
    std::vector<double> numbers;
    std::set<std::string> tags;
    void add(line_event event) {
        count++;
        for (const std::string& text : event.fields["bytes"]) {
            values++;
            if (text != "many") numbers.push_back(std::stod(text));
        }
        tags.insert(event.fields["tag"].begin(), event.fields["tag"].end());
    }
    // As tsv has them.
    std::string text() {
        std::sort(numbers.begin(), numbers.end());
        const auto n = static_cast<double>(numbers.size());
        double sum = 0, squares = 0;
        for (const double number : numbers) sum += number, squares += number * number;
        std::string told = std::to_string(count) + "\t" + std::to_string(values);
        for (const double number : {sum, squares}) told += "\t" + exact_number_text(number);
        for (const double number : {0.0, n - 1, -1.0, std::ceil(0.9 * n) - 1}) {
            const double value = number < 0 ? sum / n : n == 0 ? 0 : numbers[static_cast<size_t>(number)];
            told += "\t" + (n == 0 ? "" : exact_number_text(value));
        }
        told += "\t" + std::to_string(tags.size()) + "\t";
        for (const std::string& tag : tags) told += (tag == *tags.begin() ? "" : ", ") + tag;
        return told + "\n";
    }
};

strings split(const std::string& text, char by) {
    strings parts;
    std::istringstream in(text);
    for (std::string part; std::getline(in, part, by);) parts.push_back(part);
    return parts;
}

// The groups of an event: every combination of the values of its fields.
std::vector<strings> groups_of(const line_event& event, const strings& by, bool keeps_missing) {
    std::vector<strings> groups = {{}};
    for (const std::string& field : by) {
        const auto found = event.fields.find(field);
        strings values = found == event.fields.end() ? strings() : found->second;
        if (values.empty() && keeps_missing) values = {""};
        std::vector<strings> longer;
        for (const strings& group : groups) {
            for (const std::string& value : values) {
                longer.push_back(group);
                longer.back().push_back(value);
            }
        }
        groups = longer;
    }
    return groups;
}

strings with(strings arguments, const strings& more) {
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
}

struct StatsTool : testing::Test {
    temp_dir dir;
    std::string store = dir.file("store");

    tool_result run(const strings& arguments) { return run_tool("veldar/veldar", with({"-s", store}, arguments)); }
    std::string must(const strings& arguments) {
        const tool_result result = run(arguments);
        EXPECT_EQ(result.status, 0) << arguments[0] << " " << result.err;
        return result.out;
    }
};

// The lines behind the first; empty when nothing is found.
std::string naive_rows(const std::vector<line_event>& events, const width& w, const strings& by, bool keeps_missing,
                       bool* found) {
    std::map<std::pair<int64_t, strings>, row> rows;
    for (const line_event& event : events) {
        for (const strings& group : groups_of(event, by, keeps_missing)) rows[{w.start(event.time), group}].add(event);
    }
    *found = !rows.empty();
    if (by.empty() && w.every.empty()) rows[{0, {}}];
    if (by.empty() && *found) {
        const int64_t last = rows.rbegin()->first.first;
        for (int64_t t = rows.begin()->first.first; t < last; t += 1800) rows[{w.start(t), {}}];
    }
    std::string text;
    for (auto& [key, one] : rows) {
        if (!w.every.empty()) text += time_text(w, key.first) + "\t";
        for (const std::string& group : key.second) text += group + "\t";
        text += one.text();
    }
    return text;
}

TEST_F(StatsTool, RowsEqualNaiveCounting) {
    const std::vector<line_event> events = make_events(450);
    std::string log;
    for (const line_event& event : events) log += event.text + "\n";
    write_file(dir.file("a.log"), log);
    must({"load", dir.file("a.log"), "--host", "web", "--no-fsync", "--max-values", "97"});
    struct {
        std::string query;
        std::function<bool(const line_event&)> lacks;
    } const queries[] = {
        {"*", [](const line_event&) { return false; }},
        {"status=200 -level=warn", [](const auto& e) { return !e.is("status", "200") || e.is("level", "warn"); }},
        {"\"connection refused\"", [](const auto& e) { return !e.holds("connection refused"); }},
        {"\"connection refused\" OR status=500",
         [](const auto& e) { return !e.holds("connection refused") && !e.is("status", "500"); }},
        {"nowhere", [](const line_event&) { return true; }},
    };
    bool keeps_missing = false;  // an odd number of cases a query: each meets both
    for (const auto& query : queries) {
        std::vector<line_event> those = events;
        std::erase_if(those, query.lacks);
        for (const width& w : WIDTHS) {
            for (const std::string by : {"", "level,host", "status", "tag", "tag,status,level"}) {
                keeps_missing = !keeps_missing;
                bool found = false;
                const std::string expected = naive_rows(those, w, split(by, ','), keeps_missing, &found);
                strings asked = {"stats", query.query, "--agg", AGGREGATES, "--tz", w.zone, "--format", "tsv"};
                if (!w.every.empty()) asked.insert(asked.end(), {"--every", w.every});
                if (!by.empty()) asked.insert(asked.end(), {"--by", by});
                if (keeps_missing) asked.emplace_back("--missing");
                const tool_result result = run(asked);
                ASSERT_EQ(result.status, found ? 0 : 1) << result.err;
                ASSERT_EQ(result.out.substr(result.out.find('\n') + 1), expected)
                    << query.query << " by " << by << " every " << w.every << w.zone << keeps_missing;
            }
        }
    }
}

// Where bins begin around changes of the clocks, in local time.
TEST(TimeBins, FollowTheClocksOfTheZone) {
    struct {
        const char *zone, *every;
        int64_t earliest, latest;
        std::vector<int64_t> starts;
    } const cases[] = {
        // The clocks of Sao Paulo skip the midnight of 2018-11-04: the day begins at 01:00, 03:00 UTC.
        {"America/Sao_Paulo", "1d", 1541260800, 1541383200, {1541214000, 1541300400, 1541383200}},
        // Berlin's two 02:00 lie in one bin of 6 hours, which has 7; the next begins at 06:00 again, now 05:00 UTC.
        {"Europe/Berlin", "6h", 1729980000, 1730005200, {1729980000, 1730005200}},
        // 02:00 and 02:40 are skipped together, and one bin begins where they were: at 03:00. Then comes 03:20.
        {"Europe/Berlin", "40m", 1711845000, 1711848000, {1711844400, 1711846800, 1711848000}},
        // Half an hour is skipped in Lord Howe, at 02:00 of 2023-10-01: 15:30 UTC.
        {"Australia/Lord_Howe", "1h", 1696087000, 1696091400, {1696084200, 1696087800, 1696089600}},
        {"UTC", "1mo", -5, 5, {-2678400, 0}},
        // All events behind the change of the day: it began before that.
        {"Europe/Berlin", "1d", 1711886400, 1711886400, {1711839600}},
    };
    for (const auto& one : cases) {
        log_zone zone;
        bin_width width;
        time_bins cuts;
        ASSERT_TRUE(log_zone_from_name(one.zone, &zone));
        ASSERT_TRUE(bin_width_parse(one.every, &width));
        ASSERT_TRUE(time_bins_make(width, zone, one.earliest, one.latest, &cuts));
        ASSERT_GE(cuts.starts_s.size(), one.starts.size()) << one.zone;
        cuts.starts_s.resize(one.starts.size());
        EXPECT_EQ(cuts.starts_s, one.starts) << one.zone << " " << one.every;
    }
    bin_width width;
    // What no day begins with has the same bins whatever times a store has.
    log_zone zone;
    time_bins winter, summer;
    ASSERT_TRUE(log_zone_from_name("Europe/Berlin", &zone) && bin_width_parse("7h", &width));
    ASSERT_TRUE(time_bins_make(width, zone, 1705000000, 1705000000, &winter));
    ASSERT_TRUE(time_bins_make(width, zone, 1720000000, 1720000000, &summer));
    EXPECT_EQ(winter.offset_s, summer.offset_s);
    for (const char* const text : {"", "1", "h", "0h", "-1h", "1.5h", "1H", "70y", "9999999999999999999h", "1h "}) {
        EXPECT_FALSE(bin_width_parse(text, &width)) << text;
    }
    EXPECT_EQ(bin_width_for(0, 3540, 60).count, int64_t{60} * 1000000000);
}

TEST(StatsInput, PartsAreCutAtCommasOutsideOfBracketsAndQuotes) {
    EXPECT_EQ(comma_parts("a(b,c) , d),e,\"f,g\" ,"), (strings{"a(b,c)", "d)", "e", "f,g", ""}));
}

TEST(NumberText, OfNumbersThatAreLargeOrSmallOrNone) {
    EXPECT_EQ(
        number_text(NAN) + number_text(-INFINITY) + number_text(INFINITY) + number_text(2e15) + number_text(-5e-5),
        "NaN-Inf+Inf2.00000e+15-5.00000e-05");
}

TEST_F(StatsTool, MetricsByBinAndLabel) {
    std::mt19937 random(5);
    std::map<std::pair<int64_t, std::string>, std::vector<double>> bins;
    std::string text;
    for (int i = 0; i < 500; i++) {
        const int64_t time = BEGIN + static_cast<int64_t>(random() % 20000);
        const std::string host = strings{"a", "b", ""}[random() % 3];
        const double value = static_cast<double>(random() % 1000) / 8;
        const std::string at = " " + std::to_string(time) + "\n";
        text += "cpu_idle" + (host.empty() ? "" : "{host=\"" + host + "\"}") + " " + std::to_string(value) + at +
                "cpu_user 7" + at;
        bins[{floor_to(time, 300), host}].push_back(value);
    }
    write_file(dir.file("m.prom"), text);
    must({"metrics", "load", dir.file("m.prom"), "--format", "openmetrics"});
    std::string expected = "time,host,avg,max,p95,count\r\n";
    for (auto& [key, values] : bins) {
        std::sort(values.begin(), values.end());
        const auto n = static_cast<double>(values.size());
        expected += event_time_text(static_cast<st_time_t>(key.first), 0) + "," + key.second;
        const double sum = std::accumulate(values.begin(), values.end(), 0.0);
        for (const double told : {sum / n, values.back(), values[static_cast<size_t>(std::ceil(0.95 * n)) - 1], n}) {
            expected += "," + exact_number_text(told);
        }
        expected += "\r\n";
    }
    const strings asked = {"metrics", "query", "cpu_i*", "--every", "5m", "--agg", "avg,max,p95,count"};
    EXPECT_EQ(must(with(asked, {"--by", "host", "--missing", "--format", "csv"})), expected);
    EXPECT_EQ(must({"metrics", "query", "cpu_*", "--agg", "count", "--by", "metric_name", "--format", "csv"}),
              "metric_name,count\r\ncpu_idle,500\r\ncpu_user,500\r\n");
}

}  // namespace
}  // namespace veldar
