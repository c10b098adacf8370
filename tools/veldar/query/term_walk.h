// The terms of any number of slices in ascending order, each once, with what the slices' metadata say of it added up.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "tools/veldar/store/slices.h"
#include "tools/veldar/store/troubles.h"

namespace veldar::tool {

struct term_totals {
    uint64_t count = 0;  // events; deleted ones too, as long as their slice holds them
    st_time_t earliest = 0, latest = 0;
};

// Which terms: `exact` alone when it is not empty, else those that begin with `prefix` and that `wanted` (null: all)
// takes. Metadata are read for those alone.
struct term_choice {
    std::string exact;
    std::string prefix;
    std::function<bool(std::string_view)> wanted;
};
// Receives a term; false ends the walk.
using term_visitor = std::function<bool(std::string_view, const term_totals&)>;

// Lists the slices at `path` and walks their terms. A slice that cannot be read is told to `trouble` and left out from
// there on. Throws tool_failure.
void walk_terms(const std::string& path, const term_choice& choice, const term_visitor& visit, troubles* trouble);

// A pattern as people write it, "404*" or "status=4*", as one over terms, folded: "status::4*". One with a "*" and
// without a field is about words and not about fields. Empty for every term.
struct term_pattern {
    std::string needle;
    bool words_only = false;
};
term_pattern term_pattern_from_text(const std::string& text);
// The terms that the pattern takes.
term_choice term_choice_of(const term_pattern& pattern);

// A term as the query language takes it: status=404, path="/a b".
std::string term_query_text(std::string_view term);

}  // namespace veldar::tool
