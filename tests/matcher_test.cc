#include "searchthing/lexicon/matcher.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/reference.h"

namespace veldar {

namespace {

matcher_ptr compile(const std::string& needle) {
    return matcher_ptr(createMatcher(needle.c_str()));
}
std::vector<std::string> all_texts(const std::string& alphabet, size_t longest) {
    std::vector<std::string> texts = {""};
    for (size_t i = 0; i < texts.size(); i++) {
        if (texts[i].size() == longest) break;
        for (const char c : alphabet) texts.push_back(texts[i] + c);
    }
    return texts;
}

// Whether '*' can stand for something that makes the needle the term; the empty needle takes every term.
bool spans(std::string_view needle, std::string_view term) {
    const auto rest_spans = [](std::string_view rest, std::string_view text) {
        return rest.empty() ? text.empty() : spans(rest, text);
    };
    if (needle.empty()) return true;
    if (needle[0] != '*') return !term.empty() && term[0] == needle[0] && rest_spans(needle.substr(1), term.substr(1));
    return rest_spans(needle.substr(1), term) || (!term.empty() && spans(needle, term.substr(1)));
}

TEST(Matcher, AgreesWithTheRuleOnEveryShortNeedleAndTerm) {
    const std::vector<std::string> terms = all_texts("ab", 7);
    size_t matches = 0;
    for (const std::string& needle : all_texts("ab*", 6)) {
        const matcher_ptr matcher = compile(needle);
        ASSERT_NE(matcher, nullptr);
        for (const std::string& term : terms) {
            const bool expected = reference_index::wildcard_matches(needle, term);
            ASSERT_EQ(isMatch(term.c_str(), matcher.get()), expected ? 1 : 0) << needle << " on " << term;
            ASSERT_EQ(matcher_spans(term.c_str(), matcher.get()), spans(needle, term)) << needle << " on " << term;
            matches += expected;
        }
    }
    EXPECT_GT(matches, 10000u);
    const char* const pairs[] = {"A", "a", "a?c", "abc", "\xFF*", "\xFFz", "a\\*", "a\\b"};
    for (size_t i = 0; i < 8; i += 2) EXPECT_EQ(isMatch(pairs[i + 1], compile(pairs[i]).get()), i < 4 ? 0 : 1) << i;
}

TEST(Matcher, PartsAndTypes) {
    const struct {
        const char* needle;
        int type;
        const char* printed;
    } cases[] = {{"abc", 4, "Single word = abc\n"},
                 {"a**bc*d", 3, "hard start = a\nsubstring 1 = bc\nhard end = d\n"},
                 {"*x*", 3, "substring 0 = x\n"},
                 {"a*", 3, "hard start = a\n"},
                 {"*", -1, ""},
                 {"", -1, ""}};
    for (const auto& c : cases) {
        const matcher_ptr matcher = compile(c.needle);
        EXPECT_EQ(getMatcherType(matcher.get()), c.type) << c.needle;
        testing::internal::CaptureStdout();
        debugOpaqueMatcher(matcher.get());
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.printed) << c.needle;
    }
}

TEST(Matcher, ManyPieces) {
    std::string needle = "*", term;
    for (int i = 0; i < 600; i++) {
        needle += std::to_string(i) + ",*";
        term += std::to_string(i) + ",;";
    }
    const matcher_ptr matcher = compile(needle);
    EXPECT_EQ(isMatch(term.c_str(), matcher.get()), 1);
    EXPECT_EQ(isMatch(term.c_str() + 1, matcher.get()), 0);
}

}  // namespace

}  // namespace veldar
