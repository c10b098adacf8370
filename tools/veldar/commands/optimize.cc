// veldar optimize: merges slices, so that searches read fewer files and the index takes less space.
#include <fmt/format.h>

#include <algorithm>
#include <chrono>

#include "searchthing/upkeep/tsidx_upkeep.h"
#include "tools/libveldar/load/merging.h"
#include "tools/libveldar/load/progress.h"
#include "tools/libveldar/store/disk_file.h"
#include "tools/libveldar/store/index_handle.h"
#include "tools/libveldar/store/store.h"
#include "tools/libveldar/store/troubles.h"
#include "tools/veldar/commands/command.h"
#include "tools/veldar/output/text_output.h"

namespace veldar::tool {

namespace {

struct optimize_options {
    std::string path;
    bool dry_run = false;
    merge_settings merging;
};

// The next merge of each directory.
int show_plans(const std::vector<std::string>& directories, const merge_settings& merging) {
    text_output out;
    output_open(&out, "never");
    troubles trouble;
    uint64_t most = 0, merges = 0;
    const int mode = merging.everything ? TSIDX_OPTIMIZE_ALL : TSIDX_OPTIMIZE_TIERED;
    for (const std::string& directory : directories) {
        const tsidx_ptr tsidx = index_handle_open(directory, MERGE_WRITE_LEVEL);
        st_tsidx_set_merge_drops_deleted(tsidx.get(), merging.drops_deleted);
        tsidx_optimize_plan_t plan;
        const int status = st_tsidx_optimize_plan(tsidx.get(), mode, TSIDX_OPTIMIZE_MIN_SOURCES, merging.target_size,
                                                  merging.is_final, &plan);
        if (status == WARM_RC_FEW_SLICES || status == WARM_RC_FEW_SOURCES) continue;
        if (status != 0) {
            const bool unlisted = status == WARM_RC_OPEN || status == WARM_RC_READ;
            troubles_add(&trouble, directory + ": " + index_failure_text(tsidx.get()),
                         unlisted ? OUTCOME_IO : OUTCOME_INCOMPLETE);
            continue;
        }
        output_put(&out, fmt::format("{}: {} slice{}, {}\n", directory, plan.sources.size(),
                                     plan.sources.size() == 1 ? "" : "s", bytes_text(plan.bytes)));
        for (const std::string& source : plan.sources) output_put(&out, fmt::format("  {}\n", source));
        most = std::max(most, plan.bytes);
        merges++;
    }
    if (merges == 0) {
        output_put(&out, "nothing to merge\n");
    } else {
        output_put(&out, fmt::format("up to {} of disk space needed meanwhile; more merges may follow\n",
                                     bytes_text(most * std::min<uint64_t>(merges, merging.jobs))));
    }
    output_flush(&out);
    return trouble.status;
}

int merge(const std::vector<std::string>& directories, const merge_settings& merging) {
    work_catch_interrupts();
    const auto begun = std::chrono::steady_clock::now();
    const merge_totals totals = merge_directories(directories, merging);
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - begun;
    for (const std::string& failure : totals.failures) say_trouble(failure);
    if (totals.merges == 0 && work_stops()) {
        say_summary("interrupted: nothing was merged");
    } else if (totals.merges != 0 || totals.failures.empty()) {
        say_summary((work_stops() ? "interrupted; so far: " : "") + merge_totals_text(totals, seconds.count()));
    }
    if (work_stops()) return OUTCOME_INTERRUPTED;
    if (totals.failures.empty()) return OUTCOME_DONE;
    return totals.out_of_space ? OUTCOME_IO : OUTCOME_INCOMPLETE;
}

int optimize_run(const tool_context& context, const optimize_options& options) {
    const std::vector<std::string> directories = store_index_directories(context.path_or_store(options.path));
    return options.dry_run ? show_plans(directories, options.merging) : merge(directories, options.merging);
}

}  // namespace

void add_optimize_command(const command& veldar) {
    static optimize_options options;
    options.merging.is_final = options.merging.drops_deleted = true;
    const command optimize = veldar.subcommand("optimize", "Merge slices, so that there are fewer");
    optimize.footer(
        "Two or more slices of about the same size become one, as often as that can be done; --all merges whatever "
        "fits\n"
        "the target size. A slice of which more than a third is deleted is rewritten without its deleted events, with\n"
        "--all any that has some. Searching, loading and deleting go on meanwhile, and a merge that is cut off loses\n"
        "nothing.\n"
        "Exit status: 0, 3 when a directory could not be merged, 5 for want of disk space or memory.");
    optimize.text("PATH", &options.path, "A store or an index directory (else the store)");
    optimize.flag("--dry-run", &options.dry_run, "Only print what would be merged next");
    optimize.flag("--final", &options.merging.is_final, "As without: two slices of a size are enough");
    optimize.flag("--all", &options.merging.everything, "Merge slices of any size up to the target size");
    optimize.size("--target-size", &options.merging.target_size,
                  "Size up to which slices are merged, as 500MB or 2GB (default 1500 MiB)");
    optimize.number("--jobs", &options.merging.jobs, 1, 256, "How many directories are merged at a time (default 1)");
    optimize.run([](const tool_context& context) { return optimize_run(context, options); });
}

}  // namespace veldar::tool
