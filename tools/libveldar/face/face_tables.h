// Tables that a store answers with and merged answers as well: terms, fields, samples.
#pragma once

#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "tools/libveldar/face/face.h"
#include "tools/libveldar/query/term_input.h"

namespace veldar::tool {

// Hands a filled table over: VELDAR_OK, VELDAR_END for one of no rows, or VELDAR_INCOMPLETE.
veldar_status face_give(std::unique_ptr<veldar_table> table, const troubles& trouble, const face_call& call,
                        veldar_table** out);

void face_add_time_columns(veldar_table* to);
// Into the two columns from `at` on.
void face_put_times(veldar_table* to, size_t at, bool has_times, int64_t first_s, int64_t last_s);

// term, count, first, last.
void face_add_term_columns(veldar_table* to);
void face_put_term(veldar_table* to, std::string_view term, const term_totals_t& totals);
// As veldar_terms has them.
void face_put_terms(const term_walk& walk, uint64_t limit, bool by_term, veldar_table* to);
// field, events, values.
void face_put_fields(const term_walk& walk, veldar_table* to);
// count, first, last.
void face_put_seen(const term_walk& walk, veldar_table* to);

// A text among others with commas and '=' between them: these, and '\', behind '\'.
void face_put_escaped(std::string* out, std::string_view text);

// time, metric, labels, value.
struct face_samples {
    veldar_table* to = nullptr;
    std::unordered_map<std::string, std::pair<std::string, std::string>> texts;  // name and labels, by series
};
void face_samples_begin(face_samples* samples, veldar_table* to);
void face_samples_put(face_samples* samples, const std::string& series, int64_t time_ms, double value);

}  // namespace veldar::tool
