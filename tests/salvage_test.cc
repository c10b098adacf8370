#include "tools/libveldar/check/salvage.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "searchthing/base/st_init.h"
#include "searchthing/directory/merge_manifest.h"
#include "searchthing/directory/tsidx_merge_settle.h"
#include "searchthing/seal/slice_seal.h"
#include "searchthing/upkeep/tsidx_upkeep.h"
#include "tests/support/directory.h"
#include "tests/support/fsck.h"
#include "tests/support/hot_events.h"
#include "tests/support/packing.h"
#include "tests/support/run_tool.h"
#include "tests/support/sampled.h"
#include "tests/support/seals.h"

namespace veldar {
namespace {

namespace fs = std::filesystem;

constexpr char TOOL[] = "veldar/veldar";

class Salvage : public directory_test {
  protected:
    // One slice of random events, merged or as it was written; none of them is deleted.
    std::string put_slice(uint64_t seed, bool merged) {
        events_ = forge_random_events(seed, 60);
        for (forge_event& event : events_) event.deleted = false;
        sort_by_arrival(&events_);
        for (const bool second : {false, true}) {
            const directory_ptr tsidx = open_directory(dir_.path());
            for (size_t i = second ? 30 : 0; i < (second ? 60u : 30u); i++) {
                EXPECT_EQ(put_event(tsidx.get(), events_[i]), 0);
            }
        }
        if (merged) {
            EXPECT_EQ(st_tsidx_optimize_n(open_directory(dir_.path()).get(), 1, 2, 0, 0, nullptr, 0, 0, true), 0);
        }
        events_ = as_stored(events_);
        return files_in(dir_.path(), ".tsidx").at(0);
    }

    const temp_dir dir_;
    std::vector<forge_event> events_;
};

bool same_but_terms(const forge_event& a, const forge_event& b) {
    return a.time == b.time && a.address == b.address && a.measure == b.measure && a.s == b.s && a.st == b.st &&
           a.h == b.h;
}

// Whatever is damaged: what a seal proves is saved as it was, the rest is said to be lost, and nothing else comes out.
TEST_F(Salvage, SavesWhatIsProvedAndSaysWhatIsLost) {
    std::mt19937 random(29);
    uint64_t saved = 0, lost_events = 0, lost_terms = 0;
    for (const bool merged : {false, true}) {
        fs::remove_all(dir_.path());
        fs::create_directory(dir_.path());
        const std::string slice = put_slice(merged ? 5 : 4, merged), whole = read_file(slice);
        const std::vector<forge_event> before = as_stored(read_slice(slice));
        std::set<std::string> terms;
        for (const forge_event& event : before) terms.insert(event.terms.begin(), event.terms.end());
        for (int i = 0; i < static_cast<int>(120 / SANITIZED_PART) && !HasFailure(); i++) {
            std::string damaged = whole;
            const size_t at = 120 + random() % (whole.size() - 123);
            for (size_t byte = at; byte < at + 3; byte++) damaged[byte] = static_cast<char>(damaged[byte] ^ 0x5A);
            SCOPED_TRACE(testing::Message() << merged << " at byte " << at << " of " << whole.size());
            write_file(slice, damaged);
            const temp_dir out;
            const salvage_report report = salvage_slice(slice, out.path(), true);
            ASSERT_FALSE(report.is_sound || report.is_repaired);
            if (report.is_hopeless) continue;
            std::vector<forge_event> found;
            if (!report.file.empty()) {
                EXPECT_EQ(fsck_findings(report.file), "");
                found = as_stored(read_slice(report.file));
            }
            EXPECT_EQ(found.size(), report.events);
            EXPECT_EQ(report.events + report.events_lost, before.size());
            EXPECT_EQ(report.terms + report.terms_lost, terms.size());
            size_t next = 0;
            std::set<std::string> missing;
            for (const forge_event& event : before) {
                if (next == found.size() || !same_but_terms(found[next], event)) continue;
                EXPECT_TRUE(std::includes(event.terms.begin(), event.terms.end(), found[next].terms.begin(),
                                          found[next].terms.end()));
                std::set_difference(event.terms.begin(), event.terms.end(), found[next].terms.begin(),
                                    found[next].terms.end(), std::inserter(missing, missing.end()));
                next++;
            }
            EXPECT_EQ(next, found.size()) << "every event that was saved was there before";
            EXPECT_LE(missing.size(), report.terms_lost);
            saved += report.events;
            lost_events += report.events_lost;
            lost_terms += report.terms_lost;
        }
        write_file(slice, whole);
    }
    EXPECT_GT(saved, 1000 / SANITIZED_PART);
    EXPECT_GT(lost_events, 0u);
    EXPECT_GT(lost_terms, 0u);
}

// One bit that changed is found by its seal, wherever it is; without a seal nothing worse comes out than went in.
TEST_F(Salvage, FlipsBitsBackAndLivesWithoutSeals) {
    std::mt19937 random(31);
    const std::string slice = put_slice(6, true), whole = read_file(slice);
    for (int i = 0; i < static_cast<int>(40 / SANITIZED_PART) && !HasFailure(); i++) {
        const size_t at = random() % whole.size();
        std::string damaged = whole;
        damaged[at] = static_cast<char>(damaged[at] ^ 1 << random() % 8);
        write_file(slice, damaged);
        const temp_dir out;
        const salvage_report report = salvage_slice(slice, out.path());
        EXPECT_TRUE(report.is_repaired) << at;
        EXPECT_EQ(report.repaired_bits, 1u);
        EXPECT_TRUE(read_file(report.file) == whole) << at;
    }
    const std::string seal = read_file(seal_path(slice));
    fs::remove(seal_path(slice));
    for (size_t size = whole.size() - 8; size > 100 && !HasFailure(); size -= 2 * SANITIZED_PART) {
        write_file(slice, whole.substr(0, size));
        const temp_dir out;
        salvage_report report;
        EXPECT_NO_THROW(report = salvage_slice(slice, out.path())) << size;
        EXPECT_FALSE(report.is_sound) << size;
    }
    uint64_t saved[2] = {};
    for (int i = 0; i < static_cast<int>(80 / SANITIZED_PART) && !HasFailure(); i++) {
        std::string damaged = whole;
        const size_t at = random() % (whole.size() - 8);
        for (size_t byte = at; byte < at + 8; byte++) damaged[byte] = static_cast<char>(random());
        write_file(slice, damaged);
        SCOPED_TRACE(testing::Message() << "at byte " << at);
        for (const bool sealed : {false, true}) {
            if (sealed) write_file(seal_path(slice), seal);
            const temp_dir out;
            const salvage_report report = salvage_slice(slice, out.path());
            EXPECT_EQ(report.file.empty() ? "" : fsck_findings(report.file), "");
            saved[sealed] += report.is_sound ? 60 : report.events;
            fs::remove(seal_path(slice));
        }
    }
    EXPECT_GT(saved[0], 1200 / SANITIZED_PART);
    EXPECT_GT(saved[1], 600 / SANITIZED_PART);
}

// A log that took another form is two files to the store, and one to rebuild; one that another begins with is its own.
TEST_F(Salvage, LogsOfTwoFormsAreRebuiltWhole) {
    const std::string store = dir_.file("store"), log = dir_.file("log"), aside = store + "/quarantine/bucket-000001";
    const std::string begun = dir_.file("begun");
    std::string text;
    for (int i = 0; i < 2900; i++) {
        char line[160];
        std::snprintf(
            line, sizeof line,
            i < 400 ? "2024-03-01T%02d:%02d:%02dZ n=%d\n" : "{\"time\":\"2024-03-01T%02d:%02d:%02dZ\",\"n\":%d}\n",
            i / 3600, i / 60 % 60, i % 60, i);
        text += line;
    }
    const std::string beginning = text.substr(0, text.find('\n', 57344) + 1);
    const size_t events = 2900 + static_cast<size_t>(std::count(beginning.begin(), beginning.end(), '\n'));
    write_file(log, text);
    write_file(begun, beginning);
    const auto run = [&](std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"-s", store});
        return run_tool(TOOL, arguments);
    };
    ASSERT_EQ(run({"load", begun, log, "--max-values", "1000", "--no-optimize"}).status, 0);
    const std::string bucket = store + "/bucket-000001", all = std::to_string(events) + "\n";
    fs::create_directories(aside);
    const auto lose = [&](const std::string& slice) {
        fs::rename(slice, aside + "/" + fs::path(slice).filename().string());
    };
    lose(files_in(bucket, ".tsidx").at(0));
    const tool_result rebuilt = run({"rebuild"});
    EXPECT_EQ(rebuilt.status, 0) << rebuilt.err;
    EXPECT_EQ(run({"count", "*"}).out, all);
    EXPECT_EQ(run({"load", "--again", log}).status, 0);
    EXPECT_EQ(run({"count", "*"}).out, all);
    // The second of the compressed ones may get the inode of the first log.
    for (const std::string& one : {begun, log}) {
        write_file(one + ".gz", gzip_member(read_file(one)));
        fs::remove(one);
    }
    ASSERT_EQ(run({"load", begun + ".gz", log + ".gz"}).status, 0);
    EXPECT_EQ(run({"count", "*"}).out, all);
    for (const std::string& slice : files_in(bucket, ".tsidx")) lose(slice);
    const tool_result compressed = run({"rebuild"});
    EXPECT_EQ(compressed.status, 0) << compressed.err;
    EXPECT_EQ(run({"count", "*"}).out, all);
}

// From flipped bits to the same answers again, by the commands.
TEST_F(Salvage, AStoreIsRebuiltFromItsLogs) {
    const std::string store = dir_.file("store"), log = dir_.file("log");
    std::string text;
    for (int i = 0; i < 500; i++) {
        char line[160];
        std::snprintf(line, sizeof line, "2024-03-01T00:%02d:%02dZ request %d from user=u%d took %dms\n", i / 60 % 60,
                      i % 60, i, i % 7, i * 13 % 997);
        text += line;
    }
    write_file(log, text);
    const auto run = [&](std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"-s", store});
        return run_tool(TOOL, arguments);
    };
    ASSERT_EQ(run({"load", "--host", "elsewhere", log}).status, 0);
    const auto dumped = [&] {
        std::multiset<std::string> events;
        std::istringstream lines(run({"search", "*", "-n", "10000", "--format", "jsonl"}).out);
        for (std::string line; std::getline(lines, line);) {
            const size_t address = line.find(",\"address\":");
            events.insert(line.erase(address, line.find(",\"raw\"") - address));
        }
        return events;
    };
    const std::multiset<std::string> before = dumped();
    ASSERT_EQ(before.size(), 500u);
    EXPECT_EQ(run({"fsck", "--against-source"}).out,
              "500 events compared with their logs, 0 differ, 0 cannot be read there\n"
              "1 slices checked, no faults\n");
    const std::string bucket = store + "/bucket-000001", slice = files_in(bucket, ".tsidx").at(0);
    std::string damaged = read_file(slice);
    const size_t values = 200, lists = damaged.size() - 300;
    for (size_t i = 0; i < 40; i++) damaged[values + i] ^= 0x33;
    for (size_t i = 0; i < 40; i++) damaged[lists + i] ^= 0x33;
    write_file(slice, damaged);
    EXPECT_EQ(run({"salvage", "--dry-run"}).status, 4);
    EXPECT_TRUE(read_file(slice) == damaged) << "nothing is changed";
    EXPECT_FALSE(fs::exists(store + "/quarantine"));
    // Of one that was killed, before the seal was made anew.
    fs::create_directories(store + "/quarantine/salvage.4194304/copy");
    fs::create_directories(store + "/quarantine/bucket-000001");
    fs::create_hard_link(slice, store + "/quarantine/bucket-000001/" + fs::path(slice).filename().string());
    write_file(store + "/quarantine/bucket-000001/" + fs::path(seal_path(slice)).filename().string(), "old");
    // A merge that holds the directory is waited for.
    const std::string manifest = bucket + "/" + MERGE_MANIFEST_TMP_NAME;
    unique_fd merging = open_file(manifest, merge_manifest_owner_text(merge_owner_self()));
    ASSERT_EQ(tsidx_lock_file(merging.get()), 1);
    std::jthread merger([&] {
        // Until the command has begun, however long it takes to start, and a moment for its first look.
        const auto pause = [] { std::this_thread::sleep_for(std::chrono::milliseconds(400)); };
        for (int i = 0; i < 100 && fs::exists(store + "/quarantine/salvage.4194304"); i++) pause();
        pause();
        fs::remove(manifest);
        merging.reset();
    });
    const tool_result salvaged = run({"salvage", bucket + "/."});
    EXPECT_NE(salvaged.err.find("waiting for a merge in "), std::string::npos) << salvaged.err;
    EXPECT_NE(read_file(seal_path(store + "/quarantine/bucket-000001/" + fs::path(slice).filename().string())), "old");
    EXPECT_FALSE(fs::exists(store + "/quarantine/salvage.4194304"));
    EXPECT_EQ(salvaged.status, 4) << salvaged.out << salvaged.err;
    EXPECT_NE(salvaged.out.find("0 slices sound, 1 damaged: 0 whole again, "), std::string::npos) << salvaged.out;
    EXPECT_NE(salvaged.out.find(" terms (\""), std::string::npos) << "some are named: " << salvaged.out;
    const std::string aside = store + "/quarantine/bucket-000001/" + std::string(fs::path(slice).filename());
    EXPECT_TRUE(read_file(aside) == damaged);
    EXPECT_TRUE(fs::exists(seal_path(aside)));
    EXPECT_EQ(run({"fsck"}).status, 0);
    EXPECT_EQ(seal_troubles(bucket), "");
    fs::rename(log, log + ".1");  // its events have the name of before
    tool_result rebuilt;
    for (unsigned after_us = 10000; rebuilt.status != 0 && !HasFailure(); after_us += 10000) {
        rebuilt = run_tool(TOOL, {"-s", store, "rebuild"}, {.signal = SIGKILL, .after_us = after_us});
        EXPECT_TRUE(rebuilt.status == 0 || rebuilt.status == 1000 + SIGKILL) << rebuilt.status << rebuilt.err;
    }
    EXPECT_NE(rebuilt.out.find(" logs loaded anew, "), std::string::npos) << rebuilt.out;
    EXPECT_EQ(dumped(), before);
    EXPECT_EQ(run({"fsck", "--against-source", "--sample", "5"}).status, 0);
    EXPECT_EQ(run({"rebuild"}).out, "0 slices put aside, 0 logs loaded anew, 0 events\n");
    EXPECT_EQ(run({"optimize", "--all"}).status, 0);
    EXPECT_EQ(run({"rebuild", files_in(bucket, ".tsidx").at(0)}).status, 2) << "one that is in use";
    std::string flipped = read_file(files_in(bucket, ".tsidx").at(0));
    flipped[values] ^= 1;
    write_file(files_in(bucket, ".tsidx").at(0), flipped);
    EXPECT_EQ(run({"salvage"}).status, 0);
    EXPECT_EQ(run({"rebuild"}).out, "0 slices put aside, 0 logs loaded anew, 0 events\n") << "nothing was lost";
    EXPECT_EQ(dumped(), before);
    // Outside of its store a bucket is an index directory as any other.
    fs::copy(bucket, dir_.file("moved"));
    EXPECT_EQ(run({"fsck", dir_.file("moved")}).status, 0);
    // A term that nobody wrote, in a slice that looks sound.
    std::string changed = read_file(files_in(bucket, ".tsidx").at(0));
    changed.replace(changed.find("from"), 4, "fron");
    write_file(files_in(bucket, ".tsidx").at(0), changed);
    fs::remove(files_in(bucket, ".seal").at(0));
    const tool_result other = run({"fsck", "--against-source", "--max", "2"});
    EXPECT_EQ(other.status, 4) << other.out;
    EXPECT_NE(other.out.find("; not in the index: \"from\"; not in the record: \"fron\"\n"), std::string::npos)
        << other.out;
    EXPECT_NE(other.out.find("500 events compared with their logs, 500 differ"), std::string::npos) << other.out;
}

}  // namespace
}  // namespace veldar
