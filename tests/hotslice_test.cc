#include "searchthing/hot/hotslice.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/hot_events.h"

namespace veldar {
namespace {

struct limits {
    uint64_t lexicon = 65536, terms = 512, postings = 8192, values = 1024;
};

hot_ptr make_hot(const limits& l = {}, bool streaming = false, warm_rc_t* rc = nullptr) {
    warm_rc_t ignored;
    return hot_ptr(st_hot_slice_create(l.lexicon, l.terms, l.postings, l.values, 0, 0, 0, streaming, false, nullptr,
                                       rc != nullptr ? rc : &ignored));
}

st_txn event(st_time_t time, st_addr_t address) {
    st_txn txn;
    txn.time = time;
    txn.address = address;
    return txn;
}

int put(const hot_ptr& hot, const std::string& keyword, const st_txn& txn) {
    return st_hot_slice_put_txn(hot.get(), keyword.data(), keyword.size(), &txn);
}

std::vector<hot_keyword_t> buffered(const std::vector<std::string>& texts) {
    std::vector<hot_keyword_t> keywords;
    for (const std::string& text : texts) {
        keywords.push_back({text.data(), static_cast<uint32_t>(text.size()), hot_slice_hash(text.data(), text.size())});
    }
    return keywords;
}

struct counts {
    int code = 0;
    uint32_t values = 0, terms = 0, postings = 0, dimsets = 0, rank = 0;
};

counts prepare(const hot_ptr& hot) {
    counts c;
    warm_rc_t rc;
    c.code = st_hot_slice_prepare(hot.get(), &c.values, &c.terms, &c.postings, &c.dimsets, &c.rank, &rc);
    return c;
}

void expect_equal(const hot_ptr& hot, const forge_picture& expected) {
    const counts c = prepare(hot);
    ASSERT_EQ(c.values, expected.values.size());
    ASSERT_EQ(c.terms, expected.terms.size());
    ASSERT_EQ(c.postings, expected.num_postings);
    for (uint32_t number = 0; number < c.values; number++) {
        const st_tsval* value = hot_slice_prepared_value(hot.get(), number);
        const st_txn txn = txn_of(expected.values[number]);
        ASSERT_TRUE(value->time == txn.time && value->address == txn.address && value->s == txn.source);
        ASSERT_TRUE(value->st == txn.source_type && value->h == txn.host && value->measure == txn.seek_address);
    }
    const hot_prepared_t* prepared = hot_slice_prepared(hot.get());
    const uint32_t* list = prepared->postings.data();
    std::set<uint32_t> ids;
    for (uint32_t rank = 0; rank < c.terms; rank++) {
        ASSERT_EQ(prepared->terms[rank], expected.terms[rank]);
        const std::vector<uint32_t> numbers(list, list + prepared->term_postings[rank]);
        ASSERT_EQ(numbers, expected.postings[rank]) << expected.terms[rank];
        list += numbers.size();
        ids.insert(st_hot_slice_get_term_index(hot.get(), rank));
    }
    ASSERT_EQ(ids.size(), c.terms);
}

// One keyword after the other, or a whole buffered transaction.
void apply(const hot_ptr& hot, const forge_event& e, bool whole) {
    const st_txn txn = txn_of(e);
    if (whole) {
        const std::vector<hot_keyword_t> keywords = buffered(e.terms);
        ASSERT_EQ(hot_slice_check_txn(hot.get(), &txn, keywords), 0);
        return hot_slice_put_all(hot.get(), &txn, keywords);
    }
    ASSERT_EQ(st_hot_slice_txn_start(hot.get(), &txn), 0);
    for (const std::string& term : e.terms) ASSERT_EQ(put(hot, term, txn), 0);
    ASSERT_EQ(st_hot_slice_txn_stop(hot.get()), 0);
}

// A short alphabet makes shared prefixes of every length around the eight bytes that a sorting step takes.
std::string random_keyword(std::mt19937& random) {
    std::string text(1 + (random() % 4 == 0 ? random() % 40 : random() % 12), '\0');
    for (char& c : text) c = random() % 3 == 0 ? static_cast<char>(1 + random() % 255) : 'a';
    return text;
}

// Eight bytes a step give what one a step gives, and no byte outside is read.
TEST(HotSlice, HashesEveryLength) {
    for (size_t length = 0; length < 40; length++) {
        const std::unique_ptr<char[]> text(new char[length]);
        uint32_t expected = 5381;
        for (size_t i = 0; i < length; i++) {
            text[i] = static_cast<char>(200 + 7 * i * length % 55);
            expected = expected * 33 + static_cast<uint8_t>(text[i]);
        }
        const hot_hash_t hash = hot_slice_hash_checked(text.get(), length);
        EXPECT_TRUE(hash.hash == expected && !hash.has_nul) << length;
        for (size_t i = 0; i < length; i++) {
            const char before = std::exchange(text[i], '\0');
            EXPECT_TRUE(hot_slice_hash_checked(text.get(), length).has_nul) << i << " of " << length;
            text[i] = before;
        }
    }
}

TEST(HotSlice, EqualsModel) {
    std::mt19937 random(7);
    for (const bool streaming : {false, true}) {
        const hot_ptr hot =
            make_hot({.lexicon = 1 << 20, .terms = 16384, .postings = 1 << 16, .values = 600}, streaming);
        for (uint32_t round = 0; round < 60; round++) {
            SCOPED_TRACE(testing::Message() << "round " << round << " streaming " << streaming);
            // Addresses that are multiples of the value hash's size all begin at one bucket.
            const uint32_t stride = round % 7 == 0 ? 1200 : 13;
            std::vector<forge_event> events = forge_random_events(round, 1 + static_cast<uint32_t>(random() % 400));
            for (size_t i = 0; i < events.size(); i++) events[i].address = static_cast<uint32_t>(i + 1) * stride;
            for (forge_event& e : events) {
                for (size_t more = random() % 30; more != 0; more--) e.terms.push_back(random_keyword(random));
                e.terms.push_back(e.terms.front());
            }
            if (streaming || round % 3 == 0) sort_by_arrival(&events);
            for (size_t i = 0; i < events.size(); i++) {
                apply(hot, events[i], random() % 2 == 0);
                if (streaming || random() % 8 != 0) continue;
                forge_event& again = events[random() % (i + 1)];  // a second transaction of an event
                const std::string more = random_keyword(random);
                forge_event part = again;
                part.terms = {more, again.terms.back()};
                apply(hot, part, random() % 2 == 0);
                again.terms.push_back(more);
            }
            expect_equal(hot, forge_number(events));
            st_hot_slice_reset(hot.get());
        }
    }
}

TEST(HotSlice, CreationLimits) {
    struct {
        limits l;
        int code;
    } const table[] = {
        {{.terms = 256}, -37},
        {{.postings = uint64_t{1} << 32}, -37},
        {{.values = uint64_t{1} << 32}, -37},
        {{.lexicon = uint64_t{1} << 32}, -36},
        {{.terms = (uint64_t{1} << 30) + 1}, -36},
        {{.terms = ~uint64_t{0}}, -36},
        {{.values = uint64_t{1} << 31}, -36},
        {{.terms = 257}, 0},
    };
    warm_rc_t rc;
    for (const auto& row : table) {
        EXPECT_EQ(make_hot(row.l, false, &rc) == nullptr, row.code != 0);
        EXPECT_EQ(rc.warm_rc, row.code);
    }
    EXPECT_EQ(st_hot_slice_create(65536, 512, 1024, 1024, 8192, ~uint64_t{0}, 1024, false, true, nullptr, &rc),
              nullptr);
    EXPECT_EQ(rc.warm_rc, WARM_RC_DOES_NOT_FIT);
    const hot_ptr sized = make_hot({.lexicon = 70000, .terms = 257, .postings = 9000, .values = 1000});
    EXPECT_EQ(st_hot_slice_size(sized.get()), 260880u);
    EXPECT_EQ(prepare(sized).code, -1) << "no values";
}

// Each hard limit refuses without a trace, and each soft limit is reported before its hard limit. 257 terms count as
// 512.
TEST(HotSlice, FullCodes) {
    struct {
        limits l;
        int code;
        uint32_t soft;  // puts until the soft limit is exceeded
    } const table[] = {
        {{.terms = 257}, HOT_PUT_RC_TERMS_FULL, 512 - 64 + 1},
        {{.values = 100}, HOT_PUT_RC_VALUES_FULL, 100 - 12 + 1},
        {{.postings = 300}, HOT_PUT_RC_POSTINGS_FULL, 300 - 37 + 1},
        {{.lexicon = 1000}, HOT_PUT_RC_LEXICON_FULL, (1000 - 125) / 9 + 1},  // each term takes 9 bytes
    };
    for (const auto& row : table) {
        const hot_ptr hot = make_hot(row.l);
        const auto nth = [](uint32_t i) { return std::to_string(10000000 + i); };
        uint32_t i = 0;
        int code = 0;
        for (; (code = put(hot, nth(i), event(1, i))) == 0; i++) {
            EXPECT_EQ(st_hot_slice_check_space(hot.get()) == 0, i + 1 < row.soft)
                << "code " << row.code << " put " << i;
        }
        EXPECT_EQ(code, row.code);
        EXPECT_EQ(hot_slice_terms(hot.get()), i);
        EXPECT_EQ(hot_slice_postings(hot.get()), i);
        EXPECT_EQ(st_hot_slice_values(hot.get()), i);
        EXPECT_EQ(hot_slice_lexicon_bytes(hot.get()), 9 * i);
        const st_txn next = event(1, i);
        EXPECT_EQ(st_hot_slice_txn_start(hot.get(), &next), row.code);
        EXPECT_EQ(put(hot, nth(0), next), row.code) << "aborted";
        EXPECT_TRUE(st_hot_slice_txn_aborted(hot.get()));
        st_hot_slice_reset(hot.get());
        EXPECT_FALSE(st_hot_slice_txn_aborted(hot.get()) || st_hot_slice_is_streaming(hot.get()));
        EXPECT_EQ(st_hot_slice_txn_start(hot.get(), &next), 0);
        EXPECT_EQ(put(hot, nth(0), next), 0);
        EXPECT_EQ(prepare(hot).terms, 1u);
    }
    for (const int code : {-1, -2, -3, -4, -6, -9}) EXPECT_TRUE(st_hot_slice_needs_limits_adjusted(code));
    for (const int code : {0, -5, -7, -8, -10}) EXPECT_FALSE(st_hot_slice_needs_limits_adjusted(code));
}

// The check accepts a transaction that just fits, with what it repeats counted once, and names the limit otherwise.
TEST(HotSlice, TransactionCheckIsExact) {
    const struct {
        limits l;
        size_t fits;
        int code;
    } table[] = {{{.terms = 257}, 512, HOT_PUT_RC_TERMS_FULL},
                 {{.postings = 300}, 300, HOT_PUT_RC_POSTINGS_FULL},
                 {{.lexicon = 1000}, 111, HOT_PUT_RC_LEXICON_FULL}};
    const st_txn txn = event(1, 1), other = event(2, 2);
    for (const auto& row : table) {
        for (const size_t more : {0u, 1u}) {
            std::vector<std::string> texts;
            for (size_t i = 0; i < row.fits + more; i++) texts.push_back(std::to_string(20000000 + i));
            const hot_ptr hot = make_hot(row.l);
            for (size_t i = 0; i < 3; i++) ASSERT_EQ(put(hot, texts[i], txn), 0);
            for (size_t i = 3; i < 9; i++) texts.push_back(texts[i]);
            EXPECT_EQ(hot_slice_check_txn(hot.get(), &txn, buffered(texts)), more == 0 ? 0 : row.code);
        }
    }
    const std::vector<std::string> texts = {"k"};
    const hot_ptr full = make_hot({.values = 1});
    ASSERT_EQ(put(full, "k", txn), 0);
    EXPECT_EQ(hot_slice_check_txn(full.get(), &other, buffered(texts)), HOT_PUT_RC_VALUES_FULL);
    EXPECT_EQ(hot_slice_check_txn(full.get(), &txn, buffered(texts)), 0);
    EXPECT_EQ(put(make_hot(), std::string("a\0b", 3), txn), HOT_PUT_RC_BAD_KEYWORD);
    const hot_ptr empty = make_hot();
    EXPECT_EQ(put(empty, "", txn) + static_cast<int>(hot_slice_terms(empty.get())), 0) << "no keyword";
}

TEST(HotSliceDeathTest, StreamingOrderIsTheCallersDuty) {
    const hot_ptr hot = make_hot({}, true);
    ASSERT_EQ(put(hot, "a", event(10, 10)), 0);
    st_txn others[] = {event(9, 11), event(11, 10), event(10, 10), event(10, 10), event(10, 10)};
    others[2].source = others[3].source_type = others[4].host = 1;
    for (const st_txn& other : others) EXPECT_DEATH(put(hot, "b", other), "ASSERTION FAILED");
    EXPECT_TRUE(st_hot_slice_is_streaming(hot.get()) && st_hot_slice_max_dimsets() == UINT32_MAX &&
                st_hot_slice_max_dimset_measures() == UINT32_MAX);
}

}  // namespace
}  // namespace veldar
