#include "tools/libveldar/face/face_tables.h"

#include "tools/libveldar/query/metric_points.h"

namespace veldar::tool {

namespace {

std::string labels_text(const metric_series& series) {
    std::string text;
    for (const metric_label& label : series.labels) {
        if (!text.empty()) text += ',';
        face_put_escaped(&text, label.name);
        text += '=';
        face_put_escaped(&text, label.value);
    }
    return text;
}

}  // namespace

veldar_status face_give(std::unique_ptr<veldar_table> table, const troubles& trouble, const face_call& call,
                        veldar_table** out) {
    table->rows = table->columns.empty() ? 0 : table->columns[0].valid.size();
    const bool found = table->rows > 0;
    *out = table.release();
    if (trouble.incomplete) return call.end(OUTCOME_INCOMPLETE);
    return found ? VELDAR_OK : VELDAR_END;
}

void face_add_time_columns(veldar_table* to) {
    table_column(to, "first", VELDAR_TIME);
    table_column(to, "last", VELDAR_TIME);
}

void face_put_times(veldar_table* to, size_t at, bool has_times, int64_t first_s, int64_t last_s) {
    if (has_times) {
        column_put(&to->columns[at], time_ns_of(first_s));
        column_put(&to->columns[at + 1], time_ns_of(last_s));
    } else {
        column_put_nothing(&to->columns[at]);
        column_put_nothing(&to->columns[at + 1]);
    }
}

void face_add_term_columns(veldar_table* to) {
    table_column(to, "term", VELDAR_TEXT);
    table_column(to, "count", VELDAR_UINT64);
    face_add_time_columns(to);
}

void face_put_term(veldar_table* to, std::string_view term, const term_totals_t& totals) {
    column_put(&to->columns[0], std::string_view(term_query_text(term)));
    column_put(&to->columns[1], totals.count);
    face_put_times(to, 2, true, totals.earliest, totals.latest);
}

void face_put_terms(const term_walk& walk, uint64_t limit, bool by_term, veldar_table* to) {
    face_add_term_columns(to);
    if (!by_term) {
        for (const counted_term& one : terms_by_count(walk, limit)) face_put_term(to, one.term, one.totals);
        return;
    }
    walk([&](std::string_view term, const term_totals_t& totals) {
        face_put_term(to, term, totals);
        return to->columns[0].valid.size() != limit;
    });
}

void face_put_fields(const term_walk& walk, veldar_table* to) {
    table_column(to, "field", VELDAR_TEXT);
    table_column(to, "events", VELDAR_UINT64);
    table_column(to, "values", VELDAR_UINT64);
    for (const field_totals& field : fields_list(walk)) {
        column_put(&to->columns[0], std::string_view(field.name));
        column_put(&to->columns[1], field.events);
        column_put(&to->columns[2], field.values);
    }
}

void face_put_seen(const term_walk& walk, veldar_table* to) {
    table_column(to, "count", VELDAR_UINT64);
    face_add_time_columns(to);
    const term_totals_t all = term_seen(walk);
    if (all.count == 0) return;
    column_put(&to->columns[0], all.count);
    face_put_times(to, 1, true, all.earliest, all.latest);
}

void face_put_escaped(std::string* out, std::string_view text) {
    for (const char c : text) {
        if (c == ',' || c == '=' || c == '\\') out->push_back('\\');
        out->push_back(c);
    }
}

void face_samples_begin(face_samples* samples, veldar_table* to) {
    samples->to = to;
    table_column(to, "time", VELDAR_TIME);
    for (const char* const name : {"metric", "labels"}) table_column(to, name, VELDAR_TEXT);
    table_column(to, "value", VELDAR_DOUBLE);
}

void face_samples_put(face_samples* samples, const std::string& series, int64_t time_ms, double value) {
    const auto [known, is_new] = samples->texts.try_emplace(series);
    if (is_new) {
        metric_series split;
        metric_series_split(series, &split);
        known->second = {std::string(split.name), labels_text(split)};
    }
    column_put(&samples->to->columns[0], time_ms * 1'000'000);
    column_put(&samples->to->columns[1], std::string_view(known->second.first));
    column_put(&samples->to->columns[2], std::string_view(known->second.second));
    column_put(&samples->to->columns[3], value);
}

}  // namespace veldar::tool
