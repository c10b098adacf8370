// Runs the built tool on generated logs and reads everything back: each event's address leads to a raw record, and the
// records of all events together must be those of the logs, each once.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <random>

#include "searchthing/slice/warmslice.h"
#include "searchthing/values/tsval.h"
#include "tests/support/faults.h"
#include "tests/support/packing.h"
#include "tests/support/run_tool.h"
#include "tests/support/temp_dir.h"
#include "tools/libveldar/load/loader.h"
#include "tools/libveldar/store/disk_file.h"
#include "tools/libveldar/store/failure.h"
#include "tools/libveldar/store/foreign_content.h"
#include "tools/libveldar/store/raw_reader.h"
#include "tools/libveldar/store/slices.h"
#include "tools/veldar/output/terminal_observer.h"

namespace veldar {

using namespace tool;
namespace {

using lines = std::vector<std::string>;

lines log_lines(int first, int count) {
    lines out;
    for (int i = first; i < first + count; i++) {
        char time[40];
        std::snprintf(time, sizeof time, "2024-03-%02dT%02d:%02d:%02dZ", 1 + i / 86400, i / 3600 % 24, i / 60 % 60,
                      i % 60);
        out.push_back(std::string(time) + " request " + std::to_string(i) + " user=u" + std::to_string(i % 50));
    }
    return out;
}

std::string joined(const lines& all) {
    std::string text;
    for (const std::string& line : all) text += line + "\n";
    return text;
}

lines operator+(lines a, const lines& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

lines sorted(lines all) {
    std::sort(all.begin(), all.end());
    return all;
}

void append(const std::string& path, const std::string& text) {
    write_file(path, read_file(path) + text);
}

void write_gzip(const std::string& path, const std::string& text) {
    write_file(path, gzip_member(text));
}

struct event_seen {
    st_time_t time;
    std::string record;
};

// Every event of a bucket with its raw record.
void read_bucket(const std::string& directory, std::vector<event_seen>* events) {
    std::string error;
    const raw_reader_ptr raw = raw_reader_open(directory, &error);
    ASSERT_NE(raw, nullptr) << error;
    for (const std::string& name : slice_names(directory)) {
        warm_rc_t rc;
        WARM* slice = st_warm_slice_open_rdonly((directory + "/" + name).c_str(), &rc);
        ASSERT_NE(slice, nullptr) << name << ": " << rc.message;
        for (uint32_t id = 0; id < st_warm_slice_values(slice); id++) {
            st_tsval value;
            raw_record record;
            ASSERT_EQ(tsval_reader_decode(&slice->tsval_reader, id, &value, false, id, &rc), 0) << rc.message;
            if (value.s == ST_DELETED_SOURCE) continue;
            EXPECT_EQ(value.measure, 0u);
            EXPECT_TRUE(raw_reader_fetch(raw.get(), value.address, &record, &error)) << error;
            events->push_back({value.time, record.text});
        }
        st_warm_slice_close(slice);
    }
}

class Load : public testing::Test {
  protected:
    std::string file(const std::string& name) const { return dir.file(name); }
    std::string store() const { return dir.file("store"); }

    tool_result load(const lines& arguments, const tool_options& options = {}) const {
        const tool_result result = run_tool("veldar/veldar", lines{"-s", store(), "load"} + arguments, options);
        EXPECT_LT(result.status, 1000 + (options.signal != 0 ? 1000 : 0)) << result.err;
        return result;
    }
    void load_all(const lines& arguments) const {
        const tool_result result = load(arguments);
        const bool undated = result.err.find(" a time that is understood") != std::string::npos;
        EXPECT_EQ(result.status, undated ? 3 : 0) << result.err;
    }

    std::vector<event_seen> events(const std::string& path) const {
        std::vector<event_seen> all;
        for (const std::string& directory : store_bucket_directories(path)) read_bucket(directory, &all);
        return all;
    }
    lines records() const { return records(store()); }
    lines records(const std::string& path) const {
        lines all;
        for (const event_seen& event : events(path)) all.push_back(event.record);
        return sorted(all);
    }

    // Changes copies of the store, each while another call fails and then again: these records are left.
    void fail_each_call(const lines& left, const std::function<void(loader*, bool failing)>& change) const {
        load_options options;
        options.no_fsync = true;
        for (uint64_t n = 1, calls = 1; n <= calls; n++) {
            const temp_dir copy;
            const std::string path = copy.file("store");
            std::filesystem::copy(store(), path, std::filesystem::copy_options::recursive);
            for (const bool failing : {true, false}) {
                const std::unique_ptr<fault_step> step(failing ? new fault_step(fault_action::fail, n, EIO) : nullptr);
                loader load;
                try {
                    loader_open(&load, path, options);
                    change(&load, failing);
                    loader_close(&load);
                } catch (const failure_t& failure) {
                    EXPECT_TRUE(failing) << n << failure.message;
                    loader_give_up(&load);
                }
                if (failing) calls = step->calls();
            }
            ASSERT_EQ(records(path), left) << n;
        }
    }

    // The source map as a load leaves it that is killed right after its slices became visible: the marks behind the
    // last stretch are missing.
    void forget_mark() const {
        const std::string path = store_bucket_directories(store()).back() + "/source.map";
        std::string bytes = read_file(path);
        constexpr size_t MARK = 24, TAIL = 40;
        bytes.resize(bytes.size() - MARK - TAIL);
        write_file(path, bytes);
    }

    temp_dir dir;
};

TEST_F(Load, ATableGoesOnInTheMiddleWithTheColumnsThatItHadThere) {
    const std::string head = "#Fields: date time a b\n", log = file("w3c.log");
    write_file(log, head + "2024-03-01 00:00:00 1 2\n");
    load_all({log});
    append(log, "2024-03-01 00:00:01 1 3\n#Fields: b date time\n4 2024-03-01 00:00:02\n");
    load_all({log});
    append(log, "4 2024-03-01 00:00:03\n" + head + "2024-03-01 00:00:04 1 4\n");
    load_all({log});
    for (const auto& [query, count] : {std::pair("a=1", "3\n"), {"b=4", "3\n"}, {"*", "5\n"}}) {
        EXPECT_EQ(run_tool("veldar/veldar", {"-s", store(), "count", query}).out, count) << query;
    }
}

TEST_F(Load, TakesOnlyWhatIsNew) {
    const lines all = log_lines(0, 2000);
    const std::string half = joined(log_lines(0, 1000)), end = "2024-03-01T01:00:00Z the e";
    write_file(file("a.log"), half + end);
    tool_options closed;
    closed.closed = true;
    EXPECT_EQ(load({file("a.log"), file("a.log")}, closed).status, 0);
    EXPECT_EQ(read_file(store() + "/sourcetypes"), "iso8601\n");
    const tool_result waiting = load({file("a.log")});
    EXPECT_NE(waiting.err.find("1 unfinished last line waits"), std::string::npos) << waiting.err;
    EXPECT_EQ(records(), log_lines(0, 1000));
    load_all({file("a.log"), "--flush"});
    const lines first = log_lines(0, 1000) + lines{end};
    EXPECT_EQ(records(), sorted(first)) << "the last line stands as it stood, without its newline";
    append(file("a.log"), "nd\n" + joined(log_lines(1000, 500)));
    load_all({file("a.log")});
    EXPECT_EQ(records(), sorted(first + lines{"nd"} + log_lines(1000, 500)));
    write_file(file("copy.log"), read_file(file("a.log")) + joined(log_lines(1500, 500)));
    load_all({file("copy.log"), file("copy.log")});
    EXPECT_EQ(records(), sorted(all + lines{end, "nd"})) << "a copy that has grown goes on, too";
}

TEST_F(Load, KnowsRenamedRotatedAndCompressedFiles) {
    lines next = log_lines(2000, 500);
    const lines all = log_lines(0, 2000), newest = log_lines(2500, 500);
    const std::string log = file("a.log");
    write_file(log, joined(all));
    load_all({log});
    append(log, joined(next));
    std::filesystem::rename(log, file("a.log.1"));
    write_file(log, joined(newest));
    load_all({log, file("a.log.1")});
    EXPECT_EQ(records(), sorted(all + next + newest));
    std::filesystem::remove(file("a.log.1"));
    lines grown = all + next;
    for (const packing& way : PACKINGS) {
        const std::string packed = file("a.log.2") + way.suffix;
        const lines more = log_lines(3000 + 100 * static_cast<int>(way.format), 100);
        write_file(packed, way.pack(joined(grown)));
        EXPECT_EQ(records(), sorted(grown + newest)) << "found again beside where it was";
        grown = grown + more;
        write_file(packed, way.pack(joined(grown)));
        load_all({log, packed});
        EXPECT_EQ(records(), sorted(grown + newest)) << packed;
        if (way.format != PACKED_ZSTD) std::filesystem::remove(packed);
    }
    next.assign(grown.begin() + static_cast<std::ptrdiff_t>(all.size()), grown.end());
    std::filesystem::create_directory(file("archive"));
    std::filesystem::rename(file("a.log.2.zst"), file("archive/old.zst"));
    load_all({file("archive/old.zst")});
    EXPECT_EQ(records(), sorted(all + next + newest)) << "found where it was loaded from last";
    std::filesystem::remove(file("archive/old.zst"));
    std::string error;
    raw_record record;
    const raw_reader_ptr raw = raw_reader_open(store_bucket_directories(store())[0], &error);
    EXPECT_FALSE(raw_reader_fetch(raw.get(), 0, &record, &error));
    EXPECT_NE(error.find("archive/old.zst"), std::string::npos) << error;
}

// More than the head that tells files apart is as it was.
TEST_F(Load, AFileWithOtherContentIsANewOne) {
    const std::string log = file("a.log");
    const lines same = log_lines(0, 2000);
    int copies = 0;
    for (const int next : {2000, 5000, 7000}) {
        write_file(log, joined(same + log_lines(next, 1000 + next / 5000 * 500)));
        load_all({log});
        std::filesystem::copy_file(log, file("copy" + std::to_string(copies++)));
    }
    load_all({log, file("copy0"), file("copy1")});
    EXPECT_EQ(run_tool("veldar/veldar", {"-s", store(), "count", "*"}).out, "10000\n")
        << "longer, then of the same size";
}

TEST_F(Load, FilesThatOnlyBeginAlikeAreTwo) {
    const std::string banner = "service started\n";
    write_file(file("a.log"), banner);
    load_all({file("a.log")});
    write_file(file("b.log"), banner + "of b\n");
    load_all({file("b.log")});
    append(file("a.log"), "of a\n");
    write_file(file("copy.log"), read_file(file("a.log")));
    load_all({file("copy.log")});
    std::filesystem::remove(file("copy.log"));
    EXPECT_EQ(records(), (lines{"of a", "of b", "service started", "service started"})) << "read from the original";
    append(file("a.log"), joined(log_lines(0, 1)));
    load_all({file("a.log")});
    EXPECT_EQ(read_file(store() + "/sourcetypes"), "text\niso8601\n") << "more lines tell more";
    write_file(file("c.log"), "c begins\n2024-03-01T00:00:00Z without its e");
    load_all({file("c.log")});
    EXPECT_EQ(run_tool("veldar/veldar", {"-s", store(), "count", "begins", "sourcetype=text"}).out, "1\n");
    append(file("b.log"), "more\n");
    load_all({file("b.log")});
    write_file(file("c.log"), banner);
    load_all({file("c.log")});
    append(file("c.log"), "of b\nmore\n");
    load_all({file("c.log")});
    EXPECT_EQ(run_tool("veldar/veldar", {"-s", store(), "count", "more"}).out, "2\n") << "of two files that grew alike";
}

TEST_F(Load, KilledAtAnyMomentGivesEachLineOnce) {
    const lines a = log_lines(0, 8000), b = log_lines(8000, 8000), c = log_lines(16000, 8000);
    write_file(file("a.log"), joined(a));
    write_gzip(file("b.log.gz"), joined(b));
    write_file(file("c.log"), joined(c));
    const lines arguments = {file("a.log"), file("b.log.gz"), file("c.log"), "--max-values",
                             "600",         "--bucket-bytes", "300000"};
    int killed = 0;
    for (unsigned after = 3000;; after += 7000) {
        const tool_result result = load(arguments, {"", killed % 4 == 3 ? SIGTERM : SIGKILL, after});
        if (result.status == 0) break;
        ASSERT_TRUE(result.status == 1000 + SIGKILL || result.status == 130 || result.status == 1000 + SIGTERM)
            << result.status << result.err;
        killed++;
    }
    EXPECT_GT(killed, 2);
    EXPECT_GT(store_bucket_directories(store()).size(), 3u);
    EXPECT_EQ(records(), sorted(a + b + c));
}

// A log that was loaded in part, grew and was compressed: what a killed load of it has noted says nothing of its lines.
TEST_F(Load, KilledOverACompressedLogThatHadGrown) {
    const lines part = log_lines(0, 40), all = log_lines(0, 90);
    const std::string log = file("a.log"), packed = file("a.log.gz");
    write_file(log, joined(part));
    load_all({log});
    std::filesystem::remove(log);
    write_gzip(packed, joined(all));
    const temp_dir before;
    std::filesystem::copy(store(), before.path(), std::filesystem::copy_options::recursive);
    bool is_over = false;
    for (uint64_t call = 1; !is_over && !HasFailure(); call++) {
        SCOPED_TRACE(call);
        std::filesystem::remove_all(store());
        std::filesystem::copy(before.path(), store(), std::filesystem::copy_options::recursive);
        const pid_t child = ::fork();
        if (child == 0) {
            load_options options;
            loader one;
            std::string error;
            const fault_step death(fault_action::kill_before, call);
            loader_open(&one, store(), options);
            static_cast<void>(loader_load(&one, packed, &error));
            loader_close(&one);
            ::_exit(0);
        }
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        is_over = WIFEXITED(status);
        load_all({packed});
        EXPECT_EQ(records(), sorted(all));
    }
    EXPECT_NE(load({packed}).err.find("1 file with nothing new"), std::string::npos);
}

// The piece that was read last ends within a line.
TEST_F(Load, ALogThatCannotBeReadFurtherGivesNoHalfLine) {
    load_options options;
    options.no_fsync = options.no_optimize = true;
    const std::string log = file("a.log");
    const lines all = log_lines(0, 4000);
    write_file(log, joined(all));
    uint64_t hits = 1;
    for (uint64_t nth = 1; hits != 0 && !HasFailure(); nth++) {
        const std::string path = file("store" + std::to_string(nth));
        for (const bool fails : {true, false}) {
            loader one;
            std::string error;
            loader_open(&one, path, options);
            const fault broken(fault_call::pread, fails ? nth : ~uint64_t{0}, EIO);
            try {
                static_cast<void>(loader_load(&one, log, &error));
                loader_close(&one);
            } catch (const failure_t&) {
                loader_give_up(&one);
            }
            if (fails) hits = broken.hits();
        }
        EXPECT_EQ(records(path), sorted(all)) << nth;
    }
}

// At any call of one who follows it: what was read then may be of the old content, of the new one, or of both.
TEST_F(Load, ALogThatIsCopiedAndTruncatedWhileItIsRead) {
    load_options options;
    options.no_fsync = options.no_optimize = options.follows = true;
    for (const bool copied : {false, true}) {
        for (const int anew : {5, 20, 60}) {
            for (uint64_t n = 1, calls = 1; n <= calls && !HasFailure(); n++) {
                SCOPED_TRACE(testing::Message() << (copied ? "copied before, " : "") << anew << " at call " << n);
                const temp_dir place;
                const std::string log = place.file("a.log"), piece = log + ".1", path = place.file("store");
                loader one;
                loader_open(&one, path, options);
                std::set<std::string> errors;
                const auto follow = [&](const std::string& name, bool is_over) {
                    uint32_t number = 0;
                    std::string error;
                    if (!std::filesystem::exists(name)) return;
                    if (!loader_follow(&one, {name, log, is_over}, &number, &error)) errors.insert(error);
                };
                write_file(log, joined(log_lines(0, 10)));
                follow(log, false);
                loader_sync(&one);
                append(log, joined(log_lines(10, 15)));
                if (copied) std::filesystem::copy_file(log, piece);
                {
                    const fault_step step(n, [&] {
                        if (!copied) std::filesystem::copy_file(log, piece);
                        write_file(log, joined(log_lines(25, anew)));
                    });
                    if (copied) follow(piece, true);
                    follow(log, false);
                    calls = step.calls();
                }
                for (int i = 0; i < 2; i++) {
                    follow(piece, true);
                    follow(log, false);
                }
                loader_close(&one);
                EXPECT_EQ(records(path), sorted(log_lines(0, 25 + anew)));
                EXPECT_TRUE(errors.empty() || errors == std::set<std::string>{"its end cannot be read"});
            }
        }
    }
}

TEST_F(Load, KilledBetweenTheSliceAndTheMark) {
    const std::string log = file("a.log");
    const lines all = log_lines(0, 100);
    const std::string more = "2024-03-02T00:00:00Z more", still = "2024-03-02T00:00:01Z still";
    write_file(log, joined(all) + "2024-03-02T00:00:00Z the last li");
    load_all({log, "--flush"});
    forget_mark();
    append(log, "ne\n" + more + "\n");
    load_all({log});
    const lines settled = all + lines{"2024-03-02T00:00:00Z the last li", more, "ne"};
    EXPECT_EQ(records(), sorted(settled)) << "up to where the killed load had read";
    forget_mark();
    const temp_dir away, far;
    std::filesystem::rename(log, away.file("a.log"));
    write_file(file("b.log"), joined(log_lines(200, 50)));
    load_all({file("b.log")});
    std::filesystem::rename(away.file("a.log"), log);
    append(log, still + "\n");
    load_all({log});
    const lines whole = sorted(settled + lines{still} + log_lines(200, 50));
    EXPECT_EQ(records(), whole) << "also when the file was away at first";
    forget_mark();
    EXPECT_EQ(records(), whole) << "one record behind the last mark";
    std::filesystem::rename(log, log + ".1");
    append(log + ".1", "the end\n");
    write_file(log, joined(log_lines(300, 200)));
    load_all({log, log + ".1"});
    EXPECT_EQ(records(), sorted(whole + lines{"the end"} + log_lines(300, 200))) << "another has its name";
    forget_mark();
    std::filesystem::rename(log, far.file("moved"));
    append(far.file("moved"), "later\n");
    load_all({far.file("moved")});
    EXPECT_EQ(records(), sorted(whole + lines{"the end", "later"} + log_lines(300, 200)))
        << "found again by its content";
}

TEST_F(Load, KilledBeforeTheSliceWasVisible) {
    const lines a = log_lines(0, 100), b = log_lines(100, 100);
    write_file(file("a.log"), joined(a));
    write_file(file("b.log"), joined(b));
    load_all({file("a.log"), file("b.log")});
    forget_mark();
    const std::string bucket = store_bucket_directories(store())[0];
    const std::string slice = bucket + "/" + slice_names(bucket)[0];
    std::filesystem::rename(slice, slice.substr(0, slice.size() - 6) + ".pre-tsidx");
    EXPECT_TRUE(records().empty());
    load_all({file("b.log")});
    load_all({file("a.log")});
    EXPECT_EQ(records(), sorted(a + b));
    const lines names = disk_list_directory(bucket);
    EXPECT_TRUE(std::none_of(names.begin(), names.end(), [](const auto& name) { return name.ends_with("pre-tsidx"); }));
    std::filesystem::remove(bucket + "/" + slice_names(bucket)[0]);
    load_all({file("a.log"), file("b.log")});
    EXPECT_EQ(records().size(), 100u) << "what was deleted on purpose does not come back";
}

TEST_F(Load, KilledBeforeTheMarkDeletedEventsStayDeleted) {
    write_file(file("a.log"), joined(log_lines(0, 100)));
    for (int i = 0; i < 2; i++) {
        load_all({file("a.log")});
        if (i == 0) forget_mark();
        EXPECT_EQ(run_tool("veldar/veldar", {"-s", store(), "delete", "*"}).status, i);
        EXPECT_TRUE(records().empty());
    }
    append(file("a.log"), joined(log_lines(100, 10)));
    load_all({file("a.log")});
    EXPECT_EQ(records(), log_lines(100, 10));
    const lines names = disk_list_directory(store_bucket_directories(store())[0]);
    EXPECT_TRUE(std::none_of(names.begin(), names.end(), [](const auto& name) { return name.starts_with("deleted"); }));
}

// A call that fails is never taken for nothing there.
TEST_F(Load, EveryFailingCallIsTold) {
    const lines all = log_lines(0, 60);
    write_file(file("a.log"), joined(log_lines(0, 40)));
    load_all({file("a.log"), "--bucket-bytes", "600"});
    write_file(file("up.om"), "up 1 5\n");
    EXPECT_EQ(run_tool("veldar/veldar", {"-s", store(), "metrics", "load", file("up.om")}).status, 0);
    const size_t slices = slices_list_all(store()).slices->size();
    for (uint64_t n = 1, calls = 1; n <= calls; n++) {
        const fault_step step(fault_action::fail, n, EIO);
        try {
            const slice_set found = slices_list_all(store());
            EXPECT_TRUE(found.slices->size() == slices || !found.errors->empty()) << n;
        } catch (const failure_t& failure) {
            EXPECT_EQ(failure.status, OUTCOME_IO) << n << failure.message;
        }
        calls = step.calls();
    }
    append(file("a.log"), joined(log_lines(40, 20)));
    fail_each_call(all, [&](loader* load, bool failing) {
        std::string error;
        EXPECT_TRUE(loader_load(load, file("a.log"), &error) || failing) << error;
    });
    std::string mark = read_file(store() + "/store");
    mark[3] ^= 1;
    write_file(store() + "/store", mark);
    for (const lines& command : {lines{"count", "*"}, {"fsck"}, {"load", file("a.log")}, {"metrics", "ls"}}) {
        EXPECT_EQ(run_tool("veldar/veldar", lines{"-s", store()} + command).status, 5) << command[0];
    }
}

TEST_F(Load, RecordsAndTimes) {
    write_file(file("a.log"),
               "no time yet\n"
               "2024-05-01 10:00:00 ERROR failed code=7\n\tat Main.run(Main.java:5) depth=2\n at x\n\n"
               "then this\n"
               "2024-05-01 10:00:05 done\n");
    load_all({file("a.log"), "--host", "Web1", "--sourcetype", "app"});
    append(file("a.log"), "trailing\n");
    load_all({file("a.log"), "--host", "Web1"});
    const std::vector<event_seen> all = events(store());
    lines seen;
    for (const event_seen& event : all) seen.push_back(time_text(event.time).substr(11) + " " + event.record);
    EXPECT_EQ(sorted(seen),
              (lines{"10:00:00 2024-05-01 10:00:00 ERROR failed code=7\n\tat Main.run(Main.java:5) depth=2\n"
                     " at x\n\nthen this",
                     "10:00:00 no time yet", "10:00:05 2024-05-01 10:00:05 done", "10:00:05 trailing"}));
    write_file(file("sys.log"), "<38>Jun  9 04:47:44 combo sshd[19939]: told\n");
    load_all({file("sys.log"), "--host", "Web3"});
    EXPECT_EQ(run_tool("veldar/veldar", {"-s", store(), "count", "told", "host=web3"}).out, "1\n") << "not combo";
}

// What is cut out of a file is what is read back of it, also by a load that goes on in its middle.
TEST_F(Load, RecordsOfAllKinds) {
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
    write_file(file("many"), many);
    load_all({file("many")});
    EXPECT_EQ(records().size(), all.size() + 22) << "500 lines each";
}

TEST_F(Load, AnUnfinishedEndWaitsWhileTheFileIsYoung) {
    const std::string log = file("a.log"), json = file("b.json"),
                      object = "{\"time\":\"2024-05-01T10:00:00Z\",\n\"a\":1}\n";
    write_file(log, joined(log_lines(0, 3)) + std::string(100000, 'x'));
    write_file(json, object + "{\"time\":\n");
    const tool_result result = load({log, json});
    EXPECT_NE(result.err.find("2 unfinished last lines wait"), std::string::npos) << result.err;
    EXPECT_EQ(records().size(), 4u);
    append(json, "\"2024-05-01T10:00:01Z\"}\n");
    load_all({json});
    EXPECT_EQ(records()[3], "{\"time\":\n\"2024-05-01T10:00:01Z\"}");
    const timespec old[2] = {{1714640400, 0}, {1714640400, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, log.c_str(), old, 0), 0);
    load_all({log});
    EXPECT_EQ(records().size(), 6u);
}

TEST_F(Load, ForgottenFilesAreLoadedAnew) {
    const lines a = log_lines(0, 30), b = log_lines(100, 30);
    write_file(file("a.log"), joined(a));
    write_file(file("b.log"), joined(b));
    load_all({file("a.log"), file("b.log"), "--bucket-bytes", "700"});
    append(file("a.log"), joined(log_lines(50, 5)));
    load_all({file("a.log")});
    const auto forget = [this](const std::string& path) {
        return run_tool("veldar/veldar", {"-s", store(), "forget", path});
    };
    EXPECT_EQ(forget(file("never")).status, 1);
    std::filesystem::copy_file(file("a.log"), file("copy"));
    EXPECT_NE(load({file("copy")}).err.find("copy: nothing new, its content was loaded from " + file("a.log")),
              std::string::npos);
    fail_each_call(b, [&](loader* load, bool failing) {
        const std::optional<uint64_t> deleted = loader_forget(load, file("copy"), false);
        EXPECT_TRUE(failing || !deleted || *deleted <= 35u);
    });
    write_file(file("a.log"), "gone\n");
    EXPECT_EQ(forget(file("a.log")).out, file("a.log") + ": 35 events deleted\n") << "by its path";
    EXPECT_EQ(records(), b);
    EXPECT_TRUE(load({file("copy")}).err.starts_with("35 events"));
    EXPECT_TRUE(load({"--again", file("copy"), file("b.log"), "--tz", "+01:00"}).err.starts_with("65 events"));
    EXPECT_EQ(load({"--again", file("b.log"), "--format", "syslog"}).status, 3);
    EXPECT_EQ(records(), sorted(a + b + log_lines(50, 5)));
}

TEST_F(Load, TimesAreFoundInAnyPlaceAndTheirLackIsTold) {
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
    append(file("a.log"), "WARN 02/13/2024 10:00:02 year 13/02/2024 10:00:03\n");
    load_all({file("a.log")});
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
    append(file("w.json"), R"({"at":{"when":"06/05/2024 10:00:00"},"time":1})"
                           "\n");
    load_all({file("w.json")});
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

TEST_F(Load, ALogMayTakeAnotherFormInItsMiddle) {
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
    write_file(file("a.log"), text.substr(0, text.rfind("c=30") + 5));
    load_all({file("a.log"), "--flush"});
    write_file(file("a.log"), text);
    load_all({file("a.log"), "--flush"});
    load_all({file("a.log"), "--flush"});
    const auto count = [this](const lines& asked) {
        return run_tool("veldar/veldar", lines{"-s", store(), "count"} + asked).out;
    };
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
}

TEST_F(Load, FormatsOfTheUsersOwn) {
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
    append(file("pay.log"), "<info> 24.11.2024 10:00 eve paid 1\n");
    load_all({file("pay.log")});
    const auto count = [this](const lines& asked) {
        return run_tool("veldar/veldar", lines{"-s", store(), "count"} + asked).out;
    };
    EXPECT_EQ(count({"user=bob sum>5 level=warn", "--since", "2024-11-23T10:00", "--until", "2024-11-23T10:01"}),
              "1\n");
    EXPECT_EQ(count({"time=*"}), "0\n") << "the time is no field";
    EXPECT_EQ(count({"\"ann paid\" sourcetype=pay"}), "1\n");
    EXPECT_EQ(count({"eve", "--since", "2024-11-24T10:00", "--until", "2024-11-24T10:00:00.5"}), "1\n")
        << "its shape is kept when the file is gone";
}

TEST_F(Load, APipeIsKept) {
    const lines all = log_lines(0, 4000);
    write_file(file("in"), joined(all));
    ASSERT_EQ(::mkfifo(file("pipe").c_str(), 0600), 0);
    std::jthread writer([&] { write_file(file("pipe"), joined(all)); });
    const tool_result plain = load({"-", file("in")}, {file("pipe")});
    writer.join();
    EXPECT_EQ(plain.status, 0) << plain.err;
    ASSERT_EQ(run_tool("veldar/veldar", {"-s", store(), "forget", file("in")}).out,
              file("in") + ": 4,000 events deleted\n")
        << "a file is not known by a pipe";
    write_gzip(file("in.gz"), joined(log_lines(4000, 4000)));
    const tool_result packed = load({"-", "--bucket-bytes", "100000"}, {file("in.gz")});
    EXPECT_EQ(packed.status, 0) << packed.err;
    std::filesystem::remove(file("in"));
    std::filesystem::remove(file("in.gz"));
    EXPECT_EQ(records(), sorted(log_lines(0, 8000)));
    forget_mark();
    const std::string bucket = store_bucket_directories(store()).back();
    std::filesystem::remove(bucket + "/" + slice_names(bucket)[0]);
    write_file(file("again"), joined(all));
    load_all({file("again")});
    EXPECT_EQ(records(), sorted(log_lines(0, 8000) + all))
        << "the next load completes what a killed one had taken from a pipe, and knows no file by it";
    for (int i = 0; i < 20; i++) ::symlink("/dev/full", (bucket + "/spool-" + std::to_string(i)).c_str());
    const tool_result full = load({"-"}, {file("again")});
    EXPECT_TRUE(full.status == 5 && full.err.find("cannot make " + bucket + "/spool-") != full.err.npos) << full.err;
}

TEST_F(Load, WhatCannotBeReadIsNamedAndTheRestIsLoaded) {
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
    write_file(file("cut.gz"), packed);
    load_all({file("cut.gz")});
    EXPECT_EQ(records().size(), all.size() + 10 + 1) << "whole now: one line had been cut in two";
    EXPECT_EQ(run_tool("veldar/veldar", {"load"}).status, 2);
    EXPECT_EQ(load({file("a.log"), "--format", "nonsense"}).status, 2);
    EXPECT_EQ(run_tool("veldar/veldar", {"-s", file("a.log"), "load", file("a.log")}).status, 5);
    EXPECT_EQ(run_tool("veldar/veldar", {"-s", dir.path(), "load", file("a.log")}).status, 2)
        << "a directory of something else";
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

TEST_F(Load, DirectoriesAreLoadedInTheOrderOfNames) {
    for (const char* name : {"logs", "logs/b", "logs/b/deep", "logs/index"})
        std::filesystem::create_directory(file(name));
    for (int i = 0; const char* name : {"logs/a.log", "logs/b/c.log", "logs/b/deep/d.log", "logs/c.log"}) {
        write_file(file(name), joined(log_lines(100 * i++, 5)));
    }
    write_file(file("outside.log"), joined(log_lines(500, 5)));
    std::filesystem::create_directory_symlink(file("logs"), file("logs/b/round"));
    std::filesystem::create_symlink(file("outside.log"), file("logs/b/link"));
    ASSERT_EQ(run_tool("veldar/veldar", {"put", file("logs/index"), "-"}, {"/dev/null"}).status, 0);
    write_file(file("logs/index/1-1-1.tsidx"), "");
    std::filesystem::create_directory(file("logs/own"));
    EXPECT_EQ(run_tool("veldar/veldar", {"-s", file("logs/own"), "load", file("outside.log")}).status, 0);
    const tool_result result = load({"-r", file("logs")});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_NE(result.err.find("index: an index directory; left out"), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("own: a store of veldar; left out"), std::string::npos) << result.err;
    EXPECT_EQ(records(),
              sorted(log_lines(0, 5) + log_lines(100, 5) + log_lines(200, 5) + log_lines(300, 5) + log_lines(500, 5)));
    EXPECT_EQ(read_file(store() + "/sources").find("logs/a.log\n" + file("logs/b/c.log")), dir.path().size() + 1);
}

TEST_F(Load, WideTextIsDecoded) {
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
        write_file(path, bytes + (big ? std::string(1, '\0') : "h"));
        load_all({path});
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
    write_file(file("mark"), "\xEF\xBB\xBF" + text);
    load_all({file("mark")});
    EXPECT_EQ(run_tool("veldar/veldar", {"-s", store(), "count", "x=1"}).out, "6001\n");
}

TEST_F(Load, LongLinesAndOddBytes) {
    lines all = {"2024-05-01 10:00:00 start", "2024-05-01 10:00:01 " + std::string(10 << 20, 'x') + " end",
                 std::string("nul \0 and \xff\xfe bytes", 18), "2024-05-01 10:00:02 stop"};
    for (size_t size = RECORD_MAX - 3; size < RECORD_MAX + 3; size++) {
        all.push_back("2024-05-01 10:00:03 " + std::string(size - 20, 'y'));
    }
    write_file(file("a.log"), joined(all));
    load_all({file("a.log")});
    EXPECT_EQ(records() == sorted(all), true);
}

uint64_t events_in(const std::string& directory) {
    THING* const thing = st_open_for_read(directory.c_str());
    uint64_t count = 0;
    EXPECT_EQ(st_event_count(thing, nullptr, &count), 0);
    EXPECT_EQ(st_close(thing), 0);
    return count;
}

// Many batches: what is said to be in slices is there, and a failing write is told while a prefix of the events stays.
TEST(EventQueue, PutsInOrderAndTellsOfFailures) {
    constexpr uint32_t EVENTS = 12000;
    for (const uint64_t failing_write : {0u, 1u, 3u}) {
        const temp_dir dir;
        event_queue queue;
        event_queue_open(&queue, dir.path(), {.max_values = 1024}, false);
        term_set terms;
        std::string words;  // more than go with others
        for (int i = 0; i < 17000; i++) words += "w" + std::to_string(i) + " ";
        uint64_t slices = 0;
        uint32_t put = 0;
        const fault full(fault_call::write, failing_write == 0 ? UINT64_MAX : failing_write, ENOSPC);
        try {
            for (; put < EVENTS; put++) {
                term_set_reset(&terms);
                for (int i = 0; i < 8; i++)
                    term_set_add_field(&terms, "field" + std::to_string(i), std::to_string(put));
                term_set_add_text(&terms, put % 4000 == 1 ? std::string(1 << 20, 'x') + " every"
                                          : put == 5000   ? words + "every"
                                                          : "every");
                EXPECT_TRUE(event_queue_put(&queue, {.time = static_cast<st_time_t>(put), .address = put}, &terms));
                if (std::exchange(slices, queue.slices) == queue.slices) continue;
                EXPECT_TRUE(queue.next_address <= put && events_in(dir.path()) >= queue.next_address) << put;
            }
            event_queue_close(&queue);
            EXPECT_EQ(failing_write, 0u);
            EXPECT_GT(slices, 2u);
        } catch (const failure_t& failure) {
            EXPECT_NE(failing_write, 0u) << failure.message;
            EXPECT_NE(failure.message.find("space"), std::string::npos) << failure.message;
            EXPECT_FALSE(queue.is_open);
        }
        const uint64_t stored = events_in(dir.path());
        EXPECT_TRUE(failing_write == 0 ? stored == EVENTS : stored < put) << stored;
        THING* const thing = st_open_for_read(dir.path().c_str());
        std::vector<st_tsval> first(EVENTS);
        const st_time_t latest = static_cast<st_time_t>(stored) - 1;
        EXPECT_EQ(st_get(thing, "every", 0, latest, first.data(), EVENTS), static_cast<int>(stored)) << "a prefix";
        EXPECT_EQ(st_close(thing), 0);
    }
}

// A slice cannot be written while the last lines are read, or between two files: that all is loaded is not said, and
// nothing behind what is lost becomes visible.
TEST_F(Load, AFailureBesideTheReaderIsToldAndLeavesAPrefix) {
    const lines first = log_lines(0, 5000), second = log_lines(5000, 100);
    write_file(file("a.log"), joined(first));
    write_file(file("b.log"), joined(second));
    load_options options;
    options.no_fsync = options.no_optimize = true;
    options.limits.max_values = 1024;
    for (const bool two_files : {false, true}) {
        const std::string path = file(two_files ? "two" : "one");
        {
            loader load;
            std::string error;
            loader_open(&load, path, options);
            const fault unlinked(fault_call::link, 2, EIO);
            try {
                EXPECT_TRUE(loader_load(&load, file("a.log"), &error)) << error;
                {
                    std::unique_lock guard(load.events.mutex);
                    load.events.changed.wait(guard, [&load] { return !load.events.busy; });
                }
                EXPECT_EQ(unlinked.hits(), 1u) << "in the batch that was handed over";
                EXPECT_TRUE(!two_files || loader_load(&load, file("b.log"), &error)) << error;
                loader_close(&load);
                ADD_FAILURE() << "all is said to be loaded";
            } catch (const failure_t&) {
                loader_give_up(&load);
            }
        }
        const lines kept = records(path);
        EXPECT_TRUE(kept.size() < first.size() && std::equal(kept.begin(), kept.end(), first.begin())) << kept.size();
        EXPECT_EQ(run_tool("veldar/veldar", {"-s", path, "load", file("a.log"), file("b.log")}).status, 0);
        EXPECT_EQ(records(path), sorted(first + second));
    }
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
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "\r[###############               ]  50% 1,234 events, 1.0 MB, 0.0 MB/s\x1b[K"
              "\r[##############################] 100% merging, 3.0 MB of 2.0 MB, 0.0 MB/s\x1b[K\r\x1b[Kveldar: ^[\n");
    EXPECT_EQ(bytes_text(999) + bytes_text(1000) + bytes_text(1000000000) + number_text(999) + number_text(1000),
              "999 bytes1.0 kB1.00 GB9991,000");
}

TEST(Put, BadLinesAndSignals) {
    const temp_dir dir;
    write_file(dir.file("bad.tsv"), "1\t1\t1\t1\t1\t0\ta\n2\t2\t1\t1\t1\tx\tb\n3\t3\t1\t1\t1\t0\tc");
    const tool_result strict = run_tool("veldar/veldar", {"put", dir.file("bad1"), dir.file("bad.tsv")});
    EXPECT_EQ(strict.status, 2);
    EXPECT_NE(strict.err.find("line 2: the measure is not a number"), std::string::npos) << strict.err;
    EXPECT_NE(strict.err.find("put so far: 1 event,"), std::string::npos) << strict.err;
    EXPECT_EQ(slice_names(dir.file("bad1")).size(), 1u) << "the line before it is kept";
    const tool_result skipping =
        run_tool("veldar/veldar", {"put", dir.file("bad2"), "-", "--skip-bad"}, {dir.file("bad.tsv")});
    EXPECT_EQ(skipping.status, 0);
    EXPECT_NE(skipping.err.find("2 events"), std::string::npos) << skipping.err;
    EXPECT_NE(skipping.err.find("1 line refused"), std::string::npos) << skipping.err;
    // A signal ends it; what came before is kept.
    ASSERT_EQ(::mkfifo(dir.file("pipe").c_str(), 0600), 0);
    const unique_fd pipe(::open(dir.file("pipe").c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_EQ(::write(pipe.get(), "4\t4\t1\t1\t1\t0\td\n", 14), 14);
    tool_result ended;
    for (unsigned after = 100000; ended.status != 130 && after < 10000000; after *= 2) {
        ended = run_tool("veldar/veldar", {"put", dir.file("bad3"), "-"}, {dir.file("pipe"), SIGTERM, after});
    }
    EXPECT_TRUE(ended.status == 130 && ended.err.starts_with("interrupted; put so far: 1 event,")) << ended.err;
}

}  // namespace
}  // namespace veldar
