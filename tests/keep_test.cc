// What keeps a store in order beside others that change it: old events that go, and logs that are followed.
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

struct Retain : directory_test {
    temp_dir dir;
};

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

class Watch : public directory_test {
  protected:
    const temp_dir dir;
    const std::string store = dir.file("store"), app = dir.file("app.log");
    int written = 0;
    std::ofstream out{app, std::ios::app};

    tool_result run(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), {"-s", store});
        return run_tool("veldar/veldar", arguments);
    }
    std::string count() const { return run({"count", "event"}).out; }
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
