#include "searchthing/search/select_table.h"

#include <algorithm>
#include <numeric>

#include "libzero/assertions.h"

namespace veldar {

namespace {

// Bytes of a row and of a group beside their texts and cells: the nodes of the maps.
constexpr uint64_t ROW_BYTES = sizeof(select_table_t::row_t) + 64;
constexpr uint64_t GROUP_BYTES = 96;

// Finished tables have no numbers of rows.
void number_rows(select_table_t* table) {
    if (table->row_numbers.size() == table->rows.size()) return;
    table->row_numbers.clear();
    for (uint32_t i = 0; i < table->rows.size(); i++) {
        table->row_numbers.emplace(std::pair(table->rows[i].bin, table->rows[i].group), i);
    }
    ST_ASSERT(table->row_numbers.size() == table->rows.size());
}

}  // namespace

std::string_view select_group_text(std::string_view groups, size_t field) {
    for (; field > 0; field--) groups.remove_prefix(groups.find('\0') + 1);
    return groups.substr(0, groups.find('\0'));
}

void select_table_init(select_table_t* table, const select_spec_t& spec) {
    *table = {};
    table->group_fields = spec.groups.size();
    for (const select_projection_t& projection : spec.projections) table->aggregates.push_back(projection.aggregates);
}

int select_grow(select_table_t* table, size_t bytes, warm_rc_t* rc) {
    table->bytes += bytes;
    return table->bytes <= SELECT_MAX_BYTES ? 0 : _set_rc_msg(rc, WARM_RC_NO_MEMORY, "select cells");
}

int select_group(select_table_t* table, std::string_view texts, uint32_t* group, warm_rc_t* rc) {
    const auto known = table->group_numbers.find(texts);
    if (known != table->group_numbers.end()) {
        *group = known->second;
        return 0;
    }
    ST_TRY(select_grow(table, GROUP_BYTES + texts.size(), rc));
    *group = static_cast<uint32_t>(table->group_texts.size());
    table->group_texts.push_back(&table->group_numbers.emplace(texts, *group).first->first);
    return 0;
}

int select_row(select_table_t* table, int64_t bin, uint32_t group, uint32_t* row, warm_rc_t* rc) {
    const auto [place, is_new] =
        table->row_numbers.try_emplace({bin, group}, static_cast<uint32_t>(table->rows.size()));
    *row = place->second;
    if (!is_new) return 0;
    const size_t width = table->aggregates.size();
    if ((table->rows.size() + 1) * std::max<size_t>(width, 1) > SELECT_MAX_CELLS) {
        return _set_rc_msg(rc, WARM_RC_NO_MEMORY, "select cells");
    }
    table->rows.push_back({bin, group, 0});
    table->cells.resize(table->cells.size() + width);
    return select_grow(table, ROW_BYTES + width * sizeof(select_cell_t), rc);
}

int select_table_merge(select_table_t* into, const select_table_t& other, warm_rc_t* rc) {
    if (into->group_fields != other.group_fields || into->aggregates != other.aggregates) {
        return _set_rc_msg(rc, WARM_RC_INVALID_ARGUMENT, "tables of different selections");
    }
    number_rows(into);
    std::vector<uint32_t> groups(other.group_texts.size());
    for (size_t i = 0; i < groups.size(); i++) ST_TRY(select_group(into, *other.group_texts[i], &groups[i], rc));
    const size_t width = other.aggregates.size();
    for (size_t i = 0; i < other.rows.size(); i++) {
        uint32_t row = 0;
        ST_TRY(select_row(into, other.rows[i].bin, groups[other.rows[i].group], &row, rc));
        into->rows[row].count += other.rows[i].count;
        const std::span<select_cell_t> cells = select_cells(into, row);
        for (size_t k = 0; k < width; k++) {
            ST_TRY(select_grow(into, select_cell_merge(&cells[k], other.cells[i * width + k]), rc));
        }
    }
    return 0;
}

void select_table_finish(select_table_t* table) {
    ST_ASSERT(table->group_numbers.size() == table->group_texts.size());
    // Texts have no NUL, so the one behind each of them makes the whole compare as the fields do, one after the other.
    std::sort(table->group_texts.begin(), table->group_texts.end(),
              [](const std::string* a, const std::string* b) { return *a < *b; });
    std::vector<uint32_t> renumbered(table->group_texts.size());
    for (uint32_t i = 0; i < renumbered.size(); i++) {
        uint32_t& number = table->group_numbers.find(*table->group_texts[i])->second;
        renumbered[number] = i;
        number = i;
    }
    for (select_table_t::row_t& row : table->rows) {
        ST_ASSERT(row.group < renumbered.size());
        row.group = renumbered[row.group];
    }
    std::vector<uint32_t> order(table->rows.size());
    std::iota(order.begin(), order.end(), 0);
    std::sort(order.begin(), order.end(), [&](uint32_t a, uint32_t b) {
        const select_table_t::row_t &one = table->rows[a], &two = table->rows[b];
        return std::pair(one.bin, one.group) < std::pair(two.bin, two.group);
    });
    std::vector<select_table_t::row_t> rows;
    std::vector<select_cell_t> cells;
    rows.reserve(order.size());
    cells.reserve(table->cells.size());
    for (const uint32_t from : order) {
        rows.push_back(table->rows[from]);
        for (select_cell_t& cell : select_cells(table, from)) cells.push_back(std::move(cell));
    }
    ST_ASSERT(cells.size() == table->cells.size() && cells.size() == rows.size() * table->aggregates.size());
    for (select_cell_t& cell : cells) select_cell_settle(&cell);
    table->rows = std::move(rows);
    table->cells = std::move(cells);
    table->row_numbers.clear();
}

select_row_t select_table_row(const select_table_t& table, size_t number) {
    const select_table_t::row_t& row = table.rows[number];
    const size_t width = table.aggregates.size();
    return {row.bin, *table.group_texts[row.group], row.count, std::span(table.cells).subspan(number * width, width)};
}

}  // namespace veldar
