// Directories of metric slices: the events that go in come out, with every dimension and measure.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <filesystem>
#include <map>
#include <tuple>

#include "searchthing/search_literals.h"
#include "searchthing/st.h"
#include "tests/support/damage.h"
#include "tests/support/directory.h"
#include "tests/support/forge_metric.h"
#include "tests/support/query_maker.h"
#include "tests/support/temp_dir.h"

namespace veldar {
namespace {

// An event as it can be compared: time, milliseconds, dimensions and the bits of the measures, by name.
using told_event = std::tuple<int32_t, uint32_t, std::vector<std::string>, std::map<std::string, uint64_t>>;

told_event told(const forge_metric_event& event, bool milliseconds) {
    std::vector<std::string> dimensions;
    for (const std::string& term : event.dimensions) dimensions.push_back(term.substr(1));
    std::sort(dimensions.begin(), dimensions.end());
    std::map<std::string, uint64_t> measures;
    for (const auto& [term, value] : event.measures) measures[term.substr(14)] = std::bit_cast<uint64_t>(value);
    return {event.time, milliseconds ? event.milliseconds : 0, dimensions, measures};
}

int tell(const st_metric_event_t* event, void* out) {
    std::map<std::string, uint64_t> measures;
    for (const st_metric_measure_t& m : event->measures)
        measures[std::string(m.name)] = std::bit_cast<uint64_t>(m.value);
    static_cast<std::vector<told_event>*>(out)->emplace_back(
        event->time, event->nanoseconds / 1000000,
        std::vector<std::string>(event->dimensions.begin(), event->dimensions.end()), std::move(measures));
    return 1;
}

struct directory_of_metrics {
    temp_dir dir;
    bool milliseconds;
    std::vector<forge_metric_event> events;

    // By the forge, or through transactions.
    directory_of_metrics(uint64_t seed, uint32_t slices, uint32_t size, bool forged) : milliseconds(seed % 2 == 0) {
        TSWRITEOPTS opts;
        st_tsidx_write_opts_init_write_level(&opts, 4);
        opts.millisecond_mode = milliseconds ? 1 : 0;
        THING* const writer = st_open_for_write(dir.path().c_str(), ST_OPEN_METRICS, TSIDX_ORDINARY_WRITER, &opts);
        for (uint32_t i = 0; i < slices; i++) {
            forge_metric_options options;
            options.milliseconds = milliseconds;
            options.terms.wflags = i % 2 == 0 ? FORGE_TAG2 : 0;
            const std::vector<forge_metric_event> added = forge_random_metrics(seed + i, size);
            events.insert(events.end(), added.begin(), added.end());
            if (forged) {
                forge_metric_file(dir.path(), added, options, i + 1);
            } else {
                for (const forge_metric_event& event : added) put(writer, event);
                EXPECT_EQ(st_sync(writer), 0);
            }
        }
        EXPECT_EQ(st_close(writer), 0);
    }

    static void put(THING* writer, const forge_metric_event& event) {
        const uint64_t subsecond = tsval_encode_milliseconds(event.milliseconds);
        EXPECT_EQ(st_txn_start_with_subseconds(writer, event.time, subsecond, 0, 0, 0, event.s, event.st, event.h), 0);
        for (const auto& [term, value] : event.measures) {
            EXPECT_EQ(st_txn_put_measure(writer, term.data(), term.size(), value), 0);
        }
        for (const std::string& term : event.dimensions) EXPECT_EQ(st_txn_put(writer, term.data(), term.size()), 0);
        EXPECT_EQ(st_txn_close(writer), 0);
    }

    std::vector<told_event> matching(const reference_index& reference, const reference_query& tree,
                                     const reference_bounds& bounds) const {
        std::vector<told_event> out;
        for (const uint32_t number : reference.search(tree, bounds)) {
            out.push_back(told(events[reference.values()[number].s], milliseconds));
        }
        return out;
    }
};

reference_index reference_of(const directory_of_metrics& directory) {
    std::vector<forge_event> plain;
    for (uint32_t i = 0; i < directory.events.size(); i++) {
        const forge_metric_event& event = directory.events[i];
        plain.push_back({.time = event.time, .s = i, .terms = event.dimensions});
        if (directory.milliseconds) plain.back().address = event.milliseconds * 1000000;
        for (const auto& [term, value] : event.measures) plain.back().terms.push_back(term);
    }
    return reference_index(plain);
}

TEST(MetricDirectory, EveryReadAnswersAsBruteForceDoes) {
    for (uint64_t seed = 1; seed <= 8; seed++) {
        SCOPED_TRACE(seed);
        const uint32_t size = seed == 8 ? 4000 : 40 * static_cast<uint32_t>(seed % 4) + 1;
        const directory_of_metrics directory(seed * 5, 3, size, seed % 3 != 0);
        const reference_index reference = reference_of(directory);
        query_maker maker(reference, seed);
        THING* const thing = st_open_for_read(directory.dir.path().c_str());
        const auto total = static_cast<uint32_t>(directory.events.size());
        for (int i = 0; i < (seed == 8 ? 3 : 60); i++) {
            const reference_query tree = i == 0 ? reference_query::group_and({}) : maker.group(0);
            const reference_bounds bounds = i == 0 ? reference_bounds{} : maker.bounds();
            const std::string text = tree.notation();
            st_query_spec query = make_query(text.c_str(), bounds);
            query.latest.time_ns = 999999999;  // the bounds of the reference are whole seconds
            query.opt_a = bounds.neq_matches_missing ? QUERY_NEQ_MATCHES_MISSING : 0;
            std::vector<told_event> expected = directory.matching(reference, tree, bounds), found;
            const std::vector<uint32_t> numbers = reference.search(tree, bounds);

            ASSERT_EQ(st_apply_metric_events(thing, i == 0 ? nullptr : &query, tell, &found),
                      static_cast<int64_t>(expected.size()))
                << text;
            const auto newest = [](const told_event& e) { return std::pair(std::get<0>(e), std::get<1>(e)); };
            int steps_back = 0;  // to the start of another slice
            for (size_t k = 1; k < found.size(); k++) steps_back += newest(found[k]) > newest(found[k - 1]) ? 1 : 0;
            ASSERT_LE(steps_back, 2) << text;
            std::sort(found.begin(), found.end());
            std::sort(expected.begin(), expected.end());
            ASSERT_TRUE(found == expected) << text;

            const uint32_t capacity = maker.below(total) + 1;
            std::vector<st_tsval> answers(capacity);
            const int held = st_query(thing, &query, answers.data(), capacity, 1);
            ASSERT_EQ(held, static_cast<int>(std::min<size_t>(capacity, numbers.size()))) << text;
            for (size_t k = 0; k < static_cast<size_t>(held); k++) {
                ASSERT_EQ(answers[k].time, reference.values()[numbers[k]].time) << text;
                ASSERT_EQ(answers[k].address, reference.values()[numbers[k]].address) << text;
            }
            int64_t visited = st_apply_events(
                thing, &query, [](const st_tsval*, void*) { return 1; }, nullptr);
            ASSERT_EQ(visited, static_cast<int64_t>(numbers.size())) << text;
            uint64_t count = 0;
            ASSERT_EQ(st_event_count(thing, bounds.cumspan == 0 ? &query : nullptr, &count), 0);
            ASSERT_EQ(count, bounds.cumspan == 0 ? numbers.size() : total) << text;
        }
        for (const auto& [term, record] : reference.terms()) {
            std::vector<st_tsval> answers(total);
            ASSERT_EQ(st_get(thing, term.c_str(), INT32_MIN, INT32_MAX, answers.data(), total),
                      static_cast<int>(record.count()));
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

TEST(MetricDirectory, EventsAreNoMetrics) {
    const temp_dir dir;
    forge_file(dir.path(), forge_random_events(1, 5), forge_as_created(4));
    THING* const thing = st_open_for_read(dir.path().c_str());
    std::vector<told_event> found;
    uint64_t bytes = 1;
    EXPECT_EQ(st_apply_metric_events(thing, nullptr, tell, &found), WARM_RC_UNSUPPORTED);
    EXPECT_EQ(st_measure_size(thing, &bytes), 0);
    EXPECT_EQ(bytes, 0u);
    EXPECT_EQ(st_close(thing), 0);
}

// Damage ends in a status or in events; it never reaches past the file, and a changed measure is noticed.
TEST(MetricDirectory, DamageIsAStatus) {
    const temp_dir dir;
    forge_metric_picture picture;
    forge_metric_options options;
    options.milliseconds = true;
    const std::string path = forge_metric_file(dir.path(), forge_random_metrics(5, 14), options, 1, &picture);
    const std::string bytes = read_file(path);
    std::vector<told_event> whole;
    const directory_ptr before = open_for_reading(dir.path());
    ASSERT_EQ(st_tsidx_apply_metric_events(before.get(), nullptr, tell, &whole), 14);
    testing::internal::CaptureStderr();
    damage_sweep(bytes, {.truncation_step = 5}, [&](const std::string& damaged, const std::string& what) {
        std::filesystem::remove(path);  // a file that is cut and written anew waits for the disk
        write_file(path, damaged);
        std::vector<told_event> found;
        const directory_ptr tsidx = open_for_reading(dir.path());
        const int64_t status = st_tsidx_apply_metric_events(tsidx.get(), nullptr, tell, &found);
        const bool store_alone =
            damaged.size() == bytes.size() &&
            std::equal(damaged.begin(), damaged.begin() + static_cast<int64_t>(picture.cstore), bytes.begin());
        ASSERT_TRUE(status < 0 || !store_alone || found == whole) << what;
        uint64_t size = 0;
        static_cast<void>(st_tsidx_measure_size(tsidx.get(), &size));
    });
    static_cast<void>(testing::internal::GetCapturedStderr());
}

}  // namespace
}  // namespace veldar
