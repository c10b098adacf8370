// veldar load: the command line, the order of the files, and the summary.
#include <cstdio>

#include "tools/veldar/commands/command.h"
#include "tools/veldar/load/loader.h"
#include "tools/veldar/load/merging.h"
#include "tools/veldar/load/progress.h"
#include "tools/veldar/output/text_output.h"
#include "tools/veldar/store/store.h"
#include "tools/veldar/store/tool_file.h"

namespace veldar::tool {

namespace {

int load_run(const tool_context& context, const load_options& options) {
    loader load;
    loader_open(&load, store_choose(context.store), options);
    tool_catch_interrupts();
    bool incomplete = false;
    try {
        for (const std::string& file : options.files) {
            std::string error;
            if (tool_interrupted != 0) break;
            if (loader_load(&load, file, &error)) continue;
            progress_clear(&load.shown);
            say_trouble((file == "-" ? "standard input" : file) + ": " + error);
            incomplete = true;
        }
        loader_close(&load);
    } catch (tool_failure& failure) {
        progress_clear(&load.shown);
        failure.message += "\nveldar: " + loader_give_up(&load);
        throw;
    }
    progress_clear(&load.shown);
    std::string note;
    if (load.unchanged == 1) note = " (1 file with nothing new)";
    if (load.unchanged > 1) note = " (" + std::to_string(load.unchanged) + " files with nothing new)";
    std::fprintf(stderr, "%s%s%s\n", tool_interrupted != 0 ? "interrupted; loaded so far: " : "",
                 totals_text(load.shown, load.totals).c_str(), note.c_str());
    if (tool_interrupted != 0) return EXIT_INTERRUPTED;
    incomplete = incomplete || (load.totals.events == 0 && load.totals.refused != 0);
    if (!options.no_optimize) {
        load.st.lock.reset();  // the next loader need not wait
        std::vector<std::string> directories;
        for (const store_bucket& bucket : load.st.buckets) directories.push_back(bucket.directory);
        merge_after_load(directories);
    }
    return incomplete ? EXIT_INCOMPLETE : EXIT_DONE;
}

}  // namespace

void add_load_command(const command& veldar) {
    static load_options options;
    const command load = veldar.subcommand("load", "Index log files; what was loaded before is not loaded again");
    load.text("FILE", &options.files, "Logs, plain or gzip; - for standard input").required();
    load.text("--format", &options.format, "Take the lines for this format: " + format_names())
        .checked([](const std::string& name) {
            return format_by_name(name) != nullptr ? std::string() : "unknown format " + name;
        });
    load.text("--tz", &options.zone, "Zone of times without one: UTC, local, +02:00, Europe/Berlin ...")
        .checked([](const std::string& name) {
            log_zone zone;
            return log_zone_from_name(name, &zone) ? std::string() : "unknown time zone " + name;
        });
    load.number("--year", &options.year, 1970, 2037, "Year of the first line, for times without a year");
    load.text("--host", &options.host, "The events' host, instead of the log's or this machine's");
    load.text("--sourcetype", &options.sourcetype, "The events' sourcetype, instead of the format's name");
    load.flag("--no-fsync", &options.no_fsync, "Leave out every fsync, for throw-away stores");
    load.flag("--no-optimize", &options.no_optimize, "Do not merge slices in the end, even if there are many");
    load.number("--bucket-bytes", &options.bucket_bytes, 1, BUCKET_BYTES_MAX, "").hidden();
    load.number("--max-values", &options.limits.max_values, 1, 1u << 28, "").hidden();
    load.run([](const tool_context& context) { return load_run(context, options); });
}

}  // namespace veldar::tool
