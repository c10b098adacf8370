// The answer of a selection: a row for every bin and group that an event was found for, with a cell for every
// projection. Tables of slices, directories and machines become one by merging, in any order and any grouping.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "searchthing/base/warm_rc.h"
#include "searchthing/search/select_cell.h"
#include "searchthing/search/select_spec.h"

namespace veldar {

inline constexpr uint64_t SELECT_MAX_CELLS = uint64_t{1} << 22;  // rows x projections, a row counting as one at least
inline constexpr uint64_t SELECT_MAX_BYTES = uint64_t{512} << 20;

// One row as a caller sees it; borrowed from the table.
struct select_row_t {
    int64_t bin = SELECT_NO_BIN;  // where it begins, nanoseconds since the epoch
    std::string_view groups;      // the texts of the group fields, each with a NUL behind it
    uint64_t count = 0;           // events
    std::span<const select_cell_t> cells;
};
// The text of one group field.
std::string_view select_group_text(std::string_view groups, size_t field);

// The functions below may throw std::bad_alloc. Limits are kept by select_row and select_grow: WARM_RC_NO_MEMORY
// "select cells".
struct select_table_t {
    struct row_t {
        int64_t bin;
        uint32_t group;
        uint64_t count;
    };
    struct place_hash {
        size_t operator()(const std::pair<int64_t, uint32_t>& place) const {
            const uint64_t mixed =
                (static_cast<uint64_t>(place.first) ^ uint64_t{place.second} << 32) * 0x9E3779B97F4A7C15;
            return mixed ^ mixed >> 32;
        }
    };
    struct text_hash {
        using is_transparent = void;
        size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
    };

    size_t group_fields = 0;
    std::vector<uint32_t> aggregates;  // by projection
    std::unordered_map<std::string, uint32_t, text_hash, std::equal_to<>> group_numbers;
    std::vector<const std::string*> group_texts;  // by number; the keys of the map
    std::unordered_map<std::pair<int64_t, uint32_t>, uint32_t, place_hash> row_numbers;
    std::vector<row_t> rows;
    std::vector<select_cell_t> cells;  // a row's lie together
    uint64_t bytes = 0;                // held, about
};

// What a selection did, for people who ask why it took its time.
struct select_report_t {
    uint64_t slices = 0;
    uint64_t events = 0;               // that the query found
    uint64_t lists_from_metadata = 0;  // posting lists that were not read
    uint64_t lists_counted = 0;        // as bitmaps, by words
    uint64_t lists_decoded = 0;
    uint64_t lists_probed = 0;    // at the match's values alone
    uint64_t columns_read = 0;    // stretches of measures whose elements were decoded
    uint64_t columns_summed = 0;  // stretches of measures taken from block headers, but for their ends
    uint64_t refused = 0;         // values that are no numbers, where numbers were wanted
};

void select_table_init(select_table_t* table, const select_spec_t& spec);
// The number of a group, made when there is none: its texts as in select_row_t.
[[nodiscard]] int select_group(select_table_t* table, std::string_view texts, uint32_t* group, warm_rc_t* rc);
// The number of a row, made when there is none.
[[nodiscard]] int select_row(select_table_t* table, int64_t bin, uint32_t group, uint32_t* row, warm_rc_t* rc);
inline std::span<select_cell_t> select_cells(select_table_t* table, uint32_t row) {
    return std::span(table->cells).subspan(row * table->aggregates.size(), table->aggregates.size());
}
// Accounts memory that cells have taken.
[[nodiscard]] int select_grow(select_table_t* table, size_t bytes, warm_rc_t* rc);
// Adds the rows of a table of the same shape: WARM_RC_INVALID_ARGUMENT for one of another.
[[nodiscard]] int select_table_merge(select_table_t* into, const select_table_t& other, warm_rc_t* rc);
// Numbers the groups by their texts, bytewise field by field, sorts the rows by bin, then group, and settles the cells.
// A finished table may still be merged into, and has to be finished anew then.
void select_table_finish(select_table_t* table);
select_row_t select_table_row(const select_table_t& table, size_t number);

}  // namespace veldar
