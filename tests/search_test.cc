#include <gtest/gtest.h>

#include "searchthing/postings/gap_groups.h"
#include "searchthing/search/search_literals.h"
#include "searchthing/search/warmslice_search.h"
#include "searchthing/slice/warmslice.h"
#include "tests/support/directory.h"
#include "tests/support/faults.h"
#include "tests/support/hot_events.h"
#include "tests/support/query_maker.h"
#include "tests/support/sampled.h"
#include "tests/support/temp_dir.h"
namespace veldar {
namespace {

// One forged slice, open, beside the reference index over the same events.
struct searched_slice {
    temp_dir dir;
    reference_index reference;
    warm_ptr warm;

    searched_slice(const std::vector<forge_event>& events, const forge_options& options) : reference(events) {
        warm_rc_t rc;
        warm.reset(st_warm_slice_open_rdonly(forge_file(dir.path(), events, options).c_str(), &rc));
        EXPECT_NE(warm, nullptr) << options.name() << ": " << rc.warm_rc << " " << rc.message;
    }
};

std::vector<event_key> keys(const reference_index& reference, const std::vector<uint32_t>& ids) {
    std::vector<event_key> out;
    for (const uint32_t id : ids) out.push_back({reference.values()[id].time, reference.values()[id].address});
    return out;
}

std::vector<event_key> run(const searched_slice& slice, const st_query_spec& query, uint32_t capacity, bool exact) {
    std::vector<st_tsval> answers(capacity);
    const int found = st_warm_slice_search(slice.warm.get(), &query, answers.data(), capacity, exact);
    EXPECT_GE(found, 0) << query.lispy;
    return keys_of(answers.data(), found);
}

// One random query: exact answers, a capacity, the count, and the candidates of an inexact search.
void check_query(const searched_slice& slice, query_maker* maker) {
    const reference_query tree = maker->group(0);
    const reference_bounds bounds = maker->bounds();
    const std::string text = tree.notation();
    const st_query_spec query = make_query(text.c_str(), bounds);
    const auto total = static_cast<uint32_t>(slice.reference.values().size());
    const std::vector<event_key> truth = keys(slice.reference, slice.reference.search(tree, bounds));

    ASSERT_EQ(run(slice, query, total + 1, true), truth) << text;

    const uint32_t capacity = maker->below(total) + 1;
    std::vector<event_key> newest = truth;
    newest.resize(std::min<size_t>(newest.size(), capacity));
    ASSERT_EQ(run(slice, query, capacity, true), newest) << text;

    std::vector<event_key> candidates = run(slice, query, total + 1, false), wanted = truth;
    std::sort(candidates.begin(), candidates.end());
    std::sort(wanted.begin(), wanted.end());
    ASSERT_TRUE(std::includes(candidates.begin(), candidates.end(), wanted.begin(), wanted.end())) << text;

    if (bounds.cumspan == 0) {
        uint64_t count = 0;
        warm_rc_t rc;
        ASSERT_EQ(warm_slice_count(slice.warm.get(), &query, &count, nullptr, &rc), 0) << text;
        ASSERT_EQ(count, truth.size()) << text;
    }
}

TEST(Search, RandomQueriesEqualBruteForceOverEveryHeaderAndEncoding) {
    constexpr int CASES = 100000 / static_cast<int>(SANITIZED_PART);
    const std::vector<forge_options> kinds = forge_all_kinds();  // older metric slices: as if they held events
    constexpr uint32_t SIZES[] = {1, 3, 12, 40, 90};
    const int per_slice = CASES / static_cast<int>(kinds.size() * std::size(SIZES)) + 1;
    uint64_t seed = 1;
    for (const forge_options& kind : kinds) {
        for (const uint32_t size : SIZES) {
            SCOPED_TRACE(kind.name() + " events " + std::to_string(size));
            std::vector<forge_event> events = forge_random_events(++seed, size);
            if (kind.metric()) std::for_each(events.begin(), events.end(), [](auto& e) { e.deleted = false; });
            const searched_slice slice(events, kind);
            ASSERT_NE(slice.warm, nullptr);
            // Around the times of a header; of a legacy one, around what lies in their place.
            const reference_bounds around = {.earliest = static_cast<int32_t>(slice.warm->body->earliest.get() - 1),
                                             .latest = static_cast<int32_t>(slice.warm->body->latest.get() + 1)};
            ASSERT_EQ(run(slice, make_query("[AND]", around), size, true),
                      keys(slice.reference, slice.reference.search(reference_query::group_and({}), around)));
            query_maker maker(slice.reference, seed);
            for (int i = 0; i < per_slice; i++) {
                check_query(slice, &maker);
                if (HasFatalFailure()) return;
            }
        }
    }
}

// More values than one window holds: the search goes on window by window and loses nothing at their edges.
TEST(Search, WindowsOfALargeSliceJoinWithoutGaps) {
    std::vector<forge_event> events = forge_number(forge_random_events(77, 30000)).values;
    for (size_t i = 0; i < events.size(); i++) {  // a rare term at every edge, and frequent ones
        events[i].deleted = events[i].deleted && i % 16 != 0;
        for (const auto& [term, step] : {std::pair("edge", 16), {"half", 2}}) {
            if (i % static_cast<size_t>(step) == 0) events[i].terms.emplace_back(term);
        }
        for (const auto& [term, step] : {std::pair("many", 5), {"most", 3}}) {
            if (i % static_cast<size_t>(step) != 0) events[i].terms.emplace_back(term);
        }
    }
    // Lists of several stretches between marks: each handle is asked all of it, so that it remembers them.
    const searched_slice mixed(events, forge_event_kinds().back()), slice(events, forge_as_created(4));
    for (const searched_slice* const one : {&mixed, &slice}) {
        ASSERT_NE(one->warm, nullptr);
        const reference_query both =
            reference_query::group_and({reference_query::term("half"), reference_query::term("many")});
        const std::vector<forge_event>& values = one->reference.values();
        for (size_t i = 25000; i > 1000; i = i % 3 == 0 ? i + 700 : i - 1700) {
            const reference_bounds narrow = {.earliest = values[i].time, .latest = values[i - 300].time};
            const std::vector<event_key> expected = keys(one->reference, one->reference.search(both, narrow));
            ASSERT_EQ(run(*one, make_query(both.notation().c_str(), narrow), 30000, true), expected) << i;
        }
        query_maker maker(one->reference, 5);
        for (int i = 0; i < 20; i++) {
            gap_groups_are_off = i % 4 == 3;
            check_query(*one, &maker);
            gap_groups_are_off = false;
            if (HasFatalFailure()) return;
        }
    }
    for (const std::vector<const char*>& terms : {std::vector<const char*>{"edge"}, {"half", "many", "most"}}) {
        std::vector<reference_query> all;
        for (const char* const term : terms) all.push_back(reference_query::term(term));
        const reference_query tree = reference_query::group_and(all);
        std::vector<event_key> expected = keys(slice.reference, slice.reference.search(tree, {}));
        for (const uint32_t capacity : {30000u, 1000u, 16u}) {
            expected.resize(std::min<size_t>(expected.size(), capacity));
            EXPECT_EQ(run(slice, make_query(tree.notation().c_str()), capacity, true), expected) << capacity;
        }
    }
    const std::string path = files_in(slice.dir.path(), ".tsidx")[0];
    const st_query_spec dense = make_query("[AND half many [NOT most]]");
    uint64_t most = 0;
    for (const fault_action action : {fault_action::fail, fault_action::allocation}) {
        for (uint64_t nth = 0, last = 1; nth <= last; nth++) {
            const fault_step step(action, nth == 0 ? ~uint64_t{0} - 1 : nth, EIO);
            warm_rc_t rc;
            const warm_ptr warm(st_warm_slice_open_rdonly(path.c_str(), &rc));
            uint64_t count = 0;
            const bool told = warm == nullptr || warm_slice_count(warm.get(), &dense, &count, nullptr, &rc) != 0;
            last = action == fault_action::fail ? step.calls() : step.allocations();
            if (nth == 0) most = count;
            EXPECT_TRUE(told ? nth != 0 : count == most && count != 0) << nth << " of " << last;
        }
    }
}

TEST(Search, BitmapHoldsTheMatchAndNoBitBehindTheRange) {
    const searched_slice slice(forge_random_events(9, 60), forge_as_created(4));
    query_maker maker(slice.reference, 3);
    for (int i = 0; i < 500; i++) {
        const reference_query tree = maker.group(0);
        reference_bounds bounds = maker.bounds();
        bounds.cumspan = 0;
        const std::string text = tree.notation();
        const st_query_spec query = make_query(text.c_str(), bounds);
        bitmap_and_bounds_t bnb;
        uint64_t count = 0;
        warm_rc_t rc;
        ASSERT_EQ(query_to_bitmap_and_bounds(slice.warm.get(), &query, &bnb, &count, &rc), 0) << text;
        const std::set<uint32_t> matches = slice.reference.matches(tree, bounds.neq_matches_missing);
        uint64_t expected = 0;
        for (uint32_t id = 0; id < slice.reference.values().size() + 9; id++) {
            const bool inside = id >= bnb.begin && id < bnb.end;
            const bool wanted = inside && matches.contains(id);
            expected += wanted ? 1 : 0;
            if (id > bnb.end) continue;  // the filter is asked about the range alone
            ASSERT_EQ(bnb_tsval_passes_filter(&bnb, id), wanted) << text << " id " << id;
        }
        ASSERT_EQ(count, expected) << text;
        free_bitmap_and_bounds(&bnb);
    }
}

TEST(Search, MalformedQueriesTouchNoAnswer) {
    const searched_slice slice(forge_random_events(4, 20), forge_as_created(4));
    for (const auto& [status, text] : {std::pair<int, const char*>{-20, ""}, {-37, nullptr}}) {
        const st_query_spec query = make_query(text);
        st_tsval answer = {};
        uint64_t count = 0;
        warm_rc_t rc;
        EXPECT_EQ(st_warm_slice_search(slice.warm.get(), &query, &answer, 1, true), status);
        EXPECT_EQ(warm_slice_count(slice.warm.get(), &query, &count, nullptr, &rc), status);
        EXPECT_TRUE(answer.address == 0 && answer.time == 0);
    }
}

TEST(Search, EmptyGroupsAndDeepNesting) {
    const searched_slice slice(forge_random_events(4, 20), forge_as_created(4));
    const size_t everything = slice.reference.search(reference_query::group_and({}), {}).size();
    const auto found = [&](const std::string& text) { return run(slice, make_query(text.c_str()), 30, true).size(); };
    EXPECT_EQ(found("[AND]"), everything);
    EXPECT_EQ(found("[OR]"), 0U);
    EXPECT_EQ(found("[AND [OR]]"), 0U);
    EXPECT_EQ(found("[OR [AND]]"), everything);
    EXPECT_EQ(found("[AND] [OR absent [NOT absent]]"), everything);
    EXPECT_EQ(found("[OR absent] [AND]"), 0U);

    std::string deep;
    constexpr int DEPTH = 20000;
    for (int i = 0; i < DEPTH; i++) deep += i % 2 == 0 ? "[OR " : "[AND ";
    deep += std::string(DEPTH, ']');
    EXPECT_EQ(found(deep), everything);
}

TEST(Search, WildcardsCanLeaveFieldTermsOut) {
    const auto event = [](int32_t time, std::vector<std::string> terms) {
        return forge_event{.time = time, .address = static_cast<uint32_t>(time), .terms = std::move(terms)};
    };
    const searched_slice slice({event(1, {"host::a", "hop"}), event(2, {"host::b"}), event(3, {"a:b"})},
                               forge_as_created(4));
    const auto found = [&](const char* text, uint8_t options) {
        st_query_spec query = make_query(text);
        query.opt_a = options;
        return run(slice, query, 9, true).size();
    };
    EXPECT_EQ(found("[AND ho*]", 0), 2U);
    EXPECT_EQ(found("[AND ho*]", QUERY_WILDCARDS_SKIP_FIELDS), 1U);
    EXPECT_EQ(found("[AND a*]", QUERY_WILDCARDS_SKIP_FIELDS), 1U);
    EXPECT_EQ(found("[AND host::*]", QUERY_WILDCARDS_SKIP_FIELDS), 2U);
}

TEST(Search, BoundsOutsideOrTheWrongWayRoundReadNothing) {
    const searched_slice slice(forge_random_events(4, 20), forge_as_created(4));
    const int32_t latest = slice.reference.values().front().time;
    const int32_t earliest = slice.reference.values().back().time;
    for (const reference_bounds& bounds :
         {reference_bounds{.earliest = latest + 1}, reference_bounds{.latest = earliest - 1},
          reference_bounds{.earliest = latest, .latest = earliest - 1}}) {
        st_query_info_t info;
        st_query_spec query = make_query("[OR * [AND a* [NOT b]]]", bounds);
        query.info = &info;
        st_tsval answer;
        EXPECT_EQ(st_warm_slice_search(slice.warm.get(), &query, &answer, 1, true), 0);
        EXPECT_EQ(info.reads, 0U);
    }
}

// A list with more events than its term's count, or a count of none, fails the query and is never cut to fit.
TEST(Search, CountsThatContradictTheirListsAreDamage) {
    const temp_dir dir;
    std::vector<forge_event> events(256);
    for (uint32_t i = 0; i < 256; i++) {
        events[i] = {.time = static_cast<int>(i), .address = i, .terms = {i % 2 == 0 ? "some" : "other"}};
    }
    forge_picture picture;
    std::string bytes = forge_slice(events, forge_as_created(1), &picture);
    for (const char count : {'\0', '\2'}) {
        bytes[picture.at.metadata + 12 + 3] = count;
        write_file(dir.file("slice"), bytes);
        warm_rc_t rc;
        const warm_ptr warm(st_warm_slice_open_rdonly(dir.file("slice").c_str(), &rc));
        ASSERT_NE(warm, nullptr);
        st_tsval answers[256];
        for (const auto& [text, bounds] :
             {std::pair("[AND some]", reference_bounds()), {"[OR some]", {}}, {"[AND some]", {10, 30}}}) {
            const st_query_spec query = make_query(text, bounds);  // the last one of bits that are remembered
            const int found = st_warm_slice_search(warm.get(), &query, answers, 256, true);
            EXPECT_EQ(found, text[1] == 'A' ? WARM_RC_CORRUPT : 128) << int{count};
        }
    }
}

}  // namespace
}  // namespace veldar
