#include <gtest/gtest.h>
#include <xxhash.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <random>

#include "libzero/endian.h"
#include "searchthing/columns/dimset.h"
#include "searchthing/hot/hotslice.h"
#include "searchthing/hot/warmslice_create.h"
#include "searchthing/merge/warmslice_merge.h"
#include "searchthing/seal/slice_seal.h"
#include "searchthing/search/warmslice_search.h"
#include "searchthing/slice/warmslice.h"
#include "searchthing/slice/warmslice_meta.h"
#include "tests/support/damage.h"
#include "tests/support/directory.h"
#include "tests/support/faults.h"
#include "tests/support/forge_metric.h"
#include "tests/support/fsck.h"
#include "tests/support/hot_events.h"
#include "tests/support/metric_events.h"
#include "tests/support/query_maker.h"
#include "tests/support/sampled.h"
#include "tests/support/temp_dir.h"

namespace veldar {
namespace {

TSIDX* open_metrics(const std::string& directory, bool milliseconds) {
    TSWRITEOPTS opts;
    st_tsidx_write_opts_set_defaults(&opts);
    opts.millisecond_mode = milliseconds;
    TSIDX* const tsidx = st_tsidx_open(directory.c_str(), 0, 1, &opts, TSIDX_ORDINARY_WRITER);
    st_tsidx_set_durable(tsidx, 0);
    return tsidx;
}

TEST(MetricWrite, EventsComeBackFromTheSlices) {
    size_t slices = 0;
    for (uint64_t seed = 1; seed <= 24; seed++) {
        SCOPED_TRACE(seed);
        const temp_dir dir;
        const bool milliseconds = seed % 2 == 0;
        TSIDX* const tsidx = open_metrics(dir.path(), milliseconds);
        st_tsidx_autotune(tsidx, seed % 3 == 0);
        if (seed % 4 < 2) st_tsidx_set_params(tsidx, 257, 300, 1 + seed % 20, 1 + seed % 12, 1 + seed % 5, seed % 70);
        std::vector<metric_event> events = random_metric_events(seed, seed % 4 < 2 ? 200 : 3000);
        for (size_t i = 0; i < events.size(); i++) {
            ASSERT_EQ(put_metric_event(tsidx, events[i], seed * 10000 + i), 0) << st_tsidx_last_failure(tsidx)->message;
            if (i % 1000 == 999) {
                ASSERT_EQ(st_tsidx_sync(tsidx), 0);
            }
        }
        slices += st_tsidx_slices_written(tsidx);
        ASSERT_EQ(st_tsidx_close(tsidx), 0);
        for (metric_event& event : events) event.milliseconds = milliseconds ? event.milliseconds : 0;
        ASSERT_EQ(read_metric_slices(dir.path()) == as_read(events), true);
    }
    EXPECT_GT(slices, 400u) << "small limits were met";
}

// Merges the slices into one under a proper name in the directory; its path, or the status as a number.
std::string merge_slices(const std::vector<std::string>& paths, const std::string& directory, warm_rc_t* rc,
                         warm_stop_fn stop = nullptr) {
    static uint64_t id = 0;
    const char* names[MERGE_MAX_SOURCES];
    for (size_t i = 0; i < paths.size(); i++) names[i] = paths[i].c_str();
    warm_merge_options_t options;  // without milliseconds: a merge keeps what the sources have
    options.stop = stop;
    st_tsidx_write_opts_set_defaults(&options.write_options);
    warm_merge_t* const merge = st_warm_slice_merge_open({names, paths.size()}, &options, rc);
    if (merge == nullptr) return "";
    const warm_merge_totals_t* const totals = st_warm_slice_merge_totals(merge);
    ospath_buf path;
    EXPECT_EQ(st_warm_slice_filename(&path, directory.c_str(), ".tsidx", totals->earliest, totals->latest, ++id), 0);
    const int status = st_warm_slice_merge_write(merge, path.val, false, rc);
    const fault_truce own;
    EXPECT_EQ(std::filesystem::exists(path.val), status == 0);
    if (status == 0) {
        EXPECT_EQ(st_warm_slice_merge_carry_deletes(merge, path.val, rc), 0);
        EXPECT_EQ(std::filesystem::file_size(path.val), totals->target_bytes);
    }
    st_warm_slice_merge_close(merge);
    return status == 0 ? path.val : "";
}

// Merges in rounds of up to `most` slices, chosen at random, until one is left.
TEST(MetricWrite, MergesKeepEveryEvent) {
    for (uint64_t seed = 1; seed <= 16; seed++) {
        SCOPED_TRACE(seed);
        const temp_dir dir;
        std::mt19937_64 random(seed);
        std::vector<metric_event> events = random_metric_events(seed, seed % 2 == 0 ? 300 : 4000);
        // In order of time, as events mostly come, or in none; half of the slices know no milliseconds.
        if (seed % 4 < 2) std::sort(events.begin(), events.end());
        const size_t writers = 2;
        for (size_t writer = 0; writer < writers; writer++) {
            TSIDX* const tsidx = open_metrics(dir.path(), writer != 0 && seed % 3 != 0);
            const size_t part = 1 + random() % (seed % 2 == 0 ? 20 : 900);
            for (size_t i = writer; i < events.size(); i += writers) {
                if (writer == 0 || seed % 3 == 0) events[i].milliseconds = 0;
                ASSERT_EQ(put_metric_event(tsidx, events[i], i), 0);
                if (i % part == 0) {
                    ASSERT_EQ(st_tsidx_sync(tsidx), 0);
                }
            }
            ASSERT_EQ(st_tsidx_close(tsidx), 0);
        }
        const std::vector<metric_event> expected = as_read(std::move(events));
        const size_t most = 2 + random() % 63;
        for (std::vector<std::string> paths; (paths = files_in(dir.path(), ".tsidx")).size() > 1;) {
            std::shuffle(paths.begin(), paths.end(), random);
            while (paths.size() > 1) {
                const size_t count = std::min(most, paths.size());
                const std::vector<std::string> group(paths.end() - static_cast<ptrdiff_t>(count), paths.end());
                paths.resize(paths.size() - count);
                warm_rc_t rc;
                ASSERT_NE(merge_slices(group, dir.path(), &rc), "") << rc.message;
                for (const std::string& path : group) std::filesystem::remove(path);
            }
            ASSERT_EQ(read_metric_slices(dir.path()) == expected, true);
        }
    }
}

class MetricMergeDamage : public testing::TestWithParam<bool> {};
INSTANTIATE_TEST_SUITE_P(MetricWrite, MetricMergeDamage, testing::Bool());

// Of many events, and of two sets that a changed word makes one.
TEST_P(MetricMergeDamage, EndsWithAStatus) {
    const temp_dir dir;
    TSIDX* const tsidx = open_metrics(dir.path(), true);
    std::vector<metric_event> events = random_metric_events(3, GetParam() ? 60 : 32);
    for (size_t i = 0; i < events.size(); i++) {
        if (!GetParam()) {
            events[i].dimensions = {i % 2 == 0 ? " host::a" : " host::b"};
            events[i].measures = {{"m", 1}};
        }
        ASSERT_EQ(put_metric_event(tsidx, events[i], i), 0);
        if (i == 29) {
            ASSERT_EQ(st_tsidx_sync(tsidx), 0);
        }
    }
    ASSERT_EQ(st_tsidx_close(tsidx), 0);
    const std::vector<std::string> paths = files_in(dir.path(), ".tsidx");
    const std::string good = read_file(paths[0]);
    damage_outcomes outcomes, sealed;
    for (uint64_t nth = 1, last = 1; nth <= last && !GetParam(); nth++) {  // a disk that changes a bit
        for (int place = 0; place < 1000; place += 37 * SANITIZED_PART) {
            warm_rc_t rc;
            const fault_step step(fault_action::flip, nth, place);
            const failure_watch watch;
            const std::string merged = merge_slices(paths, dir.path(), &rc);
            EXPECT_TRUE(watch.ended_with(rc.warm_rc)) << rc.warm_rc << rc.message;
            last = step.calls();
            outcomes.add("call " + std::to_string(nth), rc.warm_rc, merged.empty() ? rc.message : read_file(merged));
            if (!merged.empty()) std::filesystem::remove(merged);
        }
    }
    const damage_options options = {.truncation_step = 61, .flip_step = 7, .word_step = 4};
    damage_sweep(good, options, [&](const std::string& bytes, const std::string& what) {
        SCOPED_TRACE(what);
        write_file(paths[0], bytes);
        warm_rc_t rc;
        std::string merged;
        {
            const failure_watch watch;
            merged = merge_slices(paths, dir.path(), &rc);
            EXPECT_TRUE(watch.ended_with(rc.warm_rc)) << rc.warm_rc << rc.message;
        }
        const std::string findings = merged.empty() ? "" : fsck_findings(paths[0]);
        EXPECT_FALSE(fsck_blames_lists(findings)) << "made good by the merge: " << findings;
        EXPECT_EQ(merged.empty(), rc.warm_rc < 0);
        outcomes.add(what, rc.warm_rc, merged.empty() ? std::to_string(rc.detail) : read_file(merged));
        if (!merged.empty()) std::filesystem::remove(merged);
        slice_seal_t seal;
        sealed.add(what, seal_make(paths[0], &seal, &rc), "");
    });
    expect_kept(GetParam() ? "metric-merge-damage" : "metric-merge-damage-2", outcomes.text() + sealed.text());
    // A column store that is whole, but of other values or of other terms than the slice's.
    const size_t store = good.find("CSTORE01"), footer = store + load_le64(good.data() + store + 24);
    const size_t last = footer + 8 + 8 * load_le32(good.data() + store + 12);
    for (const size_t at : {store + 16, last + 2}) {
        std::string bad = good;
        bad[at]++;
        const uint32_t sum = XXH32(&bad[footer + 16], last - footer - 8, XXH32(&bad[store], 32, 0));
        store_le32(bad.data() + footer + 4, sum);
        write_file(paths[0], bad);
        warm_rc_t rc;
        EXPECT_EQ(merge_slices(paths, dir.path(), &rc), "");
        EXPECT_STREQ(rc.message, at < last ? "cstore footer is corrupted" : "column of a term that does not exist");
    }
    // Values, though no run that holds them.
    const temp_dir empty;
    forge_metric_picture picture;
    const std::string bare = forge_metric_file(empty.path(), forge_random_metrics(1, 1), {}, 1, &picture);
    std::string runless = read_file(bare);
    store_be32(runless.data() + 96, 0);
    runless[23] = static_cast<char>(runless[23] + 8);  // where the run was
    ds_header_t no_sets;
    ds_header_init(&no_sets, 0, 0);
    std::memcpy(runless.data() + picture.at.dimsets, &no_sets, sizeof no_sets);
    write_file(bare, runless);
    warm_rc_t none;
    EXPECT_EQ(merge_slices({bare, bare}, empty.path(), &none), "");
    EXPECT_STREQ(none.message, "values without a run");
    write_file(paths[0], good);
    const uint64_t steps = std::exchange(stop_check::steps_a_question, 1);
    for (uint64_t nth = 1, asked = nth; nth <= asked; nth++) {
        warm_rc_t rc;
        const failure_watch watch(nth);
        const std::string merged = merge_slices(paths, dir.path(), &rc, failure_watch::asked);
        asked = watch.questions();
        EXPECT_EQ(rc.warm_rc, asked < nth ? 0 : WARM_RC_CANCELLED) << nth;
        EXPECT_TRUE(watch.ended_with(rc.warm_rc)) << nth;
        EXPECT_EQ(merged.empty(), rc.warm_rc != 0);
    }
    stop_check::steps_a_question = steps;
}

// Two syncs and a merge, with every file call and every allocation failing once: what was told to be there is there,
// and a failure leaves no file under a slice's name that holds less.
TEST(MetricWrite, FailuresAreToldAndLoseNothingElse) {
    const no_pauses pauses;
    const std::vector<metric_event> events = random_metric_events(5, 24);
    std::string told;  // by merges
    for (const fault_action action : {fault_action::fail, fault_action::shorten, fault_action::allocation}) {
        for (uint64_t nth = 1, reached = 1; reached + 1 >= nth; nth++) {
            SCOPED_TRACE(testing::Message() << static_cast<int>(action) << " " << nth);
            const temp_dir dir;
            TSIDX* const tsidx = open_metrics(dir.path(), true);
            st_tsidx_set_params(tsidx, 512, 4096, 512, 64, 64, 1024);
            std::vector<metric_event> kept;
            std::string merged;
            {
                const fault_step step(action, nth, EIO);
                for (size_t half = 0; half < 2; half++) {
                    std::vector<metric_event> put;
                    for (size_t i = half; i < events.size(); i += 2) {
                        if (put_metric_event(tsidx, events[i], i) != 0) continue;
                        const fault_truce own;
                        put.push_back(events[i]);
                    }
                    if (st_tsidx_sync(tsidx) != 0) continue;
                    const fault_truce own;
                    kept.insert(kept.end(), put.begin(), put.end());
                }
                const auto list = [&] {
                    const fault_truce own;
                    return files_in(dir.path(), ".tsidx");
                };
                const std::vector<std::string> paths = list();
                warm_rc_t rc;
                const failure_watch watch;
                if (paths.size() == 2) merged = merge_slices(paths, dir.path(), &rc);
                const fault_truce own;
                EXPECT_TRUE(watch.ended_with(rc.warm_rc)) << rc.warm_rc << rc.message;
                const bool recorded = action != fault_action::allocation;
                if (recorded) told += std::to_string(nth) + " " + std::to_string(rc.warm_rc) + "\n";
                for (const std::string& path : paths) {
                    if (!merged.empty()) std::filesystem::remove(path);
                }
                reached = action == fault_action::allocation ? step.allocations() : step.calls();
            }
            static_cast<void>(st_tsidx_close(tsidx));
            EXPECT_EQ(read_metric_slices(dir.path()) == as_read(std::move(kept)), true);
        }
    }
    expect_kept("metric-merge-faults", told);
}

TEST(MetricWrite, RefusalsLeaveNothing) {
    const temp_dir dir;
    TSIDX* const tsidx = open_metrics(dir.path(), true);
    const auto put = [&](std::vector<std::string> terms) {
        const st_txn txn{.time = 7, .measure = 1.5, .source = ST_DELETED_SOURCE};
        EXPECT_EQ(st_tsidx_txn_start(tsidx, &txn), 0);
        for (const std::string& term : terms) EXPECT_EQ(st_tsidx_txn_put(tsidx, term.data(), term.size(), &txn), 0);
        return st_tsidx_txn_close(tsidx, &txn);
    };
    EXPECT_EQ(put({}), WARM_RC_INVALID_ARGUMENT);
    EXPECT_EQ(put({" host::a", " dim::b"}), WARM_RC_INVALID_ARGUMENT) << "no measure";
    EXPECT_EQ(put({" host::a", " metric_name::m", " host::b"}), WARM_RC_INVALID_ARGUMENT);
    std::vector<std::string> many = {" metric_name::m"};
    for (int i = 0; i < 8186; i++) many.push_back(" d::" + std::to_string(i));
    EXPECT_EQ(put({many}), 0) << "8192 words";
    many.push_back(" d::one too many");
    EXPECT_EQ(put({many}), HOT_PUT_RC_TXN_TOO_LARGE);
    EXPECT_EQ(st_tsidx_slices_written(tsidx), 0u) << "what fits nowhere syncs nothing";
    EXPECT_EQ(st_tsidx_close(tsidx), 0);
    const std::vector<metric_event> events = read_metric_slices(dir.path());
    ASSERT_EQ(events.size(), 2u) << "one and its companions";
    EXPECT_EQ(events[0].source, 0u) << "metric slices have no deletes";
    EXPECT_EQ(events[1].dimensions.size(), 8186u);
}

// The hot slice by itself, where puts can be refused half-way: what remains is whole or gone.
TEST(MetricHotSlice, Transactions) {
    warm_rc_t rc;
    const hot_ptr hot(st_hot_slice_create(4096, 257, 7, 3, 4, 18, 3, true, true, nullptr, &rc));
    ASSERT_NE(hot, nullptr);
    EXPECT_TRUE(ds_should_group_dimsets(hot.get()));
    for (const char* loose : {" _catalog::a", " _dims::a", "a"}) EXPECT_EQ(hot_slice_classify(loose), HOT_DIM_NONE);
    st_txn txn{.time = 5, .measure = 2.0};
    const auto put = [&](const std::string& term) {
        return st_hot_slice_put_txn(hot.get(), term.data(), term.size(), &txn);
    };
    ASSERT_EQ(st_hot_slice_txn_start(hot.get(), &txn), 0);
    EXPECT_EQ(put(" dropped::1"), 0);
    EXPECT_EQ(put(std::string(" a\0b", 4)), HOT_PUT_RC_BAD_KEYWORD);
    EXPECT_EQ(st_hot_slice_txn_stop(hot.get()), 0);
    EXPECT_EQ(st_hot_slice_values(hot.get()) + hot_slice_terms(hot.get()) + hot_slice_lexicon_bytes(hot.get()), 0u);

    ASSERT_EQ(st_hot_slice_txn_start(hot.get(), &txn), 0);
    for (const char* term : {" dropped::1", " metric_name::m", " metric_name::m", " dropped::1", " x::1", ""}) {
        EXPECT_EQ(put(term), 0) << term;
    }
    EXPECT_EQ(put(" y::1"), 0);
    EXPECT_EQ(put(" z::1"), HOT_PUT_RC_TXN_TOO_LARGE);
    EXPECT_EQ(hot_slice_terms(hot.get()), 4u) << "a refused term is not registered";
    EXPECT_EQ(st_hot_slice_txn_stop(hot.get()), 0);
    EXPECT_EQ(hot_slice_postings(hot.get()), 4u);
    txn.time = 6;  // the same set again needs no postings; its measure is the second of three
    ASSERT_EQ(st_hot_slice_txn_start(hot.get(), &txn), HOT_PUT_RC_SUCCESS);
    for (const char* term : {" y::1", " x::1", " dropped::1", " metric_name::m"}) {
        EXPECT_EQ(put(term), term == std::string(" metric_name::m") ? HOT_PUT_RC_POSTINGS_FULL : 0) << term;
    }
    st_hot_slice_txn_abort(hot.get(), HOT_PUT_RC_POSTINGS_FULL);
    EXPECT_EQ(put(" w::1"), HOT_PUT_RC_POSTINGS_FULL);
    EXPECT_EQ(st_hot_slice_txn_stop(hot.get()), 0);
    EXPECT_EQ(st_hot_slice_values(hot.get()), 1u) << "an event without its measure is dropped";
    EXPECT_EQ(st_hot_slice_txn_start(hot.get(), &txn), HOT_PUT_RC_SUCCESS) << "9 of 18 words";
    EXPECT_EQ(put(" metric_name::n"), 0);
    EXPECT_EQ(st_hot_slice_txn_stop(hot.get()), 0);
    EXPECT_EQ(st_hot_slice_txn_start(hot.get(), &txn), HOT_PUT_RC_DIMSETS_FULL);

    // Whole transactions: three measures and no more; and a set that grows to its largest size and no further.
    const hot_ptr large(st_hot_slice_create(1 << 20, 16384, 16384, 8, 9000, 20000, 3, true, true, nullptr, &rc));
    const auto keyword = [](const std::string& text) {
        return hot_keyword_t{text.data(), static_cast<uint32_t>(text.size()), hot_slice_hash(text.data(), text.size())};
    };
    const std::string names[] = {" metric_name::a", " metric_name::b", " metric_name::c", " metric_name::d"};
    const std::vector<hot_keyword_t> four = {keyword(names[0]), keyword(names[1]), keyword(names[2]),
                                             keyword(names[3])};
    const std::span<const hot_keyword_t> three = std::span(four).first(3);
    EXPECT_EQ(hot_slice_check_metric_txn(large.get(), four), HOT_PUT_RC_MEASURES_FULL);
    EXPECT_EQ(hot_slice_check_metric_txn(large.get(), three), 0);
    hot_slice_put_metric(large.get(), &txn, three.first(2), std::vector<st_measure_t>{1, 2});
    EXPECT_EQ(hot_slice_check_metric_txn(large.get(), three.first(2)), HOT_PUT_RC_MEASURES_FULL);
    EXPECT_EQ(hot_slice_check_metric_txn(large.get(), three.first(1)), 0);
    ASSERT_EQ(st_hot_slice_txn_start(large.get(), &txn), 0);
    uint32_t dimensions = 0;
    for (int status = 0; status == 0; dimensions += status == 0) {
        const std::string term = " d::" + std::to_string(dimensions);
        status = st_hot_slice_put_txn(large.get(), term.data(), term.size(), &txn);
        EXPECT_TRUE(status == 0 || status == HOT_PUT_RC_TXN_TOO_LARGE) << status;
    }
    EXPECT_EQ(dimensions, DS_MAX_DIMSET_SIZE_WORDS - DS_MIN_WORDS);
    EXPECT_EQ(st_hot_slice_txn_stop(large.get()), 0);
}

// Every limit of one transaction of many measures, or of many of one, refuses by its own code and lets a slice go on.
TEST(MetricHotSlice, FullCodes) {
    using row = std::tuple<size_t, uint64_t, int, bool>;
    for (const auto& [limit, at_most, expected, of_one] :
         {row{0, 99, HOT_PUT_RC_LEXICON_FULL, true}, row{1, 257, HOT_PUT_RC_TERMS_FULL, true},
          row{2, 9, HOT_PUT_RC_POSTINGS_FULL, true}, row{4, 8, HOT_PUT_RC_TXN_TOO_LARGE, true},
          row{5, 12, HOT_PUT_RC_DIMSETS_FULL, true}, row{6, 7, HOT_PUT_RC_MEASURES_FULL, true},
          row{3, 3, HOT_PUT_RC_VALUES_FULL, false}, row{6, 16, HOT_PUT_RC_MEASURES_FULL, false}}) {
        std::array<uint64_t, 7> most = {9999, 512, 999, 99, limit == 5 ? at_most : 600, 9999, 999};
        most[limit] = at_most;
        const auto [lexicon, terms, postings, values, keywords, words, measures] = most;
        const st_txn txn{.time = 5, .measure = 2.0};
        warm_rc_t rc;
        const hot_ptr hot(
            st_hot_slice_create(lexicon, terms, postings, values, keywords, words, measures, true, true, nullptr, &rc));
        int code = 0;
        uint32_t put = 0;
        for (; code == 0; put += code == 0) {
            const std::string term = " metric_name::" + std::to_string(of_one ? put : 1);
            if (!of_one || put == 0) code = st_hot_slice_txn_start(hot.get(), &txn);
            if (code == 0) code = st_hot_slice_put_txn(hot.get(), term.data(), term.size(), &txn);
            if (!of_one || code != 0) static_cast<void>(st_hot_slice_txn_stop(hot.get()));
        }
        EXPECT_EQ(code, expected) << put;
        EXPECT_TRUE(limit != 6 || put == (of_one ? 7 : 15)) << "one more than its soft limit";
        EXPECT_EQ(hot_slice_terms(hot.get()), of_one ? put : 1);
        EXPECT_EQ(st_hot_slice_values(hot.get()), of_one ? 1 : put);
    }
}

// Keywords of a set's events that are not in the set: lists, records and answers are those of whole sets.
TEST(MetricHotSlice, LooseTermsStandForWholeSets) {
    warm_rc_t rc;
    const hot_ptr hot(st_hot_slice_create(4096, 257, 64, 16, 8, 256, 6, true, true, nullptr, &rc));
    const std::vector<std::pair<int32_t, std::vector<std::string>>> events = {
        {100, {" host::a", "foo"}},        {101, {" host::a"}},        {104, {" host::a", "foo"}},
        {102, {" host::b", "foo", "bar"}}, {300, {" host::a", "bar"}}, {400, {" host::c", "bar"}}};
    for (size_t i = 0; i < 2 * events.size(); i++) {  // a slice that is reset takes them all again
        if (i == events.size()) st_hot_slice_reset(hot.get());
        const auto& [time, terms] = events[i % events.size()];
        const st_txn txn{.time = time, .measure = 1};
        ASSERT_EQ(st_hot_slice_txn_start(hot.get(), &txn), 0);
        for (const std::string& term : terms)
            EXPECT_EQ(st_hot_slice_put_txn(hot.get(), &term[0], term.size(), &txn), 0);
        EXPECT_EQ(st_hot_slice_put_txn(hot.get(), " metric_name::m", 15, &txn), 0);
        ASSERT_EQ(st_hot_slice_txn_stop(hot.get()), 0);
    }
    const temp_dir dir;
    ospath_buf path;
    TSWRITEOPTS opts;
    st_tsidx_write_opts_init_write_level(&opts, 4);
    warm_ptr warm(st_warm_slice_create(hot.get(), &path, dir.path().c_str(), ".tsidx", &opts, &rc));
    ASSERT_NE(warm, nullptr) << rc.message;
    warm.reset(st_warm_slice_open_rdonly(path.val, &rc));
    EXPECT_EQ(fsck_findings(path.val), "");
    for (uint32_t term = 0; term < st_warm_slice_terms(warm.get()); term++) {
        st_term_metadata stored = {}, computed = {};
        EXPECT_EQ(warm_slice_term_metadata(warm.get(), term, nullptr, &stored, &rc), 0);
        EXPECT_EQ(warm_slice_recomputed_metadata(warm.get(), term, nullptr, &computed, &rc), 0);
        EXPECT_EQ(std::memcmp(&stored, &computed, sizeof stored), 0) << term;
    }
    const auto count = [&](const char* text, int32_t earliest, int32_t latest) {
        st_query_spec query = make_query(text, {.earliest = earliest, .latest = latest});
        uint64_t found = 0;
        EXPECT_EQ(warm_slice_count(warm.get(), &query, &found, nullptr, &rc), 0) << text << rc.message;
        return found;
    };
    for (const char* text : {"[AND foo]", "[AND fo*]", "[AND foo bar]", "[AND [OR foo] [OR bar]]"}) {
        EXPECT_EQ(count(text, 0, 999), 5u) << text;
        EXPECT_EQ(count(text, 250, 350), 1u) << text;
    }
}

}  // namespace
}  // namespace veldar
