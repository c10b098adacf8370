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

// A finished table as bytes (select_bytes.cc), for answers that are merged elsewhere.
//
// Little-endian:
//
//   size   field
//   8      magic "VSELECT1"
//   4      G: group fields, 0 to 8
//   4      P: projections, 0 to 16
//   4 x P  aggregates of each, SELECT_* bits
//   4      N: groups
//   4      R: rows
//          N groups: u32 size; the texts of the G fields, each with a NUL behind it. Ascending bytewise
//          R rows: i64 bin (-2^63: none), nanoseconds since the epoch; u32 group; u64 events; P cells. Ascending by bin,
//          then group
//   8      XXH64 of all that precedes it
//
// A cell:
//
//   8      values
//   8      values that are numbers
//   16     f64 sum, f64 what rounding took from it
//   16     the same of the squares
//   16     f64 minimum, f64 maximum; +infinity and -infinity without numbers
//   1      which parts follow, in this order: 1 and 2 distinct values, 4 kept values, 8 and 16 quantiles
//     1    u32 n, at most 4,096; n x u64 XXH64 of a value, ascending
//     2    2^14 registers of one byte, at most 51
//     4    u8 1 when there are more; u32 n, at most 4,096; n times u32 size and the text, ascending
//     8    u32 n, at most 4,096; n times f64 number, ascending, and u64 times
//     16   u64 zeros; the positive, then the negative buckets: i32 number of the first; u32 n; n x u64

// Appends a finished table's bytes. May throw std::bad_alloc.
void select_table_encode(const select_table_t& table, std::string* out);
// The table of these bytes, finished. 0; WARM_RC_BAD_MAGIC for other bytes, WARM_RC_CORRUPT "select table" for damage,
// with the position; WARM_RC_NO_MEMORY, with "select cells" for a table beyond the limits of select_table.h. A table
// that is read is one that could have been written: merging and telling it is as safe as with one's own.
[[nodiscard]] int select_table_decode(std::span<const uint8_t> bytes, select_table_t* table, warm_rc_t* rc);

}  // namespace veldar
