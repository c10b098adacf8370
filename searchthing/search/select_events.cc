// Selections over slices of events: term by term where one field is asked for at a time, else through ordinals.
#include <array>
#include <numeric>

#include "libzero/assertions.h"
#include "searchthing/search/select_columns.h"
#include "searchthing/search/select_internal.h"
#include "searchthing/search/select_match.h"

namespace veldar {

namespace {

// The stretches of the bins that hold matches, ascending.
int find_stretches(const selection_t& selection, const select_match_t& match, std::vector<select_stretch_t>* out,
                   warm_rc_t* rc) {
    uint32_t at = select_next_bit(match.bits.data(), match.range.begin, match.range.begin, match.range.end);
    while (at < match.range.end) {
        select_stretch_t stretch;
        ST_TRY(select_stretch(selection, at, match.range.end, 0, &stretch, rc));
        out->push_back(stretch);
        at = select_next_bit(match.bits.data(), match.range.begin, stretch.end, match.range.end);
    }
    return 0;
}

// Adds a group's events, by stretch, to its rows.
int add_counts(const selection_t& selection, std::span<const select_stretch_t> stretches, uint32_t group,
               const std::vector<uint64_t>& counts, warm_rc_t* rc) {
    ST_ASSERT(counts.size() == stretches.size());
    for (size_t i = 0; i < counts.size(); i++) {
        uint32_t row = 0;
        if (counts[i] == 0) continue;
        ST_TRY(select_row(selection.table, stretches[i].bin, group, &row, rc));
        selection.table->rows[row].count += counts[i];
    }
    return 0;
}

// The terms of a field, one after the other, with the matches of each counted by stretch.
class field_counts {
  public:
    field_counts(const selection_t& selection, const select_match_t& match, std::span<const select_stretch_t> stretches)
        : selection_(selection), match_(match), stretches_(stretches), lists_(selection, match) {}

    // Calls fn(text, counts) for every term that has a match: 0 or a status of fn or of a read.
    template <typename Fn>
    int each(const std::string& field, uint32_t max_texts, Fn fn, warm_rc_t* rc) {
        select_terms_t terms;
        ST_TRY(select_terms_add(selection_, field + "::", &terms, rc));
        if (terms.terms.size() > max_texts) return select_too_many_texts(field, rc);
        std::vector<uint64_t> counts(stretches_.size());
        for (const select_term_t& term : terms.terms) {
            bool is_possible = false;
            uint32_t length = 0;
            ST_TRY(lists_.look_up(term.id, &is_possible, &length, rc));
            if (!is_possible) continue;
            std::fill(counts.begin(), counts.end(), 0);
            ST_TRY(lists_.count(term.id, length, stretches_, counts.data(), rc));
            const bool is_there = std::any_of(counts.begin(), counts.end(), [](uint64_t n) { return n != 0; });
            if (is_there) ST_TRY(fn(terms.texts.c_str() + term.text, counts));
        }
        return 0;
    }

    // Clears the bits of the field's values in `bits`, a copy of the match's.
    int take_out(const std::string& field, uint8_t* bits, warm_rc_t* rc) {
        select_terms_t terms;
        ST_TRY(select_terms_add(selection_, field + "::", &terms, rc));
        const id_range_t& range = match_.range;
        const auto clear = [&](uint32_t id) {
            const uint32_t bit = id - range.begin;
            bits[bit / 8] = static_cast<uint8_t>(bits[bit / 8] & ~(1u << (bit % 8)));
        };
        for (const select_term_t& term : terms.terms) {
            bool is_possible = false;
            uint32_t length = 0;
            ST_TRY(lists_.look_up(term.id, &is_possible, &length, rc));
            if (is_possible) ST_TRY(lists_.each(term.id, length, range.begin, range.end, clear, rc));
        }
        return 0;
    }

  private:
    const selection_t& selection_;
    const select_match_t& match_;
    std::span<const select_stretch_t> stretches_;
    select_lists lists_;
};

std::vector<uint64_t> count_stretches(const uint8_t* bits, uint32_t first,
                                      std::span<const select_stretch_t> stretches) {
    std::vector<uint64_t> counts;
    for (const select_stretch_t& stretch : stretches) {
        counts.push_back(select_count_bits(bits, stretch.begin - first, stretch.end - first));
    }
    return counts;
}

// One row a bin; a term's matches add its value so many times.
int select_ungrouped(const selection_t& selection, const select_match_t& match,
                     std::span<const select_stretch_t> stretches, warm_rc_t* rc) {
    select_table_t* const table = selection.table;
    uint32_t group = 0;
    ST_TRY(select_group(table, "", &group, rc));
    const std::vector<uint64_t> all = count_stretches(match.bits.data(), match.range.begin, stretches);
    ST_ASSERT(std::accumulate(all.begin(), all.end(), uint64_t{0}) == match.count);
    ST_TRY(add_counts(selection, stretches, group, all, rc));
    field_counts fields(selection, match, stretches);
    for (size_t p = 0; p < selection.spec->projections.size(); p++) {
        const select_projection_t& projection = selection.spec->projections[p];
        const auto add = [&](const char* text, const std::vector<uint64_t>& counts) {
            const select_value_t value = select_value_of_text(text);
            for (size_t i = 0; i < counts.size(); i++) {
                uint32_t row = 0;
                if (counts[i] == 0) continue;
                ST_TRY(select_row(table, stretches[i].bin, group, &row, rc));
                select_cell_t* const cell = &select_cells(table, row)[p];
                ST_TRY(select_add(selection, cell, value, counts[i], projection.aggregates, rc));
            }
            return 0;
        };
        ST_TRY(fields.each(projection.field, UINT32_MAX, add, rc));
    }
    return 0;
}

// One group field and nothing but counts.
int select_one_group(const selection_t& selection, const select_match_t& match,
                     std::span<const select_stretch_t> stretches, warm_rc_t* rc) {
    const std::string& field = selection.spec->groups.front();
    field_counts fields(selection, match, stretches);
    const auto add = [&](const char* text, const std::vector<uint64_t>& counts) {
        uint32_t group = 0;
        ST_TRY(select_group(selection.table, {text, std::char_traits<char>::length(text) + 1}, &group, rc));
        return add_counts(selection, stretches, group, counts, rc);
    };
    ST_TRY(fields.each(field, select_max_texts(*selection.query), add, rc));
    if (selection.query->spec.opt_b != SELECT_KEEPS_MISSING) return 0;
    std::vector<uint8_t> rest(match.bits.begin(), match.bits.end());
    ST_TRY(fields.take_out(field, rest.data(), rc));
    uint32_t group = 0;
    ST_TRY(select_group(selection.table, {"", 1}, &group, rc));
    return add_counts(selection, stretches, group, count_stretches(rest.data(), match.range.begin, stretches), rc);
}

}  // namespace

int select_from_events(const selection_t& selection, warm_rc_t* rc) {
    select_match_t match;
    ST_TRY(select_match_open(selection, &match, rc));
    selection.report->events += match.count;
    if (match.count == 0) return 0;
    ST_TRY(select_bins_check(*selection.bins, select_time({match.earliest, 0}), select_time({match.latest, 0}), rc));
    std::vector<select_stretch_t> stretches;
    ST_TRY(find_stretches(selection, match, &stretches, rc));
    if (selection.spec->groups.empty()) return select_ungrouped(selection, match, stretches, rc);
    const bool counts_alone = selection.spec->projections.empty();
    if (selection.spec->groups.size() == 1 && counts_alone) return select_one_group(selection, match, stretches, rc);
    return select_by_columns(selection, match, stretches, rc);
}

}  // namespace veldar
