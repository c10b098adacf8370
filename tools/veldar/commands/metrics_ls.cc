// veldar metrics ls and cardinality: what is there, and how many sets of labels it takes.
#include <fmt/format.h>

#include <algorithm>

#include "tools/libveldar/query/metric_catalog.h"
#include "tools/libveldar/query/metric_points.h"
#include "tools/libveldar/query/time_input.h"
#include "tools/veldar/commands/metrics.h"
#include "tools/veldar/output/event_output.h"

namespace veldar::tool {

namespace {

struct list_options {
    std::string pattern;  // ls: of names; cardinality: a label
    std::string zone, format = "table";
    bool jsonl() const { return format == "jsonl"; }
};

void put_name(text_output* out, const std::string& name, const metric_name_totals& totals, bool jsonl) {
    const std::string earliest = event_time_text(totals.earliest, 0, out->zone),
                      latest = event_time_text(totals.latest, 0, out->zone);
    if (jsonl) {
        output_put(out, "{\"name\":");
        json_put_string(&out->bytes, name);
        output_put(out, fmt::format(",\"points\":{},\"sets\":{},\"earliest\":\"{}\",\"latest\":\"{}\"}}\n",
                                    totals.points, totals.sets.size(), earliest, latest));
    } else {
        output_put(out, fmt::format("{:>12}  {:>9}  {:<{}}  {:<{}}  {}\n", totals.points, totals.sets.size(), earliest,
                                    time_width(out->zone), latest, time_width(out->zone), name));
    }
    output_end_record(out);
}

int ls_run(const tool_context& context, const std::string& directory, const list_options& options) {
    troubles trouble;
    const metric_catalog catalog = metric_catalog_read(metrics_directory(context, directory), &trouble);
    text_output out;
    output_open(&out, "never");
    out.zone = time_zone_of(options.zone);
    if (!options.jsonl()) {
        output_put(&out, fmt::format("{:>12}  {:>9}  {:<{}}  {:<{}}  {}\n", "points", "sets", "earliest",
                                     time_width(out.zone), "latest", time_width(out.zone), "name"));
    }
    bool found = false;
    for (const auto& [name, totals] : catalog.names) {
        if (!options.pattern.empty() && !metric_name_matches(name, options.pattern)) continue;
        put_name(&out, name, totals, options.jsonl());
        found = true;
    }
    output_flush(&out);
    return answer_status(found, trouble);
}

void put_label(text_output* out, const std::string& label, uint64_t values, uint64_t sets, bool jsonl) {
    if (jsonl) {
        output_put(out, "{\"label\":");
        json_put_string(&out->bytes, label);
        output_put(out, fmt::format(",\"values\":{},\"sets\":{}}}\n", values, sets));
    } else {
        output_put(out, fmt::format("{:>9}  {:>9}  {}\n", values, sets, label));
    }
    output_end_record(out);
}

// The labels with the most values first, behind the metric names and all sets.
bool put_labels(text_output* out, const metric_catalog& catalog, bool jsonl) {
    std::vector<std::pair<const std::string*, const metric_label_totals*>> labels;
    for (const auto& [label, totals] : catalog.labels) labels.push_back({&label, &totals});
    std::stable_sort(labels.begin(), labels.end(),
                     [](const auto& a, const auto& b) { return a.second->values.size() > b.second->values.size(); });
    if (!jsonl) output_put(out, fmt::format("{:>9}  {:>9}  {}\n", "values", "sets", "label"));
    for (const auto& [label, totals] : labels) put_label(out, *label, totals->values.size(), totals->sets, jsonl);
    uint64_t series = 0;
    for (const auto& [name, totals] : catalog.names) series += totals.sets.size();
    if (jsonl) {
        output_put(out, fmt::format("{{\"names\":{},\"sets\":{},\"series\":{}}}\n", catalog.names.size(),
                                    catalog.sets.size(), series));
    } else {
        output_put(out, fmt::format("{} names, {} sets of labels, {} series\n", catalog.names.size(),
                                    catalog.sets.size(), series));
    }
    return !catalog.names.empty();
}

// The values of one label, those of the most sets first.
bool put_values(text_output* out, const metric_catalog& catalog, const std::string& label, bool jsonl) {
    const auto found = catalog.labels.find(label);
    if (found == catalog.labels.end()) return false;
    std::vector<std::pair<std::string, uint64_t>> values(found->second.values.begin(), found->second.values.end());
    std::stable_sort(values.begin(), values.end(), [](const auto& a, const auto& b) { return a.second > b.second; });
    if (!jsonl) output_put(out, fmt::format("{:>9}  {}\n", "sets", label));
    for (const auto& [value, sets] : values) {
        if (jsonl) {
            output_put(out, "{\"value\":");
            json_put_string(&out->bytes, value);
            output_put(out, fmt::format(",\"sets\":{}}}\n", sets));
        } else {
            output_put(out, fmt::format("{:>9}  ", sets));
            tsv_put_field(&out->bytes, value);
            output_put(out, "\n");
        }
        output_end_record(out);
    }
    return true;
}

int cardinality_run(const tool_context& context, const std::string& directory, const list_options& options) {
    troubles trouble;
    const metric_catalog catalog = metric_catalog_read(metrics_directory(context, directory), &trouble);
    text_output out;
    output_open(&out, "never");
    const bool found = options.pattern.empty() ? put_labels(&out, catalog, options.jsonl())
                                               : put_values(&out, catalog, options.pattern, options.jsonl());
    output_flush(&out);
    return answer_status(found, trouble);
}

void add_format_option(const command& to, list_options* options) {
    to.text("--format", &options->format, "table or jsonl").one_of({"table", "jsonl"}).with_default();
}

}  // namespace

void add_metrics_ls_command(const command& metrics, const std::string* directory) {
    static list_options options;
    const command ls = metrics.subcommand("ls", "List metrics with their points, sets of labels and times");
    ls.text("NAME", &options.pattern, "Only these names; * stands for any characters");
    add_format_option(ls, &options);
    add_zone_option(ls, &options.zone);
    ls.run([directory](const tool_context& context) { return ls_run(context, *directory, options); });
}

void add_metrics_cardinality_command(const command& metrics, const std::string* directory) {
    static list_options options;
    const command cardinality = metrics.subcommand("cardinality", "Count values and sets of labels");
    cardinality.footer("A set is a combination of labels; a series is one metric of one set.");
    cardinality.text("LABEL", &options.pattern, "Its values instead, those of the most sets first");
    add_format_option(cardinality, &options);
    cardinality.run([directory](const tool_context& context) { return cardinality_run(context, *directory, options); });
}

}  // namespace veldar::tool
