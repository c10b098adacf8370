// Finds in a raw record what a query looked for, to show it in colour.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "searchthing/lexicon/matcher.h"
#include "tools/libveldar/query/query_language.h"

namespace veldar::tool {

struct matcher_free {
    void operator()(OpaqueMatcher_T* matcher) const { freeOpaqueMatcher(matcher); }
};

struct highlighter {
    std::vector<std::string> texts;  // folded; stand alone in the record, not inside a word
    std::vector<std::unique_ptr<OpaqueMatcher_T, matcher_free>> words;  // with "*"
};

// Takes the words, values and phrases that the plans ask for; nothing that they exclude.
highlighter highlight_of(const std::vector<query_plan>& plans);
// Appends the text with what was found in bold red, and `for_terminal` with the text's own control characters visible.
void highlight_put(const highlighter& wanted, std::string_view text, bool for_terminal, std::string* out);

}  // namespace veldar::tool
