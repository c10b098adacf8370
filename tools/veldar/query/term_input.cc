#include "tools/veldar/query/term_input.h"

#include <memory>

#include "searchthing/lexicon/matcher.h"
#include "tools/veldar/formats/terms.h"
#include "tools/veldar/store/slices.h"
#include "tools/veldar/store/tool_failure.h"

namespace veldar::tool {

namespace {

bool is_bare_value(std::string_view value) {
    return value.find_first_of(" \t\n\r()\"\\") == std::string_view::npos;
}

}  // namespace

void walk_terms(const std::string& path, const term_choice_t& choice, const term_visitor& visit, troubles* trouble) {
    const slice_set set = slices_list(path);
    slices_tell_errors(set, trouble);
    term_cursor_options_t options;
    options.choice = choice;
    options.sources = slices_sources(set);
    options.on_failure = [trouble](const std::string& source, const warm_rc_t& rc) {
        if (rc.warm_rc != WARM_RC_MINIFIED) slice_tell(source, rc, trouble);
    };
    warm_rc_t rc;
    const term_cursor_ptr cursor = term_cursor_open(options, &rc);
    if (cursor == nullptr) return slice_tell(path, rc, trouble);
    std::string_view term;
    term_totals_t totals;
    do {
        int status = term_cursor_next(cursor.get(), &term, &rc);
        if (status == 0 && term.data() == nullptr) return;
        if (status == 0) status = term_cursor_totals(cursor.get(), &totals, &rc);
        if (status != 0) return slice_tell(path, rc, trouble);
    } while (visit(term, totals));
}

term_pattern term_pattern_from_text(const std::string& text) {
    const size_t equals = text.find('='), colons = text.find("::");
    const bool field = equals != std::string::npos && colons > equals;
    if (field) return {fold_value(text.substr(0, equals)) + "::" + fold_value(text.substr(equals + 1)), false};
    return {fold_value(text), text.find('*') != std::string::npos && colons == std::string::npos};
}

term_choice_t term_choice_of(const term_pattern& pattern) {
    term_choice_t choice;
    if (pattern.needle.empty()) return choice;
    const size_t star = pattern.needle.find('*');
    if (star == std::string::npos) {
        choice.needle = pattern.needle;
        return choice;
    }
    const std::shared_ptr<OpaqueMatcher_T> matcher(createMatcher(pattern.needle.c_str()), freeOpaqueMatcher);
    if (matcher == nullptr) throw tool_failure{EXIT_IO, "out of memory"};
    choice.prefix = pattern.needle.substr(0, star);
    choice.wanted = [matcher, words_only = pattern.words_only](std::string_view term) {
        return matcher_spans(term.data(), matcher.get()) && !(words_only && term.find("::") != std::string_view::npos);
    };
    return choice;
}

std::string term_query_text(std::string_view term) {
    const size_t colons = term.find("::");
    if (colons == std::string_view::npos || colons == 0) return std::string(term);
    std::string text = std::string(term.substr(0, colons)) + "=";
    const std::string_view value = term.substr(colons + 2);
    if (is_bare_value(value)) return text.append(value);
    text += '"';
    for (const char c : value) {
        if (c == '"' || c == '\\') text += '\\';
        text += c;
    }
    return text + '"';
}

}  // namespace veldar::tool
