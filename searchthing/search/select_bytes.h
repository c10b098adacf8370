// A finished table as bytes, for answers that are merged elsewhere.
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
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "searchthing/base/warm_rc.h"
#include "searchthing/search/select_table.h"

namespace veldar {

// Appends a finished table's bytes. May throw std::bad_alloc.
void select_table_encode(const select_table_t& table, std::string* out);
// The table of these bytes, finished. 0; WARM_RC_BAD_MAGIC for other bytes, WARM_RC_CORRUPT "select table" for damage,
// with the position; WARM_RC_NO_MEMORY, with "select cells" for a table beyond the limits of select_table.h. A table
// that is read is one that could have been written: merging and telling it is as safe as with one's own.
[[nodiscard]] int select_table_decode(std::span<const uint8_t> bytes, select_table_t* table, warm_rc_t* rc);

}  // namespace veldar
