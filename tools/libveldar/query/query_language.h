// The query language of the tool, and its translation into the engine's bracket notation.
//
//   query       = alternative { "OR" alternative }
//   alternative = condition { ["AND"] condition }
//   condition   = ( "NOT" | "-" ) condition | "(" query ")" | phrase | field | word
//   field       = name ( "=" | "!=" ) value [ "~" ] | name ( ">" | ">=" | "<" | "<=" ) number
//   phrase      = '"' text '"' [ "~" ], also as a name or a value
//   word        = text [ "~" ]: also inside of words
//
// Words and values are folded as at load. What the index cannot decide alone (a phrase, a word with characters that no
// term has) becomes its words in the index and a check of the raw record. The word "*" alone is every event.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "tools/libveldar/query/query_phrase.h"

namespace veldar::tool {

// One search to run: events that the bracket text selects, and whose raw record passes the checks.
struct query_plan {
    std::string native;
    std::vector<raw_pattern> holds;
    std::vector<raw_pattern> lacks;
    bool needs_raw() const { return !holds.empty() || !lacks.empty(); }
};

// What is wrong with a query: the byte where it was noticed and what would have been accepted there.
struct query_error {
    size_t position = 0;
    std::string expected;
};

// The searches whose answers together, each event once, are the query's. One plan, unless a phrase stands in an OR.
// Throws query_error.
std::vector<query_plan> translate_query(std::string_view text);

// Whether the record passes the plan's checks. `scratch` keeps its allocation from call to call.
bool record_passes(const query_plan& plan, std::string_view record, std::string* scratch);

// The query with "~" behind each of its words and values that is a word; empty when it has none. Throws query_error.
std::string query_inside_words(std::string_view text);

// The folded names of the fields that a query has, and what stands before "=" in texts that are taken as phrases.
struct query_names {
    std::vector<std::string> fields, compared, before_equals;  // compared: with a number
};
// Throws query_error.
query_names query_names_of(std::string_view text);

// The text with a caret under the position and what was expected, as two or three lines for standard error.
std::string explain_query_error(std::string_view text, const query_error& error);

}  // namespace veldar::tool
