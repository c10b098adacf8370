#include "tools/libveldar/query/stats_answer.h"

#include <algorithm>
#include <cmath>

#include "tools/libveldar/store/failure.h"
#include "tools/libveldar/store/observer.h"

namespace veldar::tool {

namespace {

constexpr uint64_t MOST_ENTRIES = SELECT_MAX_CELLS;

void check(int status, const stats_answer& answer, const warm_rc_t& rc) {
    if (status != 0) stats_fail({}, *answer.grid, rc);
}

const select_table_t& totals_of(const stats_answer& answer) {
    return answer.grid->has_bins ? answer.totals : *answer.table;
}

// Every group over all bins, by one more merge of its cells.
void make_totals(stats_answer* answer) {
    const select_table_t& table = *answer->table;
    answer->total_rows.resize(table.group_texts.size());
    for (uint32_t i = 0; i < table.rows.size(); i++) answer->total_rows[table.rows[i].group] = i;
    if (!answer->grid->has_bins) return;
    warm_rc_t rc;
    select_table_t* const totals = &answer->totals;
    select_table_init(totals, answer->request->spec);
    const size_t width = totals->aggregates.size();
    for (size_t i = 0; i < table.rows.size(); i++) {
        uint32_t to = 0;
        check(select_row(totals, SELECT_NO_BIN, table.rows[i].group, &to, &rc), *answer, rc);
        answer->total_rows[table.rows[i].group] = to;
        totals->rows[to].count += table.rows[i].count;
        const std::span<select_cell_t> cells = select_cells(totals, to);
        for (size_t k = 0; k < width; k++) select_cell_merge(&cells[k], table.cells[i * width + k]);
    }
    for (select_cell_t& cell : totals->cells) select_cell_settle(&cell);
}

// All groups that have rows.
void list_groups(stats_answer* answer) {
    std::vector<bool> is_there(answer->table->group_texts.size());
    for (const select_table_t::row_t& row : answer->table->rows) is_there[row.group] = true;
    for (uint32_t group = 0; group < is_there.size(); group++) {
        if (is_there[group]) answer->ranks.push_back(group);
    }
}

// Orders them by their totals and leaves the top ones; 0: all.
void rank_groups(stats_answer* answer, uint64_t top) {
    const auto& texts = answer->table->group_texts;
    std::vector<double> keys(texts.size());
    for (const uint32_t group : answer->ranks) {
        const stats_value value = stats_total_value(*answer, group, answer->request->columns.front());
        keys[group] = value.kind == stats_value::NOTHING ? -INFINITY : value.number;
    }
    const auto before = [&](uint32_t a, uint32_t b) {
        return keys[a] != keys[b] ? keys[a] > keys[b] : *texts[a] < *texts[b];
    };
    const size_t wanted = top == 0 ? answer->ranks.size() : std::min<size_t>(top, answer->ranks.size());
    const auto end = answer->ranks.begin() + static_cast<ptrdiff_t>(wanted);
    std::partial_sort(answer->ranks.begin(), end, answer->ranks.end(), before);
    answer->groups_left_out = answer->ranks.size() - wanted;
    answer->ranks.resize(wanted);
}

void add_entry(stats_answer* answer, const stats_answer::entry& entry) {
    if (answer->entries.size() == MOST_ENTRIES) {
        throw failure_t{OUTCOME_USAGE,
                        "the answer has more than 4,194,304 rows: expected a greater " + input_name("every")};
    }
    answer->entries.push_back(entry);
}

// Puts the rows of one bin, and what stands for those that lack, in the order of the groups' texts.
void fill_bin(stats_answer* answer, int64_t bin, std::vector<uint32_t>* rows_of, const std::vector<uint32_t>& groups,
              std::vector<uint32_t>* last, stats_fill fill) {
    for (const uint32_t group : groups) {
        const uint32_t row = (*rows_of)[group];
        (*rows_of)[group] = STATS_NO_ROW;
        if (row != STATS_NO_ROW) (*last)[group] = row;
        const bool is_last = fill == stats_fill::last;
        if (row == STATS_NO_ROW && is_last && (*last)[group] == STATS_NO_ROW) continue;
        add_entry(answer, {bin, group, row == STATS_NO_ROW && is_last ? (*last)[group] : row});
    }
}

// Every bin from the first to the last, each with every group.
void add_filled(stats_answer* answer, std::vector<stats_answer::entry> rows, stats_fill fill) {
    const auto& texts = answer->table->group_texts;
    std::vector<uint32_t> groups = answer->ranks;
    std::sort(groups.begin(), groups.end(), [&](uint32_t a, uint32_t b) { return *texts[a] < *texts[b]; });
    std::vector<uint32_t> rows_of(texts.size(), STATS_NO_ROW), last(texts.size(), STATS_NO_ROW);
    auto row = rows.begin();
    for (int64_t bin = row->bin;; bin = stats_next_bin(*answer, bin)) {
        for (; row != rows.end() && row->bin == bin; ++row) rows_of[row->group] = row->row;
        fill_bin(answer, bin, &rows_of, groups, &last, fill);
        if (row == rows.end()) return;
    }
}

}  // namespace

void stats_add_row_of_nothing(const stats_request& request, const stats_grid& grid, select_table_t* table) {
    if (grid.has_bins || !request.group_names.empty() || !table->rows.empty()) return;
    uint32_t group = 0, row = 0;
    warm_rc_t rc;
    if (select_group(table, "", &group, &rc) != 0 || select_row(table, SELECT_NO_BIN, group, &row, &rc) != 0) {
        throw std::bad_alloc();
    }
}

void stats_answer_make(const stats_request& request, const select_table_t& table, const stats_grid& grid,
                       const stats_shape& shape, stats_answer* answer) {
    answer->request = &request;
    answer->table = &table;
    answer->grid = &grid;
    answer->zero_fill = shape.fill == stats_fill::zero;
    answer->no_cells.resize(request.spec.projections.size());
    list_groups(answer);
    if (shape.top != 0 || shape.needs_totals) {
        make_totals(answer);
        rank_groups(answer, shape.top);
    }
    std::vector<uint32_t> place(table.group_texts.size(), STATS_NO_ROW);
    for (uint32_t i = 0; i < answer->ranks.size(); i++) place[answer->ranks[i]] = i;
    std::vector<stats_answer::entry> rows;
    for (uint32_t i = 0; i < table.rows.size(); i++) {
        const select_table_t::row_t& row = table.rows[i];
        if (place[row.group] != STATS_NO_ROW) rows.push_back({row.bin, row.group, i});
    }
    if (shape.top != 0 && !grid.has_bins) {
        std::sort(rows.begin(), rows.end(),
                  [&](const auto& a, const auto& b) { return place[a.group] < place[b.group]; });
    }
    if (grid.has_bins && shape.fill != stats_fill::none && !rows.empty()) {
        add_filled(answer, std::move(rows), shape.fill);
    } else {
        answer->entries = std::move(rows);
    }
}

stats_value stats_entry_value(const stats_answer& answer, const stats_answer::entry& entry,
                              const stats_column& column) {
    if (entry.row != STATS_NO_ROW) return stats_value_of(column, select_table_row(*answer.table, entry.row));
    stats_value value = stats_value_of(column, {entry.bin, {}, 0, answer.no_cells});
    if (answer.zero_fill && value.kind == stats_value::NOTHING) value.kind = stats_value::NUMBER;
    return value;
}

stats_value stats_total_value(const stats_answer& answer, uint32_t group, const stats_column& column) {
    const select_table_t& totals = totals_of(answer);
    const size_t row = answer.total_rows[group], width = totals.aggregates.size();
    return stats_value_of(
        column, {SELECT_NO_BIN, {}, totals.rows[row].count, std::span(totals.cells).subspan(row * width, width)});
}

int64_t stats_next_bin(const stats_answer& answer, int64_t bin) {
    return select_bin_end(answer.grid->bins, bin);
}

}  // namespace veldar::tool
