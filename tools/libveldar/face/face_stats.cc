#include "tools/libveldar/face/face_stats.h"

namespace veldar::tool {

namespace {

veldar_type type_of(stats_kind kind) {
    switch (kind) {
        case stats_kind::events:
        case stats_kind::count:
        case stats_kind::distinct:
            return VELDAR_UINT64;
        case stats_kind::values:
            return VELDAR_TEXT;
        default:
            return VELDAR_DOUBLE;
    }
}

void put_value(const stats_value& value, veldar_table::column* column) {
    if (value.kind == stats_value::NOTHING) return column_put_nothing(column);
    if (column->type == VELDAR_UINT64) return column_put(column, value.count);
    if (column->type == VELDAR_DOUBLE) return column_put(column, value.number);
    std::string joined;
    for (const std::string& text : value.texts->texts) joined.append(joined.empty() ? "" : "\n").append(text);
    column_put(column, std::string_view(joined));
}

}  // namespace

void face_put_stats(const stats_request& request, select_table_t* table, const stats_grid& grid,
                    const stats_shape& shape, veldar_table* to) {
    stats_add_row_of_nothing(request, grid, table);
    stats_answer answer;
    stats_answer_make(request, *table, grid, shape, &answer);
    if (grid.has_bins) table_column(to, "time", VELDAR_TIME);
    for (const std::string& name : request.group_names) table_column(to, name, VELDAR_TEXT);
    for (const stats_column& column : request.columns) table_column(to, column.name, type_of(column.kind));
    for (const stats_answer::entry& entry : answer.entries) {
        auto column = to->columns.begin();
        if (grid.has_bins) column_put(&*column++, entry.bin);
        for (size_t i = 0; i < request.group_names.size(); i++) {
            column_put(&*column++, select_group_text(*table->group_texts[entry.group], i));
        }
        for (const stats_column& one : request.columns) put_value(stats_entry_value(answer, entry, one), &*column++);
    }
}

}  // namespace veldar::tool
