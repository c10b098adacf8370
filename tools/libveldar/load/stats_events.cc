#include "tools/libveldar/load/stats_events.h"

#include <array>
#include <string>
#include <vector>

#include "tools/libveldar/load/event_terms.h"
#include "tools/libveldar/store/failure.h"

namespace veldar::tool {

namespace {

constexpr uint32_t NUMBERS = SELECT_SUM | SELECT_SUMSQ | SELECT_MIN | SELECT_MAX | SELECT_AVG | SELECT_QUANTILES;

struct events_pass {
    const select_spec_t& spec;
    const stats_grid& grid;
    bool keeps_missing;
    select_table_t* table;
    select_report_t* report;
    std::vector<std::vector<std::string>> groups, projections;  // values of the event, by field
    std::string key;
};

// The values of a field among the terms.
void find_values(std::span<const std::string_view> terms, const std::string& field, std::vector<std::string>* values) {
    values->clear();
    for (const std::string_view term : terms) {
        const bool is_value =
            term.size() > field.size() + 2 && term.starts_with(field) && term.substr(field.size(), 2) == "::";
        if (is_value) values->emplace_back(term.substr(field.size() + 2));
    }
}

// Adds the event to the row of the group in `key`.
int add_row(events_pass* pass, int64_t bin, warm_rc_t* rc) {
    uint32_t group = 0, row = 0;
    ST_TRY(select_group(pass->table, pass->key, &group, rc));
    ST_TRY(select_row(pass->table, bin, group, &row, rc));
    pass->table->rows[row].count++;
    for (size_t i = 0; i < pass->projections.size(); i++) {
        const uint32_t aggregates = pass->spec.projections[i].aggregates;
        for (const std::string& text : pass->projections[i]) {
            const select_value_t value = select_value_of_text(text.c_str());
            pass->report->refused += !value.is_number && (aggregates & NUMBERS) != 0 ? 1 : 0;
            select_cell_t* const cell = &select_cells(pass->table, row)[i];
            ST_TRY(select_grow(pass->table, select_cell_add(cell, value, 1, aggregates), rc));
        }
    }
    return 0;
}

// One row for every combination of the groups' values.
int add_event(events_pass* pass, std::span<const std::string_view> terms, int64_t bin, warm_rc_t* rc) {
    for (size_t i = 0; i < pass->groups.size(); i++) {
        find_values(terms, pass->spec.groups[i], &pass->groups[i]);
        if (!pass->groups[i].empty()) continue;
        if (!pass->keeps_missing) return 0;
        pass->groups[i].emplace_back();
    }
    for (size_t i = 0; i < pass->projections.size(); i++) {
        find_values(terms, pass->spec.projections[i].field, &pass->projections[i]);
    }
    std::array<size_t, SELECT_MAX_GROUPS> chosen = {};
    for (;;) {
        pass->key.clear();
        for (size_t i = 0; i < pass->groups.size(); i++) pass->key.append(pass->groups[i][chosen[i]]).push_back('\0');
        ST_TRY(add_row(pass, bin, rc));
        size_t field = 0;
        while (field < pass->groups.size() && ++chosen[field] == pass->groups[field].size()) chosen[field++] = 0;
        if (field == pass->groups.size()) return 0;
    }
}

}  // namespace

void stats_select_events(const slice_set& slices, const prepared_query& query, const stats_grid& grid,
                         const select_spec_t& spec, bool keeps_missing, select_table_t* table, select_report_t* report,
                         troubles* trouble) {
    event_source source;
    event_source_open(&source, &slices, trouble);
    event_source_read_names(&source);
    event_terms reader;
    reader.source = &source;
    events_pass pass = {spec, grid, keeps_missing, table, report, {}, {}, {}};
    pass.groups.resize(spec.groups.size());
    pass.projections.resize(spec.projections.size());
    select_table_init(table, spec);
    *report = {};
    report->slices = slices.slices->size();
    const event_cursor_ptr events = events_open(query, 0, &source);
    warm_rc_t rc;
    event_t event;
    while (events_next(events.get(), &event)) {
        if (event.is_metric) {
            throw failure_t{OUTCOME_USAGE,
                            "statistics of metrics take words and fields, and bounds of whole seconds: expected "
                            "'veldar metrics query'"};
        }
        const bool needs_terms = !spec.groups.empty() || !spec.projections.empty();
        bool is_known = true;
        std::span<const std::string_view> terms;
        if (needs_terms) terms = event_terms_of(&reader, event, &is_known);
        if (!is_known) continue;
        report->events++;
        const int64_t time = select_time({event.value.time, event.value.subsecond});
        if (add_event(&pass, terms, select_bin_of(grid.bins, time), &rc) != 0) stats_fail(slices, grid, rc);
    }
    select_table_finish(table);
}

}  // namespace veldar::tool
