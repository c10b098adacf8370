#include "tools/libveldar/query/stats_read.h"

#include <fmt/format.h>

#include <algorithm>
#include <climits>
#include <new>

#include "tools/libveldar/query/time_input.h"
#include "tools/libveldar/store/failure.h"
#include "tools/libveldar/store/observer.h"

namespace veldar::tool {

namespace {

constexpr int64_t SECOND_NS = 1000000000;
constexpr int64_t FINE_BINS = 2000;  // of the look at when there are events

// The times of the events that the queries' index parts find, to a small part of the range.
slice_times range_of_events(const slice_set& slices, const prepared_query& query, const slice_times& range) {
    const int64_t span_s = std::max<int64_t>((range.latest_s - range.earliest_s) / FINE_BINS, 1);
    slice_times found;
    for (const query_plan& plan : query.plans) {
        select_options_t options;
        options.sources = slices_sources(slices);
        options.query = query_of_plan(query, plan);
        options.query.opt_span = {static_cast<st_time_t>(span_s), 0};
        // The answer itself tells failures; but what failed for a moment may be there again by then, and the answer
        // another. So what fails here counts when it fails twice.
        bool has_failed = false;
        options.on_failure = [&](const std::string&, const warm_rc_t&) { has_failed = true; };
        select_table_t table;
        warm_rc_t rc;
        int status = select_read(options, &table, nullptr, &rc);
        if (has_failed && status == 0) status = select_read(options, &table, nullptr, &rc);
        if (status == WARM_RC_NO_MEMORY || status == WARM_RC_CANCELLED) slice_fail_unless_told(rc);
        if (status != 0) return range;
        if (table.rows.empty()) continue;
        found.earliest_s = std::min(found.earliest_s, table.rows.front().bin / SECOND_NS);
        found.latest_s = std::max(found.latest_s, table.rows.back().bin / SECOND_NS + span_s - 1);
    }
    if (found.is_empty()) return range;
    return {std::max(found.earliest_s, range.earliest_s), std::min(found.latest_s, range.latest_s)};
}

std::string round_text(const bin_width& width) {
    const auto put = [](int64_t count, const char* unit) { return std::to_string(count) + unit; };
    if (width.unit == bin_width::MONTHS) {
        return width.count % 12 == 0 ? put(width.count / 12, "y") : put(width.count, "mo");
    }
    if (width.unit == bin_width::DAYS) return width.weekly ? put(width.count / 7, "w") : put(width.count, "d");
    const int64_t seconds = width.count / SECOND_NS;
    if (seconds % 3600 == 0) return put(seconds / 3600, "h");
    return seconds % 60 == 0 ? put(seconds / 60, "m") : put(seconds, "s");
}

[[noreturn]] void fail_too_many(const std::string& every) {
    throw failure_t{OUTCOME_USAGE, input_name("every") + " " + every +
                                       " makes more than 1,048,576 bins of these times: expected a greater width, or " +
                                       input_name("since") + " and " + input_name("until")};
}

}  // namespace

std::string every_fault(const std::string& every) {
    bin_width width;
    if (every == "auto" || bin_width_parse(every, &width)) return {};
    return "'" + every + "' is not " + BIN_WIDTH_FORMS;
}

stats_grid stats_grid_make(const stats_grid_request& request, const slice_set& slices, const prepared_query& query,
                           select_spec_t* spec) {
    if (request.every.empty()) return stats_grid_over(request, 0, 0, spec);
    slice_times range = slices_times(slices, query.bounds);
    if (range.is_empty()) range = {0, 0};
    stats_grid_request chosen = request;
    if (request.every == "auto") {
        range = range_of_events(slices, query, range);
        chosen.every = round_text(bin_width_for(range.earliest_s, range.latest_s, request.wanted));
    }
    return stats_grid_over(chosen, range.earliest_s, range.latest_s, spec);
}

stats_grid stats_grid_over(const stats_grid_request& request, int64_t earliest_s, int64_t latest_s,
                           select_spec_t* spec) {
    stats_grid grid;
    grid.zone = time_zone_of(request.zone);
    grid.has_bins = !request.every.empty();
    if (!grid.has_bins) return grid;
    grid.every = request.every;
    bin_width width;
    if (!bin_width_parse(request.every, &width)) {
        throw failure_t{OUTCOME_USAGE, input_name("every") + ": " + every_fault(request.every)};
    }
    time_bins cuts;
    if (!time_bins_make(width, grid.zone, earliest_s, latest_s, &cuts)) fail_too_many(grid.every);
    grid.span = cuts.span;
    spec->bin_offset_s = cuts.offset_s;
    spec->bin_starts_s = std::move(cuts.starts_s);
    st_query_spec spans;
    spans.opt_span = grid.span;
    warm_rc_t rc;
    if (select_bins_open(&grid.bins, spans, *spec, &rc) != 0) fail_too_many(grid.every);
    return grid;
}

void stats_select(const slice_set& slices, const st_query_spec& query, const stats_grid& grid,
                  const select_spec_t& spec, select_table_t* table, select_report_t* report, troubles* trouble) {
    select_options_t options;
    options.sources = slices_sources(slices);
    options.query = query;
    options.query.opt_span = grid.span;
    options.spec = spec;
    options.on_failure = slices_hear(trouble);
    slices_tell_errors(slices, trouble);
    warm_rc_t rc;
    if (select_read(options, table, report, &rc) != 0) stats_fail(slices, grid, rc);
}

void stats_fail(const slice_set& slices, const stats_grid& grid, const warm_rc_t& rc) {
    if (rc.warm_rc == WARM_RC_CANCELLED) slice_fail_unless_told(rc);
    switch (rc.warm_rc) {
        case WARM_RC_TIME_BINS_LIMIT:
            fail_too_many(grid.every);
        case WARM_RC_CAPACITY:
            throw failure_t{OUTCOME_USAGE, std::string(rc.message) + ": expected at most 1,048,576"};
        case WARM_RC_NO_MEMORY:
            if (std::string_view(rc.message).find("cells") == std::string_view::npos) throw std::bad_alloc();
            throw failure_t{
                OUTCOME_IO,
                fmt::format("the answer has more than 4,194,304 cells or 512 MB: fewer fields in {}, a "
                            "greater {}, or {} and {} make it smaller",
                            input_name("by"), input_name("every"), input_name("since"), input_name("until"))};
        case WARM_RC_TOKEN_TOO_BIG:
            throw failure_t{OUTCOME_USAGE, "a word or value of the query is longer than 2,048 bytes"};
        default:
            throw failure_t{OUTCOME_IO, slice_error(slices.path, rc)};
    }
}

}  // namespace veldar::tool
