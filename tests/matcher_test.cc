#include "searchthing/matcher.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace veldar {

namespace {

struct matcher_deleter {
    void operator()(OpaqueMatcher_T* matcher) const { freeOpaqueMatcher(matcher); }
};
using matcher_ptr = std::unique_ptr<OpaqueMatcher_T, matcher_deleter>;

matcher_ptr compile(const std::string& needle) {
    return matcher_ptr(createMatcher(needle.c_str()));
}

std::vector<std::string> pieces_of(const std::string& needle) {
    std::vector<std::string> pieces(1);
    for (const char c : needle) {
        if (c == '*') {
            pieces.emplace_back();
        } else {
            pieces.back() += c;
        }
    }
    std::erase(pieces, "");
    return pieces;
}

// The rule read off a page: cut the term from the left, piece by piece.
bool slow_match(const std::string& needle, std::string term) {
    std::vector<std::string> pieces = pieces_of(needle);
    if (needle.find('*') == std::string::npos) return needle.empty() || term == needle;
    if (needle.front() != '*') {
        if (term.compare(0, pieces[0].size(), pieces[0]) != 0) return false;
        term.erase(0, pieces[0].size());
        pieces.erase(pieces.begin());
    }
    const bool hard_end = needle.back() != '*';
    for (size_t i = 0; i < pieces.size(); i++) {
        const bool must_end = hard_end && i + 1 == pieces.size();
        do {
            const size_t found = term.find(pieces[i]);
            if (found == std::string::npos) return false;
            term.erase(0, found + pieces[i].size());
        } while (must_end && !term.empty());
    }
    return true;
}

std::vector<std::string> all_texts(const std::string& alphabet, size_t longest) {
    std::vector<std::string> texts = {""};
    for (size_t i = 0; i < texts.size(); i++) {
        if (texts[i].size() == longest) break;
        for (const char c : alphabet) texts.push_back(texts[i] + c);
    }
    return texts;
}

TEST(Matcher, AgreesWithTheRuleOnEveryShortNeedleAndTerm) {
    const std::vector<std::string> terms = all_texts("ab", 7);
    size_t matches = 0;
    for (const std::string& needle : all_texts("ab*", 6)) {
        const matcher_ptr matcher = compile(needle);
        ASSERT_NE(matcher, nullptr);
        for (const std::string& term : terms) {
            const bool expected = slow_match(needle, term);
            ASSERT_EQ(isMatch(term.c_str(), matcher.get()), expected ? 1 : 0) << needle << " on " << term;
            matches += expected;
        }
    }
    EXPECT_GT(matches, 10000u);
    const char* const pairs[] = {"A", "a", "a?c", "abc", "\xFF*", "\xFFz", "a\\*", "a\\b"};
    for (size_t i = 0; i < 8; i += 2) EXPECT_EQ(isMatch(pairs[i + 1], compile(pairs[i]).get()), i < 4 ? 0 : 1) << i;
}

TEST(Matcher, PartsAndTypes) {
    const auto text = [](const char* found) { return std::string(found == nullptr ? "(none)" : found); };
    const struct {
        const char* needle;
        const char *start, *end, *word;
        int type;
        const char* printed;
    } cases[] = {
        {"abc", "abc", "abc", "abc", 4, "Single word = abc\n"},
        {"a**bc*d", "a", "d", "(none)", 3, "hard start = a\nsubstring 1 = bc\nhard end = d\n"},
        {"*x*", "(none)", "(none)", "(none)", 3, "substring 0 = x\n"},
        {"a*", "a", "(none)", "(none)", 3, "hard start = a\n"},
        {"*", "(none)", "(none)", "(none)", -1, ""},
        {"", "(none)", "(none)", "(none)", -1, ""},
    };
    for (const auto& c : cases) {
        const matcher_ptr matcher = compile(c.needle);
        EXPECT_EQ(text(getHardStart(matcher.get())), c.start) << c.needle;
        EXPECT_EQ(text(getHardEnd(matcher.get())), c.end) << c.needle;
        EXPECT_EQ(text(getWord(matcher.get())), c.word) << c.needle;
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
