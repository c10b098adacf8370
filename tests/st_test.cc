#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "searchthing/directory/health.h"
#include "searchthing/st_optimize.h"
#include "searchthing/upkeep/tsidx_upkeep.h"
#include "tests/support/faults.h"
#include "tests/support/hot_events.h"
#include "tests/support/temp_dir.h"

namespace veldar {
namespace {

namespace fs = std::filesystem;

TSWRITEOPTS options_of_level(uint32_t level) {
    TSWRITEOPTS opts;
    st_tsidx_write_opts_init_write_level(&opts, level);
    return opts;
}

TEST(St, RefusedOpens) {
    const temp_dir dir;
    for (const uint32_t level : {0u, 5u}) {
        const TSWRITEOPTS opts = options_of_level(level);
        EXPECT_EQ(st_open_for_write(dir.path().c_str(), 0, TSIDX_ORDINARY_WRITER, &opts), nullptr);
    }
    const TSWRITEOPTS opts = options_of_level(4);
    EXPECT_EQ(st_open_for_write(nullptr, 0, TSIDX_ORDINARY_WRITER, &opts), nullptr);
    EXPECT_EQ(st_open_for_write("", 0, TSIDX_ORDINARY_WRITER, &opts), nullptr);
    EXPECT_EQ(st_open_for_write(dir.file("missing").c_str(), 0, TSIDX_ORDINARY_WRITER, &opts), nullptr);
    EXPECT_EQ(st_open_for_read(""), nullptr);
    EXPECT_EQ(st_open_for_read(nullptr), nullptr);
    THING* const missing = st_open_for_read(dir.file("missing").c_str());
    uint64_t count = 0;
    EXPECT_EQ(st_event_count(missing, nullptr, &count), WARM_RC_OPEN);
    EXPECT_EQ(st_get_warm_errno(missing), ENOENT);
    EXPECT_EQ(st_close(missing), 0);
    EXPECT_EQ(st_close(nullptr), -1);
    EXPECT_EQ(st_sync(nullptr), -1);
    const st_tsval_encoded key = {};
    const st_addr_t address = 0;
    EXPECT_TRUE(st_delete_by_keys(nullptr, &key, 1) == -1 && st_delete_by_addrs(nullptr, &address, 1) == -1);
    st_query_spec query;
    st_query_init(&query);
    query.lispy = "[AND]";
    st_query_set_time_bound(&query, true, 0, 0, 9, 0);
    const st_metric_options_t all = {};
    EXPECT_EQ(st_query(nullptr, &query, nullptr, 1, 0), -1);
    for (uint64_t nth = 1; nth <= 2; nth++) {
        const fault_step starved(fault_action::allocation, nth);
        EXPECT_EQ(st_query(nullptr, &query, nullptr, 1, 0), WARM_RC_NO_MEMORY);
    }
    EXPECT_TRUE(st_get(nullptr, "a", 0, 9, nullptr, 1) == -1 && st_enum(nullptr, "a", nullptr, 1, false) == -1);
    EXPECT_TRUE(st_meta(nullptr, nullptr) == -1 && st_is_optimized(nullptr) == -1 && st_health(nullptr) == -1);
    for (const int64_t status :
         {int64_t{st_event_count(nullptr, &query, &count)}, int64_t{st_term_count(nullptr, "a", 0, 9, &count)},
          int64_t{st_measure_size(nullptr, &count)}, st_apply_metric_events(nullptr, &query, nullptr, nullptr),
          st_apply_metric_events_of(nullptr, &query, all, nullptr, nullptr), st_get_tsidx_info(nullptr, nullptr, 0)}) {
        EXPECT_EQ(status, WARM_RC_INVALID_ARGUMENT);
    }
    EXPECT_TRUE(files_in(dir.path(), "").empty());
}

TEST(St, ReadingChangesNothing) {
    const temp_dir dir;
    THING* thing = st_open_for_read(dir.path().c_str());
    ASSERT_NE(thing, nullptr);
    EXPECT_EQ(st_txn_start(thing, 1, 1, 1, 1, 1), WARM_RC_UNSUPPORTED);
    EXPECT_EQ(st_get_warm_rc(thing), WARM_RC_UNSUPPORTED);
    EXPECT_EQ(st_sync(thing), 0);
    EXPECT_TRUE(st_delete_by_keys(thing, nullptr, 1) == -1 && st_delete_by_addrs(thing, nullptr, 1) == -1);
    tsidx_dropped_t dropped;
    EXPECT_EQ(st_tsidx_drop_slices(st_directory(thing), {"2-1-1.tsidx"}, &dropped), WARM_RC_UNSUPPORTED);
    EXPECT_EQ(st_tsidx_replace(st_directory(thing), "2-1-1.tsidx", nullptr, "", 0), WARM_RC_UNSUPPORTED);
    EXPECT_EQ(st_tsidx_seal(st_directory(thing), "2-1-1.tsidx"), WARM_RC_UNSUPPORTED);
    st_tsval answer;
    EXPECT_EQ(st_get(thing, nullptr, 0, 9, &answer, 1), WARM_RC_INVALID_ARGUMENT);
    EXPECT_TRUE(st_get(thing, nullptr, 0, 9, nullptr, 1) == 0 && st_get(thing, nullptr, 9, 0, &answer, 1) == 0);
    EXPECT_EQ(st_close(thing), 0);
    EXPECT_TRUE(files_in(dir.path(), "").empty());
}

TEST(St, TransactionsAtEveryLevel) {
    for (uint32_t level = 1; level <= 4; level++) {
        const temp_dir dir, other;
        const TSWRITEOPTS opts = options_of_level(level);
        THING* thing = st_open_for_write(dir.path().c_str(), ST_OPEN_STREAMING, TSIDX_ORDINARY_WRITER, &opts);
        ASSERT_NE(thing, nullptr);
        EXPECT_EQ(st_txn_start_with_subseconds(thing, 5, 77, 6, 12.9, 3.0, 1, 2, 3), 0);
        EXPECT_EQ(st_txn_put(thing, "alpha", 5), 0);
        EXPECT_EQ(st_txn_put_measure(thing, "beta", 4, 8.0), 0);
        EXPECT_EQ(st_txn_close(thing), 0);
        EXPECT_EQ(st_txn_per_sync(thing), 0u);
        EXPECT_EQ(st_sync(thing), 0);
        EXPECT_EQ(st_txn_start(thing, 9, 9, 0, 0, 0), 0);
        EXPECT_EQ(st_txn_put(thing, "dropped", 7), 0);
        st_txn_abort(thing);
        EXPECT_EQ(st_txn_start(thing, 7, 8, 0, 0, 0), 0);
        EXPECT_EQ(st_txn_put(thing, "alpha", 5), 0);
        EXPECT_EQ(st_txn_start(thing, 9, 9, 0, 0, 0), WARM_RC_INVALID_ARGUMENT) << "the open one stays as it is";
        EXPECT_EQ(st_txn_close(thing), 0);
        EXPECT_TRUE(st_txn_per_sync(thing) == 1 && st_keywords_cut(thing) == 0);
        EXPECT_EQ(st_need_optimize(thing), 1);
        EXPECT_TRUE(fs::remove(dir.file(TSIDX_NEED_OPTIMIZE_NAME)) && st_set_need_optimize(thing) == 0);
        EXPECT_TRUE(fs::exists(dir.file(TSIDX_NEED_OPTIMIZE_NAME)));
        st_set_params(thing, 512, 1 << 16, 1024, 2048, 64, 64);
        EXPECT_TRUE(st_max_term_chars(thing) == 1 << 16 && st_max_terms(thing) == 512 && st_max_values(thing) == 2048);
        EXPECT_EQ(st_options(thing, 1 << 17, 2048, 4096, 8192), 0);
        EXPECT_TRUE(st_max_term_chars(thing) == 1 << 17 && st_max_terms(thing) == 2048);
        EXPECT_TRUE(st_max_postings(thing) == 4096 && st_max_values(thing) == 8192);
        EXPECT_EQ(st_is_optimized(thing), 1);
        EXPECT_EQ(st_optimize_ex(thing, TSIDX_OPTIMIZE_TIERED), WARM_RC_FEW_SOURCES);
        for (const char* name : {"99-90-1.tsidx", "99-90-2.tsidx"}) write_file(dir.file(name), "");
        EXPECT_EQ(st_health(thing), st_tsidx_health(st_directory(thing)));
        EXPECT_GT(st_health(thing), 0);
        EXPECT_TRUE(fs::remove(dir.file("99-90-1.tsidx")) && fs::remove(dir.file("99-90-2.tsidx")));
        // Without bounds, and from the first second of 1970 up to the second one.
        QUERY query;
        st_query_init(&query);
        query.lispy = "[AND alpha]";
        st_tsval answers[3];
        EXPECT_EQ(st_query(thing, &query, answers, 3, 1), 2);
        uint64_t count = 0;
        EXPECT_TRUE(st_event_count(thing, &query, &count) == 0 && count == 2);
        EXPECT_EQ(st_apply_events(
                      thing, &query, [](const st_tsval*, void*) { return 1; }, nullptr),
                  2);
        st_query_set_time_bound(&query, false, 0, 0, 1, 0);
        EXPECT_EQ(st_query(thing, &query, answers, 3, 1), 0);
        EXPECT_EQ(st_cd(thing, other.path().c_str()), 0);
        EXPECT_TRUE(st_event_count(thing, nullptr, &count) == 0 && count == 0);
        EXPECT_EQ(st_close(thing), 0);
        const std::vector<forge_event> expected = {
            {.time = 5, .address = 6, .measure = 12, .s = 1, .st = 2, .h = 3, .terms = {"alpha", "beta"}},
            {.time = 7, .address = 8, .terms = {"alpha"}}};
        EXPECT_TRUE(read_created_slices(dir.path()) == expected);
        EXPECT_TRUE(fs::exists(dir.file(TSIDX_PARAMS_NAME)));
    }
}

}  // namespace
}  // namespace veldar
