// Directories of metric slices: the events that go in come out, with every dimension and measure.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "searchthing/columns/cstore.h"
#include "searchthing/slice/warmslice.h"
#include "searchthing/st.h"
#include "searchthing/upkeep/tsidx_upkeep.h"
#include "tests/support/damage.h"
#include "tests/support/directory.h"
#include "tests/support/forge_metric.h"
#include "tests/support/hot_events.h"
#include "tests/support/query_maker.h"
#include "tests/support/temp_dir.h"

namespace veldar {
namespace {

struct directory_of_metrics {
    temp_dir dir;
    bool milliseconds;
    std::vector<metric_event> events;

    // By the forge, or through transactions; merged into one slice after every slice but the first.
    directory_of_metrics(uint64_t seed, uint32_t slices, uint32_t size, bool forged, bool merged)
        : milliseconds(seed % 2 == 0) {
        TSWRITEOPTS opts;
        st_tsidx_write_opts_init_write_level(&opts, 4);
        opts.millisecond_mode = milliseconds ? 1 : 0;
        const directory_ptr writer(st_tsidx_open(dir.path().c_str(), 0, 1, &opts, TSIDX_ORDINARY_WRITER));
        for (uint32_t i = 0; i < slices; i++) {
            std::vector<metric_event> added = random_metric_events(seed + i, size);
            for (metric_event& event : added) {
                if (!forged) {
                    EXPECT_EQ(put_metric_event(writer.get(), event, seed), 0);
                }
                event.milliseconds = milliseconds ? event.milliseconds : 0;
            }
            forge_metric_options options;
            options.milliseconds = milliseconds;
            options.store = 1 + i % 2;
            options.terms.wflags = i % 2 == 0 ? FORGE_TAG2 : 0;
            if (forged) forge_metric_file(dir.path(), added, options, i + 1);
            EXPECT_EQ(st_tsidx_sync(writer.get()), 0);
            if (merged && i > 0) {
                warm_rc_t rc;
                EXPECT_EQ(st_tsidx_optimize_n(writer.get(), TSIDX_OPTIMIZE_ALL, 2, 0, 0, &rc, 0, 0, false), 0)
                    << rc.message;
            }
            for (metric_event& event : added) event.source = event.source_type = event.host = 0;
            events.insert(events.end(), added.begin(), added.end());
        }
    }
};

using MetricDirectory = directory_test;

TEST_F(MetricDirectory, EveryReadAnswersAsBruteForceDoes) {
    for (uint64_t seed = 1; seed <= 8; seed++) {
        SCOPED_TRACE(seed);
        const uint32_t size = seed == 8 ? 4000 : 40 * static_cast<uint32_t>(seed % 4) + 1;
        const directory_of_metrics directory(seed * 5, 3, size, seed % 3 != 0, seed % 4 > 1);
        for (const std::string& path : files_in(directory.dir.path(), ".tsidx")) {
            warm_rc_t rc;
            WARM* const warm = st_warm_slice_open_rdonly(path.c_str(), &rc);
            const bool is_merged = seed % 4 > 1;  // of stores of both versions
            EXPECT_TRUE(!is_merged || st_warm_slice_cstore(warm, &rc)->version == 2);
            EXPECT_EQ(st_warm_slice_close(warm), 0);
        }
        const reference_index reference = metric_reference(directory.events, directory.milliseconds);
        query_maker maker(reference, seed);
        THING* const thing = st_open_for_read(directory.dir.path().c_str());
        const auto total = static_cast<uint32_t>(directory.events.size());
        for (int i = 0; i < (seed == 8 ? 3 : 60); i++) {
            const reference_query tree = i == 0 ? reference_query::group_and({}) : maker.group(0);
            const reference_bounds bounds = i == 0 ? reference_bounds{} : maker.bounds();
            const std::string text = tree.notation();
            st_query_spec query = make_query(text.c_str(), bounds);
            query.latest.time_ns = 999999999;  // the bounds of the reference are whole seconds
            std::vector<metric_event> expected, found;
            const std::vector<uint32_t> numbers = reference.search(tree, bounds);
            for (const uint32_t number : numbers) {
                expected.push_back(as_told(directory.events[reference.values()[number].s]));
            }

            ASSERT_EQ(st_apply_metric_events(thing, i == 0 ? nullptr : &query, tell_metric_event, &found),
                      static_cast<int64_t>(expected.size()))
                << text;
            const auto newest = [](const metric_event& e) { return std::pair(e.time, e.milliseconds); };
            int steps_back = 0;  // to the start of another slice
            for (size_t k = 1; k < found.size(); k++) steps_back += newest(found[k]) > newest(found[k - 1]) ? 1 : 0;
            ASSERT_LE(steps_back, 2) << text;
            std::sort(found.begin(), found.end());
            std::sort(expected.begin(), expected.end());
            ASSERT_TRUE(found == expected) << text;

            // Of the metrics whose names end with some letters alone.
            const auto ends_early = [](std::string_view name, void*) { return name.back() % 2 == 0; };
            std::erase_if(expected, [&](metric_event& event) {
                std::erase_if(event.measures, [&](const auto& one) { return !ends_early(one.first, nullptr); });
                return event.measures.empty();
            });
            found.clear();
            ASSERT_EQ(st_apply_metric_events_of(thing, &query, {.wants = ends_early}, tell_metric_event, &found),
                      static_cast<int64_t>(expected.size()))
                << text;
            std::sort(found.begin(), found.end());
            std::sort(expected.begin(), expected.end());
            ASSERT_TRUE(found == expected) << text;
            ASSERT_LT(expected.size(), directory.events.size());

            const uint32_t capacity = maker.below(total) + 1;
            std::vector<st_tsval> answers(capacity);
            const int held = st_query(thing, &query, answers.data(), capacity, 1);
            ASSERT_EQ(held, static_cast<int>(std::min<size_t>(capacity, numbers.size()))) << text;
            for (size_t k = 0; k < static_cast<size_t>(held); k++) {
                ASSERT_EQ(answers[k].time, reference.values()[numbers[k]].time) << text;
                ASSERT_EQ(answers[k].address, reference.values()[numbers[k]].address * 1000000) << text;
            }
            int64_t visited = st_apply_events(
                thing, &query, [](const st_tsval*, void*) { return 1; }, nullptr);
            ASSERT_EQ(visited, static_cast<int64_t>(numbers.size())) << text;
            uint64_t count = 0;
            ASSERT_EQ(st_event_count(thing, bounds.cumspan == 0 ? &query : nullptr, &count), 0);
            ASSERT_EQ(count, bounds.cumspan == 0 ? numbers.size() : total) << text;
        }
        std::vector<st_tsval> answers(total);
        reference_bounds until;
        until.latest = reference.values()[maker.below(total)].time;
        ASSERT_EQ(st_all_events(thing, INT32_MIN, until.latest, answers.data(), total),
                  static_cast<int>(reference.search(reference_query::group_and({}), until).size()));
        for (const auto& [term, record] : reference.terms()) {
            ASSERT_EQ(st_get(thing, term.c_str(), INT32_MIN, INT32_MAX, answers.data(), total),
                      static_cast<int>(record.count()))
                << term;
            ASSERT_EQ(answers[0].time, record.latest);
            ASSERT_EQ(answers[record.count() - 1].time, record.earliest);
            st_enum_answer terms[2];
            ASSERT_GE(st_enum(thing, term.c_str(), terms, 2, false), 1);
            ASSERT_EQ(terms[0].id, record.count()) << term;
        }
        uint64_t bytes = 0;
        ASSERT_EQ(st_measure_size(thing, &bytes), 0);
        ASSERT_GT(bytes, 3 * 100u);
        ASSERT_EQ(st_close(thing), 0);
    }
}

TEST_F(MetricDirectory, ASliceThatVanishesIsMeasuredOnce) {
    const temp_dir dir;
    const no_pauses pauses;
    for (uint64_t i = 1; i <= 3; i++) forge_metric_file(dir.path(), random_metric_events(5, 14), {}, i);
    uint64_t whole = 0, calls = 1;
    ASSERT_EQ(st_tsidx_measure_size(open_for_reading(dir.path()).get(), &whole), 0);
    for (uint64_t nth = 1; nth <= calls; nth++) {
        uint64_t bytes = 0;
        const directory_ptr tsidx = open_for_reading(dir.path());
        const fault gone(fault_call::open, nth, ENOENT);
        EXPECT_TRUE(st_tsidx_measure_size(tsidx.get(), &bytes) != 0 || bytes == whole) << nth;
        calls = std::max<uint64_t>(calls, gone.hits() != 0 ? nth + 1 : 0);
    }
    EXPECT_GT(calls, 3u);
}

TEST_F(MetricDirectory, EventsAreNoMetrics) {
    const temp_dir dir;
    forge_file(dir.path(), forge_random_events(1, 5), forge_as_created(4));
    THING* const thing = st_open_for_read(dir.path().c_str());
    std::vector<metric_event> found;
    uint64_t bytes = 1;
    EXPECT_EQ(st_apply_metric_events(thing, nullptr, tell_metric_event, &found), WARM_RC_UNSUPPORTED);
    EXPECT_EQ(st_measure_size(thing, &bytes), 0);
    EXPECT_EQ(bytes, 0u);
    EXPECT_EQ(st_close(thing), 0);
}

// Damage ends in a status or in events; it never reaches past the file, and a changed measure is noticed.
TEST_F(MetricDirectory, DamageIsAStatus) {
    const temp_dir dir;
    forge_metric_options options;
    options.milliseconds = true;
    std::vector<metric_event> events = random_metric_events(5, 14);
    for (size_t i = 0; i < 14; i++) events.push_back(metric_event(events[i]));  // so that runs could be shorter
    const std::string path = forge_metric_file(dir.path(), events, options);
    const std::string bytes = read_file(path);
    damage_outcomes outcomes;
    testing::internal::CaptureStderr();
    damage_sweep(bytes, {.truncation_step = 5}, [&](const std::string& damaged, const std::string& what) {
        std::filesystem::remove(path);  // a file that is cut and written anew waits for the disk
        write_file(path, damaged);
        std::vector<metric_event> found;
        const directory_ptr tsidx = open_for_reading(dir.path());
        const failure_watch watch;
        const int64_t status = st_tsidx_apply_metric_events(tsidx.get(), nullptr, tell_metric_event, &found);
        EXPECT_TRUE(watch.ended_with(status)) << what << status;
        uint64_t size = 0;
        static_cast<void>(st_tsidx_measure_size(tsidx.get(), &size));
        std::string seen = std::to_string(size);
        for (const metric_event& event : found) {
            seen += "\n" + std::to_string(event.time) + " " + std::to_string(event.milliseconds);
            for (const std::string& term : event.dimensions) seen += " " + term;
            for (const auto& [name, measure] : event.measures) seen += " " + name + "=" + std::to_string(measure);
        }
        outcomes.add(what, static_cast<int>(status), seen);
    });
    static_cast<void>(testing::internal::GetCapturedStderr());
    expect_kept("metric-damage", outcomes.text());
}

}  // namespace
}  // namespace veldar
