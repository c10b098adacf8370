#include "tools/libveldar/partial/question.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <climits>
#include <tuple>

#include "tools/libveldar/query/time_input.h"
#include "tools/libveldar/store/percent_text.h"

namespace veldar::tool {

namespace {

constexpr uint64_t LAST_NANOSECOND = 999999999;
constexpr std::array<std::string_view, 9> KINDS = {"search", "count", "stats",   "terms",       "fields",
                                                   "seen",   "new",   "samples", "metric-stats"};

// "until" is the first moment that is not meant any more.
void set_bounds(question* asked, const st_query_spec& bounds) {
    const st_timeval_t &earliest = bounds.earliest, &latest = bounds.latest;
    if (earliest.time_s != INT_MIN || earliest.time_ns != 0) asked->set("since", time_input_text(earliest));
    if (latest.time_s == INT_MAX) return;
    const bool is_last = latest.time_ns == LAST_NANOSECOND;
    const st_timeval_t until = {latest.time_s + (is_last ? 1 : 0), is_last ? 0 : latest.time_ns + 1};
    // No moment is meant where the earliest is behind the latest.
    const bool is_none = std::tie(until.time_s, until.time_ns) < std::tie(earliest.time_s, earliest.time_ns);
    asked->set("until", time_input_text(is_none ? earliest : until));
}

// The zone under a name that other machines know, too.
std::string zone_name(const std::string& option) {
    const std::string zone = option.empty() && time_zone_of("").named != nullptr ? "local" : option;
    return zone == "local" ? log_zone_local_name() : zone;
}

void set_bins(question* asked, const stats_grid_request& bins) {
    if (bins.every == "auto") {
        throw failure_t{OUTCOME_USAGE,
                        "bins of auto are those of all times of one store: expected a width, such as 1h, when several "
                        "stores answer or an answer is cut"};
    }
    asked->set("every", bins.every);
    if (!bins.every.empty()) asked->set("tz", zone_name(bins.zone));
}

std::string lines_of(const std::vector<std::string>& items) {
    std::string text;
    for (const std::string& item : items) {
        if (item.empty() || item.find('\n') != std::string::npos) {
            throw failure_t{OUTCOME_USAGE, "'" + item + "': expected a name or a condition of one line"};
        }
        text += (text.empty() ? "" : "\n") + item;
    }
    return text;
}

std::vector<std::string> items_of(const std::string& lines) {
    std::vector<std::string> items;
    for (size_t at = 0; at < lines.size();) {
        const size_t end = std::min(lines.find('\n', at), lines.size());
        items.push_back(lines.substr(at, end - at));
        at = end + 1;
    }
    return items;
}

}  // namespace

const std::string& question::value(const std::string& name) const {
    static const std::string nothing;
    const auto found = values.find(name);
    return found == values.end() ? nothing : found->second;
}

uint64_t question::number(const std::string& name) const {
    const std::string& text = value(name);
    uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (!text.empty() && (error != std::errc() || end != text.data() + text.size())) {
        throw failure_t{OUTCOME_USAGE, "'" + text + "' is no number for " + name};
    }
    return number;
}

void question::set(const std::string& name, const std::string& value) {
    if (!value.empty()) values[name] = value;
}

void question::set(const std::string& name, uint64_t value) {
    if (value != 0) values[name] = std::to_string(value);
}

std::string question_text(const question& asked) {
    std::string text = "kind " + asked.kind + "\n";
    for (const auto& [name, value] : asked.values) text += name + " " + percent_encode(value) + "\n";
    return text;
}

bool question_parse(std::string_view text, question* asked) {
    *asked = {};
    for (const std::string& line : items_of(std::string(text))) {
        const size_t blank = line.find(' ');
        if (blank == std::string::npos) return false;
        const std::string name = line.substr(0, blank), value = percent_decode(line.substr(blank + 1));
        if (name == "kind") {
            asked->kind = value;
        } else {
            asked->values[name] = value;
        }
    }
    return std::find(KINDS.begin(), KINDS.end(), asked->kind) != KINDS.end() && question_text(*asked) == text;
}

question question_of_query(const char* kind, const query_options& options) {
    const prepared_query query = query_prepare(options);
    question asked;
    asked.kind = kind;
    asked.set("query", query.text);
    asked.set("native", options.native ? 1 : 0);
    set_bounds(&asked, query.bounds);
    return asked;
}

void question_set_stats(question* asked, const stats_question& stats, uint64_t top) {
    stats_request_parse(stats.by, stats.aggregates);
    asked->set("by", stats.by);
    asked->set("agg", stats.aggregates);
    asked->set("missing", stats.keeps_missing ? 1 : 0);
    asked->set("top", top);
    set_bins(asked, stats.bins);
}

question question_of_metrics(const metric_question& metrics, uint64_t limit) {
    const prepared_query query = metric_query_of(metrics);
    question asked;
    asked.kind = "samples";
    asked.set("names", lines_of(metrics.names));
    asked.set("where", lines_of(metrics.where));
    asked.set("limit", limit);
    set_bounds(&asked, query.bounds);
    return asked;
}

question question_of_metric_stats(const metric_question& metrics, const metric_stats_question& stats, uint64_t top) {
    question asked = question_of_metrics(metrics, 0);
    asked.kind = "metric-stats";
    asked.set("by", stats.by);
    asked.set("agg", stats.aggregates);
    asked.set("missing", stats.keeps_missing ? 1 : 0);
    asked.set("rate", stats.rate ? 1 : 0);
    asked.set("top", top);
    set_bins(&asked, stats.bins);
    return asked;
}

question question_of_new(const std::string& pattern, const std::string& since, const std::string& zone,
                         uint64_t limit) {
    st_query_spec bounds;
    st_query_init(&bounds);
    query_set_bounds(since, "", zone, &bounds);
    question asked;
    asked.kind = "new";
    asked.set("pattern", pattern);
    asked.set("limit", limit);
    set_bounds(&asked, bounds);
    return asked;
}

query_options question_query(const question& asked) {
    query_options options;
    if (asked.has("query")) options.words = {asked.value("query")};
    options.native = asked.has("native");
    options.since = asked.value("since");
    options.until = asked.value("until");
    options.zone = "UTC";
    return options;
}

stats_question question_stats(const question& asked) {
    stats_question stats;
    stats.by = asked.value("by");
    stats.aggregates = asked.value("agg");
    stats.keeps_missing = asked.has("missing");
    stats.bins.every = asked.value("every");
    stats.bins.zone = asked.has("tz") ? asked.value("tz") : "UTC";
    return stats;
}

metric_question question_metrics(const question& asked) {
    metric_question metrics;
    metrics.names = items_of(asked.value("names"));
    metrics.where = items_of(asked.value("where"));
    metrics.since = asked.value("since");
    metrics.until = asked.value("until");
    metrics.zone = "UTC";
    return metrics;
}

metric_stats_question question_metric_stats(const question& asked) {
    const stats_question stats = question_stats(asked);
    return {stats.by, stats.aggregates, stats.keeps_missing, asked.has("rate"), stats.bins};
}

}  // namespace veldar::tool
