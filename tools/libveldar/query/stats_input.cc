#include "tools/libveldar/query/stats_input.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>

#include "tools/libveldar/formats/metric_record.h"
#include "tools/libveldar/formats/terms.h"
#include "tools/libveldar/formats/unit_number.h"
#include "tools/libveldar/query/suggestion.h"
#include "tools/libveldar/store/failure.h"
#include "tools/libveldar/store/observer.h"

namespace veldar::tool {

namespace {

struct aggregate_name {
    const char* name;
    stats_kind kind;
    uint32_t bit;
    bool adds_up;
};
constexpr std::array<aggregate_name, 9> AGGREGATES = {{{"count", stats_kind::count, SELECT_COUNT, true},
                                                       {"sum", stats_kind::sum, SELECT_SUM, true},
                                                       {"sumsq", stats_kind::sumsq, SELECT_SUMSQ, true},
                                                       {"min", stats_kind::min, SELECT_MIN, false},
                                                       {"max", stats_kind::max, SELECT_MAX, false},
                                                       {"avg", stats_kind::avg, SELECT_AVG, false},
                                                       {"dc", stats_kind::distinct, SELECT_DC, false},
                                                       {"values", stats_kind::values, SELECT_VALUES, false},
                                                       {"median", stats_kind::quantile, SELECT_QUANTILES, false}}};

// "p99", "p99.9", "median".
bool quantile_of(std::string_view name, double* quantile) {
    if (name == "median") {
        *quantile = 0.5;
        return true;
    }
    if (!name.starts_with('p')) return false;
    const char* const end = name.data() + name.size();
    const auto [rest, fault] = std::from_chars(name.data() + 1, end, *quantile, std::chars_format::fixed);
    const bool is_percent = fault == std::errc() && rest == end && *quantile >= 0 && *quantile <= 100;
    *quantile /= 100;
    return is_percent;
}

// An aggregate's name without its field; the bit that the engine is asked for.
uint32_t find_aggregate(const std::string& name, stats_column* column) {
    for (const aggregate_name& known : AGGREGATES) {
        if (name != known.name) continue;
        column->kind = known.kind;
        column->adds_up = known.adds_up;
        static_cast<void>(quantile_of(name, &column->quantile));
        return known.bit;
    }
    if (quantile_of(name, &column->quantile)) {
        column->kind = stats_kind::quantile;
        return SELECT_QUANTILES;
    }
    std::vector<std::string> names = {"p50", "p90", "p95", "p99"};
    for (const aggregate_name& known : AGGREGATES) names.push_back(known.name);
    const std::string meant = nearest_name(fold_value(name), names);
    throw failure_t{OUTCOME_USAGE, input_name("agg") + ": '" + name + "' is no aggregate; " +
                                       (meant.empty() ? std::string() : "did you mean '" + meant + "'? ") +
                                       "expected " + STATS_AGGREGATES};
}

size_t projection_of(const std::string& field, uint32_t bit, select_spec_t* spec) {
    const auto known = std::find_if(spec->projections.begin(), spec->projections.end(),
                                    [&](const select_projection_t& one) { return one.field == field; });
    if (known != spec->projections.end()) {
        known->aggregates |= bit;
        return static_cast<size_t>(known - spec->projections.begin());
    }
    spec->projections.push_back({field, bit});
    return spec->projections.size() - 1;
}

bool is_of_numbers(stats_kind kind) {
    return kind != stats_kind::events && kind != stats_kind::count && kind != stats_kind::distinct &&
           kind != stats_kind::values;
}

stats_column column_of(const std::string& text, select_spec_t* spec) {
    stats_column column;
    column.name = text;
    if (text == "count") {
        column.adds_up = true;
        return column;
    }
    const size_t open = text.find('(');
    const bool has_field = open != std::string::npos && text.ends_with(')') && open + 2 < text.size();
    const std::string name = text.substr(0, open);
    const uint32_t bit = find_aggregate(name, &column);
    if (!has_field) {
        throw failure_t{OUTCOME_USAGE,
                        input_name("agg") + " " + text + ": expected a field, such as " + name + "(bytes)"};
    }
    const std::string field = fold_value(text.substr(open + 1, text.size() - open - 2));
    column.projection = projection_of(field, bit, spec);
    if (is_of_numbers(column.kind)) {
        column.unit_projection = projection_of(field + std::string(NUMBER_SUFFIX), bit, spec);
    }
    return column;
}

// What the engine would refuse, in words of who asked.
void check(const stats_request& request) {
    if (request.spec.groups.size() > SELECT_MAX_GROUPS) {
        throw failure_t{OUTCOME_USAGE,
                        input_name("by") + ": expected at most " + std::to_string(SELECT_MAX_GROUPS) + " fields"};
    }
    if (request.spec.projections.size() > SELECT_MAX_PROJECTIONS) {
        throw failure_t{OUTCOME_USAGE, input_name("agg") + ": expected aggregates of at most " +
                                           std::to_string(SELECT_MAX_PROJECTIONS / 2) + " different fields"};
    }
    warm_rc_t rc;
    if (select_spec_check(request.spec, &rc) != 0) {
        throw failure_t{OUTCOME_USAGE, input_name("by") + " and " + input_name("agg") +
                                           ": expected names of fields of 1 to 2045 bytes"};
    }
}

void add_groups(const std::string& by, stats_request* request) {
    for (const std::string& field : comma_parts(by)) {
        if (field.empty())
            throw failure_t{OUTCOME_USAGE, input_name("by") + " " + by + ": expected fields with commas between them"};
        request->group_names.push_back(field);
    }
}

stats_value number_value(double number) {
    stats_value value;
    if (std::isnan(number)) return value;
    value.kind = stats_value::NUMBER;
    value.number = number;
    return value;
}

stats_value count_value(uint64_t count) {
    return {stats_value::COUNT, count, static_cast<double>(count), false, nullptr};
}

}  // namespace

std::vector<std::string> comma_parts(std::string_view text) {
    std::vector<std::string> parts;
    if (text.empty()) return parts;
    int depth = 0;
    std::string part;
    const auto end_part = [&] {
        const size_t first = part.find_first_not_of(' '), last = part.find_last_not_of(' ');
        parts.push_back(first == std::string::npos ? "" : part.substr(first, last - first + 1));
        part.clear();
    };
    bool quoted = false;
    for (const char c : text) {
        if (c == '"') quoted = !quoted;
        if (c == '"') continue;
        if (quoted) {
            part += c;
            continue;
        }
        depth += c == '(' ? 1 : 0;
        depth -= c == ')' && depth > 0 ? 1 : 0;
        if (c == ',' && depth == 0) {
            end_part();
        } else {
            part += c;
        }
    }
    end_part();
    return parts;
}

stats_request stats_request_parse(const std::string& by, const std::string& aggregates) {
    stats_request request;
    add_groups(by, &request);
    for (const std::string& name : request.group_names) request.spec.groups.push_back(fold_value(name));
    for (const std::string& text : comma_parts(aggregates.empty() ? "count" : aggregates)) {
        request.columns.push_back(column_of(text, &request.spec));
    }
    check(request);
    return request;
}

stats_request stats_request_parse_metrics(const std::string& by, const std::string& aggregates,
                                          const std::vector<std::string>& patterns) {
    stats_request request;
    add_groups(by, &request);
    for (const std::string& name : request.group_names) {
        std::string term;
        metric_term_put(&term, name, "");
        // The label of that name is written in another way.
        const bool is_metric = name == "metric_name";
        request.spec.groups.push_back(is_metric ? name : term.substr(1, term.size() - 3));
    }
    for (const std::string& text : comma_parts(aggregates)) {
        for (const std::string& pattern : patterns) {
            stats_column column;
            if (text.find('(') != std::string::npos) {
                throw failure_t{OUTCOME_USAGE,
                                input_name("agg") + " " + text + ": expected a name alone, such as avg, max or p95"};
            }
            column.name = patterns.size() == 1 ? text : text + "(" + pattern + ")";
            const uint32_t bit = find_aggregate(text, &column);
            column.projection = projection_of(pattern, bit, &request.spec);
            request.columns.push_back(column);
        }
    }
    check(request);
    return request;
}

stats_value stats_value_of(const stats_column& column, const select_row_t& row) {
    if (column.kind == stats_kind::events) return count_value(row.count);
    const bool has_units = column.unit_projection != NO_PROJECTION && row.cells[column.unit_projection].numbers > 0;
    select_cell_t both;
    if (has_units) {
        select_cell_merge(&both, row.cells[column.projection]);
        select_cell_merge(&both, row.cells[column.unit_projection]);
        select_cell_settle(&both);
    }
    const select_cell_t& cell = has_units ? both : row.cells[column.projection];
    switch (column.kind) {
        case stats_kind::events:
        case stats_kind::count:
            return count_value(cell.count);
        case stats_kind::sum:
            return number_value(select_cell_sum(cell));
        case stats_kind::sumsq:
            return number_value(select_cell_sum_of_squares(cell));
        case stats_kind::min:
            return number_value(select_cell_minimum(cell));
        case stats_kind::max:
            return number_value(select_cell_maximum(cell));
        case stats_kind::avg:
            return number_value(select_cell_average(cell));
        case stats_kind::distinct: {
            bool is_estimate = false;
            const double count = select_cell_distinct(cell, &is_estimate);
            stats_value value = count_value(static_cast<uint64_t>(std::llround(count)));
            value.is_estimate = is_estimate;
            return value;
        }
        case stats_kind::values: {
            stats_value value;
            if (cell.values != nullptr) value = {stats_value::TEXTS, 0, 0, false, cell.values.get()};
            return value;
        }
        case stats_kind::quantile: {
            bool is_estimate = false;
            stats_value value = number_value(select_cell_quantile(cell, column.quantile, &is_estimate));
            value.is_estimate = is_estimate;
            return value;
        }
    }
    return {};
}

}  // namespace veldar::tool
