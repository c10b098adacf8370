#include "tools/libveldar/query/query_language.h"

#include <gtest/gtest.h>

#include <string>

#include "searchthing/search/query.h"
#include "tests/support/damage.h"

namespace veldar {

using namespace tool;
namespace {

std::string pieces_text(const raw_pattern& pattern) {
    std::string text;
    for (const raw_piece& piece : pattern.pieces) {
        text += (text.empty() ? "" : "*") + std::string(piece.whole_begin ? "<" : "") + piece.text +
                (piece.whole_end ? ">" : "");
    }
    return text;
}

// The plans, separated by " | ", each with the raw pieces that it must hold (+) or lack (-); "<" and ">" where a word
// has to begin or end.
std::string translated(const std::string& text) {
    std::string out;
    for (const query_plan& plan : translate_query(text)) {
        EXPECT_EQ(validate_query_text(plan.native.c_str(), TOKEN_CASE_ASIS, nullptr), 0) << plan.native;
        out += (out.empty() ? "" : " | ") + plan.native;
        for (const raw_pattern& pattern : plan.holds) out += " +" + pieces_text(pattern);
        for (const raw_pattern& pattern : plan.lacks) out += " -" + pieces_text(pattern);
    }
    return out;
}

TEST(QueryLanguage, Translation) {
    std::vector<std::string> rows = data_rows("queries");
    rows.insert(rows.end(), {"  Error\tTIMEOUT\n", "[AND error timeout]"});
    for (size_t i = 0; i + 1 < rows.size(); i += 2) {
        try {
            EXPECT_EQ(translated(rows[i]), rows[i + 1]) << rows[i];
        } catch (const query_error& error) {
            ADD_FAILURE() << rows[i] << ": position " << error.position << ", expected " << error.expected;
        }
    }
}

TEST(QueryLanguage, MalformedQueriesPointAtTheSpot) {
    struct refused_query {
        std::string query;
        size_t position;
        std::string expected;
    };
    std::vector<refused_query> table = {
        {std::string("a\0b", 3), 1, "without NUL"},
        {std::string(300, '(') + "a", 200, "fewer parentheses"},
        {std::string(1001, 'n') + "=5", 1001, "shorter field name"},
        {std::string(2045, 'n') + "*", 2046, "shorter word"},
    };
    const std::vector<std::string> rows = data_rows("malformed-queries");
    for (size_t i = 0; i + 1 < rows.size(); i += 2) {
        const size_t end = rows[i + 1].find(' ');
        table.push_back({rows[i], std::stoul(rows[i + 1]), rows[i + 1].substr(end + 1)});
    }
    for (const auto& row : table) {
        try {
            ADD_FAILURE() << row.query << " became " << translated(row.query);
        } catch (const query_error& error) {
            EXPECT_EQ(error.position, row.position) << row.query;
            EXPECT_NE(error.expected.find(row.expected), std::string::npos) << row.query << ": " << error.expected;
        }
    }
    EXPECT_EQ(explain_query_error("\xC3\xBC x (\n", {5, "a term"}), "  \xC3\xBC x ( \n      ^ expected a term\n");
}

TEST(QueryLanguage, WordsInsideOfWordsAreOfferedWhereTheyCanBe) {
    const struct {
        const char *query, *inside;
    } table[] = {
        {"error timeout -debug", "error~ timeout~ -debug"},
        {"-(a1b OR -web) up 500 in", "-(a1b OR -web~) up 500 in"},
        {"level=warn \"x y\"=\"one two\" k!=value f*o any~", "level=warn~ \"x y\"=\"one two\"~ k!=value f*o any~"},
        {"/img/logo \"a phrase\" \"AND\" 500", ""}};
    for (const auto& row : table) {
        EXPECT_EQ(query_inside_words(row.query), row.inside);
    }
}

TEST(QueryLanguage, RecordsAreCheckedLetterByLetter) {
    struct checked_record {
        std::string query, record;
        bool passes;
    };
    std::vector<checked_record> table = {
        {"\"not*found\"", "not at all\nfound", false},
        {"\"not*found\"", "nothing\n is not yet found", true},
        {"\"a\nb\"", "x a\nb", true},
        {"\"a b\"", std::string("A\0b", 3), true},
    };
    const std::vector<std::string> rows = data_rows("records");
    for (size_t i = 0; i + 2 < rows.size(); i += 3) table.push_back({rows[i], rows[i + 1], rows[i + 2] == "true"});
    std::string scratch;
    for (const auto& row : table) {
        const std::vector<query_plan> plans = translate_query(row.query);
        ASSERT_EQ(plans.size(), 1u);
        EXPECT_EQ(record_passes(plans[0], row.record, &scratch), row.passes) << row.query << " on " << row.record;
    }
}

}  // namespace
}  // namespace veldar
