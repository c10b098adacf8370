#include "tools/veldar/query/term_walk.h"

#include <algorithm>
#include <memory>
#include <vector>

#include "searchthing/lexicon/fclex_cursor.h"
#include "searchthing/lexicon/matcher.h"
#include "searchthing/slice/warmslice_meta.h"
#include "tools/veldar/formats/terms.h"
#include "tools/veldar/store/tool_failure.h"

namespace veldar::tool {

namespace {

constexpr uint64_t ALL_PIECES = uint64_t{16} << 20, LEAST_PIECE = 8 << 10, LARGEST_PIECE = 128 << 10;

struct slice_terms {
    const slice_file* file = nullptr;
    WARM* warm = nullptr;
    fclex_cursor_ptr cursor;
    fclex_cursor_term_t term;
    std::string_view text() const { return {term.text, term.length}; }
};

void check_memory(const warm_rc_t& rc) {
    if (rc.warm_rc == WARM_RC_NO_MEMORY) throw tool_failure{EXIT_IO, "out of memory"};
}

// Moves to the slice's next term that is wanted; false at the end, or after a failure, which has been told.
bool advance(slice_terms* slice, const term_choice& choice, troubles* trouble) {
    do {
        warm_rc_t rc;
        if (fclex_cursor_next(slice->cursor.get(), &slice->term, &rc) != 0) {
            check_memory(rc);
            troubles_add(trouble, slice_error(*slice->file, rc));
            return false;
        }
        if (slice->term.text == nullptr) return false;
    } while (choice.wanted && !choice.wanted(slice->text()));
    return true;
}

bool start(slice_terms* slice, const term_choice& choice, uint64_t piece, troubles* trouble) {
    if (slice->warm->lexicon == nullptr) return false;
    warm_rc_t rc;
    slice->cursor = fclex_cursor_open(slice->warm->lexicon, choice.prefix.c_str(), nullptr, piece, nullptr, &rc);
    if (slice->cursor == nullptr) {
        check_memory(rc);
        troubles_add(trouble, slice_error(*slice->file, rc));
        return false;
    }
    return advance(slice, choice, trouble);
}

void add_totals(slice_terms* slice, uint32_t id, term_totals* totals, troubles* trouble) {
    st_term_metadata record;
    warm_rc_t rc;
    if (warm_slice_term_metadata(slice->warm, id, nullptr, &record, &rc) != 0) {
        check_memory(rc);
        troubles_add(trouble, slice_error(*slice->file, rc));
        return;
    }
    const bool counts_only = warm_header_meta_type(slice->warm->body) == META_COUNT_ONLY;
    const st_time_t earliest = counts_only ? slice->file->earliest : static_cast<st_time_t>(record.earliest);
    const st_time_t latest = counts_only ? slice->file->latest : static_cast<st_time_t>(record.latest);
    totals->earliest = totals->count == 0 ? earliest : std::min(totals->earliest, earliest);
    totals->latest = totals->count == 0 ? latest : std::max(totals->latest, latest);
    totals->count += record.count;
}

bool later_term(const slice_terms* a, const slice_terms* b) {
    return a->text() > b->text();
}

void merge(std::vector<slice_terms>* slices, const term_choice& choice, const term_visitor& visit, troubles* trouble) {
    const uint64_t share = ALL_PIECES / std::max<size_t>(slices->size(), 1);
    const uint64_t piece = std::clamp(share, LEAST_PIECE, LARGEST_PIECE);
    std::vector<slice_terms*> heap;
    for (slice_terms& slice : *slices) {
        if (start(&slice, choice, piece, trouble)) heap.push_back(&slice);
    }
    std::make_heap(heap.begin(), heap.end(), later_term);
    std::string term;
    while (!heap.empty()) {
        term.assign(heap.front()->text());
        term_totals totals;
        while (!heap.empty() && heap.front()->text() == term) {
            std::pop_heap(heap.begin(), heap.end(), later_term);
            slice_terms* const slice = heap.back();
            add_totals(slice, slice->term.id, &totals, trouble);
            if (advance(slice, choice, trouble)) {
                std::push_heap(heap.begin(), heap.end(), later_term);
            } else {
                heap.pop_back();
            }
        }
        if (!visit(term, totals)) return;
    }
}

void look_up(std::vector<slice_terms>* slices, const std::string& term, const term_visitor& visit, troubles* trouble) {
    term_totals totals;
    for (slice_terms& slice : *slices) {
        if (slice.warm->lexicon == nullptr) continue;
        uint32_t id;
        warm_rc_t rc;
        const int status = _fclex_get_with_status(slice.warm->lexicon, term.c_str(), &id, nullptr, &rc);
        if (status == 0) {
            add_totals(&slice, id, &totals, trouble);
        } else if (status != WARM_RC_NOT_FOUND) {
            check_memory(rc);
            troubles_add(trouble, slice_error(*slice.file, rc));
        }
    }
    if (totals.count > 0) visit(term, totals);
}

bool is_bare_value(std::string_view value) {
    return value.find_first_of(" \t\n\r()\"\\") == std::string_view::npos;
}

}  // namespace

void walk_terms(const std::string& path, const term_choice& choice, const term_visitor& visit, troubles* trouble) {
    slices_visit(path, trouble, [&](const slice_set& set) {
        std::vector<opened_slice> opened;
        if (!slices_open_all(set, &opened, trouble)) return false;
        std::vector<slice_terms> slices;
        for (const opened_slice& slice : opened) slices.push_back({slice.file, slice.warm.get(), {}, {}});
        if (choice.exact.empty()) {
            merge(&slices, choice, visit, trouble);
        } else {
            look_up(&slices, choice.exact, visit, trouble);
        }
        return true;
    });
}

term_pattern term_pattern_from_text(const std::string& text) {
    const size_t equals = text.find('='), colons = text.find("::");
    const bool field = equals != std::string::npos && colons > equals;
    if (field) return {fold_value(text.substr(0, equals)) + "::" + fold_value(text.substr(equals + 1)), false};
    return {fold_value(text), text.find('*') != std::string::npos && colons == std::string::npos};
}

term_choice term_choice_of(const term_pattern& pattern) {
    if (pattern.needle.empty()) return {};
    if (pattern.needle.find('*') == std::string::npos) return {pattern.needle, {}, {}};
    const std::shared_ptr<OpaqueMatcher_T> matcher(createMatcher(pattern.needle.c_str()), freeOpaqueMatcher);
    if (matcher == nullptr) throw tool_failure{EXIT_IO, "out of memory"};
    const std::string prefix = pattern.needle.substr(0, pattern.needle.find('*'));
    return {{}, prefix, [matcher, words_only = pattern.words_only](std::string_view term) {
                return matcher_spans(term.data(), matcher.get()) &&
                       !(words_only && term.find("::") != std::string_view::npos);
            }};
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
