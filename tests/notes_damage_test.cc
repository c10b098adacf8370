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

using map_record = std::pair<uint32_t, std::string>;  // kind and payload

std::string map_of(const std::vector<map_record>& records) {
    std::string bytes;
    for (const auto& [kind, payload] : records) {
        std::string record(8, '\0');
        store_le32(record.data(), static_cast<uint32_t>(payload.size()));
        store_le32(&record[4], kind);
        record += payload;
        const uint64_t checksum = XXH64(record.data(), record.size(), bytes.size());
        record.resize(record.size() + 8);
        store_le64(&record[record.size() - 8], checksum);
        bytes += record;
    }
    return bytes;
}

// The source map's words and records, with the right checksums.
TEST_F(NotesDamage, OfTheSourceMapBehindItsChecksums) {
    const std::string file = "/bucket-000001/source.map", bytes = read_file(kept + file);
    std::vector<map_record> records;
    for (size_t at = 0; at < bytes.size(); at += 16 + load_le32(&bytes[at]))
        records.emplace_back(load_le32(&bytes[at + 4]), bytes.substr(at + 8, load_le32(&bytes[at])));
    ASSERT_EQ(map_of(records), bytes);
    damage_outcomes outcomes;
    const auto note = [&](size_t place, const std::vector<map_record>& damaged) {
        outcomes.add("word " + std::to_string(place), 0, outcome(file, map_of(damaged)));
    };
    for (size_t i = 0; i < records.size(); i += SANITIZED_PART) {
        const auto& [kind, payload] = records[i];
        const size_t end = kind == 1 ? 60 : payload.size();  // a path is another one each time
        for (size_t word = 0; word + 4 <= end; word += 4) {
            const uint32_t was = load_le32(&payload[word]);
            for (const uint32_t is : {was ^ 1, word % 8 == 0 ? 0 : ~0u}) {
                std::vector<map_record> damaged = records;
                store_le32(&damaged[i].second[word], is);
                if (is != was) note(256 * i + word, damaged);
            }
        }
        const auto with = [&](const auto& change) {
            std::vector<map_record> damaged = records;
            change(&damaged, damaged.begin() + static_cast<std::ptrdiff_t>(i));
            note(256 * i + 128, damaged);
        };
        with([](auto*, auto one) { one->first = 9; });
        with([](auto*, auto one) { one->second.pop_back(); });
        with([](auto*, auto one) { one->second.resize(20); });
        with([](auto*, auto one) { one->second.clear(); });
        with([](auto*, auto one) { one->second += "1234"; });
        with([](auto* all, auto one) { all->erase(one); });
        with([](auto* all, auto one) { all->insert(one, *one); });
        with([](auto* all, auto one) { all->push_back(*one); });
        with([](auto* all, auto one) { all->erase(one + 1, all->end()); });
    }
    expect_kept("source-map-damage", outcomes.text());
}

}  // namespace
}  // namespace veldar
