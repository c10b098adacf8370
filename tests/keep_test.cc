// What keeps a store in order: old events that go, leftovers that are collected, and logs that are followed.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <regex>
#include <thread>

#include "searchthing/upkeep/tsidx_upkeep.h"
#include "tests/support/directory.h"
#include "tests/support/hot_events.h"
#include "tests/support/metric_events.h"
#include "tests/support/packing.h"
#include "tests/support/run_tool.h"
#include "tools/libveldar/load/retention.h"
#include "tools/libveldar/store/known_files.h"

namespace veldar {
namespace {

namespace fs = std::filesystem;
using clock = std::chrono::steady_clock;

struct store_test : directory_test {
    temp_dir dir;
    std::string store = dir.file("store"), bucket = store + "/bucket-000001/";

    tool_result run(std::vector<std::string> arguments, const std::string& input = "") const {
        arguments.insert(arguments.begin(), {"-s", store});
        return run_tool("veldar/veldar", arguments, {.input = input});
    }
    // A log of as many lines, a second each from 2024-01-01T00:00:00 on.
    std::string log(const std::string& name, int first, int count) const {
        std::string text;
        for (int i = first; i < first + count; i++) {
            char time[32];
            std::snprintf(time, sizeof time, "2024-01-01T%02d:%02d:%02dZ", i / 3600, i / 60 % 60, i % 60);
            text += std::string(time) + " event n" + std::to_string(i) + "\n";
        }
        write_file(dir.file(name), text);
        return dir.file(name);
    }
    std::string count() const { return run({"count", "event"}).out; }
};

using Retain = store_test;

std::string without_bytes(const std::string& text) {
    static const std::regex bytes(", [0-9.]+ (bytes|kB)");
    return std::regex_replace(text, bytes, "");
}

TEST_F(Retain, WholeSlicesThenEventsAndNothingComesBack) {
    std::vector<std::string> logs;
    for (int i = 0; i < 4; i++) {
        logs.push_back(log("log" + std::to_string(i), 100 * i, 150));
        ASSERT_EQ(run({"load", "--no-optimize", logs.back()}).status, 0);
    }
    write_file(dir.file("metrics"), "m{a=\"b\"} 1 1704067000\nm{a=\"b\"} 2 1704067500\n# EOF\n");
    ASSERT_EQ(run({"metrics", "load", dir.file("metrics")}).status, 0);
    const auto bytes = [&] {
        uint64_t sum = 0;
        for (const std::string& directory : {bucket, store + "/metrics"}) {
            for (const std::string& file : files_in(directory, TSIDX_SUFFIX)) sum += fs::file_size(file);
        }
        return std::to_string(sum);
    };
    const struct {
        std::vector<std::string> arguments;
        const char *dry, *out, *left;
    } rows[] = {
        {{"--older-than", "2024-01-01T00:03:20Z"},
         "1 slice with 150 events would be removed freed\n"
         "100 events would be deleted in slices that reach beyond; their space comes with 'veldar optimize'\n"
         "1 slice of metrics stays: metrics go as whole slices only\n",
         "1 slice with 150 events removed freed\n"
         "100 events deleted in slices that reach beyond; their space comes with 'veldar optimize'\n"
         "1 slice of metrics stays: metrics go as whole slices only\n",
         "350\n"},
        {{"--older-than", "2024-01-01T00:03:20Z", "--max-size", bytes()},
         "0 slices with 0 events would be removed freed\n"
         "1 slice of metrics stays: metrics go as whole slices only\n",
         "0 slices with 0 events removed freed\n1 slice of metrics stays: metrics go as whole slices only\n",
         "350\n"},
        {{"--max-size", bytes() + "x"}, "", "", "350\n"},
        {{"--max-size", "1"},
         "4 slices with 352 events would be removed freed\n",
         "4 slices with 352 events removed freed\n",
         "0\n"},
        {{"--older-than", "3000-01-01"}, "", "", "0\n"},
        {{}, "", "", "0\n"},
    };
    for (const auto& row : rows) {
        std::vector<std::string> arguments = {"retain"};
        arguments.insert(arguments.end(), row.arguments.begin(), row.arguments.end());
        const std::string out = row.out;
        const tool_result done = [&] {
            std::vector<std::string> dry = arguments;
            dry.emplace_back("--dry-run");
            const std::string before = count(), size = bytes();
            EXPECT_EQ(without_bytes(run(dry).out), row.dry);
            EXPECT_EQ(count() + bytes(), before + size);
            return run(arguments);
        }();
        EXPECT_EQ(without_bytes(done.out), out) << done.err;
        EXPECT_EQ(done.status, out.empty() ? 2 : 0) << done.err;
        EXPECT_EQ(count(), row.left);
        logs.push_back("--no-optimize");
        std::vector<std::string> again = {"load"};
        again.insert(again.end(), logs.begin(), logs.end());
        EXPECT_NE(run(again).err.find("0 events, 0 bytes read"), std::string::npos);
        logs.pop_back();
        EXPECT_EQ(count(), row.left) << "what went does not come back";
    }
    // Right after a load that was killed before it noted how far it came.
    log("log0", 1000, 10);
    ASSERT_EQ(run({"load", logs[0]}).status, 0);
    const std::string map = read_file(bucket + "source.map");
    write_file(bucket + "source.map", map.substr(0, map.size() - 24 - 40));
    EXPECT_EQ(without_bytes(run({"retain", "--max-size", "1"}).out), "1 slice with 10 events removed freed\n");
    ASSERT_EQ(run({"load", logs[0]}).status, 0);
    EXPECT_EQ(count(), "0\n");
    write_file(bucket + "5-1-9.tsidx", "damaged");
    const std::string uncounted = "1 of them could not be read: what it held is not all counted\n";
    EXPECT_EQ(without_bytes(run({"retain", "--max-size", "1", "--dry-run"}).out),
              "1 slice with 0 events would be removed freed\n" + uncounted);
    EXPECT_EQ(without_bytes(run({"retain", "--max-size", "1"}).out),
              "1 slice with 0 events removed freed\n" + uncounted);
}

// A source of a merge goes while the merge is at work: its events do not come back with the target.
TEST_F(Retain, BesideAMerge) {
    const std::string events = dir.file("events"), metrics = dir.file("metrics");
    fs::create_directories(events);
    fs::create_directories(metrics);
    TSWRITEOPTS opts;
    st_tsidx_write_opts_init_write_level(&opts, 4);
    {
        const directory_ptr writer = open_directory(events);
        const directory_ptr samples(st_tsidx_open(metrics.c_str(), 0, 1, &opts, TSIDX_ORDINARY_WRITER));
        for (int32_t i = 1; i <= 3; i++) {
            for (int32_t n = 0; n < 5; n++) {
                const forge_event event = {
                    .time = 10 * i + n, .address = static_cast<uint32_t>(10 * i + n), .terms = {"a"}};
                ASSERT_EQ(put_event(writer.get(), event), 0);
            }
            for (const metric_event& event : random_metric_events(static_cast<uint64_t>(i), 20)) {
                ASSERT_EQ(put_metric_event(samples.get(), event, 1), 0);
            }
            ASSERT_EQ(st_tsidx_sync(writer.get()) + st_tsidx_sync(samples.get()), 0);
        }
    }
    struct dropper {
        std::string directory, name;
        int status = 1;
        tsidx_dropped_t dropped;
    };
    for (const std::string& directory : {events, metrics}) {
        dropper drop;
        drop.directory = directory;
        drop.name = fs::path(files_in(directory, TSIDX_SUFFIX)[1]).filename();
        const directory_ptr merger = open_directory(directory);
        const auto act = [](uint64_t, uint64_t, void* context) {
            dropper* const d = static_cast<dropper*>(context);
            const directory_ptr other = open_directory(d->directory);
            st_tsidx_set_lock_timeout(other.get(), 0);
            if (d->status == 1) d->status = st_tsidx_drop_slices(other.get(), {d->name, "none"}, &d->dropped);
        };
        st_tsidx_set_merge_progress(merger.get(), act, &drop);
        ASSERT_EQ(st_tsidx_optimize_n(merger.get(), TSIDX_OPTIMIZE_ALL, 2, 0, 0, nullptr, 0, 0, false), 0);
        EXPECT_EQ(files_in(directory, TSIDX_SUFFIX).size(), 1u);
        EXPECT_EQ(drop.status, directory == events ? 0 : WARM_RC_MANIFEST_EXISTS);
        EXPECT_EQ(drop.dropped.events, directory == events ? 5u : 0u);
        EXPECT_EQ(drop.dropped.slices, directory == events ? 1u : 0u);
    }
    const directory_ptr left = open_directory(events);
    EXPECT_EQ(query_keys(left.get(), "[AND a]").size(), 10u);
    std::vector<event_key> older = query_keys(left.get(), "[AND a]");
    std::erase_if(older, [](const event_key& key) { return key.first >= 13; });
    EXPECT_EQ(st_tsidx_delete_before(left.get(), 13), static_cast<int64_t>(older.size()));
    EXPECT_EQ(query_keys(left.get(), "[AND a]").size(), 10 - older.size());
    EXPECT_EQ(st_tsidx_delete_before(left.get(), INT32_MIN), 0);
}

TEST_F(Retain, MergedAtAnyCall) {
    const no_pauses pauses;
    const temp_dir original;
    {
        const directory_ptr writer = open_directory(original.path());
        for (int32_t i = 0; i < 30; i++) {
            const forge_event event = {.time = i, .address = static_cast<uint32_t>(i), .terms = {"a"}};
            ASSERT_EQ(put_event(writer.get(), event), 0);
            ASSERT_EQ(i % 10 == 9 ? st_tsidx_sync(writer.get()) : 0, 0);
        }
    }
    uint64_t calls = 1;
    for (uint64_t n = 1; n <= calls && !HasFailure(); n++) {
        const temp_dir index;
        fs::copy(original.path(), index.path());
        {
            const fault_step step(n, [&] {
                const directory_ptr merger = open_directory(index.path());
                st_tsidx_set_lock_timeout(merger.get(), 0);
                const int status = st_tsidx_optimize_n(merger.get(), TSIDX_OPTIMIZE_ALL, 2, 0, 0, nullptr, 0, 0, false);
                EXPECT_TRUE(status == 0 || status == WARM_RC_LOCK || status == WARM_RC_FEW_SLICES) << status;
            });
            tool::retain_in({index.path()}, {.before = 15, .max_size = {}}, false);
            calls = step.calls();
        }
        EXPECT_EQ(query_keys(open_directory(index.path()).get(), "[AND a]").size(), 15u) << n << " of " << calls;
    }
    EXPECT_GT(calls, 50u);
}

using Collect = store_test;

TEST_F(Collect, WhatNobodyNeeds) {
    const std::string gone = log("gone", 0, 50), stays = log("stays", 100, 50), pipe = log("pipe", 200, 50);
    for (const std::string& file : {gone, stays}) ASSERT_EQ(run({"load", file}).status, 0);
    ASSERT_EQ(run({"load", "-"}, pipe).status, 0);
    ASSERT_EQ(run({"load", stays}).status, 0);
    fs::remove(gone);
    const std::string dead = std::to_string(static_cast<uint64_t>(process_that_is_gone()) % 65535 << 16);
    const std::string names[] = {"9-1-" + dead + ".pre-tsidx", "9-1-5.tsidx.seal",
                                 "veldar-autogen-params.dat.part.999999999"};
    const auto leave = [&] {
        for (const std::string& name : names) {
            write_file(bucket + name, "left");
            make_old(bucket + name);
        }
        write_file(bucket + "9-1-6.tsidx.seal", "young");
    };
    // Lines whose bytes vary are compared without them.
    const auto told = [&](const tool_result& result) {
        EXPECT_EQ(result.status, 0) << result.err;
        std::set<std::string> lines;
        std::istringstream in(result.out);
        for (std::string line; std::getline(in, line);) {
            for (size_t at; (at = line.find(dir.path())) != std::string::npos;) line.erase(at, dir.path().size() + 1);
            lines.insert(without_bytes(line));
        }
        std::erase_if(lines, [](const std::string& line) { return line.find(" freed") != std::string::npos; });
        return lines;
    };
    const auto lines = [&](const std::string& verb, bool all_gone) {
        const std::string at = verb + " store/bucket-000001/";
        std::set<std::string> out = {
            at + names[0] + ": of a load that was killed",
            at + names[1] + ": a seal without its slice",
            at + names[2] + ": of a writer that is gone",
            at + "source.map: notes that newer ones have replaced",
        };
        if (!all_gone) return out;
        out.insert(at + "source.map: " + "gone: notes of a log that is gone, with all its events");
        out.insert(at + "source.map: a pipe: notes of a log that is gone, with all its events");
        out.insert(at + "spool-3: no event is left of it");
        return out;
    };
    leave();
    EXPECT_EQ(told(run({"gc", "--dry-run"})), lines("would remove", false)) << "the events are there";
    EXPECT_EQ(told(run({"gc"})), lines("removed", false));
    EXPECT_EQ(run({"gc"}).out, "0 bytes freed\n");
    ASSERT_EQ(run({"retain", "--max-size", "1"}).status, 0);
    leave();
    EXPECT_EQ(told(run({"gc", "--dry-run"})), lines("would remove", true));
    EXPECT_EQ(told(run({"gc"})), lines("removed", true));
    EXPECT_EQ(run({"gc"}).out, "0 bytes freed\n");
    EXPECT_TRUE(fs::exists(bucket + "9-1-6.tsidx.seal"));
    EXPECT_EQ(run({"load", stays}).err.substr(0, 8), "0 events") << "what is there is known yet";
    log("gone", 0, 50);
    EXPECT_EQ(run({"load", gone}).err.substr(0, 9), "50 events") << "what was gone is new";
    EXPECT_EQ(count(), "50\n");
    EXPECT_EQ(run({"fsck"}).status, 0);
    // A load has the store.
    const unique_fd lock = tool::disk_lock(store + "/lock", store);
    const tool_result busy = run({"gc", "--yes"});
    EXPECT_EQ(busy.status, 3);
    EXPECT_NE(busy.err.find("holds the store"), std::string::npos) << busy.err;
}

// A running `veldar watch`.
class watching {
  public:
    watching(const std::string& store, std::vector<std::string> logs) {
        std::vector<std::string> arguments = {"-s", store, "watch", "--sync-every", "100ms", "--no-fsync"};
        arguments.insert(arguments.end(), logs.begin(), logs.end());
        pid_ = start_tool("veldar/veldar", arguments, store + ".err");
    }
    ~watching() {
        if (pid_ > 0) end(SIGKILL);
    }
    int end(int signal) {
        int status = 0;
        ::kill(pid_, signal);
        EXPECT_EQ(::waitpid(pid_, &status, 0), pid_);
        pid_ = 0;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
    }

  private:
    pid_t pid_ = 0;
};

class Watch : public store_test {
  protected:
    const std::string app = dir.file("app.log");
    int written = 0;
    std::ofstream out{app, std::ios::app};

    std::string line() {
        char time[40];
        std::snprintf(time, sizeof time, "2024-01-01T%02d:%02d:%02dZ", written / 3600, written / 60 % 60, written % 60);
        return std::string(time) + " event n" + std::to_string(written++) + "x of an application\n";
    }
    void write_lines(int count) {
        for (int i = 0; i < count; i++) out << line() << std::flush;
    }
    void reopen() {
        out.close();
        out.open(app, std::ios::app);
    }
    // Older pieces move on by one.
    void shift() {
        for (int i = 60; i > 0; i--) {
            for (const char* end : {"", ".gz"}) {
                const std::string from = app + "." + std::to_string(i) + end;
                if (fs::exists(from)) fs::rename(from, app + "." + std::to_string(i + 1) + end);
            }
        }
    }
    void rotate(unsigned kind) {
        const std::string first = app + ".1";
        shift();
        if (kind == 0) {  // a copy, and the file is begun anew
            fs::copy_file(app, first);
            return fs::resize_file(app, 0);
        }
        fs::rename(app, first);
        if (kind == 1) write_lines(3);  // by who has not heard of it yet
        reopen();
        if (kind != 2) return;
        const auto time = fs::last_write_time(first);
        write_file(first + ".gz", gzip_member(read_file(first)));
        fs::last_write_time(first + ".gz", time);
        fs::remove(first);
    }
    bool wait_for(const std::function<bool()>& condition) const {
        const auto end = clock::now() + std::chrono::seconds(60);
        while (!condition() && clock::now() < end) std::this_thread::sleep_for(std::chrono::milliseconds(20));
        return condition();
    }
    bool all_found() const {
        return wait_for([this] { return count() == std::to_string(written) + "\n"; });
    }
    void expect_each_once() const {
        std::set<std::string> terms;
        for (int i = 0; i < written; i++) terms.insert("1\tn" + std::to_string(i) + "x");
        std::istringstream lines(run({"terms", "n*x"}).out);
        std::set<std::string> found;
        for (std::string text; std::getline(lines, text);) found.insert(text);
        EXPECT_EQ(found, terms);
        EXPECT_EQ(run({"fsck", "--quiet"}).status, 0);
    }
};

// A log that is written, rotated in every way and left alone; new ones that match a pattern; the watch is killed now and
// then and carried on. In the end each line is there once.
TEST_F(Watch, EachLineOnceThroughRotationsAndKills) {
    for (const unsigned seed : {1u, 2u}) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        const std::string pattern = dir.file("new-*.log");
        auto watch = std::make_unique<watching>(store, std::vector<std::string>{app, pattern});
        const std::string watched = store + "/" + tool::STORE_WATCHED;
        ASSERT_TRUE(wait_for([&] { return fs::exists(watched) && !read_file(watched).empty(); }));
        for (int step = 0; step < 60; step++) {
            const auto draw = static_cast<unsigned>(random() % 16);
            write_lines(static_cast<int>(random() % 20));
            if (draw < 3) rotate(draw);
            if (draw == 3) write_file(dir.file("new-" + std::to_string(written) + ".log"), line() + line());
            if (draw == 4) {
                const std::string text = line();
                out << text.substr(0, 30) << std::flush;
                std::this_thread::sleep_for(std::chrono::milliseconds(random() % 120));
                out << text.substr(30) << std::flush;
            }
            if (draw == 5) {
                EXPECT_EQ(watch->end(SIGKILL), 1000 + SIGKILL);
                if (random() % 2 == 0) rotate(static_cast<unsigned>(random() % 3));
                watch = std::make_unique<watching>(store, std::vector<std::string>{app, pattern});
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(random() % 30));
        }
        write_lines(1);
        EXPECT_TRUE(all_found()) << count() << " of " << written << ": " << read_file(store + ".err");
        out << "2024-01-01T00:00:00Z an end that wai" << std::flush;
        EXPECT_EQ(watch->end(SIGTERM), 0) << read_file(store + ".err");
        expect_each_once();
        out << "ts event n" << written++ << "x\n" << std::flush;
    }
}

// What is seen of a copy before it is whole is no other log.
TEST_F(Watch, ACopyTakesItsTime) {
    watching watch(store, {app});
    write_lines(300);
    EXPECT_TRUE(all_found());
    const std::string whole = read_file(app), first = app + ".1";
    for (const size_t part : {size_t{4096}, size_t{5000}, size_t{12345}}) {
        write_file(first + ".new", whole.substr(0, part));
        fs::rename(first + ".new", first);
        std::this_thread::sleep_for(std::chrono::milliseconds(400));
    }
    write_lines(1);
    EXPECT_TRUE(all_found()) << count();
    write_file(first, read_file(app));
    fs::resize_file(app, 0);
    write_lines(1);
    EXPECT_TRUE(all_found()) << count();
    EXPECT_EQ(watch.end(SIGTERM), 0);
    expect_each_once();
}

TEST_F(Watch, WhatIsWrittenWhenTheSignalComesIsThere) {
    fs::remove(app);
    watching watch(store, {app, dir.file("later/*.log")});
    ASSERT_TRUE(wait_for([&] { return fs::exists(store + "/" + tool::STORE_WATCHED); }));
    reopen();
    write_lines(10);
    EXPECT_TRUE(all_found()) << "a log that was not there yet";
    fs::create_directory(dir.file("later"));
    write_file(dir.file("later/a.log"), line());
    EXPECT_TRUE(all_found()) << "nor its directory";
    write_lines(1000);
    EXPECT_EQ(watch.end(SIGINT), 0);
    EXPECT_EQ(count(), std::to_string(written) + "\n");
    expect_each_once();
    EXPECT_NE(read_file(store + ".err").find("1,011 events"), std::string::npos);
    write_file(dir.file("later/a.log.1"), read_file(dir.file("later/a.log")) + line());
    fs::remove(dir.file("later/a.log"));
    watching again(store, {dir.file("later/*.log")});
    EXPECT_TRUE(all_found()) << "a log that lost its name meanwhile";
    EXPECT_EQ(again.end(SIGTERM), 0);
    expect_each_once();
    for (const char* wrong : {"--sync-every=5", ""}) EXPECT_EQ(run({"watch", app, wrong}).status, 2) << wrong;
}

}  // namespace
}  // namespace veldar
