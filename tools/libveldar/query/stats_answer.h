// The rows of an answer in the order and choice in which they are shown: the top groups, and bins without events.
#pragma once

#include <cstdint>
#include <vector>

#include "tools/libveldar/query/stats_input.h"
#include "tools/libveldar/query/stats_read.h"

namespace veldar::tool {

// What stands in a bin that a group has no row for, between the first and the last bin of the answer: no row; a row of
// nothing, whose counts and sums are 0; a row of zeros; the row before.
enum class stats_fill { none, empty, zero, last };

struct stats_shape {
    uint64_t top = 0;  // groups by the first column over all bins, the greatest first; 0: all, by text
    stats_fill fill = stats_fill::none;
    bool needs_totals = false;  // stats_total_value will be asked
};

inline constexpr uint32_t STATS_NO_ROW = UINT32_MAX;

struct stats_answer {
    const stats_request* request = nullptr;
    const select_table_t* table = nullptr;  // finished
    const stats_grid* grid = nullptr;
    struct entry {
        int64_t bin = SELECT_NO_BIN;
        uint32_t group = 0;
        uint32_t row = STATS_NO_ROW;  // whose cells are shown; none: nothing was there
    };
    std::vector<entry> entries;        // by bin, then group text; without bins and with `top` by rank
    std::vector<uint32_t> ranks;       // the groups that are shown, the greatest first when totals are there
    select_table_t totals;             // the groups over all bins; unused for an answer of one bin, whose table says it
    std::vector<uint32_t> total_rows;  // by group, in `totals` or the table
    uint64_t groups_left_out = 0;
    bool zero_fill = false;
    std::vector<select_cell_t> no_cells;
};

// Of everything together there is a row even when nothing was found: adds it where it lacks. May throw std::bad_alloc.
void stats_add_row_of_nothing(const stats_request& request, const stats_grid& grid, select_table_t* table);
// What is given must outlive the answer. May throw failure_t and std::bad_alloc.
void stats_answer_make(const stats_request& request, const select_table_t& table, const stats_grid& grid,
                       const stats_shape& shape, stats_answer* answer);
stats_value stats_entry_value(const stats_answer& answer, const stats_answer::entry& entry, const stats_column& column);
// A column's value of a group over all bins.
stats_value stats_total_value(const stats_answer& answer, uint32_t group, const stats_column& column);
// The bin behind one that begins there.
int64_t stats_next_bin(const stats_answer& answer, int64_t bin);

}  // namespace veldar::tool
