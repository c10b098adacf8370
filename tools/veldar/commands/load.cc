// veldar load: the command line.
#include "tools/libveldar/load/load_paths.h"
#include "tools/libveldar/load/load_run.h"
#include "tools/libveldar/store/disk_file.h"
#include "tools/libveldar/store/store.h"
#include "tools/veldar/commands/command.h"
#include "tools/veldar/commands/log_options.h"

namespace veldar::tool {

namespace {

int load_run(const tool_context& context, const load_options& options, bool again) {
    load_totals totals;
    work_catch_interrupts();
    return load_logs(store_choose(context.store), options, again, &totals);
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
