// Terms as people ask for them and read them, and the walk over the terms of all slices at a path.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "searchthing/reading/cursors.h"
#include "tools/libveldar/store/troubles.h"

namespace veldar::tool {

// Receives a term; false ends the walk.
using term_visitor = std::function<bool(std::string_view, const term_totals_t&)>;

// Lists the slices at `path` and walks their terms (cursors.h). A slice that cannot be read is told to `trouble`
// and left out from there on. Throws failure_t.
void walk_terms(const std::string& path, const term_choice_t& choice, const term_visitor& visit, troubles* trouble);

// A pattern as people write it, "404*", "status=4*" or "\"user name\"=\"a b\"", as one over terms, folded: "status::4*". One with a "*" and
// without a field is about words and not about fields. Empty for every term.
struct term_pattern {
    std::string needle;
    bool words_only = false;
};
term_pattern term_pattern_from_text(const std::string& text);
// The terms that the pattern takes.
term_choice_t term_choice_of(const term_pattern& pattern);

struct counted_term {
    std::string term;
    term_totals_t totals;
};
// The terms that a pattern as people write it takes, the most frequent ones first; with a limit other than 0 no more
// than these are kept in memory.
std::vector<counted_term> terms_by_count(const std::string& path, const std::string& pattern, uint64_t limit,
                                         troubles* trouble);
// Of one word or one field=value; a count of 0 when there is none. Throws failure_t with OUTCOME_USAGE for anything else.
term_totals_t term_seen(const std::string& path, const std::string& text, troubles* trouble);

struct field_totals {
    std::string name;
    uint64_t values = 0, events = 0;
};
// The fields, by name.
std::vector<field_totals> fields_list(const std::string& path, troubles* trouble);

// A term as the query language takes it: status=404, path="/a b"; and the name of a field: status, "user name".
std::string term_query_text(std::string_view term);
std::string field_query_text(std::string_view name);

}  // namespace veldar::tool
