// Names that the engine and the store make or read, with something else in their places: no command waits for ever,
// touches what is outside of the store, or gives a wrong answer.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "searchthing/format/tsidx_names.h"
#include "tests/support/hot_events.h"
#include "tests/support/packing.h"
#include "tests/support/run_tool.h"
#include "tests/support/temp_dir.h"

namespace veldar {
namespace {

namespace fs = std::filesystem;

enum kind_t { FIFO, LINK, DANGLING, DIRECTORY, DEVICE, KINDS };
constexpr const char* KIND_NAMES[] = {"a FIFO", "a link", "a dangling link", "a directory", "a device"};

std::string lines_of(const std::string& word, int from, int count) {
    std::string text;
    for (int i = from; i < from + count; i++) {
        char time[32];
        std::snprintf(time, sizeof time, "2024-01-01T00:%02d:%02dZ", i / 60, i % 60);
        text += std::string(time) + " event " + word + std::to_string(i) + "\n";
    }
    return text;
}

class Planted : public testing::Test {
  protected:
    void SetUp() override {
        write_file(dir.file("a.log"), lines_of("a", 0, 50));
        write_file(dir.file("b.log.gz"), gzip_member(lines_of("b", 50, 50)));
        write_file(dir.file("pipe"), lines_of("p", 100, 50));
        write_file(dir.file("m.om"), "m{a=\"b\"} 1 1704067000\nm{a=\"b\"} 2 1704067500\n");
        for (const char* log : {"a.log", "b.log.gz"}) {
            ASSERT_EQ(run("whole", {"load", "--no-optimize", dir.file(log)}).status, 0);
        }
        ASSERT_EQ(run("whole", {"load", "--no-optimize", "-"}, dir.file("pipe")).status, 0);
        ASSERT_EQ(run("whole", {"metrics", "load", dir.file("m.om")}).status, 0);
        slice = fs::path(files_in(dir.file("whole/bucket-000001"), ".tsidx")[0]).filename();
        write_file(dir.file("more.log"), lines_of("c", 200, 20));
        write_file(dir.file("more.om"), "n 1 1704067000\n");
    }

    tool_result run(const std::string& store, std::vector<std::string> arguments, const std::string& input = "") {
        arguments.insert(arguments.begin(), {"-s", dir.file(store)});
        return run_tool("veldar/veldar", arguments, {.input = input, .signal = SIGKILL, .after_us = 30'000'000});
    }
    // Puts a thing in the place; a link leads to what was there, outside.
    void plant(const std::string& path, kind_t kind) const {
        const std::string outside = dir.file("outside/thing");
        fs::remove_all(dir.file("outside"));
        fs::create_directories(dir.file("outside"));
        if (kind == LINK && !fs::exists(path)) write_file(outside, "precious\n");
        if (kind == LINK && fs::exists(path)) fs::rename(path, outside);
        fs::create_directories(fs::path(path).parent_path());
        fs::remove_all(path);
        if (kind == FIFO) {
            ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
        }
        if (kind == LINK) fs::create_symlink(outside, path);
        if (kind == DANGLING) fs::create_symlink(dir.file("outside/nothing"), path);
        if (kind == DIRECTORY) write_file((fs::create_directory(path), path + "/inside"), "precious\n");
        if (kind == DEVICE) fs::create_symlink("/dev/zero", path);
    }
    std::map<std::string, std::string> outside() const {
        std::map<std::string, std::string> all;
        for (const auto& entry : fs::recursive_directory_iterator(dir.file("outside"))) {
            all[entry.path()] = entry.is_regular_file() ? read_file(entry.path()) : "";
        }
        return all;
    }

    temp_dir dir;
    std::string slice;
    const lock_optimism optimism;
};

TEST_F(Planted, AtEveryName) {
    const std::string bucket = "bucket-000001/", metrics = "metrics/";
    const std::string names[] = {
        "store",
        "lock",
        "hosts",
        "hosts.part",
        "sources",
        "sourcetypes.part",
        "watched",
        "bucket-000002",
        "quarantine",
        "quarantine/rebuild.plan",
        "metrics",
        "bucket-000001.lock",
        bucket + "source.map",
        bucket + "source.map.part",
        bucket + "points-2",
        bucket + "points-2.part",
        bucket + "spool-3",
        bucket + "spool-4",
        bucket + "spool-5",
        bucket + "deleted-99999",
        bucket + "quarantine",
        bucket + slice,
        bucket + slice + ".seal",
        bucket + slice + ".deleted",
        bucket + "7-7-458752.pre-tsidx",
        bucket + "7-7-7.tsidx",
        bucket + TSIDX_PARAMS_NAME,
        bucket + TSIDX_NEED_OPTIMIZE_NAME,
        bucket + "veldar-merge-manifest.dat",
        bucket + "veldar-merge-manifest.dat.tmp",
        bucket + "merged_lexicon.lex",
        bucket + TSIDX_OPTIMIZE_RESULT_NAME,
        metrics + "metrics.lock",
        metrics + "metrics.loaded",
        metrics + "metrics.batch",
        metrics + "metrics.batch/commit",
        metrics + "7-7-7.tsidx",
        metrics + TSIDX_PARAMS_NAME,
    };
    const std::vector<std::vector<std::string>> commands = {
        {"count", "event"},
        {"search", "event", "a7"},
        {"load", dir.file("more.log")},
        {"load", "-"},
        {"metrics", "load", dir.file("more.om")},
        {"metrics", "query", "m"},
        {"delete", "a9", "--yes"},
        {"seal"},
        {"optimize", "--all"},
        {"fsck"},
        {"fsck", "--against-source"},
        {"salvage"},
        {"rebuild"},
        {"forget", dir.file("a.log")},
        {"retain", "--older-than", "2024-01-01T00:00:05Z"},
        {"gc", "--yes"},
        {"info"},
    };
    const bool brief = ::getenv("VELDAR_TORTURE") == nullptr;
    int cases = 0, number = 0;
    for (const std::string& name : names) {
        for (int kind = 0; kind < KINDS; kind++) {
            if (kind == LINK && name == "metrics") continue;  // it may lie on another disk
            // A kind that comes in its turn, and links, which are what leads outside.
            if (brief && kind != LINK && kind != number % KINDS) continue;
            if (brief && kind == LINK && number % 2 == 0 && kind != number % KINDS) continue;
            SCOPED_TRACE(KIND_NAMES[kind] + (" at " + name));
            fs::remove_all(dir.file("s"));
            fs::copy(dir.file("whole"), dir.file("s"), fs::copy_options::recursive);
            plant(dir.file("s/" + name), static_cast<kind_t>(kind));
            const auto before = outside();
            cases++;
            for (const std::vector<std::string>& command : commands) {
                const tool_result result = run("s", command, command.back() == "-" ? dir.file("pipe") : "");
                EXPECT_LT(result.status, 1000) << command[0] << ": " << result.err;
                EXPECT_TRUE(result.status == 0 || result.status == 1 || !result.err.empty() || !result.out.empty())
                    << command[0] << " says nothing";
                if (&command == &commands[0] && result.status == 0) {
                    const bool hides =
                        name.ends_with(".deleted");  // whatever it is: its name says that the slice is gone
                    EXPECT_EQ(result.out, hides ? "100\n" : "150\n");
                }
                EXPECT_EQ(outside(), before) << command[0] << " " << result.err;
                if (outside() != before) break;
            }
        }
        number++;
    }
    EXPECT_GE(cases, 40);
}

}  // namespace
}  // namespace veldar
