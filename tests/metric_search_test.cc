// Metric slices against the forge: their runs, their counts, and searches against brute force.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>

#include "searchthing/search/search_literals.h"
#include "searchthing/search/warmslice_search.h"
#include "searchthing/slice/warmslice.h"
#include "searchthing/slice/warmslice_meta.h"
#include "searchthing/slice/warmslice_runs.h"
#include "tests/support/forge_metric.h"
#include "tests/support/query_maker.h"
#include "tests/support/reference.h"
#include "tests/support/temp_dir.h"

namespace veldar {
namespace {

struct metric_slice {
    temp_dir dir;
    forge_metric_picture picture;
    warm_ptr warm;

    metric_slice(const std::vector<metric_event>& events, const forge_metric_options& options) {
        warm_rc_t rc;
        const std::string path = forge_metric_file(dir.path(), events, options, 1, &picture);
        warm.reset(st_warm_slice_open_rdonly(path.c_str(), &rc));
        EXPECT_NE(warm, nullptr) << options.name() << ": " << rc.warm_rc << " " << rc.message;
    }
};

// With and without milliseconds, with every encoding of posting lists.
std::vector<forge_metric_options> metric_kinds() {
    std::vector<forge_metric_options> kinds;
    for (const uint64_t wflags : {uint64_t{0}, FORGE_TAG1, FORGE_TAG2, FORGE_TAG2 | FORGE_PLO32}) {
        for (const bool milliseconds : {false, true}) {
            forge_metric_options options;
            options.milliseconds = milliseconds;
            options.store = milliseconds ? 2 : 1;
            options.terms.wflags = wflags;
            options.terms.seed = kinds.size() + 1;
            options.terms.tperb = kinds.size() % 2 == 0 ? 8 : 3;
            kinds.push_back(options);
        }
    }
    return kinds;
}

TEST(MetricSlice, CountsFromRunsAreThoseOfTheForge) {
    uint64_t seed = 0;
    for (const forge_metric_options& options : metric_kinds()) {
        for (const uint32_t size : {1u, 7u, 60u, 3000u}) {
            SCOPED_TRACE(options.name() + " events " + std::to_string(size));
            const metric_slice slice(random_metric_events(++seed, size), options);
            ASSERT_NE(slice.warm, nullptr);
            WARM* const warm = slice.warm.get();
            warm_rc_t rc;
            ASSERT_EQ(st_warm_slice_dimsets_offset(warm, &rc), static_cast<int64_t>(slice.picture.at.dimsets));
            ASSERT_EQ(warm_slice_runs(warm), slice.picture.runs.size());
            for (uint32_t term = 0; term < st_warm_slice_terms(warm); term++) {
                st_term_metadata stored = {}, computed = {};
                ASSERT_EQ(warm_slice_term_metadata(warm, term, nullptr, &stored, &rc), 0);
                ASSERT_EQ(warm_slice_recomputed_metadata(warm, term, nullptr, &computed, &rc), 0) << rc.message;
                ASSERT_EQ(computed.count, stored.count);
                ASSERT_EQ(computed.earliest, stored.earliest);
                ASSERT_EQ(computed.latest, stored.latest);
            }
        }
    }
}

// Events that `source` tells apart, as the reference does.
std::vector<metric_event> numbered_events(uint64_t seed, uint32_t count) {
    std::vector<metric_event> events = random_metric_events(seed, count);
    for (uint32_t i = 0; i < count; i++) events[i].source = i;
    return events;
}

struct metric_checker {
    bool milliseconds;
    reference_index reference;
    query_maker maker;
    metric_slice slice;

    metric_checker(const std::vector<metric_event>& events, const forge_metric_options& options, uint64_t seed)
        : milliseconds(options.milliseconds),
          reference(metric_reference(events, options.milliseconds)),
          maker(reference, seed),
          slice(events, options) {}

    // The bounds with fractions of a second: half of them on the time of an event to the nanosecond.
    st_timeval_t fraction(int32_t seconds) {
        const uint32_t ms = maker.below(2) == 0 ? reference.values()[maker.below(size())].address : maker.below(1000);
        return {seconds, seconds == INT32_MIN || seconds == INT32_MAX ? 0 : uint64_t{ms} * 1000000};
    }
    uint32_t size() const { return static_cast<uint32_t>(reference.values().size()); }

    bool inside(const forge_event& event, const st_query_spec& query) const {
        const auto before = [&](int32_t a, uint64_t a_ns, int32_t b, uint64_t b_ns) {
            return a != b ? a < b : milliseconds && a_ns < b_ns;
        };
        const uint64_t ns = uint64_t{event.address} * 1000000;
        const bool unbounded = query.latest.time_s == INT32_MAX;
        return !before(event.time, ns, query.earliest.time_s, query.earliest.time_ns) &&
               (unbounded || !before(query.latest.time_s, query.latest.time_ns, event.time, ns));
    }

    void check() {
        const reference_query tree = maker.group(0);
        const reference_bounds bounds = maker.bounds();
        const std::string text = tree.notation();
        st_query_spec query;
        st_query_init(&query);
        query.earliest = fraction(bounds.earliest);
        query.latest = fraction(bounds.latest);
        query.cumspan = bounds.cumspan;
        query.lispy = text.c_str();
        query.opt_a = bounds.neq_matches_missing ? QUERY_NEQ_MATCHES_MISSING : 0;
        using key = std::pair<int64_t, uint32_t>;  // time, newest first, and place
        const auto key_of = [](int32_t time, uint32_t ms, uint32_t place) {
            return key{-(time * int64_t{1000} + ms), place};
        };
        std::vector<key> truth;
        uint64_t matching = 0;
        for (const uint32_t number : reference.matches(tree, bounds.neq_matches_missing)) {
            const forge_event& event = reference.values()[number];
            if (!inside(event, query)) continue;
            matching++;
            if (bounds.cumspan != 0 && static_cast<uint32_t>(event.time) % bounds.cumspan != 0) continue;
            truth.push_back(key_of(event.time, event.address, event.s));
        }
        std::sort(truth.begin(), truth.end());

        WARM* const warm = slice.warm.get();
        std::vector<st_tsval> answers(size() + 1);
        const auto keys = [&](int found) {
            std::vector<key> out;
            for (int i = 0; i < found; i++) {
                const st_tsval& value = answers[static_cast<size_t>(i)];
                out.push_back(key_of(value.time, static_cast<uint32_t>(value.subsecond / 1000000), value.s));
            }
            return out;
        };
        const auto times = [](std::vector<key> of) {
            for (key& k : of) k.second = 0;
            return of;
        };
        std::vector<key> found = keys(st_warm_slice_search(warm, &query, answers.data(), size() + 1, 1));
        ASSERT_EQ(times(found), times(truth)) << text;  // in order
        std::sort(found.begin(), found.end());
        ASSERT_EQ(found, truth) << text;

        const uint32_t capacity = maker.below(size()) + 1;
        std::vector<key> newest = times(truth);
        newest.resize(std::min<size_t>(newest.size(), capacity));
        ASSERT_EQ(times(keys(st_warm_slice_search(warm, &query, answers.data(), capacity, 1))), newest) << text;

        warm_rc_t rc;
        uint64_t count = 0;
        ASSERT_EQ(warm_slice_count(warm, &query, &count, nullptr, &rc), 0) << text << rc.message;
        ASSERT_EQ(count, matching) << text;
    }
};

TEST(MetricSearch, RandomQueriesEqualBruteForce) {
    uint64_t seed = 100;
    for (const forge_metric_options& options : metric_kinds()) {
        for (const uint32_t size : {1u, 4u, 30u, 120u}) {
            SCOPED_TRACE(options.name() + " events " + std::to_string(size));
            seed++;
            metric_checker checker(numbered_events(seed, size), options, seed);
            ASSERT_NE(checker.slice.warm, nullptr);
            for (int i = 0; i < 600; i++) {
                checker.check();
                if (HasFatalFailure()) return;
            }
        }
    }
}

std::vector<uint32_t> bits_of(const buffer<uint8_t>& bitmap, uint32_t end) {
    std::vector<uint32_t> out;
    for (uint32_t id = 0; id < end; id++) {
        if ((bitmap[id / 8] >> (id % 8) & 1) != 0) out.push_back(id);
    }
    return out;
}

// The literal operations for callers without a context count in values, though lists hold runs.
TEST(MetricSearch, LiteralsCoverAllValues) {
    const metric_slice slice(random_metric_events(3, 90), metric_kinds()[2]);
    ASSERT_NE(slice.warm, nullptr);
    const uint32_t values = slice.picture.num_values;
    const auto runs = static_cast<uint32_t>(slice.picture.runs.size());
    const st_timeval_t earliest = {INT32_MIN, 0}, latest = {INT32_MAX, 0};
    for (uint32_t term = 0; term < slice.picture.terms.size(); term++) {
        const std::vector<std::string> text = {slice.picture.terms[term]};
        const std::vector<uint32_t>& expected = slice.picture.postings[term];
        std::vector<uint32_t> others;
        for (uint32_t run = 0; run < runs; run++) {
            if (std::find(expected.begin(), expected.end(), run) == expected.end()) others.push_back(run);
        }
        warm_rc_t rc;
        id_range_t range, whole;
        query_result_t result;
        const auto both = [&](const literal_group& group) {
            return and_literals(slice.warm.get(), group, false, &earliest, &latest, &range, &result, nullptr, nullptr,
                                true, nullptr, &rc);
        };
        ASSERT_EQ(both({text, {}, {}}), 0) << text[0];
        if (others.empty()) {
            ASSERT_EQ(match_kind(result), MATCH_EVERYTHING);
            ASSERT_EQ(result.tsval_list_capacity, values);
        } else {
            ASSERT_EQ(match_kind(result), MATCH_LIST);
            const uint32_t* const list = result.tsval_list.data();
            ASSERT_EQ(std::vector<uint32_t>(list, list + result.tsval_list_capacity), expected);
            ASSERT_EQ(range.end, expected.back() + 1 == runs ? values : expected.back() + 1);
        }
        range = {};
        ASSERT_EQ(both({{}, text, {}}), 0);
        ASSERT_EQ(range.end, values);
        ASSERT_EQ(result.tsval_list_capacity, values);
        ASSERT_EQ(bits_of(result.not_bitmap, values), expected);
        _reset_result(&result);
        ASSERT_EQ(
            or_literals(slice.warm.get(), {{}, text, {}}, false, &earliest, &latest, &whole, &result, nullptr, &rc), 0);
        ASSERT_EQ(whole.end, values);
        ASSERT_EQ(bits_of(result.bitmap, values), others) << text[0];
    }
}

}  // namespace
}  // namespace veldar
