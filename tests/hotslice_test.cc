#include "searchthing/hotslice.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "libzero/vbe.h"

namespace veldar {
namespace {

struct hot_closer {
    void operator()(HOT* hot) const { st_hot_slice_close(hot); }
};
using hot_ptr = std::unique_ptr<HOT, hot_closer>;

struct limits {
    uint64_t lexicon = 65536, terms = 512, postings = 8192, values = 1024;
};

hot_ptr make_hot(const limits& l, bool streaming, warm_rc_t* rc) {
    return hot_ptr(
        st_hot_slice_create(l.lexicon, l.terms, l.postings, l.values, 0, 0, 0, streaming, false, nullptr, rc));
}

hot_ptr make_hot(const limits& l = {}, bool streaming = false) {
    warm_rc_t rc;
    hot_ptr hot = make_hot(l, streaming, &rc);
    EXPECT_NE(hot, nullptr) << rc.message;
    return hot;
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

struct counts {
    uint32_t values = 0, terms = 0, postings = 0, dimsets = 0, rank = 0;
};

counts prepare(const hot_ptr& hot) {
    counts c;
    warm_rc_t rc;
    EXPECT_EQ(st_hot_slice_prepare(hot.get(), &c.values, &c.terms, &c.postings, &c.dimsets, &c.rank, &rc), 0);
    return c;
}

// What an index over these events must hold: the events newest first, and for every term the numbers of its events.
struct model {
    std::map<std::pair<int64_t, int64_t>, st_txn> events;  // {-time, -address}: newest first
    std::map<std::string, std::set<std::pair<int64_t, int64_t>>> terms;

    void add(const st_txn& txn, const std::vector<std::string>& keywords) {
        const std::pair<int64_t, int64_t> key{-int64_t{txn.time}, -int64_t{txn.address}};
        for (const std::string& keyword : keywords) {
            if (keyword.empty()) continue;
            events.emplace(key, txn);
            terms[keyword.substr(0, 2047)].insert(key);
        }
    }
};

void expect_equal(const hot_ptr& hot, const model& expected) {
    const counts c = prepare(hot);
    const hot_prepared_t* prepared = hot_slice_prepared(hot.get());
    ASSERT_EQ(c.values, expected.events.size());
    ASSERT_EQ(c.terms, expected.terms.size());
    std::map<std::pair<int64_t, int64_t>, uint32_t> numbers;
    for (const auto& [key, txn] : expected.events) {
        const auto number = static_cast<uint32_t>(numbers.size());
        const st_tsval* value = hot_slice_prepared_value(hot.get(), number);
        ASSERT_EQ(value->time, txn.time);
        ASSERT_EQ(value->address, txn.address);
        ASSERT_EQ(value->s, txn.source);
        ASSERT_EQ(value->st, txn.source_type);
        ASSERT_EQ(value->h, txn.host);
        ASSERT_EQ(value->measure, txn.seek_address);
        numbers[key] = number;
    }
    size_t rank = 0, at = 0;
    std::set<uint32_t> ids;
    for (const auto& [term, keys] : expected.terms) {
        ASSERT_EQ(prepared->terms[rank], term);
        ASSERT_EQ(prepared->term_postings[rank], keys.size()) << term;
        for (const auto& key : keys) ASSERT_EQ(prepared->postings[at++], numbers[key]) << term;
        ids.insert(st_hot_slice_get_term_index(hot.get(), static_cast<uint32_t>(rank++)));
    }
    ASSERT_EQ(ids.size(), expected.terms.size());
    ASSERT_EQ(c.postings, at);
    if (!expected.events.empty()) {
        ASSERT_EQ(prepared->latest, expected.events.begin()->second.time);
        ASSERT_EQ(prepared->earliest, expected.events.rbegin()->second.time);
    }
}

// Short alphabets make shared prefixes of every length around the eight bytes that a sorting step takes.
std::string random_keyword(std::mt19937& random) {
    std::string text(random() % 4 == 0 ? random() % 40 : random() % 12, '\0');
    for (char& c : text) c = random() % 3 == 0 ? static_cast<char>(1 + random() % 255) : 'a';
    return text;
}

// Applies keywords one by one, or as a whole buffered transaction.
void apply(const hot_ptr& hot, const st_txn& txn, const std::vector<std::string>& keywords, bool whole) {
    if (whole) {
        std::vector<hot_keyword_t> buffered;
        for (const std::string& k : keywords) {
            const auto length = static_cast<uint32_t>(std::min<size_t>(k.size(), 2047));
            if (length != 0) buffered.push_back({k.data(), length, hot_slice_hash(k.data(), length)});
        }
        ASSERT_EQ(hot_slice_check_txn(hot.get(), &txn, buffered), 0);
        hot_slice_put_all(hot.get(), &txn, buffered);
        return;
    }
    ASSERT_EQ(st_hot_slice_txn_start(hot.get(), &txn), 0);
    for (const std::string& keyword : keywords) ASSERT_EQ(put(hot, keyword, txn), 0);
    ASSERT_EQ(st_hot_slice_txn_stop(hot.get()), 0);
}

TEST(HotSlice, EqualsModel) {
    std::mt19937 random(7);
    for (const bool streaming : {false, true}) {
        const hot_ptr hot =
            make_hot({.lexicon = 1 << 20, .terms = 16384, .postings = 1 << 16, .values = 600}, streaming);
        for (int round = 0; round < 60; round++) {
            SCOPED_TRACE(testing::Message() << "round " << round << " streaming " << streaming);
            model expected;
            std::vector<st_txn> seen;
            const bool in_order = streaming || round % 3 == 0;
            st_time_t time = round % 5 == 0 ? -200 : 1000;
            // Addresses that are multiples of the value hash's size all begin at one bucket.
            const uint32_t stride = round % 7 == 0 ? 1200 : 13;
            const size_t events = random() % 400;
            for (size_t e = 0; e < events; e++) {
                st_txn txn = event(in_order ? time : static_cast<st_time_t>(random() % 50) - 25,
                                   static_cast<st_addr_t>(e + 1) * stride);
                txn.source = random() % 9 == 0 ? ST_DELETED_SOURCE : static_cast<uint32_t>(random() % 5);
                txn.source_type = static_cast<uint32_t>(random());
                txn.host = static_cast<uint32_t>(random() % 3);
                txn.seek_address = static_cast<double>(random() % 100);
                time += static_cast<st_time_t>(random() % 2);
                if (!streaming && !seen.empty() && random() % 8 == 0) txn = seen[random() % seen.size()];
                std::vector<std::string> keywords(random() % 40);
                for (std::string& k : keywords) k = random_keyword(random);
                if (!keywords.empty()) keywords.push_back(keywords.front());
                expected.add(txn, keywords);
                apply(hot, txn, keywords, random() % 2 == 0);
                seen.push_back(txn);
            }
            if (!expected.events.empty()) expect_equal(hot, expected);
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
    for (const auto& row : table) {
        warm_rc_t rc;
        rc.warm_rc = 1;
        EXPECT_EQ(make_hot(row.l, false, &rc) == nullptr, row.code != 0);
        EXPECT_EQ(rc.warm_rc, row.code);
    }
    // 257 terms are kept as 512: the table holds 512 terms and no more.
    const hot_ptr hot = make_hot({.terms = 257});
    const st_txn txn = event(1, 1);
    for (int i = 0; i < 512; i++) ASSERT_EQ(put(hot, std::to_string(i), txn), 0);
    EXPECT_EQ(put(hot, "one more", txn), HOT_PUT_RC_TERMS_FULL);
    EXPECT_EQ(put(hot, "7", event(2, 2)), 0);

    warm_rc_t rc;
    EXPECT_EQ(st_hot_slice_create(65536, 512, 1024, 1024, 8192, 131072, 1024, false, true, nullptr, &rc), nullptr);
    EXPECT_EQ(rc.warm_rc, WARM_RC_UNSUPPORTED);
    EXPECT_STRNE(rc.message, "");
}

TEST(HotSlice, Keywords) {
    const hot_ptr hot = make_hot();
    const st_txn txn = event(5, 50);
    EXPECT_EQ(put(hot, "", txn), 0);
    EXPECT_EQ(st_hot_slice_values(hot.get()), 0u);
    EXPECT_EQ(put(hot, std::string("a\0b", 3), txn), HOT_PUT_RC_BAD_KEYWORD);
    EXPECT_EQ(put(hot, std::string(3000, 'x'), txn), 0);
    EXPECT_EQ(put(hot, std::string(2047, 'x'), txn), 0);
    EXPECT_EQ(put(hot, std::string(2047, 'x') + std::string(1, '\0'), txn), 0);
    EXPECT_EQ(put(hot, "k", txn), 0);
    EXPECT_EQ(put(hot, "k", txn), 0);
    EXPECT_EQ(put(hot, "k", event(5, 51)), 0);
    const counts c = prepare(hot);
    EXPECT_EQ(c.values, 2u);
    EXPECT_EQ(c.terms, 2u);
    EXPECT_EQ(c.postings, 3u);
}

TEST(HotSlice, PreparingNothing) {
    counts c;
    warm_rc_t rc;
    EXPECT_EQ(st_hot_slice_prepare(make_hot().get(), &c.values, &c.terms, &c.postings, &c.dimsets, &c.rank, &rc), -1);
    EXPECT_EQ(rc.warm_rc, -1);
}

// Each hard limit refuses without a trace, and each soft limit is reported before its hard limit.
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
        EXPECT_EQ(st_hot_slice_check_space(hot.get()), row.code);
        EXPECT_EQ(hot_slice_terms(hot.get()), i);
        EXPECT_EQ(hot_slice_postings(hot.get()), i);
        EXPECT_EQ(st_hot_slice_values(hot.get()), i);
        EXPECT_EQ(hot_slice_lexicon_bytes(hot.get()), 9 * i);
        const st_txn next = event(1, i);
        EXPECT_EQ(st_hot_slice_txn_start(hot.get(), &next), row.code);
        EXPECT_TRUE(st_hot_slice_txn_aborted(hot.get()));
        EXPECT_EQ(put(hot, nth(0), next), row.code);
        st_hot_slice_reset(hot.get());
        EXPECT_EQ(st_hot_slice_txn_start(hot.get(), &next), 0);
        EXPECT_EQ(put(hot, nth(0), next), 0);
        EXPECT_EQ(prepare(hot).terms, 1u);
    }
    for (const int code : {-1, -2, -3, -4, -6, -9}) EXPECT_TRUE(st_hot_slice_needs_limits_adjusted(code));
    for (const int code : {0, -5, -7, -8, -10}) EXPECT_FALSE(st_hot_slice_needs_limits_adjusted(code));
}

// The check accepts a transaction that just fits, duplicates and known terms counted once, and names the limit
// otherwise.
TEST(HotSlice, TransactionCheckIsExact) {
    struct {
        limits l;
        size_t fits;  // distinct new keywords that fit after three puts of one event
        int code;
    } const table[] = {
        {{.terms = 257}, 509, HOT_PUT_RC_TERMS_FULL},
        {{.postings = 300}, 297, HOT_PUT_RC_POSTINGS_FULL},
        {{.lexicon = 1000}, 108, HOT_PUT_RC_LEXICON_FULL},
    };
    for (const auto& row : table) {
        for (const size_t more : {0u, 1u}) {
            const hot_ptr hot = make_hot(row.l);
            const st_txn txn = event(1, 1);
            std::vector<std::string> texts = {"10000000", "10000001", "10000002"};
            for (const std::string& text : texts) ASSERT_EQ(put(hot, text, txn), 0);
            for (size_t i = 0; i < row.fits + more; i++) texts.push_back(std::to_string(20000000 + i));
            for (size_t i = 0; i < row.fits; i++) texts.push_back(texts[3 + i]);
            std::vector<hot_keyword_t> keywords;
            for (const std::string& t : texts) keywords.push_back({t.data(), 8, hot_slice_hash(t.data(), 8)});
            ASSERT_EQ(hot_slice_check_txn(hot.get(), &txn, keywords), more == 0 ? 0 : row.code);
            if (more != 0) continue;
            hot_slice_put_all(hot.get(), &txn, keywords);
            EXPECT_EQ(prepare(hot).postings, 3 + row.fits);
        }
    }
    const hot_ptr hot = make_hot({.values = 2});
    const st_txn first = event(1, 1), second = event(2, 2), third = event(3, 3);
    const hot_keyword_t k{"k", 1, hot_slice_hash("k", 1)};
    for (const st_txn* txn : {&first, &second}) {
        ASSERT_EQ(hot_slice_check_txn(hot.get(), txn, {&k, 1}), 0);
        hot_slice_put_all(hot.get(), txn, {&k, 1});
    }
    EXPECT_EQ(hot_slice_check_txn(hot.get(), &third, {&k, 1}), HOT_PUT_RC_VALUES_FULL);
    EXPECT_EQ(hot_slice_check_txn(hot.get(), &second, {&k, 1}), 0);
}

TEST(HotSlice, AbortedTransactionIgnoresPuts) {
    const hot_ptr hot = make_hot();
    const st_txn txn = event(1, 1);
    ASSERT_EQ(st_hot_slice_txn_start(hot.get(), &txn), 0);
    ASSERT_EQ(put(hot, "kept", txn), 0);
    st_hot_slice_txn_abort(hot.get(), HOT_PUT_RC_BAD_KEYWORD);
    EXPECT_EQ(put(hot, "ignored", txn), HOT_PUT_RC_BAD_KEYWORD);
    EXPECT_EQ(st_hot_slice_txn_stop(hot.get()), 0);
    EXPECT_EQ(st_hot_slice_txn_start(hot.get(), &txn), 0);
    EXPECT_EQ(prepare(hot).terms, 1u);
}

TEST(HotSlice, SizesFollowTheFormulas) {
    const hot_ptr hot = make_hot({.lexicon = 1000, .terms = 300, .postings = 2000, .values = 100});
    const uint64_t terms = 512;
    EXPECT_EQ(st_hot_slice_size(hot.get()),
              1000 + 40 * 100 + 352 + 16 * terms + 4 * (100 + terms + 2000) + 8 * (2000 + 200 + terms + 2 * terms));
    EXPECT_EQ(st_hot_slice_size_est(1000, 300, 2000, 100, 7, 3),
              16 * 3 + 1000 + 40 * 100 + terms + 32 * terms + 8 * (200 + 2000 + terms) + 4 * (terms + 100 + 7 + 2000));
}

TEST(HotSlice, LargestFields) {
    const hot_ptr hot = make_hot();
    EXPECT_EQ(get_largest_source(hot.get()), 0u);
    EXPECT_EQ(get_largest_measure(hot.get()), 0.0);
    st_txn txn = event(1, 1);
    txn.source = ST_DELETED_SOURCE, txn.source_type = 9, txn.host = 4, txn.seek_address = 2.5;
    put(hot, "a", txn);
    txn = event(2, 2);
    txn.source = 3, txn.source_type = 8, txn.host = 5, txn.seek_address = -1;
    put(hot, "a", txn);
    EXPECT_EQ(get_largest_source(hot.get()), ST_DELETED_SOURCE);
    EXPECT_EQ(get_largest_source_type(hot.get()), 9u);
    EXPECT_EQ(get_largest_host(hot.get()), 5u);
    EXPECT_EQ(get_largest_measure(hot.get()), 2.5);
}

TEST(HotSliceDeathTest, StreamingOrderIsTheCallersDuty) {
    const hot_ptr hot = make_hot({}, true);
    ASSERT_EQ(put(hot, "a", event(10, 10)), 0);
    EXPECT_DEATH(put(hot, "a", event(9, 11)), "ASSERTION FAILED");
}

}  // namespace
}  // namespace veldar
