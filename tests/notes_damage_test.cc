// What a store keeps beside its slices, damaged: every command tells it or reads on, none of them otherwise than before.
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "libzero/endian.h"
#include "searchthing/base/st_init.h"
#include "tests/support/damage.h"
#include "tests/support/load_fixture.h"
#include "tests/support/sampled.h"
#include "tests/support/temp_dir.h"
#include "tools/libveldar/store/observer.h"
#include "tools/veldar/commands/command.h"
#include "tools/veldar/output/terminal_observer.h"
#include "xxhash.h"

namespace veldar {

using namespace tool;
namespace {

using words = std::vector<std::string>;

class NotesDamage : public testing::Test {
  protected:
    // Everything that a command says and its status.
    std::string run(void (*add)(const command&), words arguments) {
        terminal_observer terminal;
        const observer prints = terminal_observer_open(&terminal);
        const observer_scope observed(&prints);
        arguments.insert(arguments.end(), {"-s", store});
        std::string status;
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        try {
            const command_group group = {nullptr, {&add, 1}};
            status = std::to_string(command_line_run({&group, 1}, arguments, ""));
        } catch (const failure_t& failure) {
            status = failure.message;
        }
        const std::string out = testing::internal::GetCapturedStdout() + testing::internal::GetCapturedStderr();
        // Without what depends on the clock, and on where the logs are.
        static const std::regex other(", [0-9.]+ s|byte [0-9]+|[0-9.]+ \\w+ of index|-[0-9]+\\.tsidx");
        const std::string told = std::regex_replace(out + status + "\n", std::regex(dir.path()), "DIR");
        return std::regex_replace(told, other, "");
    }

    // Four logs: one renamed and begun anew, one that has grown, one forgotten, one compressed.
    void SetUp() override {
        st_init("notes_damage_test");
        const auto lines = [](int from, int to, const std::string& word) {
            std::string text;
            for (int i = from; i < to; i++) text += "2024-01-01T00:00:" + std::to_string(i) + "Z " + word + "\n";
            return text;
        };
        const std::string a = dir.file("a.log"), b = dir.file("b.log"), c = dir.file("c.log");
        write_file(a, lines(10, 22, "alpha"));
        write_file(b, lines(20, 30, "beta"));
        write_file(c, lines(12, 18, "gamma"));
        write_gzip(dir.file("d.log.gz"), lines(14, 28, "delta"));
        logs = {"load", a, b, c, dir.file("d.log.gz"), "--host", "here", "--no-optimize"};
        run(add_load_command, logs);
        std::filesystem::rename(a, a + ".1");
        write_file(a, lines(30, 38, "alpha"));
        write_file(b, lines(20, 36, "beta"));
        run(add_forget_command, {"forget", c});
        run(add_load_command, logs);
        write_file(dir.file("m"), "up{host=\"a\"} 1 100\nup{host=\"b\"} 2 101\n");
        run(add_metrics_command, {"metrics", "load", dir.file("m")});
        logs.push_back(a + ".1");
        std::filesystem::rename(store, kept);
    }

    // What becomes of the store when a file of it holds this.
    std::string outcome(const std::string& file, const std::string& bytes) {
        std::filesystem::remove_all(store);
        std::filesystem::copy(kept, store, std::filesystem::copy_options::recursive);
        write_file(store + file, bytes);
        std::string told = run(add_search_command, {"search", "*", "--format", "raw"});
        told += run(add_load_command, logs);
        told += run(add_metrics_command, {"metrics", "load", dir.file("m")});
        return told + run(add_search_command, {"search", "*", "--format", "tsv"}) + run(add_fsck_command, {"fsck"});
    }

    const temp_dir dir;
    const std::string store = dir.file("store"), kept = dir.file("kept");
    const lock_optimism optimism;
    const no_flushes flushes;
    words logs;
};

TEST_F(NotesDamage, IsToldOrReadAsBefore) {
    std::string all = outcome("/id", read_file(kept + "/id"));
    for (const char* file : {"/store", "/id", "/hosts", "/sourcetypes", "/metrics/metrics.loaded",
                             "/bucket-000001/veldar-autogen-params.dat"}) {
        damage_outcomes outcomes;
        const damage_options options = {
            .truncation_step = 9 * SANITIZED_PART, .flip_step = 3 * SANITIZED_PART, .word_step = 50};
        damage_sweep(read_file(kept + file), options, [&](const std::string& bytes, const std::string& what) {
            outcomes.add(what, 0, outcome(file, bytes));
        });
        all += std::string(file) + "\n" + outcomes.text();
    }
    expect_kept("notes-damage", all);
}

// The source map's words, where the checksum of their record is made anew.
TEST_F(NotesDamage, OfTheSourceMapBehindItsChecksums) {
    const std::string file = "/bucket-000001/source.map", bytes = read_file(kept + file);
    damage_outcomes outcomes;
    for (size_t at = 0, next = 0, record = 0; at < bytes.size(); at = next, record++) {
        const uint32_t size = load_le32(&bytes[at]), kind = load_le32(&bytes[at + 4]);
        next = at + 8 + size + 8;
        const size_t end = kind == 1 ? at + 8 + 60 : next - 8;  // a path is another one each time
        for (size_t word = 4; at + word + 4 <= end; word += 4 * SANITIZED_PART) {
            const uint32_t was = load_le32(&bytes[at + word]);
            for (const uint32_t is : {was ^ 1, word % 8 == 0 ? 0 : ~0u}) {
                std::string damaged = bytes;
                store_le32(&damaged[at + word], is);
                store_le64(&damaged[next - 8], XXH64(&damaged[at], 8 + size, at));
                if (is != was) outcomes.add("word " + std::to_string(256 * record + word), 0, outcome(file, damaged));
            }
        }
    }
    expect_kept("source-map-damage", outcomes.text());
}

}  // namespace
}  // namespace veldar
