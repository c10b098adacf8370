// What statistics are asked for: groups and aggregates as people write them, and how the answer's cells give them.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "searchthing/search/select_spec.h"
#include "searchthing/search/select_table.h"

namespace veldar::tool {

// The parts between commas that stand in no parentheses and no quotes, which are left out, and blanks around them taken
// off. An empty text has none.
std::vector<std::string> comma_parts(std::string_view text);

enum class stats_kind { events, count, sum, sumsq, min, max, avg, distinct, values, quantile };

inline constexpr size_t NO_PROJECTION = ~size_t{0};

// One column of aggregates.
struct stats_column {
    std::string name;  // as it was asked for
    stats_kind kind = stats_kind::events;
    size_t projection = 0;
    size_t unit_projection = NO_PROJECTION;  // of the numbers that the field's values with a unit are
    double quantile = 0;
    bool adds_up = false;  // over groups and bins
};

struct stats_request {
    std::vector<std::string> group_names;  // as they were asked for; spec.groups has them folded
    std::vector<stats_column> columns;
    select_spec_t spec;
};

inline constexpr char STATS_AGGREGATES[] =
    "count, count(F), sum(F), sumsq(F), min(F), max(F), avg(F), dc(F) (how many different values), values(F), "
    "median(F) "
    "or p50(F), p99(F), p99.9(F) of a field F";

// Fills groups and columns from --by and --agg; no text is "count". Throws failure_t with OUTCOME_USAGE.
stats_request stats_request_parse(const std::string& by, const std::string& aggregates);
// The same for metrics: groups are labels, and an aggregate, which names no field, is one of each of the patterns.
stats_request stats_request_parse_metrics(const std::string& by, const std::string& aggregates,
                                          const std::vector<std::string>& patterns);

// One value of an answer.
struct stats_value {
    enum kind_t { NOTHING, COUNT, NUMBER, TEXTS };
    kind_t kind = NOTHING;
    uint64_t count = 0;
    double number = 0;  // of a count too
    bool is_estimate = false;
    const kept_values_t* texts = nullptr;  // the cell's
};
// Of a finished table's row.
stats_value stats_value_of(const stats_column& column, const select_row_t& row);

}  // namespace veldar::tool
