#include "tools/libveldar/query/query_phrase.h"

#include <algorithm>

#include "tools/libveldar/formats/terms.h"

namespace veldar::tool {

namespace {

// The term that stands for a run of word characters of a phrase. The edges of words are no part of terms; where the
// word goes on they may be, but not in every record.
std::string run_term(std::string_view run, bool cut_begin, bool cut_end) {
    while (!run.empty() && is_word_edge(run.front())) run.remove_prefix(1);
    while (!run.empty() && is_word_edge(run.back())) run.remove_suffix(1);
    // Terms are cut too, and what is cut off is in no term.
    if (run.empty() || (cut_begin && run.size() + 2 > TERM_MAX)) return {};
    run = run.substr(0, cut_end ? TERM_MAX - 2 : TERM_MAX);
    return (cut_begin ? "*" : "") + std::string(run) + (cut_end ? "*" : "");
}

void add_run_terms(std::string_view folded, bool may_cut, std::vector<std::string>* terms) {
    const auto cuts = [&](size_t at) { return at < folded.size() ? folded[at] == '*' : may_cut; };
    for (size_t begin = 0; begin < folded.size(); begin++) {
        if (!in_word(folded[begin])) continue;
        size_t end = begin;
        while (end < folded.size() && in_word(folded[end])) end++;
        std::string term =
            run_term(folded.substr(begin, end - begin), begin == 0 ? may_cut : cuts(begin - 1), cuts(end));
        const bool known = std::find(terms->begin(), terms->end(), term) != terms->end();
        if (!term.empty() && !known) terms->push_back(std::move(term));
        begin = end;
    }
}

// Whether the occurrence at [begin, end) of the line stands at the ends of words, as the piece asks.
bool stands_whole(std::string_view line, size_t begin, size_t end, const raw_piece& piece) {
    return (!piece.whole_begin || word_begins_at(line, begin)) && (!piece.whole_end || word_ends_at(line, end));
}

bool line_holds(std::string_view line, const raw_pattern& pattern) {
    size_t from = 0;
    for (const raw_piece& piece : pattern.pieces) {
        size_t at = line.find(piece.text, from);
        while (at != std::string_view::npos && !stands_whole(line, at, at + piece.text.size(), piece)) {
            at = line.find(piece.text, at + 1);
        }
        if (at == std::string_view::npos) return false;
        from = at + piece.text.size();
    }
    return true;
}

}  // namespace

raw_pattern phrase_pattern(std::string_view phrase, bool may_cut, std::vector<std::string>* terms) {
    raw_pattern pattern;
    const std::string folded = fold_value(phrase);
    for (size_t begin = 0; begin <= folded.size();) {
        const size_t end = std::min(folded.find('*', begin), folded.size());
        if (end > begin) {
            pattern.pieces.push_back({folded.substr(begin, end - begin),
                                      !may_cut && begin == 0 && in_word(folded[begin]),
                                      !may_cut && end == folded.size() && in_word(folded[end - 1])});
        }
        begin = end + 1;
    }
    add_run_terms(folded, may_cut, terms);
    return pattern;
}

// Pieces are looked for line by line, a single piece in the whole record at once.
bool record_holds(std::string_view record, const raw_pattern& pattern) {
    if (pattern.pieces.size() < 2) return line_holds(record, pattern);
    size_t begin = 0;
    while (begin <= record.size()) {
        const size_t end = std::min(record.find('\n', begin), record.size());
        if (line_holds(record.substr(begin, end - begin), pattern)) return true;
        begin = end + 1;
    }
    return false;
}

}  // namespace veldar::tool
