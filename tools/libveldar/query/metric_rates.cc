#include "tools/libveldar/query/metric_rates.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <iterator>
#include <tuple>

namespace veldar::tool {

namespace {

// By series and time, without what is no sample.
void settle_points(std::vector<metric_point>* points) {
    std::erase_if(*points, [](const metric_point& point) { return std::isnan(point.value); });
    const auto key = [](const metric_point& point) { return std::tuple(point.series, point.time_ms, -point.value); };
    std::sort(points->begin(), points->end(),
              [&](const metric_point& a, const metric_point& b) { return key(a) < key(b); });
    const auto same = [](const metric_point& a, const metric_point& b) {
        return a.series == b.series && a.time_ms == b.time_ms;
    };
    points->erase(std::unique(points->begin(), points->end(), same), points->end());
}

// The group of a series as select_row_t has it; false for one that lacks a label.
bool group_of(const metric_series& series, const stats_request& request, bool keeps_missing, std::string* key) {
    key->clear();
    for (const std::string& name : request.group_names) {
        std::string_view text;
        if (name == "metric_name") text = series.name;
        for (const metric_label& label : series.labels) {
            if (label.name == name && name != "metric_name") text = label.value;
        }
        if (text.empty() && !keeps_missing) return false;
        key->append(text).push_back('\0');
    }
    return true;
}

struct rates_pass {
    const stats_request& request;
    const select_bins_t& bins;
    select_table_t* table;
    std::vector<size_t> projections;  // of the series
    uint32_t group = 0;
};

int add_rate(const rates_pass& pass, int64_t bin, double rate, warm_rc_t* rc) {
    char text[32];
    const select_value_t value = {{text, std::to_chars(text, std::end(text), rate).ptr}, rate, !std::isnan(rate)};
    uint32_t row = 0;
    ST_TRY(select_row(pass.table, bin, pass.group, &row, rc));
    pass.table->rows[row].count++;
    for (const size_t projection : pass.projections) {
        const uint32_t aggregates = pass.request.spec.projections[projection].aggregates;
        select_cell_t* const cell = &select_cells(pass.table, row)[projection];
        ST_TRY(select_grow(pass.table, select_cell_add(cell, value, 1, aggregates), rc));
    }
    return 0;
}

// The samples of one series.
int add_series(const rates_pass& pass, std::span<const metric_point> samples, warm_rc_t* rc) {
    constexpr int64_t MILLISECOND_NS = 1000000;
    double growth = 0;
    int64_t begin_ms = 0;
    for (size_t i = 1; i < samples.size(); i++) {
        const metric_point &before = samples[i - 1], &now = samples[i];
        const int64_t bin = select_bin_of(pass.bins, now.time_ms * MILLISECOND_NS);
        const bool is_first = i == 1 || select_bin_of(pass.bins, before.time_ms * MILLISECOND_NS) != bin;
        if (is_first) {
            growth = 0;
            begin_ms = before.time_ms;
        }
        growth += now.value < before.value ? now.value : now.value - before.value;
        const bool is_last =
            i + 1 == samples.size() || select_bin_of(pass.bins, samples[i + 1].time_ms * MILLISECOND_NS) != bin;
        if (!is_last) continue;
        ST_TRY(add_rate(pass, bin, growth * 1000 / static_cast<double>(now.time_ms - begin_ms), rc));
    }
    return 0;
}

}  // namespace

int metric_rates_select(metric_points* points, const stats_request& request, const select_bins_t& bins,
                        bool keeps_missing, select_table_t* table, warm_rc_t* rc) {
    settle_points(&points->points);
    select_table_init(table, request.spec);
    rates_pass pass = {request, bins, table, {}, 0};
    std::string key;
    metric_series series;
    const std::span<const metric_point> all = points->points;
    for (size_t first = 0, end = 0; first < all.size(); first = end) {
        while (end < all.size() && all[end].series == all[first].series) end++;
        metric_series_split(*points->series.texts[all[first].series], &series);
        if (!group_of(series, request, keeps_missing, &key)) continue;
        pass.projections.clear();
        for (size_t i = 0; i < request.spec.projections.size(); i++) {
            if (metric_name_matches(series.name, request.spec.projections[i].field)) pass.projections.push_back(i);
        }
        ST_TRY(select_group(table, key, &pass.group, rc));
        ST_TRY(add_series(pass, all.subspan(first, end - first), rc));
    }
    select_table_finish(table);
    return 0;
}

}  // namespace veldar::tool
