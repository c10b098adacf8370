// Reads tables of selections. One that is read is written again as the same bytes, and can be merged and told.
#include <xxhash.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "libzero/endian.h"
#include "searchthing/search/select_table.h"

using namespace veldar;

namespace {

void tell(const select_table_t& table) {
    for (size_t i = 0; i < table.rows.size(); i++) {
        const select_row_t row = select_table_row(table, i);
        for (size_t f = 0; f < table.group_fields; f++) {
            if (select_group_text(row.groups, f).size() >= row.groups.size()) std::abort();
        }
        for (const select_cell_t& cell : row.cells) {
            bool is_estimate = false;
            if (select_cell_distinct(cell, &is_estimate) < 0) std::abort();
            for (const double q : {0.0, 0.5, 0.99, 1.0}) {
                const double at = select_cell_quantile(cell, q, &is_estimate);
                if (at < cell.minimum || at > cell.maximum) std::abort();
            }
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // The hash at the end is put right, or nothing would pass it.
    std::vector<uint8_t> bytes(data, data + size);
    if (size >= 8) store_le64(bytes.data() + size - 8, XXH64(bytes.data(), size - 8, 0));
    select_table_t table;
    warm_rc_t rc;
    if (select_table_decode(bytes, &table, &rc) != 0) return 0;
    std::string again;
    select_table_encode(table, &again);
    if (std::string(bytes.begin(), bytes.end()) != again) std::abort();
    tell(table);
    const size_t rows = table.rows.size();
    select_table_t twice;
    if (select_table_decode(bytes, &twice, &rc) != 0) std::abort();
    if (select_table_merge(&twice, table, &rc) != 0) return 0;
    select_table_finish(&twice);
    if (twice.rows.size() != rows) std::abort();
    tell(twice);
    return 0;
}
