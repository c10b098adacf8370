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

// A walk over terms with their totals, ascending; it ends when the visitor says so.
using term_walk = std::function<void(const term_visitor&)>;

// Lists the slices at `path` and walks their terms (cursors.h). A slice that cannot be read is told to `trouble`
// and left out from there on. Throws failure_t.
void walk_terms(const std::string& path, const term_choice_t& choice, const term_visitor& visit, troubles* trouble);

term_walk terms_at(const std::string& path, const term_choice_t& choice, troubles* trouble);

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
// The terms of a walk, the most frequent ones first; with a limit other than 0 no more than these are kept in memory.
std::vector<counted_term> terms_by_count(const term_walk& walk, uint64_t limit);
// Terms that were not seen before a time, the newest first; with a limit other than 0 no more than these.
std::vector<counted_term> terms_new_since(const term_walk& walk, const st_timeval_t& since, uint64_t limit);
// What a walk over one term tells; a count of 0 when there is none.
term_totals_t term_seen(const term_walk& walk);

struct field_totals {
    std::string name;
    uint64_t values = 0, events = 0;
};
// The fields of a walk over terms, by name.
std::vector<field_totals> fields_list(const term_walk& walk);

// What is walked over. A pattern as people write it; one word or one field=value, OUTCOME_USAGE for anything else; every
// field; a pattern, where a bare name is a field's. May throw failure_t.
term_choice_t terms_of_pattern(const std::string& pattern);
term_choice_t terms_of_one(const std::string& text);
term_choice_t terms_of_fields();
term_choice_t terms_of_field_or_pattern(const std::string& pattern);

// A term as the query language takes it: status=404, path="/a b"; and the name of a field: status, "user name".
std::string term_query_text(std::string_view term);
std::string field_query_text(std::string_view name);

}  // namespace veldar::tool
