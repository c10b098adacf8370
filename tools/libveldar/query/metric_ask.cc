#include "tools/libveldar/query/metric_ask.h"

#include <algorithm>
#include <bit>
#include <tuple>

#include "tools/libveldar/formats/metric_record.h"
#include "tools/libveldar/query/metric_rates.h"
#include "tools/libveldar/store/index_handle.h"
#include "tools/libveldar/store/observer.h"
#include "tools/libveldar/store/store.h"

namespace veldar::tool {

namespace {

void put_condition(std::string* out, const std::string& condition) {
    const size_t equals = condition.find('=');
    const bool negated = equals != std::string::npos && equals > 0 && condition[equals - 1] == '!';
    const std::string label = condition.substr(0, negated ? equals - 1 : equals);
    if (equals == std::string::npos || label.empty() || condition.find('\0') != std::string::npos) {
        throw failure_t{OUTCOME_USAGE,
                        input_name("where") + " " + condition + ": expected LABEL=VALUE or LABEL!=VALUE"};
    }
    std::string term;
    metric_term_put(&term, label, condition.substr(equals + 1));
    if (negated) *out += " [NOT";
    *out += ' ' + query_escape(term);
    if (negated) *out += ']';
}

std::string query_text(const metric_question& question) {
    std::string text = "[AND [OR";
    for (const std::string& name : question.names) text += ' ' + query_escape(std::string(METRIC_NAME_TERM) + name);
    text += ']';
    for (const std::string& condition : question.where) put_condition(&text, condition);
    return text + ']';
}

void sort_by_time(metric_points* points, bool oldest_first) {
    const std::vector<uint32_t> ranks = metric_series_ranks(*points);
    std::sort(points->points.begin(), points->points.end(), [&](const metric_point& a, const metric_point& b) {
        const int64_t left = oldest_first ? a.time_ms : -a.time_ms, right = oldest_first ? b.time_ms : -b.time_ms;
        return std::tuple(left, ranks[a.series], std::bit_cast<uint64_t>(a.value)) <
               std::tuple(right, ranks[b.series], std::bit_cast<uint64_t>(b.value));
    });
}

[[noreturn]] void fail_read(const std::string& directory, const TSIDX* tsidx) {
    slice_fail_unless_told(*st_tsidx_last_failure(tsidx));
    throw failure_t{OUTCOME_IO, directory + ": " + index_failure_text(tsidx)};
}

// The rates of the metrics, from the samples themselves.
void select_rates(const slice_set& slices, const prepared_query& query, const std::vector<std::string>& patterns,
                  const stats_request& request, const stats_grid& grid, bool keeps_missing, select_table_t* table) {
    TSIDX* const tsidx = slices.directories.empty() ? nullptr : slices.directories[0].tsidx.get();
    if (tsidx == nullptr) throw failure_t{OUTCOME_USAGE, slices.path + " is not a directory of metrics"};
    metric_points points;
    points.wanted = [&](std::string_view name) { return metric_name_matches(name, patterns); };
    if (metric_points_read(tsidx, query_of_plan(query, query.plans.front()), &points) != 0) {
        fail_read(slices.path, tsidx);
    }
    warm_rc_t rc;
    if (metric_rates_select(&points, request, grid.bins, keeps_missing, table, &rc) != 0) stats_fail(slices, grid, rc);
}

}  // namespace

std::string metric_directory_of(const std::string& path) {
    return store_is(path) ? path + "/" + STORE_METRICS : path;
}

prepared_query metric_query_of(const metric_question& question) {
    prepared_query query;
    query.plans = {{query_text(question), {}, {}}};
    st_query_init(&query.bounds);
    query_set_bounds(question.since, question.until, question.zone, &query.bounds);
    return query;
}

std::vector<uint32_t> metric_series_ranks(const metric_points& points) {
    const auto& texts = points.series.texts;
    std::vector<uint32_t> order(texts.size()), ranks(texts.size());
    for (uint32_t i = 0; i < order.size(); i++) order[i] = i;
    std::sort(order.begin(), order.end(), [&](uint32_t a, uint32_t b) { return *texts[a] < *texts[b]; });
    for (uint32_t i = 0; i < order.size(); i++) ranks[order[i]] = i;
    return ranks;
}

void metric_samples_read(const std::string& directory, const metric_question& question, uint64_t limit,
                         bool oldest_first, metric_points* points) {
    const prepared_query query = metric_query_of(question);
    points->limit = limit;
    points->wanted = [&](std::string_view name) { return metric_name_matches(name, question.names); };
    const std::shared_ptr<TSIDX> tsidx = metric_directory_open(directory);
    const st_query_spec spec = query_of_plan(query, query.plans.front());
    if (metric_points_read(tsidx.get(), spec, points) != 0) fail_read(directory, tsidx.get());
    points->wanted = nullptr;
    sort_by_time(points, oldest_first);
}

void metric_stats_ask(const std::string& directory, const metric_question& question,
                      const metric_stats_question& wanted, metric_stats_result* result, troubles* trouble) {
    const std::string aggregates = wanted.aggregates.empty() ? "avg" : wanted.aggregates;
    result->request = stats_request_parse_metrics(wanted.by, aggregates, question.names);
    const prepared_query query = metric_query_of(question);
    const slice_set slices = directory.empty() ? slices_none() : slices_list(directory);
    result->grid = stats_grid_make(wanted.bins, slices, query, &result->request.spec);
    if (wanted.rate) {
        return select_rates(slices, query, question.names, result->request, result->grid, wanted.keeps_missing,
                            &result->table);
    }
    st_query_spec spec = query_of_plan(query, query.plans.front());
    spec.opt_b = wanted.keeps_missing ? SELECT_KEEPS_MISSING : 0;
    stats_select(slices, spec, result->grid, result->request.spec, &result->table, &result->report, trouble);
}

}  // namespace veldar::tool
