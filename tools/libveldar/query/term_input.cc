#include "tools/libveldar/query/term_input.h"

#include <algorithm>
#include <memory>

#include "searchthing/lexicon/matcher.h"
#include "tools/libveldar/formats/terms.h"
#include "tools/libveldar/store/failure.h"
#include "tools/libveldar/store/slices.h"

namespace veldar::tool {

namespace {

bool is_bare_value(std::string_view value) {
    return !value.ends_with('~') && value.find_first_of(" \t\n\r()\"\\") == std::string_view::npos;
}

std::string quoted_text(std::string_view text) {
    std::string out = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') out += '\\';
        out += c;
    }
    return out + '"';
}

// Takes a text in quotes off the front; false when there is none.
bool take_quoted(std::string_view* rest, std::string* out) {
    if (!rest->starts_with('"')) return false;
    for (size_t i = 1; i < rest->size(); i++) {
        const char c = (*rest)[i];
        if (c == '"') {
            rest->remove_prefix(i + 1);
            return true;
        }
        const bool escape = c == '\\' && i + 1 < rest->size() && ((*rest)[i + 1] == '"' || (*rest)[i + 1] == '\\');
        out->push_back(escape ? (*rest)[++i] : c);
    }
    out->clear();
    return false;
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
    std::string_view rest = text;
    std::string name, value;
    const bool quoted = take_quoted(&rest, &name);
    const size_t equals = rest.find('='), colons = rest.find("::");
    const bool field = quoted ? equals == 0 : equals != std::string::npos && colons > equals;
    if (field) {
        if (!quoted) name = rest.substr(0, equals);
        rest.remove_prefix(equals + 1);
        if (!take_quoted(&rest, &value) || !rest.empty()) value = rest;
        return {fold_value(name) + "::" + fold_value(value), false};
    }
    if (quoted && rest.empty()) return {fold_value(name), name.find('*') != std::string::npos};
    return {fold_value(text), text.find('*') != std::string::npos && text.find("::") == std::string::npos};
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
    if (matcher == nullptr) throw failure_t{OUTCOME_IO, "out of memory"};
    choice.prefix = pattern.needle.substr(0, star);
    choice.wanted = [matcher, words_only = pattern.words_only](std::string_view term) {
        return matcher_spans(term.data(), matcher.get()) && !(words_only && term.find("::") != std::string_view::npos);
    };
    return choice;
}

namespace {

// The terms of a walk by rank, the greatest first, then by text; those of a negative rank are left out, and with a limit
// other than 0 only so many kept.
std::vector<counted_term> terms_by_rank(const term_walk& walk, uint64_t limit,
                                        const std::function<int64_t(const term_totals_t&)>& rank) {
    struct ranked_term {
        int64_t rank;
        counted_term term;
        bool operator<(const ranked_term& other) const {
            return rank != other.rank ? rank > other.rank : term.term < other.term.term;
        }
    };
    std::vector<ranked_term> held;
    walk([&](std::string_view term, const term_totals_t& totals) {
        const int64_t here = rank(totals);
        const bool full = limit != 0 && held.size() == limit;
        if (here < 0 || (full && held.front().rank >= here)) return true;
        held.push_back({here, {std::string(term), totals}});
        if (limit == 0) return true;
        std::push_heap(held.begin(), held.end());
        if (!full) return true;
        std::pop_heap(held.begin(), held.end());
        held.pop_back();
        return true;
    });
    std::sort(held.begin(), held.end());
    std::vector<counted_term> terms;
    for (ranked_term& one : held) terms.push_back(std::move(one.term));
    return terms;
}

}  // namespace

term_walk terms_at(const std::string& path, const term_choice_t& choice, troubles* trouble) {
    return [=](const term_visitor& visit) { walk_terms(path, choice, visit, trouble); };
}

std::vector<counted_term> terms_by_count(const term_walk& walk, uint64_t limit) {
    return terms_by_rank(walk, limit, [](const term_totals_t& totals) {
        return static_cast<int64_t>(std::min<uint64_t>(totals.count, INT64_MAX));
    });
}

std::vector<counted_term> terms_new_since(const term_walk& walk, const st_timeval_t& since, uint64_t limit) {
    // Metadata have whole seconds.
    const int64_t first = int64_t{since.time_s} + (since.time_ns > 0 ? 1 : 0);
    return terms_by_rank(walk, limit, [first](const term_totals_t& totals) {
        return totals.count > 0 ? int64_t{totals.earliest} - first : -1;
    });
}

term_totals_t term_seen(const term_walk& walk) {
    term_totals_t all;
    walk([&](std::string_view, const term_totals_t& totals) {
        all = totals;
        return true;
    });
    return all;
}

std::vector<field_totals> fields_list(const term_walk& walk) {
    std::vector<field_totals> fields;
    walk([&](std::string_view term, const term_totals_t& totals) {
        const std::string_view name = term.substr(0, term.find("::"));
        if (fields.empty() || fields.back().name != name) fields.push_back({std::string(name), 0, 0});
        fields.back().values++;
        fields.back().events += totals.count;
        return true;
    });
    return fields;
}

term_choice_t terms_of_pattern(const std::string& pattern) {
    return term_choice_of(term_pattern_from_text(pattern));
}

term_choice_t terms_of_one(const std::string& text) {
    const term_pattern pattern = term_pattern_from_text(text);
    term_set words;
    term_set_add_text(&words, text);
    const auto terms = term_set_terms(&words);
    const bool word = terms.size() == 1 && terms[0] == pattern.needle;
    const bool field = pattern.needle.find("::") != std::string::npos;
    if ((!word && !field) || text.find('*') != std::string::npos) {
        throw failure_t{OUTCOME_USAGE, text + ": expected one word or one field=value, without *"};
    }
    return term_choice_of(pattern);
}

term_choice_t terms_of_fields() {
    term_choice_t choice;
    choice.wanted = [](std::string_view term) { return term.find("::") != std::string_view::npos; };
    return choice;
}

term_choice_t terms_of_field_or_pattern(const std::string& pattern) {
    const bool is_pattern =
        pattern.empty() || pattern.find_first_of("=*") != std::string::npos || pattern.find("::") != std::string::npos;
    if (is_pattern) return terms_of_pattern(pattern);
    term_choice_t choice;
    choice.prefix = term_pattern_from_text(pattern + "=").needle;
    return choice;
}

std::string term_query_text(std::string_view term) {
    const size_t colons = term.find("::");
    if (colons == std::string_view::npos || colons == 0) return std::string(term);
    const std::string_view value = term.substr(colons + 2);
    return field_query_text(term.substr(0, colons)) + "=" +
           (is_bare_value(value) ? std::string(value) : quoted_text(value));
}

std::string field_query_text(std::string_view name) {
    const auto is_letter = [](char c) { return (c >= 'a' && c <= 'z') || c == '_' || c == '@'; };
    const bool bare = !name.empty() && is_letter(name[0]) && std::all_of(name.begin(), name.end(), [&](char c) {
        return is_letter(c) || (c >= '0' && c <= '9') || c == '.' || c == '-';
    });
    return bare ? std::string(name) : quoted_text(name);
}

}  // namespace veldar::tool
