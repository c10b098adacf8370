// Index directories as readers see them: a model of everything that can happen to one, and the rules one by one.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "searchthing/tsidx_list.h"
#include "searchthing/tsidx_read.h"
#include "searchthing/tsidx_snapshot.h"
#include "tests/support/faults.h"
#include "tests/support/hot_events.h"
#include "tests/support/reference.h"
#include "tests/support/temp_dir.h"

namespace veldar {
namespace {

namespace fs = std::filesystem;

struct tsidx_closer {
    void operator()(TSIDX* tsidx) const { EXPECT_EQ(st_tsidx_close(tsidx), 0); }
};
using tsidx_ptr = std::unique_ptr<TSIDX, tsidx_closer>;

tsidx_ptr open_directory(const std::string& path, uint32_t level = 4, bool streaming = false) {
    TSWRITEOPTS opts;
    st_tsidx_write_opts_init_write_level(&opts, level);
    tsidx_ptr tsidx(st_tsidx_open(path.c_str(), streaming, 0, &opts, TSIDX_ORDINARY_WRITER));
    st_tsidx_set_durable(tsidx.get(), 0);
    return tsidx;
}
tsidx_ptr open_for_reading(const std::string& path) {
    return open_directory(path, 0);
}

using event_key = std::pair<st_time_t, st_addr_t>;

st_query_spec make_query(const std::string& text, const reference_bounds& bounds = {}) {
    st_query_spec query;
    query.earliest = {bounds.earliest, 0};
    query.latest = {bounds.latest, 0};
    query.cumspan = bounds.cumspan;
    query.lispy = text.c_str();
    return query;
}

std::vector<event_key> keys_of(const st_tsval* answers, int count) {
    std::vector<event_key> keys;
    for (int i = 0; i < count; i++) keys.push_back({answers[i].time, answers[i].address});
    return keys;
}
std::vector<event_key> query_keys(TSIDX* tsidx, const std::string& text, const reference_bounds& bounds = {},
                                  uint32_t capacity = 5000) {
    std::vector<st_tsval> answers(capacity);
    const st_query_spec query = make_query(text, bounds);
    const int count = st_tsidx_query(tsidx, &query, answers.data(), capacity, 1);
    EXPECT_GE(count, 0) << st_tsidx_last_failure(tsidx)->message;
    return keys_of(answers.data(), count);
}

int collect_event(const st_tsval* event, void* context) {
    static_cast<std::vector<event_key>*>(context)->push_back({event->time, event->address});
    return 1;
}
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
                EXPECT_EQ(st_tsidx_sync(tsidx_.get()), 0);
            } else if (kind < 69) {
                EXPECT_EQ(st_tsidx_sync_part(tsidx_.get()), 0);
            } else if (kind < 72) {
                reopen();
            } else if (kind < 92) {
                check_query();
            } else {
                check_terms();
            }
        }
        check_query();
        check_terms();
    }

  private:
    uint32_t below(uint32_t n) { return static_cast<uint32_t>(random_() % n); }

    void reopen() {
        tsidx_.reset();
        tsidx_ = open_directory(dir_.path(), 1 + below(4), false);
        // The smallest limits there are: slices of one to twenty events.
        ASSERT_EQ(st_tsidx_options(tsidx_.get(), 1 + below(20), 257, 1 + below(20), 1 + below(20)), 0);
        st_tsidx_autotune(tsidx_.get(), below(2) == 0);
    }

    void put() {
        if (!events_.empty() && below(10) == 0) {  // again, perhaps into another slice
            const forge_event& event = events_[below(static_cast<uint32_t>(events_.size()))];
            if (!event.deleted) {
                ASSERT_EQ(put_event(tsidx_.get(), event), 0);
            }
            return;
        }
        if (pool_.empty()) return;
        forge_event event = pool_.back();
        pool_.pop_back();
        event.deleted = false;
        ASSERT_EQ(put_event(tsidx_.get(), event), 0) << st_tsidx_last_failure(tsidx_.get())->message;
        events_.push_back(event);
    }

    reference_query random_query(const reference_index& reference) {
        std::vector<std::string> terms = {"absent"};
        for (const auto& [term, record] : reference.terms()) terms.push_back(term);
        const auto pick = [&] {
            std::string term = terms[below(static_cast<uint32_t>(terms.size()))];
            if (below(6) == 0) term = term.substr(0, 1 + below(3)) + "*";
            return below(4) == 0 ? reference_query::not_term(term) : reference_query::term(term);
        };
        std::vector<reference_query> children;
        for (uint32_t i = below(4); i > 0; i--) children.push_back(pick());
        return below(2) == 0 ? reference_query::group_and(std::move(children))
                             : reference_query::group_or(std::move(children));
    }

    void check_query() {
        const reference_index reference(events_);
        const reference_query tree = random_query(reference);
        reference_bounds bounds;
        if (!events_.empty() && below(2) == 0) {
            bounds.earliest = events_[below(static_cast<uint32_t>(events_.size()))].time - static_cast<int>(below(2));
            bounds.latest = events_[below(static_cast<uint32_t>(events_.size()))].time;
        }
        bounds.cumspan = below(4) == 0 ? 2 : 0;
        std::vector<event_key> expected;
        for (const uint32_t number : reference.search(tree, bounds)) {
            expected.push_back({reference.values()[number].time, reference.values()[number].address});
        }
        const std::string text = tree.notation();
        SCOPED_TRACE(text);
        const tsidx_ptr reader = below(3) == 0 ? open_for_reading(dir_.path()) : nullptr;
        if (reader != nullptr) {
            EXPECT_EQ(st_tsidx_sync(tsidx_.get()), 0);
        }
        TSIDX* const tsidx = reader != nullptr ? reader.get() : tsidx_.get();
        std::vector<event_key> walked;
        const st_query_spec query = make_query(text, bounds);
        EXPECT_GE(st_tsidx_apply_events(tsidx, &query, collect_event, &walked), 0);
        std::sort(walked.begin(), walked.end(), std::greater<>());
        uint64_t count = 0;
        EXPECT_EQ(st_tsidx_event_count(tsidx, &query, &count), 0);
        if (bounds.cumspan == 0) {
            EXPECT_EQ(count, walked.size());
        }
        walked.erase(std::unique(walked.begin(), walked.end()), walked.end());
        EXPECT_EQ(walked, expected);

        const uint32_t capacity = below(2) == 0 ? 500 : 1 + below(20);
        if (expected.size() > capacity) expected.resize(capacity);
        EXPECT_EQ(query_keys(tsidx, text, bounds, capacity), expected);
    }

    void check_terms() {
        const reference_index reference(events_);
        if (reference.terms().empty()) return;
        TSIDX* const tsidx = tsidx_.get();
        auto some = reference.terms().begin();
        std::advance(some, below(static_cast<uint32_t>(reference.terms().size())));
        const std::string term = some->first;

        std::vector<event_key> expected;
        for (const uint32_t number : some->second.postings) {
            const forge_event& event = reference.values()[number];
            if (!event.deleted) expected.push_back({event.time, event.address});
        }
        std::vector<st_tsval> answers(500);
        const int count = st_tsidx_get(tsidx, term.c_str(), INT32_MIN, INT32_MAX, answers.data(), 500);
        ASSERT_GE(count, 0);
        EXPECT_EQ(keys_of(answers.data(), count), expected) << term;

        term_counts by_slice;
        std::vector<std::pair<std::string, uint64_t>> distinct;
        const std::string prefix = term.substr(0, below(3));
        EXPECT_GE(st_tsidx_apply_terms(tsidx, prefix.c_str(), add_term, &by_slice), 0);
        const int64_t total = st_tsidx_distinct_apply_terms(tsidx, prefix.c_str(), append_term, &distinct);
        EXPECT_EQ(total, static_cast<int64_t>(distinct.size()));
        EXPECT_EQ(distinct, (std::vector<std::pair<std::string, uint64_t>>(by_slice.begin(), by_slice.end())));
        std::vector<st_enum_answer> enumerated(1 + below(40));
        const int held =
            st_tsidx_enum(tsidx, prefix.c_str(), enumerated.data(), static_cast<uint32_t>(enumerated.size()), false);
        ASSERT_EQ(static_cast<size_t>(held), std::min(distinct.size(), enumerated.size()));
        for (size_t i = 0; i < static_cast<size_t>(held); i++) {
            EXPECT_EQ(enumerated[i].term, distinct[i].first);
            EXPECT_EQ(enumerated[i].id, distinct[i].second);
        }

        const std::string needle = prefix + "*" + term.substr(term.size() - 1);
        std::vector<std::pair<std::string, uint64_t>> matched;
        EXPECT_GE(st_tsidx_lex_query(tsidx, needle.c_str(), append_term, &matched), 0);
        std::erase_if(distinct,
                      [&](const auto& entry) { return !reference_index::wildcard_matches(needle, entry.first); });
        EXPECT_EQ(matched, distinct) << needle;

        for (const auto& [text, record] : reference.terms()) {
            if (text.compare(0, prefix.size(), prefix) == 0) {
                EXPECT_GE(by_slice[text], record.count()) << text;
            }
        }
        EXPECT_EQ(st_tsidx_distinct_term_count(tsidx), static_cast<int64_t>(reference.terms().size()));
        EXPECT_GE(st_tsidx_distinct_apply_terms(tsidx, term.c_str(), append_term, &distinct), 1);
    }

    std::mt19937_64 random_;
    temp_dir dir_;
    tsidx_ptr tsidx_;
    std::vector<forge_event> pool_;
    std::vector<forge_event> events_;
};

TEST(Directory, Model) {
    for (uint64_t seed = 1; seed <= 12 && !testing::Test::HasFailure(); seed++) {
        SCOPED_TRACE(seed);
        model(seed).run(400);
    }
}

}  // namespace
}  // namespace veldar
