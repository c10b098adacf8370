// What is new in a file is loaded, once: whatever happens to the file, to the load and to what is beneath it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>

#include "tests/support/load_fixture.h"
#include "tools/libveldar/store/disk_file.h"

namespace veldar {
namespace {

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
    grow(file("a.log"), "nd\n" + joined(log_lines(1000, 500)));
    EXPECT_EQ(records(), sorted(first + lines{"nd"} + log_lines(1000, 500)));
    const std::string grown = read_file(file("a.log")) + joined(log_lines(1500, 500));
    std::filesystem::remove(file("a.log"));
    take(file("copy.log"), grown, {file("copy.log")});
    EXPECT_EQ(records(), sorted(all + lines{end, "nd"})) << "a copy that has grown goes on, too";
}

TEST_F(Load, KnowsRenamedRotatedAndCompressedFiles) {
    lines next = log_lines(2000, 500);
    const lines all = log_lines(0, 2000), newest = log_lines(2500, 500);
    const std::string log = file("a.log");
    take(log, joined(all));
    append(log, joined(next));
    std::filesystem::rename(log, file("a.log.1"));
    take(log, joined(newest), {file("a.log.1")});
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
        take(log, joined(same + log_lines(next, 1000 + next / 5000 * 500)));
        std::filesystem::copy_file(log, file("copy" + std::to_string(copies++)));
    }
    load_all({log, file("copy0"), file("copy1")});
    EXPECT_EQ(count({"*"}), "10000\n") << "longer, then of the same size";
}

TEST_F(Load, FilesThatOnlyBeginAlikeAreTwo) {
    const std::string banner = "service started\n";
    take(file("a.log"), banner);
    take(file("b.log"), banner + "of b\n");
    append(file("a.log"), "of a\n");
    take(file("copy.log"), read_file(file("a.log")));
    std::filesystem::remove(file("copy.log"));
    EXPECT_EQ(records(), (lines{"of a", "of b", "service started", "service started"})) << "read from the original";
    grow(file("a.log"), joined(log_lines(0, 1)));
    EXPECT_EQ(read_file(store() + "/sourcetypes"), "text\niso8601\n") << "more lines tell more";
    take(file("c.log"), "c begins\n2024-03-01T00:00:00Z without its e");
    EXPECT_EQ(count({"begins", "sourcetype=text"}), "1\n");
    grow(file("b.log"), "more\n");
    take(file("c.log"), banner);
    grow(file("c.log"), "of b\nmore\n");
    EXPECT_EQ(count({"more"}), "2\n") << "of two files that grew alike";
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

// A log that was loaded in part, grew, took another form and was compressed: what a killed load of it has noted says
// nothing of its lines.
TEST_F(Load, KilledOverACompressedLogThatHadGrown) {
    const lines part = log_lines(0, 40);
    lines all = log_lines(0, 90);
    for (int i = 0; i < 40; i++) all.push_back(R"({"time":"2024-03-01T01:00:00Z","n":)" + std::to_string(i) + "}");
    const std::string log = file("a.log"), packed = file("a.log.gz");
    take(log, joined(part));
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
    EXPECT_EQ(read_file(store() + "/sourcetypes"), "iso8601\njson\n");
    EXPECT_EQ(run_tool("veldar/veldar", {"-s", store(), "forget", packed}).out, packed + ": 130 events deleted\n");
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
                EXPECT_TRUE(errors.empty() || errors == std::set<std::string>{"its end cannot be read: it was cut"});
            }
        }
    }
}

TEST_F(Load, KilledBetweenTheSliceAndTheMark) {
    const std::string log = file("a.log");
    const lines all = log_lines(0, 100);
    const std::string more = "2024-03-02T00:00:00Z more", still = "2024-03-02T00:00:01Z still";
    take(log, joined(all) + "2024-03-02T00:00:00Z the last li", {"--flush"});
    forget_mark();
    grow(log, "ne\n" + more + "\n");
    const lines settled = all + lines{"2024-03-02T00:00:00Z the last li", more, "ne"};
    EXPECT_EQ(records(), sorted(settled)) << "up to where the killed load had read";
    forget_mark();
    const temp_dir away, far;
    std::filesystem::rename(log, away.file("a.log"));
    take(file("b.log"), joined(log_lines(200, 50)));
    std::filesystem::rename(away.file("a.log"), log);
    grow(log, still + "\n");
    const lines whole = sorted(settled + lines{still} + log_lines(200, 50));
    EXPECT_EQ(records(), whole) << "also when the file was away at first";
    forget_mark();
    EXPECT_EQ(records(), whole) << "one record behind the last mark";
    std::filesystem::rename(log, log + ".1");
    append(log + ".1", "the end\n");
    take(log, joined(log_lines(300, 200)), {log + ".1"});
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
    grow(file("a.log"), joined(log_lines(100, 10)));
    EXPECT_EQ(records(), log_lines(100, 10));
    const lines names = disk_list_directory(store_bucket_directories(store())[0]);
    EXPECT_TRUE(std::none_of(names.begin(), names.end(), [](const auto& name) { return name.starts_with("deleted"); }));
}

TEST_F(Load, ForgottenFilesAreLoadedAnew) {
    const lines a = log_lines(0, 30), b = log_lines(100, 30);
    write_file(file("a.log"), joined(a));
    write_file(file("b.log"), joined(b));
    load_all({file("a.log"), file("b.log"), "--bucket-bytes", "700"});
    grow(file("a.log"), joined(log_lines(50, 5)));
    const auto forget = [this](const std::string& path) {
        return run_tool("veldar/veldar", {"-s", store(), "forget", path});
    };
    EXPECT_EQ(forget(file("never")).status, 1);
    std::filesystem::copy_file(file("a.log"), file("copy"));
    EXPECT_NE(load({file("copy")}).err.find("copy: nothing new, its content was loaded from " + file("a.log")),
              std::string::npos);
    write_file(file("a.log"), "gone\n");
    EXPECT_EQ(forget(file("a.log")).out, file("a.log") + ": 35 events deleted\n") << "by its path";
    EXPECT_EQ(records(), b);
    EXPECT_TRUE(load({file("copy")}).err.starts_with("35 events"));
    EXPECT_TRUE(load({"--again", file("copy"), file("b.log"), "--tz", "+01:00"}).err.starts_with("65 events"));
    EXPECT_EQ(load({"--again", file("b.log"), "--format", "syslog"}).status, 3);
    EXPECT_EQ(records(), sorted(a + b + log_lines(50, 5)));
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
    take(file("again"), joined(all));
    EXPECT_EQ(records(), sorted(log_lines(0, 8000) + all))
        << "the next load completes what a killed one had taken from a pipe, and knows no file by it";
    for (int i = 0; i < 20; i++) ::symlink("/dev/full", (bucket + "/spool-" + std::to_string(i)).c_str());
    const tool_result full = load({"-"}, {file("again")});
    EXPECT_TRUE(full.status == 5 && full.err.find("cannot make " + bucket + "/spool-") != full.err.npos) << full.err;
}

// In the middle of a record: what is kept ends before it, and with the rest sent again nothing is missing or twice.
TEST_F(Load, AnInterruptedPipeSaysWhatToSendAgain) {
    const lines all = log_lines(0, 4000);
    const std::string text = joined(all), kept = "the first ";
    ASSERT_EQ(::mkfifo(file("pipe").c_str(), 0600), 0);
    const unique_fd stays_open(::open(file("pipe").c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_GT(::fcntl(stays_open.get(), F_SETPIPE_SZ, 1 << 20), static_cast<int>(text.size()));
    ASSERT_TRUE(::write(stays_open.get(), text.data(), text.size() - 10) == static_cast<ssize_t>(text.size()) - 10);
    const tool_result ended = run_tool("veldar/veldar", {"-s", store(), "load", "-"},
                                       {.input = file("pipe"), .signal = SIGINT, .after_us = 3000000});
    EXPECT_EQ(ended.status, 130) << ended.err;
    const size_t at = ended.err.find(kept);
    ASSERT_NE(at, std::string::npos) << ended.err;
    const size_t size = std::strtoul(&ended.err[at + kept.size()], nullptr, 10);
    EXPECT_EQ(text[size - 1], '\n') << size;
    write_file(file("rest"), text.substr(size));
    EXPECT_EQ(load({"-"}, {file("rest")}).status, 0);
    EXPECT_EQ(records(), sorted(all));
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

TEST_F(Load, AStoreThatCannotBeHadIsTold) {
    write_file(file("a.log"), joined(log_lines(0, 3)));
    const struct {
        int error;  // of the lock, which another holds
        bool stops;
        std::string told;
    } rows[] = {{EINTR, false, ""},
                {EINTR, true, "interrupted, nothing was loaded"},
                {EIO, false, "cannot lock " + store() + "/lock: Input/output error"}};
    for (const auto& row : rows) {
        const load_options options;
        loader load;
        std::string error, told;
        const fault busy(fault_call::flock, 2, row.error, 2), interrupted(fault_call::pwrite, 1, EINTR);
        try {
            work_interrupted = row.stops ? 1 : 0;
            loader_open(&load, store(), options);
            EXPECT_TRUE(loader_load(&load, file("a.log"), &error)) << error;
            loader_close(&load);
        } catch (const failure_t& failure) {
            told = failure.message;
        }
        work_interrupted = 0;
        EXPECT_EQ(told, row.told);
        std::filesystem::remove_all(store());
    }
    load_all({file("a.log")});
    std::string mark = read_file(store() + "/store");
    mark[3] ^= 1;
    write_file(store() + "/store", mark);
    for (const lines& command : {lines{"count", "*"}, {"fsck"}, {"load", file("a.log")}, {"metrics", "ls"}}) {
        EXPECT_EQ(run_tool("veldar/veldar", lines{"-s", store()} + command).status, 5) << command[0];
    }
}

}  // namespace
}  // namespace veldar
