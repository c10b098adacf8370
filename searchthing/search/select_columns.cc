#include "searchthing/search/select_columns.h"

#include <algorithm>
#include <unordered_map>

#include "libzero/assertions.h"

namespace veldar {

namespace {

constexpr uint32_t SEVERAL = 1u << 31;              // in an ordinal: the value has more of them
constexpr uint64_t MAX_DIRECT = uint64_t{1} << 18;  // combinations of groups that are looked up by place

// One field's ordinals in a slab: 0 for none, else a term's place + 1.
struct column_t {
    std::string field;
    select_terms_t terms;
    std::vector<select_value_t> values;               // by term; for projections
    std::vector<uint32_t> ordinals;                   // of the slab's values
    std::vector<std::pair<uint32_t, uint32_t>> more;  // number of a value and a further ordinal, ascending
    size_t next_more = 0;
};

class columns_pass {
  public:
    columns_pass(const selection_t& selection, const select_match_t& match, std::span<const select_stretch_t> stretches)
        : selection_(selection), match_(match), stretches_(stretches), lists_(selection, match) {}

    int open(warm_rc_t* rc) {
        const select_spec_t& spec = *selection_.spec;
        for (const std::string& field : spec.groups) ST_TRY(add_column(field, &groups_, rc));
        for (const select_projection_t& projection : spec.projections) {
            ST_TRY(add_column(projection.field, &projections_, rc));
        }
        for (const size_t place : projections_) parse_values(&columns_[place]);
        for (const size_t place : groups_) {
            const uint64_t texts = columns_[place].terms.terms.size() + 1;
            factors_.push_back(combinations_);
            if (__builtin_mul_overflow(combinations_, texts, &combinations_)) combinations_ = UINT64_MAX;
        }
        if (combinations_ <= MAX_DIRECT) direct_.resize(combinations_, NO_GROUP);
        return 0;
    }

    int run(warm_rc_t* rc) {
        ST_ASSERT(select_slab_values > 0 && select_slab_values % 8 == 0);  // a slab begins a byte of the match
        for (uint32_t begin = match_.range.begin; begin < match_.range.end;) {
            const uint32_t end = begin + std::min(select_slab_values, match_.range.end - begin);
            if (select_next_bit(match_.bits.data(), match_.range.begin, begin, end) != end) {
                for (column_t& column : columns_) ST_TRY(fill(&column, begin, end, rc));
                ST_TRY(pass(begin, end, rc));
            }
            begin = end;
        }
        return 0;
    }

  private:
    static constexpr uint32_t NO_GROUP = UINT32_MAX;
    static constexpr uint32_t VALUES_A_PIECE = 4096;  // between two questions whether to stop
    struct cached_row {
        uint32_t stretch = UINT32_MAX;
        uint32_t row = 0;
    };

    // A field that is asked for twice is one column.
    int add_column(const std::string& field, std::vector<size_t>* places, warm_rc_t* rc) {
        size_t place = 0;
        while (place < columns_.size() && columns_[place].field != field) place++;
        places->push_back(place);
        if (place < columns_.size()) return 0;
        columns_.emplace_back();
        columns_.back().field = field;
        ST_TRY(select_terms_add(selection_, field + "::", &columns_.back().terms, rc));
        const bool is_group = places == &groups_;
        const bool is_too_large = columns_.back().terms.terms.size() > select_max_texts(*selection_.query);
        return is_group && is_too_large ? select_too_many_texts(field, rc) : 0;
    }

    static void parse_values(column_t* column) {
        column->values.clear();
        for (const select_term_t& term : column->terms.terms) {
            column->values.push_back(select_value_of_text(column->terms.texts.c_str() + term.text));
        }
    }

    int fill(column_t* column, uint32_t begin, uint32_t end, warm_rc_t* rc) {
        column->ordinals.assign(end - begin, 0);
        column->more.clear();
        column->next_more = 0;
        uint32_t ordinal = 0;
        const auto set = [&](uint32_t id) {
            uint32_t& held = column->ordinals[id - begin];
            if (held == 0) {
                held = ordinal;
            } else {
                held |= SEVERAL;
                column->more.emplace_back(id, ordinal);
            }
        };
        for (const select_term_t& term : column->terms.terms) {
            bool is_possible = false;
            uint32_t length = 0;
            ordinal++;
            ST_TRY(lists_.look_up(term.id, &is_possible, &length, rc));
            if (is_possible) ST_TRY(lists_.each(term.id, length, begin, end, set, rc));
            if (column->more.size() * sizeof column->more[0] > SELECT_MAX_BYTES) {
                return _set_rc_msg(rc, WARM_RC_NO_MEMORY, "select cells");
            }
        }
        std::sort(column->more.begin(), column->more.end());
        return 0;
    }

    // All ordinals that a value has in a column; valid until the column is asked again.
    void read(column_t* column, uint32_t id, uint32_t first, std::vector<uint32_t>* out) const {
        const uint32_t held = column->ordinals[id - first];
        out->assign(1, held & ~SEVERAL);
        if ((held & SEVERAL) == 0) return;
        auto& next = column->next_more;
        while (column->more[next].first < id) next++;
        for (size_t i = next; i < column->more.size() && column->more[i].first == id; i++) {
            out->push_back(column->more[i].second);
        }
        ST_ASSERT(out->size() > 1);
    }

    int pass(uint32_t begin, uint32_t end, warm_rc_t* rc) {
        int status = 0;
        const auto add = [&](uint32_t id) {
            while (id >= stretches_[stretch_].end) stretch_++;
            if (status == 0) status = add_event(id, begin, rc);
        };
        for (uint32_t at = begin; at < end && status == 0;) {
            const uint32_t stop = at + std::min(VALUES_A_PIECE, end - at);
            ST_TRY(warm_slice_go_on(selection_.warm, stop - at, rc));
            select_each_bit(match_.bits.data(), match_.range.begin, at, stop, add);
            at = stop;
        }
        return status;
    }

    int add_event(uint32_t id, uint32_t first, warm_rc_t* rc) {
        std::array<uint32_t, SELECT_MAX_GROUPS> ordinals = {};
        uint32_t seen = 0;
        const bool keeps_missing = selection_.query->spec.opt_b == SELECT_KEEPS_MISSING;
        for (size_t i = 0; i < groups_.size(); i++) {
            ordinals[i] = columns_[groups_[i]].ordinals[id - first];
            if (ordinals[i] == 0 && !keeps_missing) return 0;
            seen |= ordinals[i];
        }
        if ((seen & SEVERAL) == 0) return add_row(std::span(ordinals).first(groups_.size()), id, first, rc);
        for (size_t i = 0; i < groups_.size(); i++) read(&columns_[groups_[i]], id, first, &several_[i]);
        return add_combinations(0, &ordinals, id, first, rc);
    }

    // The rows of every combination of the ordinals in `several_`; those before field `at` are chosen.
    int add_combinations(size_t at, std::array<uint32_t, SELECT_MAX_GROUPS>* chosen, uint32_t id, uint32_t first,
                         warm_rc_t* rc) {
        if (at == groups_.size()) return add_row(std::span(*chosen).first(at), id, first, rc);
        for (const uint32_t ordinal : several_[at]) {
            (*chosen)[at] = ordinal;
            ST_TRY(add_combinations(at + 1, chosen, id, first, rc));
        }
        return 0;
    }

    int add_row(std::span<const uint32_t> ordinals, uint32_t id, uint32_t first, warm_rc_t* rc) {
        uint32_t group = 0;
        ST_TRY(find_group(ordinals, &group, rc));
        if (rows_.size() <= group) rows_.resize(std::max<size_t>(group + 1, 2 * rows_.size()));
        cached_row& cached = rows_[group];
        if (cached.stretch != stretch_) {
            ST_TRY(select_row(selection_.table, stretches_[stretch_].bin, group, &cached.row, rc));
            cached.stretch = stretch_;
        }
        selection_.table->rows[cached.row].count++;
        for (size_t p = 0; p < projections_.size(); p++) ST_TRY(add_values(p, cached.row, id, first, rc));
        return 0;
    }

    int find_group(std::span<const uint32_t> ordinals, uint32_t* group, warm_rc_t* rc) {
        uint64_t place = 0;
        if (combinations_ != UINT64_MAX) {
            for (size_t i = 0; i < ordinals.size(); i++) place += ordinals[i] * factors_[i];
            if (!direct_.empty() && direct_[place] != NO_GROUP) {
                *group = direct_[place];
                return 0;
            }
            const auto known = direct_.empty() ? by_place_.find(place) : by_place_.end();
            if (known != by_place_.end()) {
                *group = known->second;
                return 0;
            }
        }
        std::string texts;
        for (size_t i = 0; i < ordinals.size(); i++) {
            const select_terms_t& terms = columns_[groups_[i]].terms;
            if (ordinals[i] != 0) texts.append(terms.text(terms.terms[ordinals[i] - 1]));
            texts.push_back('\0');
        }
        ST_TRY(select_group(selection_.table, texts, group, rc));
        if (!direct_.empty()) {
            direct_[place] = *group;
        } else if (combinations_ != UINT64_MAX) {
            by_place_.emplace(place, *group);
        }
        return 0;
    }

    int add_values(size_t projection, uint32_t row, uint32_t id, uint32_t first, warm_rc_t* rc) {
        column_t& column = columns_[projections_[projection]];
        const uint32_t aggregates = selection_.spec->projections[projection].aggregates;
        select_cell_t* const cell = &select_cells(selection_.table, row)[projection];
        const uint32_t held = column.ordinals[id - first];
        if (held == 0) return 0;
        if ((held & SEVERAL) == 0) return select_add(selection_, cell, column.values[held - 1], 1, aggregates, rc);
        read(&column, id, first, &values_);
        for (const uint32_t ordinal : values_) {
            ST_TRY(select_add(selection_, cell, column.values[ordinal - 1], 1, aggregates, rc));
        }
        return 0;
    }

    const selection_t& selection_;
    const select_match_t& match_;
    std::span<const select_stretch_t> stretches_;
    select_lists lists_;
    std::vector<column_t> columns_;
    std::vector<size_t> groups_, projections_;  // places of columns
    // A combination of group ordinals is the sum of each times its factor.
    std::vector<uint64_t> factors_;
    uint64_t combinations_ = 1;     // UINT64_MAX: too many to be numbered
    std::vector<uint32_t> direct_;  // the group of a combination
    std::unordered_map<uint64_t, uint32_t> by_place_;
    std::vector<cached_row> rows_;  // by group
    uint32_t stretch_ = 0;
    std::array<std::vector<uint32_t>, SELECT_MAX_GROUPS> several_;
    std::vector<uint32_t> values_;
};

}  // namespace

int select_too_many_texts(const std::string& field, warm_rc_t* rc) {
    return _set_rc_msg(rc, WARM_RC_CAPACITY, ("too many values of the group field " + field).c_str());
}

int select_by_columns(const selection_t& selection, const select_match_t& match,
                      std::span<const select_stretch_t> stretches, warm_rc_t* rc) {
    columns_pass pass(selection, match, stretches);
    ST_TRY(pass.open(rc));
    return pass.run(rc);
}

}  // namespace veldar
