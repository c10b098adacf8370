// Everything that can happen to an index directory, in any order, beside a plain list of its events.
#include <algorithm>
#include <filesystem>
#include <functional>
#include <map>
#include <random>

#include "searchthing/reading/cursors.h"
#include "searchthing/st.h"
#include "searchthing/upkeep/tsidx_upkeep.h"
#include "tests/support/directory.h"
#include "tests/support/faults.h"
#include "tests/support/hot_events.h"
#include "tests/support/query_maker.h"
#include "tests/support/sampled.h"
#include "tests/support/temp_dir.h"

namespace veldar {
namespace {

namespace fs = std::filesystem;

int collect_event(const st_tsval* event, void* context) {
    static_cast<std::vector<event_key>*>(context)->push_back({event->time, event->address});
    return 1;
}
// Ends the walk when as many events have been collected as there is room for.
int collect_some(const st_tsval* event, void* context) {
    std::vector<event_key>* const keys = static_cast<std::vector<event_key>*>(context);
    keys->push_back({event->time, event->address});
    return keys->size() < keys->capacity() ? 1 : -1;
}
struct thing_closer {
    void operator()(THING* thing) const { EXPECT_EQ(st_close(thing), 0); }
};
using thing_ptr = std::unique_ptr<THING, thing_closer>;
using term_counts = std::map<std::string, uint64_t>;
int add_term(const char* term, size_t length, uint64_t count, void* context) {
    (*static_cast<term_counts*>(context))[std::string(term, length)] += count;
    return 1;
}
int append_term(const char* term, size_t length, uint64_t count, void* context) {
    static_cast<std::vector<std::pair<std::string, uint64_t>>*>(context)->push_back({std::string(term, length), count});
    return 1;
}

// A directory beside a plain list of the events in it.
class model {
  public:
    explicit model(uint64_t seed) : random_(seed), pool_(forge_random_events(seed, 400)) { reopen(); }

    void run(int steps) {
        for (int i = 0; i < steps && !testing::Test::HasFailure(); i++) {
            const uint32_t kind = below(100);
            if (kind < 60) {
                put();
            } else if (kind < 66) {
                EXPECT_EQ(st_sync(thing_.get()), 0);
            } else if (kind < 69) {
                EXPECT_EQ(st_tsidx_sync_part(directory()), 0);
            } else if (kind < 72) {
                reopen();
            } else if (kind < 76) {
                remove_some();
            } else if (kind < 79) {
                merge_some();
            } else if (kind < 92) {
                check_query();
            } else {
                check_terms();
            }
        }
        check_query();
        check_terms();
        EXPECT_GT(merged_, 0u);
    }

  private:
    TSIDX* directory() const { return st_directory(thing_.get()); }
    uint32_t below(uint32_t n) { return static_cast<uint32_t>(random_() % n); }

    void reopen() {
        thing_.reset();
        TSWRITEOPTS opts;
        st_tsidx_write_opts_init_write_level(&opts, 1 + below(4));
        thing_.reset(st_open_for_write(dir_.path().c_str(), 0, TSIDX_ORDINARY_WRITER, &opts));
        st_tsidx_set_durable(directory(), 0);
        // Each limit is among the smallest there are, or out of the way: slices of one event to dozens.
        const auto limit = [this] { return below(2) == 0 ? 1 + below(20) : 65536; };
        ASSERT_EQ(st_options(thing_.get(), limit(), 257, limit(), limit()), 0);
        st_autotune(thing_.get(), below(2) == 0);
    }

    void put() {
        if (!events_.empty() && below(10) == 0) {  // again, perhaps into another slice
            const forge_event& event = events_[below(static_cast<uint32_t>(events_.size()))];
            if (!event.deleted) {
                ASSERT_EQ(put_event(directory(), event), 0);
            }
            return;
        }
        if (pool_.empty()) return;
        forge_event event = pool_.back();
        pool_.pop_back();
        event.deleted = false;
        ASSERT_EQ(put_event(directory(), event), 0) << st_tsidx_last_failure(directory())->message;
        events_.push_back(event);
    }

    // Deletes in one of three ways, twice: the second time finds nothing to do.
    void remove_some() {
        if (events_.empty()) return;
        std::vector<bool> doomed(events_.size());
        std::vector<st_tsval_encoded> keys;
        std::vector<st_addr_t> addresses;
        const uint32_t way = below(3);
        const int32_t pivot = events_[below(static_cast<uint32_t>(events_.size()))].time;
        const bool many = below(4) == 0;
        for (size_t i = 0; i < events_.size(); i++) {
            const forge_event& event = events_[i];
            if (way == 2 ? event.time == pivot : below(many ? 2 : 12) == 0) {
                doomed[i] = true;
                keys.push_back({event.time, event.address});
                addresses.push_back(event.address);
            }
        }
        keys.push_back({pivot, 0xFFFFFFF0});  // of no event
        addresses.push_back(0xFFFFFFF0);
        for (size_t i = 0; way == 1 && i < events_.size(); i++) {
            doomed[i] = std::count(addresses.begin(), addresses.end(), events_[i].address) != 0;
        }
        const st_query_spec query = make_query("[AND]", {.earliest = pivot, .latest = pivot});
        const auto remove = [&] {
            if (way == 0) return st_delete_by_keys(thing_.get(), keys.data(), keys.size());
            if (way == 1) return st_delete_by_addrs(thing_.get(), addresses.data(), addresses.size());
            return st_tsidx_delete_by_query(directory(), &query);
        };
        int64_t expected = 0;
        for (size_t i = 0; i < events_.size(); i++) {
            if (!doomed[i]) continue;
            expected += events_[i].deleted ? 0 : 1;
            events_[i].deleted = true;
        }
        EXPECT_GE(remove(), expected) << st_tsidx_last_failure(directory())->message;
        EXPECT_EQ(remove(), 0);
    }

    // Slices of all levels and ages, up to three rounds.
    void merge_some() {
        const int mode = static_cast<int>(below(4));
        const uint64_t target_size = below(2) == 0 ? 0 : 500 + below(5000);
        const bool is_final = below(2) == 0;
        int status = 0;
        for (uint32_t rounds = 1 + below(3); rounds > 0 && status == 0; rounds--) {
            warm_rc_t rc;
            status = st_tsidx_optimize_n(directory(), mode, 2 + below(4), below(20), target_size, &rc, 0, 0, is_final);
            EXPECT_TRUE(status == 0 || status == WARM_RC_FEW_SLICES || status == WARM_RC_FEW_SOURCES) << rc.message;
        }
        merged_ += mode != TSIDX_OPTIMIZE_DRY_RUN && status == 0 ? 1 : 0;
    }

    void check_query() {
        if (events_.empty()) return;
        const reference_index reference(events_);
        query_maker maker(reference, random_());
        const reference_query tree = maker.group(0);
        const reference_bounds bounds = maker.bounds();
        std::vector<event_key> expected;
        for (const uint32_t number : reference.search(tree, bounds)) {
            expected.push_back({reference.values()[number].time, reference.values()[number].address});
        }
        const std::string text = tree.notation();
        SCOPED_TRACE(text);
        const thing_ptr reader(below(3) == 0 ? st_open_for_read(dir_.path().c_str()) : nullptr);
        if (reader != nullptr) {
            EXPECT_EQ(st_sync(thing_.get()), 0);
        }
        THING* const thing = reader != nullptr ? reader.get() : thing_.get();
        std::vector<event_key> walked;
        const st_query_spec query = make_query(text.c_str(), bounds);
        EXPECT_GE(st_apply_events(thing, &query, collect_event, &walked), 0);
        EXPECT_EQ(st_query(thing, &query, nullptr, 0, 1), 0);
        if (!walked.empty()) {
            std::vector<event_key> some;
            some.reserve(1 + below(static_cast<uint32_t>(walked.size())));
            EXPECT_EQ(st_apply_events(thing, &query, collect_some, &some), -1);
            EXPECT_TRUE(some.size() == some.capacity() && std::equal(some.begin(), some.end(), walked.begin()));
        }
        std::sort(walked.begin(), walked.end(), std::greater<>());
        uint64_t count = 0;
        EXPECT_EQ(st_event_count(thing, &query, &count), 0);
        if (bounds.cumspan == 0) {
            EXPECT_EQ(count, walked.size());
        }
        walked.erase(std::unique(walked.begin(), walked.end()), walked.end());
        EXPECT_EQ(walked, expected);

        const uint32_t capacity = below(2) == 0 ? 500 : 1 + below(20);
        if (expected.size() > capacity) expected.resize(capacity);
        EXPECT_EQ(query_keys(st_directory(thing), text, bounds, capacity), expected);
    }

    void check_terms() {
        const reference_index reference(events_);
        if (reference.terms().empty()) return;
        THING* const thing = thing_.get();
        auto some = reference.terms().begin();
        std::advance(some, below(static_cast<uint32_t>(reference.terms().size())));
        const std::string term = some->first;

        std::vector<event_key> expected;
        for (const uint32_t number : some->second.postings) {
            const forge_event& event = reference.values()[number];
            if (!event.deleted) expected.push_back({event.time, event.address});
        }
        std::vector<st_tsval> answers(500);
        const int count = st_get(thing, term.c_str(), INT32_MIN, INT32_MAX, answers.data(), 500);
        uint64_t counted = 0;
        ASSERT_EQ(st_term_count(thing, term.c_str(), INT32_MIN, INT32_MAX, &counted), 0);
        ASSERT_GE(counted, static_cast<uint64_t>(count));
        ASSERT_GE(count, 0);
        EXPECT_EQ(keys_of(answers.data(), count), expected) << term;

        term_counts by_slice;
        std::vector<std::pair<std::string, uint64_t>> distinct;
        const std::string prefix = term.substr(0, below(3));
        EXPECT_GE(st_apply_terms(thing, prefix.c_str(), add_term, &by_slice), 0);
        const int64_t total = st_distinct_apply_terms(thing, prefix.c_str(), append_term, &distinct);
        EXPECT_EQ(total, static_cast<int64_t>(distinct.size()));
        EXPECT_EQ(distinct, (std::vector<std::pair<std::string, uint64_t>>(by_slice.begin(), by_slice.end())));
        std::vector<st_enum_answer> answered(1 + below(40));
        const int held = st_enum(thing, prefix.c_str(), answered.data(), static_cast<uint32_t>(answered.size()), false);
        ASSERT_EQ(static_cast<size_t>(held), std::min(distinct.size(), answered.size()));
        for (size_t i = 0; i < static_cast<size_t>(held); i++) {
            EXPECT_EQ(std::pair(std::string(answered[i].term), uint64_t{answered[i].id}), distinct[i]);
        }
        check_resumed(prefix, reference, distinct);

        const std::string needle = prefix + "*" + term.substr(term.size() - 1);
        std::vector<std::pair<std::string, uint64_t>> matched;
        EXPECT_GE(st_lex_query(thing, needle.c_str(), append_term, &matched), 0);
        std::erase_if(distinct,
                      [&](const auto& entry) { return !reference_index::wildcard_matches(needle, entry.first); });
        EXPECT_EQ(matched, distinct) << needle;

        int64_t live_terms = 0;
        for (const auto& [text, record] : reference.terms()) {
            const auto live = std::count_if(record.postings.begin(), record.postings.end(),
                                            [&](uint32_t number) { return !reference.values()[number].deleted; });
            live_terms += live != 0 ? 1 : 0;
            if (text.compare(0, prefix.size(), prefix) == 0 && live != 0) {
                EXPECT_GE(by_slice[text], static_cast<uint64_t>(live)) << text;
            }
        }
        // Terms go when all events of their slices have gone.
        const int64_t terms = st_distinct_term_count(thing);
        EXPECT_GE(terms, live_terms);
        EXPECT_LE(terms, static_cast<int64_t>(reference.terms().size()));
        check_meta();
    }

    // A cursor that goes on behind a term, over the directory taken twice.
    void check_resumed(const std::string& prefix, const reference_index& reference,
                       const std::vector<std::pair<std::string, uint64_t>>& distinct) {
        size_t next = below(static_cast<uint32_t>(distinct.size()));
        term_cursor_options_t options;
        options.sources = {{directory(), {}}, {directory(), {}}};
        options.choice.prefix = prefix;
        options.choice.after = distinct[next].first;
        warm_rc_t rc;
        const term_cursor_ptr cursor = term_cursor_open(options, &rc);
        ASSERT_NE(cursor, nullptr) << rc.message;
        std::string_view term;
        term_totals_t totals;
        while (term_cursor_next(cursor.get(), &term, &rc) == 0 && term.data() != nullptr) {
            ASSERT_LT(++next, distinct.size());
            ASSERT_EQ(term_cursor_totals(cursor.get(), &totals, &rc), 0);
            EXPECT_EQ(std::pair(std::string(term), totals.count),
                      std::pair(distinct[next].first, 2 * distinct[next].second));
            for (const uint32_t number : reference.terms().at(distinct[next].first).postings) {
                const forge_event& event = reference.values()[number];
                EXPECT_TRUE(event.deleted || (totals.earliest <= event.time && event.time <= totals.latest));
            }
        }
        EXPECT_EQ(next + 1, distinct.size());
        // A failure ends the cursor.
        options.choice = {};
        for (uint64_t nth = 1, hits = 1; hits != 0; nth++) {
            const fault broken(fault_call::pread, nth, EIO);
            const term_cursor_ptr failing = term_cursor_open(options, &rc);
            int status = failing == nullptr ? -1 : 0;
            while (status == 0 && (status = term_cursor_next(failing.get(), &term, &rc)) == 0 &&
                   term.data() != nullptr) {
            }
            hits = broken.hits();
            EXPECT_EQ(status != 0, hits != 0);
            EXPECT_TRUE(failing == nullptr || term_cursor_next(failing.get(), &term, &rc) == 0) << rc.message;
            EXPECT_EQ(term.data(), nullptr);
        }
    }

    void check_meta() {
        tsidx_meta_t meta;
        ASSERT_EQ(st_meta(thing_.get(), &meta), 0);
        uint64_t live = 0;
        EXPECT_EQ(st_event_count(thing_.get(), nullptr, &live), 0);
        EXPECT_EQ(live, meta.events - meta.deleted);
        std::vector<tsidx_info_t> infos(meta.slices + 1);
        ASSERT_EQ(st_get_tsidx_info(thing_.get(), infos.data(), infos.size()), static_cast<int64_t>(meta.slices));
        tsidx_meta_t sum;
        for (size_t i = 0; i < meta.slices; i++) {
            EXPECT_TRUE(i == 0 || infos[i - 1].latest >= infos[i].latest);
            st_filename_metadata_t name;
            EXPECT_NE(
                infos[i].part ? tsidx_part_file_parse(infos[i].name, &name) : st_parse_tsidx(infos[i].name, &name), 0);
            EXPECT_TRUE(std::tuple(name.earliest, name.latest, name.id) ==
                            std::tuple(infos[i].earliest, infos[i].latest, infos[i].id) &&
                        read_file(dir_.file(infos[i].name)).starts_with(infos[i].format));
            sum.events += infos[i].events;
            sum.deleted += infos[i].deleted;
            sum.terms += infos[i].terms;
            sum.earliest = i == 0 ? infos[i].earliest : std::min(sum.earliest, infos[i].earliest);
            sum.postings += infos[i].postings;
            sum.bytes += fs::file_size(dir_.file(infos[i].name));
            EXPECT_LT(infos[i].deleted, infos[i].events) << "a slice without events is still there";
        }
        EXPECT_TRUE(sum.events == meta.events && sum.deleted == meta.deleted && sum.bytes == meta.bytes);
        EXPECT_TRUE(sum.terms == meta.terms && sum.postings == meta.postings && meta.postings >= meta.terms);
        EXPECT_TRUE(sum.earliest == meta.earliest && (meta.slices == 0 || infos[0].latest == meta.latest));
    }

    std::mt19937_64 random_;
    temp_dir dir_;
    thing_ptr thing_;
    std::vector<forge_event> pool_;
    std::vector<forge_event> events_;
    uint32_t merged_ = 0;
};

class DirectoryModel : public directory_test {};

TEST_F(DirectoryModel, AgreesWithAList) {
    for (uint64_t seed = 1; seed <= 12 / SANITIZED_PART && !HasFailure(); seed++) {
        SCOPED_TRACE(seed);
        model(seed).run(400);
    }
}

}  // namespace
}  // namespace veldar
