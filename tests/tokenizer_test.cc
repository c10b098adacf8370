#include "searchthing/search/tokenizer.h"

#include <gtest/gtest.h>

#include <limits>
#include <map>
#include <random>
#include <string>

#include "fuzz/slice_walk.h"
#include "libzero/ospath-builder.h"
#include "searchthing/search/query.h"
#include "tests/support/damage.h"

namespace veldar {

namespace {

// Every token as "type@position:text " and the status that ended the reading.
std::string tokens_of(const std::string& text, token_case_t token_case = TOKEN_CASE_ASIS,
                      unsigned int capacity = TOKEN_CAPACITY) {
    tokenizer_t tokenizer;
    EXPECT_EQ(init_tokenizer(&tokenizer, text.c_str(), token_case), text.size());
    std::string found, buffer(capacity, '#');
    while (true) {
        size_t position = ~size_t{0};
        token_type_t type = T_END;
        const int size = next_token(&tokenizer, buffer.data(), capacity, &position, &type);
        EXPECT_LE(tokenizer._pos, text.size());
        if (size < 0) return found + std::to_string(size);
        EXPECT_EQ(std::string(buffer.c_str()).size(), static_cast<size_t>(size));
        found += std::to_string(type) + "@" + std::to_string(position) + ":" + buffer.c_str() + " ";
    }
}

TEST(Tokenizer, Tokens) {
    EXPECT_EQ(tokens_of(" \t\n ", TOKEN_CASE_ASIS), "-20");
    const std::map<std::string, token_case_t> cases = {
        {"as it is", TOKEN_CASE_ASIS}, {"lower", TOKEN_CASE_LOWER}, {"blank", TOKEN_CASE_BLANK_PREFIX}};
    const std::vector<std::string> rows = data_rows("tokens");
    for (size_t i = 0; i + 2 < rows.size(); i += 3) {
        EXPECT_EQ(tokens_of(rows[i + 1], cases.at(rows[i])), rows[i + 2]) << rows[i + 1];
    }
}

TEST(Tokenizer, TheLongestLiteralFillsTheBufferButForItsNul) {
    const std::string fits(2048, 'x');
    EXPECT_EQ(tokens_of(fits), "6@0:" + fits + " -20");
    EXPECT_EQ(tokens_of(fits + "x"), "-18");
    EXPECT_EQ(tokens_of(fits, TOKEN_CASE_BLANK_PREFIX), "-18");
    EXPECT_EQ(tokens_of("[a", TOKEN_CASE_ASIS, 2), "0@0:[ 6@1:a -20");
    EXPECT_EQ(tokens_of("a", TOKEN_CASE_BLANK_PREFIX, 2), "-18");
}

TEST(Tokenizer, EscapedLiteralsComeBackAndNoTextTripsIt) {
    std::mt19937 random(3);
    const std::string alphabet = "aZ9 \t\n[]\\AND\r";
    for (int i = 0; i < 20000; i++) {
        std::string literal;
        for (size_t n = 1 + random() % 8; n > 0; n--) literal += alphabet[random() % alphabet.size()];
        const std::string tokens = tokens_of(query_escape(literal));
        ASSERT_EQ(tokens.substr(tokens.find(':')), ":" + literal + " -20");
        ASSERT_EQ(query_can_hold(literal), tokens[0] == '6');
        tokens_of(literal, token_case_t(i % 3), 2 + static_cast<unsigned int>(i % 6));
    }
}

TEST(Tokenizer, SomeTermsNoTextHolds) {
    for (const std::string& term :
         {std::string(), std::string("NEQ"), std::string(2049, 'x'), std::string("a\0b", 3)}) {
        EXPECT_FALSE(query_can_hold(term));
    }
    EXPECT_TRUE(query_can_hold(std::string(2048, 'x')));
}

// What becomes of every text of up to five words behind the first.
TEST(ParseQuery, EveryShortText) {
    constexpr const char* WORDS[] = {"[", "]", "AND", "NOT", "GT", "a", "7", "\\x"};
    damage_outcomes outcomes;
    for (uint32_t number = 0; number < 1 << 15; number++) {
        std::string text = "[OR";
        for (uint32_t left = number; left != 0; left /= 8) text += std::string(" ") + WORDS[left % 8];
        walk_digest = 0;
        const int status = walk_parse(text.c_str(), TOKEN_CASE_ASIS);
        outcomes.add("text " + std::to_string(number / 32), status, std::to_string(walk_digest));
    }
    expect_kept("query-texts", outcomes.text());
}

TEST(Query, LatestBoundIsGivenExclusiveAndStoredInclusive) {
    constexpr int FIRST = std::numeric_limits<int>::min();
    constexpr int LAST = std::numeric_limits<int>::max();
    const struct {
        bool subseconds;
        st_timeval_t from, until, earliest, latest;
    } cases[] = {
        {false, {100, 7}, {200, 9}, {100, 0}, {199, 0}},
        {false, {100, 7}, {LAST, 9}, {100, 0}, {LAST, 0}},
        {true, {100, 7}, {200, 9}, {100, 7}, {200, 8}},
        {true, {100, 7}, {200, 0}, {100, 7}, {199, 999999999}},
        {true, {100, 7}, {LAST, 9}, {100, 7}, {LAST, 0}},
        {true, {FIRST, 0}, {FIRST, 1}, {FIRST, 0}, {FIRST, 0}},
        {true, {FIRST, 5}, {FIRST, 0}, {FIRST + 1, 5}, {FIRST, 0}},
        {false, {FIRST, 0}, {FIRST, 3}, {FIRST + 1, 0}, {FIRST, 0}},
        {false, {FIRST, 0}, {FIRST + 1, 0}, {FIRST, 0}, {FIRST, 0}},
    };
    for (const auto& c : cases) {
        QUERY query;
        st_query_set_time_bound(&query, c.subseconds, c.from.time_s, c.from.time_ns, c.until.time_s, c.until.time_ns);
        EXPECT_EQ(query.earliest, c.earliest) << c.until.time_s << '.' << c.until.time_ns;
        EXPECT_EQ(query.latest, c.latest) << c.until.time_s << '.' << c.until.time_ns;
    }
}

TEST(Query, CopiesOwnTheirTextAndForgetTheTokenCase) {
    QUERY query;
    query.cumspan = 5;
    query.earliest = {1, 2};
    query.latest = {3, 4};
    query.lispy = "[AND x]";
    query.token_case = TOKEN_CASE_LOWER;
    query.opt_span = {6, 7};
    query.opt_flag = 10;
    st_query_spec* copy = st_query_copy(&query);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(copy->token_case, TOKEN_CASE_ASIS);
    EXPECT_NE(copy->lispy, query.lispy);
    EXPECT_TRUE(copy->opt_span == query.opt_span && copy->opt_flag == 10);

    st_query_free_copy(copy);
    st_query_free_copy(nullptr);
    st_query_init(nullptr);
    string_builder nothing;
    st_query_annotator_write(&nothing, nullptr);
}

}  // namespace

}  // namespace veldar
