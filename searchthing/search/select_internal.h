// What the two kinds of slices share in a selection.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "searchthing/search/select_slice.h"
#include "searchthing/search/slice_events.h"
#include "searchthing/slice/warmslice.h"

namespace veldar {

// How many values are taken at a time where each has an ordinal; a multiple of 8. Tests make it small.
inline uint32_t select_slab_values = uint32_t{1} << 20;

struct selection_t {
    WARM* warm;
    const parsed_query_t* query;
    const select_spec_t* spec;
    const select_bins_t* bins;
    select_table_t* table;
    select_report_t* report;
};

// The values [begin, end), all of one bin.
struct select_stretch_t {
    uint32_t begin;
    uint32_t end;
    int64_t bin;
};

// The stretch of the bin that value `begin` lies in, at most up to `end`; values from `begin` on are newest first. Its
// end is looked for `guess` values on, then by steps that double, so that many bins cost no more than few.
[[nodiscard]] int select_stretch(const selection_t& selection, uint32_t begin, uint32_t end, uint32_t guess,
                                 select_stretch_t* out, warm_rc_t* rc);

// A term of a field: its number in the lexicon and the text behind "<field>::".
struct select_term_t {
    uint32_t id;
    uint32_t length;
    size_t text;  // its place in select_terms_t::texts, where a NUL follows
};

struct select_terms_t {
    std::vector<select_term_t> terms;  // by id, ascending
    std::string texts;
    std::string_view text(const select_term_t& term) const {
        return std::string_view(texts).substr(term.text, term.length);
    }
};
// Appends the slice's terms that begin with `prefix`, without it. 0 or the failure of a read; may throw std::bad_alloc.
[[nodiscard]] int select_terms_add(const selection_t& selection, const std::string& prefix, select_terms_t* out,
                                   warm_rc_t* rc);

inline bool select_wants_numbers(uint32_t aggregates) {
    return (aggregates & (SELECT_SUM | SELECT_SUMSQ | SELECT_MIN | SELECT_MAX | SELECT_AVG | SELECT_QUANTILES)) != 0;
}
// Adds a value to a cell of the table.
[[nodiscard]] int select_add(const selection_t& selection, select_cell_t* cell, const select_value_t& value,
                             uint64_t times, uint32_t aggregates, warm_rc_t* rc);

// The two kinds. May throw std::bad_alloc.
[[nodiscard]] int select_from_events(const selection_t& selection, warm_rc_t* rc);
[[nodiscard]] int select_from_metrics(const selection_t& selection, warm_rc_t* rc);

}  // namespace veldar
