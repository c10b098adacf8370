#include "tools/libveldar/load/load_run.h"

#include <map>

#include "tools/libveldar/formats/user_formats.h"
#include "tools/libveldar/load/log_form.h"
#include "tools/libveldar/load/merging.h"
#include "tools/libveldar/store/observer.h"

namespace veldar::tool {

namespace {

// The formats of the user's own, and whether there is the one that is asked for.
void read_user_formats(const load_options& options) {
    const std::string formats = options.formats_file.empty() ? user_formats_path() : options.formats_file;
    std::string error;
    if (!formats.empty() && !user_formats_read(formats, &error)) throw failure_t{OUTCOME_USAGE, error};
    if (!options.format.empty() && format_by_name(options.format) == nullptr) {
        throw failure_t{OUTCOME_USAGE, "unknown format " + options.format};
    }
}

std::string samples_text(uint64_t samples) {
    return number_text(samples) + (samples == 1 ? " sample: " : " samples: ");
}

}  // namespace

void load_options_check(const load_options& options) {
    const bool placed = !options.time_format.empty() && options.time_field.empty();
    if (placed && !options.format.empty() && options.format != "text") {
        throw failure_t{OUTCOME_USAGE,
                        input_name("time-format") + " is for lines of the format text, not " + options.format};
    }
    read_user_formats(options);
}

outcome_t load_logs(const std::string& store_path, const load_options& options, bool again, load_totals* totals) {
    load_options_check(options);
    loader load;
    loader_open(&load, store_path, options);
    std::map<std::string, std::string> unread;  // why they cannot be loaded anew
    for (size_t i = 0; again && i < options.files.size(); i++) {
        loader_forget(&load, options.files[i], true, &unread[options.files[i]]);
    }
    const auto load_one = [&](const std::string& file, std::string* error) {
        if (again) *error = unread[file];
        return error->empty() && loader_load(&load, file, error);
    };
    const outcome_t status = load_files(&load, options.files,
                                        {.load = load_one,
                                         .close = [&] { loader_close(&load); },
                                         .summary = [&] { return totals_text(load.shown, load.totals, &load.dating); },
                                         .give_up = [&](const failure_t&) { return loader_give_up(&load); }});
    *totals = load.totals;
    for (const std::string& line : dating_examples(load.dating)) say_trouble(line);
    if (load.zone_taken) say_trouble("times without a zone are taken as " + log_form_zone(options));
    if (status == OUTCOME_INTERRUPTED) return status;
    if (!options.no_optimize) {
        load.st.lock.reset();  // the next loader need not wait
        std::vector<std::string> directories;
        for (const store_bucket& bucket : load.st.buckets) directories.push_back(bucket.directory);
        merge_after_load(directories, load.merges);
    }
    const bool nothing = load.totals.events == 0 && load.totals.refused != 0;
    return nothing || load.hardly_dated != 0 ? OUTCOME_INCOMPLETE : status;
}

outcome_t load_metrics(const std::string& store_path, const std::string& directory, metric_load_options* options,
                       load_totals* totals) {
    if (!log_zone_from_name(options->zone_name, &options->csv.zone)) {
        throw failure_t{OUTCOME_USAGE, "unknown time zone " + options->zone_name};
    }
    options->in_store = directory.empty();
    if (directory.empty()) store_make(store_path, !options->no_fsync);
    metric_loader load;
    metric_loader_open(&load, directory.empty() ? store_path + "/" + STORE_METRICS : directory, *options);
    const auto advice = [&](const failure_t& failure) {
        return failure.status == OUTCOME_IO ? metric_loader_give_up(load) : std::string();
    };
    const outcome_t status = load_files(
        &load, options->files,
        {.load = [&](const std::string& file, std::string* error) { return metric_loader_load(&load, file, error); },
         .close = [&] { metric_loader_close(&load); },
         .summary = [&] { return samples_text(load.totals.samples) + totals_text(load.shown, load.totals); },
         .give_up = advice});
    *totals = load.totals;
    if (status == OUTCOME_INTERRUPTED && load.pipe_loaded != 0) say_trouble(metric_loader_give_up(load));
    if (status == OUTCOME_INTERRUPTED) return status;
    if (!options->no_optimize) {
        load.lock.reset();  // the next load need not wait
        merge_after_load({load.directory});
    }
    return status;
}

}  // namespace veldar::tool
