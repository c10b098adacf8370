// The power fails: from a log of what a program did to its files, the states in which the disk may be are made again,
// and each must hold what was said to be there, once, and be good to go on with.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <set>

#include "searchthing/directory/merge_manifest.h"
#include "searchthing/upkeep/tsidx_upkeep.h"
#include "tests/support/directory.h"
#include "tests/support/faults.h"
#include "tests/support/file_log.h"
#include "tests/support/fsck.h"
#include "tests/support/hot_events.h"
#include "tests/support/run_tool.h"
#include "tests/support/seals.h"
#include "tools/libveldar/load/loader.h"

namespace veldar {
namespace {

namespace fs = std::filesystem;

constexpr uint64_t BATCHES = 6, BATCH = 4;

// What is noted: a step has begun, or has been reported as done.
enum step_t : uint64_t { PUT_BEGUN = 100, PUT_DONE = 200, DELETE_BEGUN = 300, DELETE_DONE = 400 };

bool is_long() {
    return ::getenv("VELDAR_TORTURE") != nullptr;
}

void make_tree(const std::map<std::string, std::string>& tree, const std::string& directory) {
    for (const auto& [name, bytes] : tree) {
        const std::string path = directory + "/" + name;
        fs::create_directories(fs::path(path).parent_path());
        write_file(path, bytes);
    }
}

// Calls `check` with each distinct state, up to so many.
size_t each_state(const file_log& log, size_t most, uint32_t seed,
                  const std::function<void(size_t count, const std::map<std::string, std::string>& tree)>& check) {
    std::mt19937 random(seed);
    std::set<std::map<std::string, std::string>> seen;
    const size_t calls = log.operations().size();
    for (size_t tries = 0; seen.size() < most && tries < 20 * most && !testing::Test::HasFailure(); tries++) {
        const size_t count = tries < calls ? tries + 1 : random() % (calls + 1);
        const auto tree = log.after_power_loss(count, random() % 2 == 0, &random);
        if (!seen.insert(tree).second) continue;
        check(count, tree);
    }
    return seen.size();
}

class PowerLoss : public testing::Test {
  protected:
    uint32_t address_of(uint64_t batch, uint64_t i) const { return static_cast<uint32_t>(100 * batch + i); }
    bool is_doomed(uint32_t address) const { return address % 100 == 1 && address < 300; }

    void write(file_log* log, TSIDX* tsidx, uint64_t batch) {
        log->note(PUT_BEGUN + batch);
        for (uint64_t i = 0; i < BATCH; i++) {
            const uint32_t address = address_of(batch, i);
            const std::string own = "w" + std::to_string(address);
            ASSERT_EQ(
                put_event(tsidx, {.time = static_cast<int32_t>(address), .address = address, .terms = {"a", own}}), 0);
        }
        ASSERT_EQ(st_tsidx_sync(tsidx), 0);
        log->note(PUT_DONE + batch);
    }
    void remove(file_log* log, TSIDX* tsidx) {
        log->note(DELETE_BEGUN);
        const uint32_t doomed[] = {1, 101, 201};
        ASSERT_GE(st_tsidx_delete_by_addr(tsidx, doomed, 3), 0);
        log->note(DELETE_DONE);
    }

    // What was said by then against what the directory holds.
    void check(const file_log& log, size_t count, const std::string& directory) {
        std::set<uint64_t> notes;
        for (size_t i = 0; i < count; i++) {
            if (log.operations()[i].kind == file_op::NOTE) notes.insert(log.operations()[i].offset);
        }
        st_tsval answers[2 * BATCHES * BATCH];
        const directory_ptr reader = open_for_reading(directory);
        const int found = st_tsidx_get(reader.get(), "a", INT32_MIN, INT32_MAX, answers, std::size(answers));
        ASSERT_GE(found, 0) << st_tsidx_last_failure(reader.get())->message;
        std::multiset<uint32_t> there;
        for (int i = 0; i < found; i++) there.insert(answers[i].address);
        for (uint64_t batch = 0; batch < BATCHES; batch++) {
            for (uint64_t i = 0; i < BATCH; i++) {
                const uint32_t address = address_of(batch, i);
                EXPECT_LE(there.count(address), 1u) << address;
                const bool may_be_gone = is_doomed(address) && notes.contains(DELETE_BEGUN);
                const bool must_be_gone = is_doomed(address) && notes.contains(DELETE_DONE);
                const bool must_be_there = notes.contains(PUT_DONE + batch) && !may_be_gone;
                EXPECT_FALSE(there.contains(address) && (must_be_gone || !notes.contains(PUT_BEGUN + batch)))
                    << address;
                EXPECT_TRUE(there.contains(address) || !must_be_there) << address;
            }
        }
        EXPECT_EQ(seal_troubles(directory), "");
    }
};

TEST_F(PowerLoss, OfAnIndexLeavesWhatWasAcknowledged) {
    const temp_dir dir;
    const std::string index = dir.file("index");
    fs::create_directory(index);
    const lock_optimism optimism;
    file_log log(index);
    {
        const directory_ptr tsidx(open_directory(index));
        st_tsidx_set_durable(tsidx.get(), 1);
        warm_rc_t rc;
        for (uint64_t batch = 0; batch < 3; batch++) write(&log, tsidx.get(), batch);
        remove(&log, tsidx.get());
        ASSERT_EQ(st_tsidx_optimize_n(tsidx.get(), TSIDX_OPTIMIZE_ALL, 2, 0, 0, &rc, 0, 0, true), 0) << rc.message;
        for (uint64_t batch = 3; batch < BATCHES; batch++) write(&log, tsidx.get(), batch);
        ASSERT_EQ(st_tsidx_seal(tsidx.get(), fs::path(files_in(index, ".tsidx").at(0)).filename().c_str()), 1);
        ASSERT_EQ(st_tsidx_optimize_n(tsidx.get(), TSIDX_OPTIMIZE_ALL, 2, 0, 0, &rc, 0, 0, true), 0) << rc.message;
    }
    log.stop();
    const size_t states = each_state(log, is_long() ? 24000 : 250, 41, [&](size_t count, const auto& tree) {
        SCOPED_TRACE(testing::Message() << "behind operation " << count << " of " << log.operations().size());
        const no_flushes flushes;
        const temp_dir copy;
        const std::string directory = copy.file("index");
        fs::create_directory(directory);
        make_tree(tree, directory);
        check(log, count, directory);
        {
            const directory_ptr next = open_directory(directory);
            warm_rc_t rc;
            const int merged = st_tsidx_optimize_n(next.get(), TSIDX_OPTIMIZE_ALL, 2, 0, 0, &rc, 0, 0, true);
            EXPECT_TRUE(merged == 0 || merged == WARM_RC_FEW_SLICES || merged == WARM_RC_FEW_SOURCES)
                << merged << rc.message << testing::PrintToString(files_in(directory, ""))
                << read_file(directory + "/" + MERGE_MANIFEST_TMP_NAME);
        }
        check(log, count, directory);
        for (const std::string& slice : files_in(directory, ".tsidx")) EXPECT_EQ(fsck_findings(slice), "");
    });
    EXPECT_GE(states, is_long() ? 4000u : 200u);
    std::printf("%zu states behind %zu operations\n", states, log.operations().size());
}

// Each line once, however the load was cut off, when the next one is through.
TEST_F(PowerLoss, OfAStoreTheNextLoadMends) {
    const temp_dir dir;
    const std::string store = dir.file("store"), file = dir.file("log");
    const auto load = [&](const std::string& into) {
        load_options options;
        options.no_optimize = true;
        options.flush = true;
        loader one;
        loader_open(&one, into, options);
        std::string error;
        EXPECT_TRUE(loader_load(&one, file, &error)) << error;
        loader_close(&one);
    };
    std::string text;
    const auto grow = [&](int from, int to) {
        for (int i = from; i < to; i++) {
            text += "2024-03-01T00:00:" + std::to_string(10 + i) + "Z line " + std::to_string(i) + "\n";
        }
        write_file(file, text);
    };
    grow(0, 5);
    load(store);  // the directories are there
    file_log log(store);
    for (int end = 10; end <= 30; end += 5) {
        grow(end - 5, end);
        load(store);
        log.note(static_cast<uint64_t>(end));
    }
    log.stop();
    const size_t states = each_state(log, is_long() ? 1500 : 100, 43, [&](size_t count, const auto& tree) {
        SCOPED_TRACE(testing::Message() << "behind operation " << count << " of " << log.operations().size());
        const no_flushes flushes;
        const temp_dir copy;
        uint64_t loaded = 5;
        for (size_t i = 0; i < count; i++) {
            if (log.operations()[i].kind == file_op::NOTE) loaded = log.operations()[i].offset;
        }
        make_tree(tree, copy.path());
        const directory_ptr bucket = open_for_reading(copy.file("bucket-000001"));
        st_tsval answers[100];
        const int found = st_tsidx_get(bucket.get(), "line", INT32_MIN, INT32_MAX, answers, 100);
        EXPECT_GE(found, static_cast<int>(loaded));
        EXPECT_EQ(seal_troubles(copy.file("bucket-000001")), "");
        load(copy.path());
        const directory_ptr whole = open_for_reading(copy.file("bucket-000001"));
        EXPECT_EQ(st_tsidx_get(whole.get(), "line", INT32_MIN, INT32_MAX, answers, 100), 30);
        std::set<st_time_t> times;
        for (int i = 0; i < 30; i++) times.insert(answers[i].time);
        EXPECT_EQ(times.size(), 30u) << "each line once";
    });
    EXPECT_GE(states, is_long() ? 150u : 80u);
    std::printf("%zu states behind %zu operations\n", states, log.operations().size());
}

}  // namespace
}  // namespace veldar
