// veldar metrics load: the command line.
#include "tools/libveldar/load/load_run.h"
#include "tools/libveldar/store/disk_file.h"
#include "tools/libveldar/store/store.h"
#include "tools/veldar/commands/metrics.h"

namespace veldar::tool {

namespace {

int load_run(const tool_context& context, const std::string& directory, metric_load_options* options) {
    load_totals totals;
    work_catch_interrupts();
    return load_metrics(directory.empty() ? store_choose(context.store) : std::string(), directory, options, &totals);
}

std::string check_label(const std::string& label) {
    const size_t equals = label.find('=');
    const bool formed = equals != std::string::npos && equals > 0 && equals + 1 < label.size();
    return formed ? std::string() : "expected NAME=VALUE";
}

}  // namespace

void add_metrics_load_command(const command& metrics, const std::string* directory) {
    static metric_load_options options;
    static std::string separator = ",";
    const command load = metrics.subcommand("load", "Index metrics; what was loaded before is not loaded again");
    load.footer(
        "OpenMetrics and the Prometheus text format are read as they are. A time of 1e11 and more is in milliseconds,\n"
        "unless --format says openmetrics (seconds) or prometheus (milliseconds).\n"
        "CSV needs a header line; without --time the column named time, timestamp, date ... holds the times, without\n"
        "--value the column \"value\" holds the values, of a metric named after the file.");
    load.text("FILE", &options.files, "Files, plain or gzip; - for standard input").required();
    load.text("--format", &options.format, "openmetrics, prometheus or csv, instead of what the file looks like")
        .one_of({"openmetrics", "prometheus", "csv"});
    load.text("--time", &options.time, "CSV: the column of the times; else the time of samples without one (now)");
    load.text("--value", &options.csv.values, "CSV: the columns of values").comma_separated();
    load.text("--dims", &options.csv.dims, "CSV: the columns that are labels").comma_separated();
    load.text("--name", &options.csv.name,
              "CSV: the metric; with several values what stands before their columns' names");
    load.text("--separator", &separator, "CSV: the character between fields; tab for a tab")
        .checked([](const std::string& text) {
            return text.size() == 1 || text == "tab" ? std::string() : "expected one character";
        });
    load.text("--label", &options.labels, "NAME=VALUE for every sample without a label of that name")
        .checked(check_label);
    load.text("--tz", &options.zone_name, "Zone of times without one: UTC, local, +02:00, Europe/Berlin ...");
    load.flag("--strict", &options.strict, "End at the first malformed line instead of counting them");
    load.flag("--again", &options.again, "Load what was loaded before once more");
    load.flag("--flush", &options.flush, "Take the last line of a file that changed just now, though it has no end");
    load.flag("--no-optimize", &options.no_optimize, "Do not merge slices in the end, even if there are many");
    load.flag("--no-fsync", &options.no_fsync, "Leave out every fsync, for throw-away stores");
    load.number("--batch", &options.batch_samples, 1, 1u << 24, "").hidden();
    load.run([directory](const tool_context& context) {
        options.csv.separator = separator == "tab" ? '\t' : separator[0];
        return load_run(context, *directory, &options);
    });
}

}  // namespace veldar::tool
