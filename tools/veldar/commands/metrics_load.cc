// veldar metrics load: the command line, the order of the files, and the summary.

#include "tools/libveldar/load/merging.h"
#include "tools/libveldar/load/metric_loader.h"
#include "tools/libveldar/store/disk_file.h"
#include "tools/libveldar/store/store.h"
#include "tools/veldar/commands/metrics.h"

namespace veldar::tool {

namespace {

// The directory that is named, or the one of a store, which is made when it does not exist.
std::string directory_for_load(const tool_context& context, const std::string& directory, bool durable) {
    if (!directory.empty()) return directory;
    const std::string store = store_choose(context.store);
    store_make(store, durable);
    return store + "/" + STORE_METRICS;
}

std::string samples_text(uint64_t samples) {
    return number_text(samples) + (samples == 1 ? " sample: " : " samples: ");
}

int load_run(const tool_context& context, const std::string& directory, metric_load_options* options) {
    if (!log_zone_from_name(options->zone_name, &options->csv.zone)) {
        throw failure_t{OUTCOME_USAGE, "unknown time zone " + options->zone_name};
    }
    options->in_store = directory.empty();
    metric_loader load;
    work_catch_interrupts();
    metric_loader_open(&load, directory_for_load(context, directory, !options->no_fsync), *options);
    const auto advice = [](const failure_t& failure) {
        return failure.status == OUTCOME_IO ? "not all is loaded; load again once this is mended" : "";
    };
    const outcome_t status = load_files(
        &load, options->files,
        {.load = [&](const std::string& file, std::string* error) { return metric_loader_load(&load, file, error); },
         .close = [&] { metric_loader_close(&load); },
         .summary = [&] { return samples_text(load.totals.samples) + totals_text(load.shown, load.totals); },
         .give_up = advice});
    if (status == OUTCOME_INTERRUPTED) return status;
    if (!options->no_optimize) {
        load.lock.reset();  // the next load need not wait
        merge_after_load({load.directory});
    }
    return status;
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
    load.flag("--no-optimize", &options.no_optimize, "Do not merge slices in the end, even if there are many");
    load.flag("--no-fsync", &options.no_fsync, "Leave out every fsync, for throw-away stores");
    load.number("--batch", &options.batch_samples, 1, 1u << 24, "").hidden();
    load.run([directory](const tool_context& context) {
        options.csv.separator = separator == "tab" ? '\t' : separator[0];
        return load_run(context, *directory, &options);
    });
}

}  // namespace veldar::tool
