// veldar metrics: what is loaded comes out again, whole and once.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>
#include <sstream>

#include "tests/support/faults.h"
#include "tests/support/hot_events.h"
#include "tests/support/run_tool.h"
#include "tests/support/temp_dir.h"
#include "tools/libveldar/formats/metric_text.h"
#include "tools/libveldar/load/metric_loader.h"

namespace veldar {

using namespace tool;
namespace {

const std::string TOOL = "veldar/veldar";

struct sample {
    std::string name;
    std::map<std::string, std::string> labels;
    double value;
    int64_t time_ms;
};

std::string line_of(const sample& one) {
    std::string line;
    std::vector<metric_label> labels;
    for (const auto& [label, value] : one.labels) labels.push_back({label, value});
    const int64_t ms = (one.time_ms % 1000 + 1000) % 1000;
    metric_text_put(&line, one.name, labels, one.value, static_cast<st_time_t>((one.time_ms - ms) / 1000),
                    static_cast<uint32_t>(ms) * 1000000);
    return line;
}

std::vector<sample> random_samples(uint64_t seed, size_t count) {
    std::mt19937_64 random(seed);
    const double special[] = {0.0, -0.0, INFINITY, -INFINITY, NAN, 5e-324, 51.846000000000004};
    std::vector<sample> samples;
    const bool milliseconds = seed % 2 == 0;
    for (size_t i = 0; i < count; i++) {
        sample one;
        one.name = std::string(random() % 3 == 0 ? "disk.used" : "cpu") + (random() % 2 == 0 ? "_total" : "");
        for (const char* const label : {"host", "a:b%", "metric_name", "source"}) {
            if (random() % 2 == 0) one.labels[label] = std::string(1, "xy\n\\\" "[random() % 6]) + "::";
        }
        one.value = random() % 4 == 0 ? special[random() % 7] : static_cast<double>(random() % 100000) / 1000;
        one.time_ms = 1700000000000 + static_cast<int64_t>(random() % 60) * 1000;
        if (milliseconds) one.time_ms += static_cast<int64_t>(random() % 2000) - 1000000000000 * (i % 2 == 0 ? 2 : 0);
        samples.push_back(one);
    }
    return samples;
}

std::vector<std::string> sample_lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        if (!line.starts_with('#')) lines.push_back(line + "\n");
    }
    std::sort(lines.begin(), lines.end());
    return lines;
}

std::string must(const std::vector<std::string>& arguments) {
    const tool_result result = run_tool(TOOL, arguments);
    EXPECT_EQ(result.status, 0) << result.err;
    return result.out;
}

TEST(MetricsTool, LoadDumpLoadGivesEqualStores) {
    for (uint64_t seed = 0; seed < 4; seed++) {
        const temp_dir dir;
        const std::string file = dir.path() + "/in.om", first = dir.path() + "/a", second = dir.path() + "/b";
        const std::vector<sample> samples = random_samples(seed, 3000);
        std::string text;
        for (const sample& one : samples) text += line_of(one);
        const std::string half = text.substr(0, text.find('\n', text.size() / 2) + 1);
        // Half of a file that grows, then the whole of it, and again.
        write_file(file, half);
        must({"metrics", "--dir", first, "load", "--batch", "700", file});
        write_file(file, text);
        must({"metrics", "--dir", first, "load", "--batch", "700", file});
        must({"metrics", "--dir", first, "load", file});
        const std::string dump = must({"metrics", "--dir", first, "dump"});
        EXPECT_EQ(sample_lines(dump), sample_lines(text));
        EXPECT_TRUE(dump.ends_with("# EOF\n"));
        must({"optimize", "--all", first});
        EXPECT_EQ(files_in(first, ".tsidx").size(), 1u);
        EXPECT_EQ(must({"metrics", "--dir", first, "dump"}), dump);
        must({"fsck", first});
        const std::string events = must({"dump", first});
        EXPECT_EQ(std::count(events.begin(), events.end(), '\n'), static_cast<ptrdiff_t>(sample_lines(dump).size()));
        write_file(file, dump);
        must({"metrics", "--dir", second, "load", file});
        EXPECT_EQ(must({"metrics", "--dir", second, "dump"}), dump);
    }
}

// At every call of a load, which the next one goes on with, after a merge of what is there.
TEST(MetricsTool, KilledAtAnyCallEachSampleComesOnce) {
    const lock_optimism optimism;
    const temp_dir files;
    metric_load_options options;
    options.batch_samples = 250;
    std::string all;
    for (const uint64_t seed : {uint64_t{1}, uint64_t{3}}) {
        std::string text;
        for (const sample& one : random_samples(seed, 300)) text += line_of(one);
        options.files.push_back(files.file(std::to_string(seed) + ".om"));
        write_file(options.files.back(), text);
        all += text;
    }
    const auto load = [&](const std::string& directory) {
        metric_loader loader;
        std::string error;
        bool done = true;
        metric_loader_open(&loader, directory, options);
        for (const std::string& file : options.files) done = metric_loader_load(&loader, file, &error) && done;
        metric_loader_close(&loader);
        return done;
    };
    const no_flushes quick;
    bool is_over = false;
    const uint64_t stride = ::getenv("VELDAR_TORTURE") == nullptr ? 5 : 1;
    for (uint64_t call = 1; !is_over && !testing::Test::HasFailure(); call += stride) {
        SCOPED_TRACE(call);
        const temp_dir dir;
        const std::string index = dir.file("index");
        const pid_t child = ::fork();
        if (child == 0) {
            const fault_step death(fault_action::kill_before, call);
            static_cast<void>(load(index));
            ::_exit(0);
        }
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        is_over = WIFEXITED(status);
        if (call % 3 == 0 && std::filesystem::exists(index) && !files_in(index, ".tsidx").empty())
            must({"optimize", "--all", index});
        EXPECT_TRUE(load(index));
        ASSERT_EQ(sample_lines(must({"metrics", "--dir", index, "dump"})), sample_lines(all));
        EXPECT_FALSE(std::filesystem::exists(index + "/metrics.batch"));
        EXPECT_TRUE(!is_over || call > 100) << call;
    }
}

// Whatever was taken of a file that fails, or is cut and begun anew, comes again and not twice.
TEST(MetricsTool, AFileThatFailsOrIsCutComesOnce) {
    const lock_optimism optimism;
    metric_load_options options;
    options.batch_samples = 100;
    options.no_fsync = options.no_optimize = true;
    std::string whole, anew = "# another file\n";
    for (const sample& one : random_samples(1, 300)) whole += line_of(one);
    for (const sample& one : random_samples(2, 400)) anew += line_of(one);
    uint64_t hits = 1;
    for (uint64_t nth = 1; hits != 0 && !testing::Test::HasFailure(); nth++) {
        for (const bool is_cut : {false, true}) {
            SCOPED_TRACE(testing::Message() << nth << (is_cut ? " cut" : " fails"));
            const temp_dir dir;
            const std::string index = dir.file("index"), file = dir.file("a.om"), copy = dir.file("a.om.1");
            write_file(file, whole);
            const auto load = [&](const std::vector<std::string>& files) {
                metric_loader loader;
                std::string error;
                try {
                    metric_loader_open(&loader, index, options);
                    for (const std::string& one : files) static_cast<void>(metric_loader_load(&loader, one, &error));
                    metric_loader_close(&loader);
                } catch (const failure_t&) {
                }
            };
            if (is_cut) {
                const fault_step step(nth, [&] {
                    std::filesystem::copy_file(file, copy);
                    write_file(file, anew);
                });
                load({file});
            } else {
                const fault broken(fault_call::pread, nth, EIO);
                load({file});
                hits = broken.hits();
            }
            load(std::filesystem::exists(copy) ? std::vector<std::string>{copy, file} : std::vector<std::string>{file});
            const bool both = std::filesystem::exists(copy);
            ASSERT_EQ(sample_lines(must({"metrics", "--dir", index, "dump"})),
                      sample_lines(both ? whole + anew : whole));
        }
    }
}

TEST(MetricsTool, QueriesAgreeWithTheSamples) {
    const temp_dir dir;
    const std::string file = dir.path() + "/in.om", index = dir.path() + "/a";
    const std::vector<sample> samples = random_samples(6, 2000);
    std::string text;
    for (const sample& one : samples) text += line_of(one);
    write_file(file, text);
    must({"metrics", "--dir", index, "load", "--batch", "500", file});
    const auto expect = [&](const std::vector<std::string>& asked, const auto& wanted) {
        std::string expected;
        for (const sample& one : samples) expected += wanted(one) ? line_of(one) : "";
        std::vector<std::string> arguments = {"metrics", "--dir", index, "query", "--format", "openmetrics"};
        arguments.insert(arguments.end(), asked.begin(), asked.end());
        EXPECT_EQ(sample_lines(must(arguments)), sample_lines(expected)) << asked[0];
    };
    const auto label = [](const sample& one, const std::string& name) {
        return one.labels.contains(name) ? one.labels.at(name) : "";
    };
    expect({"cpu"}, [](const sample& one) { return one.name == "cpu"; });
    expect({"*_total", "--since", "@1700000010.5", "--until", "@1700000030.25"}, [](const sample& one) {
        return one.name.ends_with("_total") && one.time_ms >= 1700000010500 && one.time_ms < 1700000030250;
    });
    expect({"cpu*", "disk.used", "-w", "host=\\::", "-w", "a:b%!= ::"}, [&](const sample& one) {
        return one.name != "disk.used_total" && label(one, "host") == "\\::" && label(one, "a:b%") != " ::";
    });
    expect({"cpu", "-w", "metric_name=*", "-w", "source!=*", "-w", "host!=[x ]"}, [&](const sample& one) {
        return one.name == "cpu" && one.labels.contains("metric_name") && !one.labels.contains("source");
    });
    std::vector<int64_t> times;
    for (const sample& one : samples) times.push_back(one.time_ms);
    std::sort(times.rbegin(), times.rend());
    const std::string newest = must({"metrics", "--dir", index, "query", "*", "-n", "7", "--format", "openmetrics"});
    expect({"*", "--since", "@" + std::to_string(times[6] / 1000)},
           [&](const sample& one) { return one.time_ms >= times[6] / 1000 * 1000; });
    EXPECT_EQ(std::count(newest.begin(), newest.end(), '\n'), 7);
}

// What is wrong is named and counted, and all else is loaded.
TEST(MetricsTool, MalformedLinesAndLabels) {
    const temp_dir dir;
    const std::string file = dir.path() + "/in.csv", index = dir.path() + "/a";
    write_file(file, "ts,in,out,if\n100,1,2,eth0\n101,x,2,eth0\n102,3,,\"a\nb\"\n" + std::string(2000000, 'z') +
                         "\n103,4,5,lo\n");
    const std::vector<std::string> load = {"metrics", "--dir", index,    "load", "--value", "in,out",
                                           "--dims",  "if",    "--name", "net",  "--label", "host=h1"};
    std::vector<std::string> arguments = load;
    arguments.push_back(file);
    const tool_result loaded = run_tool(TOOL, arguments);
    EXPECT_EQ(loaded.status, 0);
    EXPECT_NE(loaded.err.find("line 3: the value is not a number"), std::string::npos) << loaded.err;
    EXPECT_NE(loaded.err.find("line 6: more than 1 MiB"), std::string::npos) << loaded.err;
    EXPECT_NE(loaded.err.find("6 samples: 4 events"), std::string::npos) << loaded.err;
    EXPECT_EQ(sample_lines(must({"metrics", "--dir", index, "dump"})),
              sample_lines("net_in{host=\"h1\",if=\"a\\nb\"} 3 102\nnet_in{host=\"h1\",if=\"eth0\"} 1 100\n"
                           "net_in{host=\"h1\",if=\"lo\"} 4 103\nnet_out{host=\"h1\",if=\"eth0\"} 2 100\n"
                           "net_out{host=\"h1\",if=\"eth0\"} 2 101\nnet_out{host=\"h1\",if=\"lo\"} 5 103\n"));
    EXPECT_EQ(must({"metrics", "--dir", index, "query", "n*t", "-w", "if=lo"}),  // net_in holds a t too
              "1970-01-01T00:01:43Z\t5\tnet_out{host=\"h1\",if=\"lo\"}\n");
    write_file(dir.path() + "/odd.csv", "#,time,v\n1,7,8\n");
    must({"metrics", "--dir", index, "load", "--value", "v", dir.path() + "/odd.csv"});
    EXPECT_EQ(must({"metrics", "--dir", index, "query", "v"}), "1970-01-01T00:00:07Z\t8\tv\n");
    arguments.insert(arguments.begin() + 4, {"--strict", "--again"});
    EXPECT_EQ(run_tool(TOOL, arguments).status, 2);
    EXPECT_EQ(sample_lines(must({"metrics", "--dir", index, "dump"})).size(), 9u);
    EXPECT_EQ(run_tool(TOOL, {"metrics", "--dir", index, "query", "none"}).status, 1);
    write_file(file, "count{if=\"lo\"} 1 5\ncount{if=\"eth0\"} 2 5\n");
    must({"metrics", "--dir", index, "load", file, "--label", "if=x", "--label", "dc=eu"});
    EXPECT_EQ(must({"metrics", "--dir", index, "query", "count", "-w", "if=lo"}),
              "1970-01-01T00:00:05Z\t1\tcount{dc=\"eu\",if=\"lo\"}\n");
    for (const char* const text : {"up 1\n", "up x\n"}) {
        write_file(file, text);
        for (int i = 0; i < 2; i++) {
            const int status = run_tool(TOOL, {"metrics", "--dir", index, "load", file, "--time", "@7"}).status;
            EXPECT_EQ(status, text[3] == 'x' ? 3 : 0) << "every line was refused";
        }
    }
    EXPECT_EQ(sample_lines(must({"metrics", "--dir", index, "query", "up"})).size(), 2u) << "loaded again each time";
    write_file(file, "1\t1\t1\t1\t1\t1\tword\n");
    must({"put", dir.path() + "/events", file});
    EXPECT_EQ(run_tool(TOOL, {"metrics", "--dir", dir.path() + "/events", "load", file}).status, 2);
    EXPECT_EQ(run_tool(TOOL, {"metrics", "--dir", dir.path() + "/none", "ls"}).status, 2);
}

// Every form of what can be asked about a small index, whole.
TEST(MetricsTool, OutputsOfAKnownIndex) {
    const temp_dir dir;
    write_file(dir.file("m"),
               "cpu{host=\"a\",mode=\"idle\"} 1.5 100\ncpu{host=\"a\",mode=\"user\"} NaN 101.25\n"
               "cpu{host=\"b\"} 3 102\ndisk{host=\"x,\\\"y\"} -Inf 99\n");
    must({"metrics", "--dir", dir.file("i"), "load", dir.file("m"), "--no-fsync"});
    const std::pair<std::vector<std::string>, const char*> told[] = {
        {{"ls"}, R"(      points       sets  earliest              latest                name
           3          3  1970-01-01T00:01:40Z  1970-01-01T00:01:42Z  cpu
           1          1  1970-01-01T00:01:39Z  1970-01-01T00:01:39Z  disk
)"},
        {{"ls", "*sk", "--format", "jsonl", "--tz", "+01:00"},
         R"({"name":"disk","points":1,"sets":1,"earliest":"1970-01-01T01:01:39+01:00","latest":"1970-01-01T01:01:39+01:00"}
)"},
        {{"cardinality"}, R"(   values       sets  label
        3          4  host
        2          2  mode
2 names, 4 sets of labels, 4 series
)"},
        {{"cardinality", "--format", "jsonl"}, R"({"label":"host","values":3,"sets":4}
{"label":"mode","values":2,"sets":2}
{"names":2,"sets":4,"series":4}
)"},
        {{"cardinality", "host"}, R"(     sets  host
        2  a
        1  b
        1  x,"y
)"},
        {{"cardinality", "mode", "--format", "jsonl"}, R"({"value":"idle","sets":1}
{"value":"user","sets":1}
)"},
        {{"query", "c*u", "*", "-w", "host!=b", "--format", "jsonl"},
         R"({"time":"1970-01-01T00:01:41.25Z","name":"cpu","labels":{"host":"a","mode":"user"},"value":"NaN"}
{"time":"1970-01-01T00:01:40Z","name":"cpu","labels":{"host":"a","mode":"idle"},"value":1.5}
{"time":"1970-01-01T00:01:39Z","name":"disk","labels":{"host":"x,\"y"},"value":"-Inf"}
)"},
        {{"query", "cpu", "--agg", "min,max,count,sum", "--format", "csv"}, "min,max,count,sum\r\n1.5,3,3,4.5\r\n"},
        {{"query", "cpu", "-n", "2", "--format", "csv"},
         "time,series,value\r\n"
         "1970-01-01T00:01:42Z,\"cpu{host=\"\"b\"\"}\",3\r\n"
         "1970-01-01T00:01:41.25Z,\"cpu{host=\"\"a\"\",mode=\"\"user\"\"}\",NaN\r\n"},
    };
    for (const auto& [asked, out] : told) {
        std::vector<std::string> arguments = {"metrics", "--dir", dir.file("i")};
        arguments.insert(arguments.end(), asked.begin(), asked.end());
        EXPECT_EQ(must(arguments), out);
    }
    for (const char* const none : {"ls", "cardinality"}) {
        EXPECT_EQ(run_tool(TOOL, {"metrics", "--dir", dir.file("i"), none, "none"}).status, 1);
    }
    EXPECT_EQ(
        must({"dump", "--format", "tsv", dir.file("i")}),
        "100\t0\t0\t0\t0\t1.5\tmetric_name::cpu host::a mode::idle\n"
        "101.25\t0\t0\t0\t0\tNaN\tmetric_name::cpu host::a mode::user\n102\t0\t0\t0\t0\t3\tmetric_name::cpu host::b\n"
        "99\t0\t0\t0\t0\t-Inf\tmetric_name::disk host::x,\"y\n");
    EXPECT_EQ(must({"dump", "--format", "csv", dir.file("i")}),
              "time,host,source,sourcetype,address,measure,deleted,terms\r\n"
              "1970-01-01T00:01:40Z,a,,,0,1.5,false,metric_name::cpu host::a mode::idle\r\n"
              "1970-01-01T00:01:41.25Z,a,,,0,NaN,false,metric_name::cpu host::a mode::user\r\n"
              "1970-01-01T00:01:42Z,b,,,0,3,false,metric_name::cpu host::b\r\n"
              "1970-01-01T00:01:39Z,\"x,\"\"y\",,,0,-Inf,false,\"metric_name::disk host::x,\"\"y\"\r\n");
    const std::string slice = files_in(dir.file("i"), ".tsidx").at(0);
    const std::string info = must({"info", slice}), json = must({"info", slice, "--format", "json"});
    EXPECT_NE(info.find(": 720 bytes, metrics, 4 events, 4 samples, 4 dimension sets\n"), info.npos) << info;
    EXPECT_NE(json.find("\"values\":4,\"samples\":4,\"dimension_sets\":4,\"header\""), info.npos) << json;
}

TEST(MetricsTool, LinesComeInPiecesOfAPipe) {
    const temp_dir dir;
    std::string text = "# " + std::string(200000, 'x') + "\n";
    for (int i = 0; i < 4000; i++) text += "up 1 " + std::to_string(1000 + i) + "\n";
    text += "# " + std::string(300000, 'x') + "\nup 1 999\n";
    ASSERT_EQ(::mkfifo(dir.file("pipe").c_str(), 0600), 0);
    write_file(dir.file("text"), text);
    ASSERT_EQ(std::system(("cat " + dir.file("text") + " >" + dir.file("pipe") + " &").c_str()), 0);
    const tool_result load =
        run_tool(TOOL, {"metrics", "--dir", dir.file("a"), "load", "-", "--no-fsync"}, {dir.file("pipe")});
    EXPECT_EQ(load.status, 0) << load.err;
    EXPECT_NE(load.err.find("4,001 samples"), std::string::npos) << load.err;
}

}  // namespace
}  // namespace veldar
