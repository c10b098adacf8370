// Logs that are followed: what is written to them is there once, whatever happens to them.
#include "tools/libveldar/load/watch.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <set>
#include <sstream>
#include <thread>
#include <utility>

#include "tests/support/damage.h"
#include "tests/support/faults.h"
#include "tests/support/packing.h"
#include "tests/support/run_tool.h"
#include "tests/support/sampled.h"
#include "tests/support/temp_dir.h"
#include "tools/libveldar/store/disk_file.h"
#include "tools/libveldar/store/failure.h"
#include "tools/libveldar/store/known_files.h"
#include "tools/libveldar/store/observer.h"

namespace veldar {
namespace {

namespace fs = std::filesystem;
using clock = std::chrono::steady_clock;

constexpr uint64_t NEVER = ~uint64_t{0} - 1;  // the number of no call

void expect_each_once(const std::string& store, int written) {
    std::set<std::string> terms, found, wrong;
    for (int i = 0; i < written; i++) terms.insert("1\tn" + std::to_string(i) + "x");
    std::istringstream lines(run_tool("veldar/veldar", {"-s", store, "terms", "n*x"}).out);
    for (std::string text; std::getline(lines, text);) found.insert(text);
    std::set_symmetric_difference(found.begin(), found.end(), terms.begin(), terms.end(),
                                  std::inserter(wrong, wrong.end()));
    EXPECT_EQ(wrong, std::set<std::string>());
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

// Logs that come, go and get other names; each line of them has a number.
class numbered_logs {
  public:
    numbered_logs() { write("app.log", 5); }

    std::string path(std::string name) const {
        std::replace(name.begin(), name.end(), '@', '\n');
        return dir_.file(name);
    }
    void write(const std::string& name, int count) {
        std::string text;
        for (int i = 0; i < count; i++) text += line();
        add(path(name), text);
    }
    // Commands of a row, with files, numbers of lines and most sizes.
    void act(const std::string& row) {
        std::istringstream commands(row);
        for (std::string command; std::getline(commands, command, ';');) {
            std::string what, first, second, size;
            std::istringstream(command) >> what >> first >> second >> size;
            const std::string a = path(first), b = path(second);
            if (what == "write") write(first, std::stoi(second));
            if (what == "alien") add(a, "2024-01-01T00:00:00Z event n" + second + "x\n");
            if (what == "half") add(a, (half_ = line()).substr(0, 30));
            if (what == "rest") add(a, half_.substr(30));
            if (what == "rename") fs::rename(a, b);
            if (what == "remove") fs::remove(a);
            if (what == "cut") fs::resize_file(a, 0);
            if (what == "mkdir") fs::create_directory(a);
            if (what == "link") fs::create_symlink(a, b);
            if (what == "date") fs::last_write_time(a, fs::last_write_time(b));
            if (what == "fifo") static_cast<void>(::mkfifo(a.c_str(), 0600));
            if (what == "older") move_on(a);
            if (what == "copy") {
                put(path("copy"), read_file(a).substr(0, std::stoul(size)));
                fs::rename(path("copy"), b);
            }
            if (what == "pack") put(a + ".gz", gzip_member(read_file(a)).substr(0, std::stoul(second)));
        }
    }

    const std::string& store() const { return store_; }
    int written = 0;

  protected:
    const temp_dir dir_;

  private:
    std::string line() {
        char text[80];
        std::snprintf(text, sizeof text, "2024-01-01T%02d:%02d:%02dZ event n%dx of an application\n", written / 3600,
                      written / 60 % 60, written % 60, written);
        written++;
        return text;
    }
    // Files are as late as it is by the clock, which may be ahead.
    static void stamp(const std::string& path) {
        timespec times[2];
        ::clock_gettime(CLOCK_REALTIME, &times[0]);
        times[1] = times[0];
        EXPECT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << path;
    }
    static void add(const std::string& path, const std::string& text) {
        std::ofstream(path, std::ios::app) << text;
        stamp(path);
    }
    static void put(const std::string& path, const std::string& bytes) {
        write_file(path, bytes);
        stamp(path);
    }
    static void move_on(const std::string& log) {
        for (int i = 60; i > 0; i--) {
            for (const char* end : {"", ".gz"}) {
                const std::string from = log + "." + std::to_string(i) + end;
                if (fs::exists(from)) fs::rename(from, log + "." + std::to_string(i + 1) + end);
            }
        }
    }

    const std::string store_ = dir_.file("store");
    std::string half_;
};

bool wait_for(const std::function<bool()>& condition) {
    const auto end = clock::now() + std::chrono::seconds(60);
    while (!condition() && clock::now() < end) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return condition();
}

// A log that is written, rotated in every way and left alone; new ones that match a pattern; the watch is killed now and
// then and carried on. In the end each line is there once.
TEST(Watch, EachLineOnceThroughRotationsAndKills) {
    const std::string aside = "older app.log; rename app.log app.log.1; ";
    const std::string rotations[] = {
        "older app.log; copy app.log app.log.1 999999; cut app.log", aside + "write app.log.1 3",
        aside + "pack app.log.1 999999; date app.log.1.gz app.log.1; remove app.log.1; write app.log 1"};
    for (const unsigned seed : {1u, 2u}) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        numbered_logs logs;
        const std::vector<std::string> names = {logs.path("app.log"), logs.path("new-*.log")};
        const std::string watched = logs.store() + "/" + tool::STORE_WATCHED;
        const auto count = [&] { return run_tool("veldar/veldar", {"-s", logs.store(), "count", "event"}).out; };
        auto watch = std::make_unique<watching>(logs.store(), names);
        ASSERT_TRUE(wait_for([&] { return fs::exists(watched) && !read_file(watched).empty(); }));
        for (int step = 0; step < 60; step++) {
            const auto draw = static_cast<unsigned>(random() % 16);
            logs.write("app.log", static_cast<int>(random() % 20));
            if (draw < 3) logs.act(rotations[draw]);
            if (draw == 3) logs.write("new-" + std::to_string(logs.written) + ".log", 2);
            if (draw == 4) {
                logs.act("half app.log");
                std::this_thread::sleep_for(std::chrono::milliseconds(random() % 120));
                logs.act("rest app.log");
            }
            if (draw == 5) {
                EXPECT_EQ(watch->end(SIGKILL), 1000 + SIGKILL);
                if (random() % 2 == 0) logs.act(rotations[random() % 3]);
                watch = std::make_unique<watching>(logs.store(), names);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(random() % 30));
        }
        logs.write("app.log", 1);
        EXPECT_TRUE(wait_for([&] { return count() == std::to_string(logs.written) + "\n"; }))
            << count() << " of " << logs.written << ": " << read_file(logs.store() + ".err");
        logs.write("app.log", 500);
        logs.act("half app.log");  // which waits
        EXPECT_EQ(watch->end(SIGTERM), 0) << read_file(logs.store() + ".err");
        expect_each_once(logs.store(), logs.written - 1);
        EXPECT_EQ(run_tool("veldar/veldar", {"-s", logs.store(), "fsck", "--quiet"}).status, 0);
    }
}

// Logs that are rotated in every way while one watch after the other follows them; time passes only while it waits.
class followed_life : public numbered_logs {
  public:
    followed_life() {
        fs::create_directory(path("real"));
        write("real/r.log", 2);
        fs::create_symlink(path("real/r.log"), path("link.log"));
    }

    // Follows them through the rows to the next "end", or a failure, and ends while what the last one wrote is new.
    std::string watch(fault_action action = fault_action::fail, uint64_t nth = NEVER) {
        std::string said;
        const tool::observer hears = {.context = &said, .say = [](void* all, tool::notice_t, const std::string& text) {
                                          static_cast<std::string*>(all)->append(text + "\n");
                                      }};
        const tool::observer_scope observed(&hears);
        due_ = 0;
        tool::load_options options;
        options.follows = options.no_fsync = options.no_optimize = true;
        tool::loader load;
        const fault_step step(action, nth, EIO);
        try {
            tool::loader_open(&load, store(), options);
            load.shown.is_hidden = true;
            tool::watch_logs(&load, {{path("app.log"), path("link.log"), path("new-*.log"), path("later/*.log"),
                                      path("absent/b.log")}});
            tool::loader_close(&load);
            done++;
        } catch (const tool::failure_t& failure) {
            said += failure.message + "\n" + tool::loader_give_up(&load);
        }
        tool::work_interrupted = 0;
        places = step.firsts();
        return said;
    }

    const std::vector<std::string> rows = data_rows("watch");
    size_t done = 0;               // of them
    int wait_error = 0;            // with which waits fail
    std::vector<uint64_t> places;  // the first calls of each, of a watch that counts

  private:
    // Before each wait of a watch: with which errno it fails, or 0.
    int wait() {
        if (time_.milliseconds() < due_) return ++waits_ % 5 == 0 ? EINTR : wait_error;
        const std::string& row = rows.at(done);
        const bool is_long = row.ends_with("hour");
        if (row.starts_with("held")) expect_held(row.substr(0, row.find(';')));
        if (row != "end") act(rows[done++]);
        if (rows.at(done) == "end") tool::work_interrupted = 1;
        due_ = time_.milliseconds() + (is_long ? 3'600'000 : 20'000);
        waits_ = 0;
        return 0;
    }
    // These logs, and no others, are held open after an hour in which little was done.
    void expect_held(const std::string& row) const {
        std::istringstream words(row);
        std::set<std::string> names, held;
        for (std::string word; words >> word;) names.insert(path(word));
        for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
            std::error_code gone;
            const std::string name = fs::read_symlink(entry, gone);
            if (name.starts_with(dir_.path()) && name.find(".log") != name.npos) held.insert(name);
        }
        names.erase(path("held"));
        EXPECT_EQ(held, names);
        EXPECT_LT(waits_, 600u);
    }

    uint64_t waits_ = 0, due_ = 0;  // since the last row; when the next one is, in milliseconds
    const simulated_waits time_{[this] { return wait(); }};
};

class FollowedLogs : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        tool::work_catch_interrupts();
        tool::work_interrupt_descriptor();
    }
};

TEST_F(FollowedLogs, EachLineOnce) {
    followed_life life;
    const std::string fifo = life.path("new-3.log") + ": no regular file; it is left out\n";
    EXPECT_EQ(life.watch(), fifo + life.path("app.log") + ": Too many levels of symbolic links\n");
    life.wait_error = EIO;
    EXPECT_NE(life.watch().find("cannot wait for changes: Input/output error"), std::string::npos);
    life.wait_error = 0;
    EXPECT_EQ(life.watch(), fifo);
    life.act("remove later/a.log.1; remove later");
    EXPECT_EQ(life.watch(), fifo);
    EXPECT_EQ(life.done, life.rows.size());
    expect_each_once(life.store(), life.written);
    EXPECT_EQ(run_tool("veldar/veldar", {"-s", life.store(), "fsck", "--quiet"}).status, 0);
    std::istringstream notes(read_file(life.store() + "/" + tool::STORE_WATCHED));
    for (std::string note; std::getline(notes, note);) EXPECT_TRUE(note.ends_with(".log")) << note;
}

TEST_F(FollowedLogs, EveryFailureIsMadeGood) {
    const no_flushes flushes;
    followed_life counted;
    counted.watch(fault_action::fail, ~uint64_t{0});
    for (size_t i = 0; i < counted.places.size(); i += SANITIZED_PART) {
        SCOPED_TRACE(counted.places[i]);
        followed_life life;
        const std::string said = life.watch(fault_action::fail, counted.places[i]);
        SCOPED_TRACE(said);
        while (life.done < life.rows.size()) life.watch();
        expect_each_once(life.store(), life.written);
    }
}

}  // namespace
}  // namespace veldar
