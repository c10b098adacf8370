// veldar load: the command line, the order of the files, and the summary.

#include "tools/libveldar/load/load_paths.h"
#include "tools/libveldar/load/loader.h"
#include "tools/libveldar/load/log_form.h"
#include "tools/libveldar/load/merging.h"
#include "tools/libveldar/load/progress.h"
#include "tools/libveldar/store/disk_file.h"
#include "tools/libveldar/store/store.h"
#include "tools/libveldar/store/troubles.h"
#include "tools/veldar/commands/command.h"
#include "tools/veldar/commands/log_options.h"

namespace veldar::tool {

namespace {

int load_run(const tool_context& context, const load_options& options, bool again) {
    take_log_options(options);
    loader load;
    loader_open(&load, store_choose(context.store), options);
    for (size_t i = 0; again && i < options.files.size(); i++) loader_forget(&load, options.files[i], true);
    work_catch_interrupts();
    const outcome_t status = load_files(
        &load, options.files,
        {.load = [&](const std::string& file, std::string* error) { return loader_load(&load, file, error); },
         .close = [&] { loader_close(&load); },
         .summary = [&] { return totals_text(load.shown, load.totals, &load.dating); },
         .give_up = [&](const failure_t&) { return loader_give_up(&load); }});
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

}  // namespace

void add_load_command(const command& veldar) {
    static load_options options;
    const command load = veldar.subcommand("load", "Index log files; what was loaded before is not loaded again");
    static bool recursive = false, again = false;
    load.text("FILE", &options.files, "Logs, plain or compressed (gzip, xz, zstd, bzip2); - for standard input")
        .required();
    load.flag("-r,--recursive", &recursive, "Load the files in directories, and below them");
    load.flag("--again", &again, "Forget what was loaded from these files before, and load them anew");
    load.flag("--flush", &options.flush, "Take the last line of a file that changed just now, though it has no end");
    add_log_options(load, &options);
    load.flag("--strict", &options.strict,
              "Leave files out of whose first records under half say a time that is understood");
    load.flag("--no-fsync", &options.no_fsync, "Leave out every fsync, for throw-away stores");
    load.flag("--no-optimize", &options.no_optimize, "Do not merge slices in the end, even if there are many");
    load.number("--bucket-bytes", &options.bucket_bytes, 1, BUCKET_BYTES_MAX, "").hidden();
    load.number("--max-values", &options.limits.max_values, 1, 1u << 28, "").hidden();
    load.run([](const tool_context& context) {
        const load_paths paths = load_paths_find(options.files, recursive);
        options.files = paths.files;
        const int status = load_run(context, options, again);
        return status == OUTCOME_DONE && paths.incomplete ? OUTCOME_INCOMPLETE : status;
    });
}

}  // namespace veldar::tool
