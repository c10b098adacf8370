#include "tools/veldar/output/stats_output.h"

#include <algorithm>
#include <cmath>

#include "tools/veldar/output/zone_time.h"

namespace veldar::tool {

namespace {

table_cell cell_of(const stats_value& value) {
    switch (value.kind) {
        case stats_value::COUNT:
            return {.kind = table_cell::COUNT, .count = value.count, .is_estimate = value.is_estimate};
        case stats_value::NUMBER:
            return {.kind = table_cell::NUMBER, .number = value.number, .is_estimate = value.is_estimate};
        case stats_value::TEXTS:
            return {.kind = table_cell::TEXTS, .texts = {value.texts->texts.begin(), value.texts->texts.end()}};
        case stats_value::NOTHING:
            break;
    }
    return {};
}

void set_columns(const stats_answer& answer, table_output* table) {
    if (answer.grid->has_bins) table->columns.push_back({"time", false});
    for (const std::string& name : answer.request->group_names) table->columns.push_back({name, false});
    for (const stats_column& column : answer.request->columns) {
        table->columns.push_back({column.name, column.kind != stats_kind::values});
    }
}

void set_bars(const stats_answer& answer, table_output* table) {
    const stats_column& first = answer.request->columns.front();
    table->bar_column = table->columns.size() - answer.request->columns.size();
    for (const stats_answer::entry& entry : answer.entries) {
        const double value = stats_entry_value(answer, entry, first).number;
        if (std::isfinite(value)) table->bar_peak = std::max(table->bar_peak, value);
    }
}

}  // namespace

void stats_put_rows(const stats_answer& answer, table_format format, bool bars, text_output* out) {
    table_output table;
    table.out = out;
    table.format = format;
    set_columns(answer, &table);
    if (out->terminal || bars) table.line_width = terminal_width();
    if (bars) set_bars(answer, &table);
    table_begin(&table);
    std::vector<table_cell> cells;
    for (const stats_answer::entry& entry : answer.entries) {
        if (out->closed) return;
        cells.clear();
        if (answer.grid->has_bins) cells.push_back(text_cell(zone_time_text(entry.bin, answer.grid->zone)));
        const std::string& groups = *answer.table->group_texts[entry.group];
        for (size_t i = 0; i < answer.request->group_names.size(); i++) {
            cells.push_back(text_cell(select_group_text(groups, i)));
        }
        for (const stats_column& column : answer.request->columns) {
            cells.push_back(cell_of(stats_entry_value(answer, entry, column)));
        }
        table_put_row(&table, cells);
    }
    table_end(&table);
}

std::string stats_group_name(const stats_answer& answer, uint32_t group) {
    std::string name;
    for (size_t i = 0; i < answer.request->group_names.size(); i++) {
        const std::string_view text = select_group_text(*answer.table->group_texts[group], i);
        name.append(i == 0 ? "" : ", ").append(text.empty() ? "-" : text);
    }
    return name;
}

}  // namespace veldar::tool
