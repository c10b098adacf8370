// Logs that are followed: what is written to them is there once, whatever happens to them.
#include "tools/libveldar/load/watch.h"

#include <fcntl.h>
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
#include <set>
#include <sstream>
#include <thread>
#include <utility>

#include "tests/support/directory.h"
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
        write_lines(500);
        out << "2024-01-01T00:00:00Z an end that wai" << std::flush;
        EXPECT_EQ(watch->end(SIGTERM), 0) << read_file(store + ".err");
        expect_each_once(store, written);
        EXPECT_EQ(run({"fsck", "--quiet"}).status, 0);
        out << "ts event n" << written++ << "x\n" << std::flush;
    }
}

// Logs that are rotated in every way while one watch after the other follows them; time passes only while it waits.
class followed_life {
  public:
    followed_life() {
        fs::create_directory(dir_.file("real"));
        write(path("real/r.log"), 2);
        fs::create_symlink(path("real/r.log"), path("link.log"));
        write(app, 5);
        const auto rotate = [this] {
            for (int i = 9; i > 0; i--) {
                for (const char* end : {"", ".gz"}) {
                    const std::string from = app + "." + std::to_string(i) + end;
                    if (fs::exists(from)) fs::rename(from, app + "." + std::to_string(i + 1) + end);
                }
            }
        };
        const auto rename = [=, this] {
            rotate();
            fs::rename(app, app + ".1");
        };
        const auto copy = [this](size_t size) {
            write_file(app + ".copy", read_file(app).substr(0, size));
            stamp(app + ".copy");
            fs::rename(app + ".copy", app + ".1");
        };
        const auto begin_anew = [this] {
            fs::resize_file(app, 0);
            write(app, 1);
        };
        const auto pack = [this](const std::string& from, size_t size) {
            write_file(from + ".gz", gzip_member(read_file(from)).substr(0, size));
            stamp(from + ".gz");
        };
        steps = {
            [this] { write(app, 3); },
            [=, this] {
                rename();
                write(app + ".1", 2);  // by who has not heard of it yet
                write(app, 2);
            },
            [this] { write(app + ".1", 1); },
            [this] { add(app, half_ = line(), 0, 30); },
            [this] { add(app, half_, 30); },
            [=] {
                rotate();
                copy(~size_t{0});
                begin_anew();
            },
            [this] { write(app, 400); },
            [=] {
                rotate();
                copy(4096);
            },
            [=] { copy(20000); },
            [=] {
                copy(~size_t{0});
                begin_anew();
            },
            [=, this] {
                write(app, 400);
                rename();
            },
            [=, this] {
                write(app, 2);
                pack(app + ".1", 800);
            },
            [=, this] {
                pack(app + ".1", ~size_t{0});
                fs::last_write_time(app + ".1.gz", fs::last_write_time(app + ".1"));
                fs::remove(app + ".1");
            },
            [this] {
                write(path("new-1.log"), 2);
                fs::create_directory(path("later"));
                write(path("later/a.log"), 2);
            },
            [this] {
                fs::rename(path("new-1.log"), path("old-1.log"));
                write(path("old-1.log"), 1);
                write(path("new-2.log"), 1);
                ::mkfifo(path("new-3.log").c_str(), 0600);
            },
            [this] {
                fs::rename(path("real/r.log"), path("real/r.log.1"));
                write(path("real/r.log.1"), 1);
                write(path("real/r.log"), 1);
            },
            [=, this] {
                rename();
                fs::create_symlink(app, app);
                pack(app + ".1", 60);  // and never ends
            },
            [this] {
                fs::remove(app);
                write(app, 3);
                fs::create_directory(path("absent"));
                write(path("absent/b.log"), 1);
                write(path("new-\n.log"), 1);
                pause_ = 3'600'000;
                waits_ = 0;
            },
            [this] {
                EXPECT_EQ(held(), (std::set<std::string>{app, path("real/r.log"), path("new-2.log"), path("new-\n.log"),
                                                         path("later/a.log"), path("absent/b.log")}));
                EXPECT_LT(waits_, 600u) << "in an hour";
                fs::remove(app + ".1.gz");
                write(app, 1);
            },
            nullptr,
            [=, this] {
                rename();
                write(app, 1);
                pack(app + ".1", ~size_t{0});
                fs::remove(app + ".1");
                rename();
                write(app, 1);
                fs::rename(path("later/a.log"), path("later/a.log.1"));
                write(path("later/a.log.1"), 1);
            },
            [this] { write(app, 2); },
            nullptr,
        };
    }

    // Follows them through the steps to the next null, or a failure, and ends while what the last one wrote is new.
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
            tool::loader_open(&load, store, options);
            load.shown.is_hidden = true;
            tool::watch_logs(&load,
                             {{app, path("link.log"), path("new-*.log"), path("later/*.log"), path("absent/b.log")}});
            tool::loader_close(&load);
            done++;
        } catch (const tool::failure_t& failure) {
            said += failure.message + "\n" + tool::loader_give_up(&load);
        }
        tool::work_interrupted = 0;
        places = step.firsts();
        return said;
    }

    std::vector<std::function<void()>> steps;
    size_t done = 0;               // of them
    int wait_error = 0;            // with which waits fail
    std::vector<uint64_t> places;  // the first calls of each, of a watch that counts
    int written = 0;

  private:
    // Before each wait of a watch: with which errno it fails, or 0.
    int wait() {
        if (time_.milliseconds() < due_) return ++waits_ % 5 == 0 ? EINTR : wait_error;
        due_ = time_.milliseconds() + std::exchange(pause_, 20'000);
        if (steps.at(done)) steps[done++]();
        if (steps[done] == nullptr) tool::work_interrupted = 1;
        return 0;
    }
    std::string path(const std::string& name) const { return dir_.file(name); }
    std::string line() {
        char text[80];
        std::snprintf(text, sizeof text, "2024-01-01T%02d:%02d:%02dZ event n%dx of an application\n", written / 3600,
                      written / 60 % 60, written % 60, written);
        written++;
        return text;
    }
    void add(const std::string& path, const std::string& text, size_t from = 0, size_t size = std::string::npos) {
        std::ofstream(path, std::ios::app) << text.substr(from, size);
        stamp(path);
    }
    void write(const std::string& path, int count) {
        std::string text;
        for (int i = 0; i < count; i++) text += line();
        add(path, text);
    }
    // As late as it is by the clock.
    static void stamp(const std::string& path) {
        timespec times[2];
        ::clock_gettime(CLOCK_REALTIME, &times[0]);
        times[1] = times[0];
        EXPECT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << path;
    }

    // Logs that this process holds open.
    std::set<std::string> held() const {
        std::set<std::string> names;
        for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
            std::error_code gone;
            const std::string name = fs::read_symlink(entry, gone);
            if (name.starts_with(dir_.path()) && name.find(".log") != name.npos) names.insert(name);
        }
        return names;
    }

    const temp_dir dir_;
    std::string half_;
    uint64_t waits_ = 0, due_ = 0,
             pause_ = 20'000;  // how many; when the next step is, and how much later the one behind
    const simulated_waits time_{[this] { return wait(); }};

  public:
    const std::string store = path("store"), app = path("app.log");
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
    const std::string front = fs::path(life.app).parent_path().string() + "/",
                      fifo = front + "new-3.log: no regular file";
    EXPECT_EQ(life.watch(), fifo + "; it is left out\n" + life.app + ": Too many levels of symbolic links\n");
    life.wait_error = EIO;
    EXPECT_NE(life.watch().find("cannot wait for changes: Input/output error"), std::string::npos);
    life.wait_error = 0;
    EXPECT_EQ(life.watch(), fifo + "; it is left out\n");
    EXPECT_EQ(life.done, life.steps.size());
    expect_each_once(life.store, life.written);
    EXPECT_EQ(run_tool("veldar/veldar", {"-s", life.store, "fsck", "--quiet"}).status, 0);
    std::istringstream notes(read_file(life.store + "/" + tool::STORE_WATCHED));
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
        while (life.done < life.steps.size()) life.watch();
        expect_each_once(life.store, life.written);
    }
}

}  // namespace
}  // namespace veldar
