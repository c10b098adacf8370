// veldar retain: lets old events go, or as many as are too many for the space they may take.
#include <fmt/format.h>

#include <ctime>

#include "tools/libveldar/load/progress.h"
#include "tools/libveldar/load/retention.h"
#include "tools/libveldar/query/time_input.h"
#include "tools/libveldar/store/store.h"
#include "tools/libveldar/store/troubles.h"
#include "tools/veldar/commands/command.h"
#include "tools/veldar/output/text_output.h"

namespace veldar::tool {

namespace {

struct retain_options {
    std::string path, older_than, zone;
    uint64_t max_size = 0;
    bool dry_run = false;
};

st_time_t time_of(const retain_options& options) {
    log_zone zone = time_zone_of(options.zone);
    const int64_t now = std::time(nullptr);
    st_timeval_t time;
    if (!time_input_parse(options.older_than, &zone, now, &time)) {
        throw failure_t{OUTCOME_USAGE, "--older-than takes an age such as 30d, or " + std::string(TIME_INPUT_FORMS) +
                                           "; not " + options.older_than};
    }
    if (time.time_s > now) throw failure_t{OUTCOME_USAGE, "--older-than " + options.older_than + " is yet to come"};
    return time.time_s;
}

int retain_run(const tool_context& context, const retain_options& options) {
    if (options.older_than.empty() && options.max_size == 0) {
        throw failure_t{OUTCOME_USAGE, "retain takes --older-than or --max-size, or both"};
    }
    const std::string path = context.path_or_store(options.path);
    const std::vector<std::string> directories = store_index_directories(path);
    retention rule;
    if (!options.older_than.empty()) rule.before = time_of(options);
    if (options.max_size != 0) rule.max_size = options.max_size;
    const retained done = retain_in(directories, rule, options.dry_run);
    text_output out;
    output_open(&out, "never");
    output_put(&out, fmt::format("{} slice{} with {} events {}, {} freed\n", number_text(done.slices),
                                 done.slices == 1 ? "" : "s", number_text(done.slice_events),
                                 options.dry_run ? "would be removed" : "removed", bytes_text(done.bytes)));
    if (done.uncounted != 0) {
        output_put(&out, fmt::format("{} of them could not be read: what {} held is not all counted\n", done.uncounted,
                                     done.uncounted == 1 ? "it" : "they"));
    }
    if (done.events != 0) {
        output_put(&out,
                   fmt::format("{} events {} in slices that reach beyond; their space comes with 'veldar optimize'\n",
                               number_text(done.events), options.dry_run ? "would be deleted" : "deleted"));
    }
    if (done.metric_slices != 0) {
        output_put(&out,
                   fmt::format("{} slice{} of metrics stay{}: metrics go as whole slices only\n", done.metric_slices,
                               done.metric_slices == 1 ? "" : "s", done.metric_slices == 1 ? "s" : ""));
    }
    output_flush(&out);
    return OUTCOME_DONE;
}

}  // namespace

void add_retain_command(const command& veldar) {
    static retain_options options;
    const command retain = veldar.subcommand("retain", "Let old events go, or those that take too much space");
    retain.footer(
        "Slices whose events are all too old go as a whole; in the others old events are deleted, and their space "
        "comes\n"
        "with 'veldar optimize'. For --max-size whole slices go, the oldest first, until those of the store (or the\n"
        "index directory) have no more bytes together. What was loaded once is not loaded again.\n"
        "Exit status: 0, also when there was nothing to do.");
    retain.text("PATH", &options.path, "A store or an index directory (else the store)");
    retain.text("--older-than", &options.older_than, "Events older than this go: 30d, 12h, 2026-01-01 ...");
    retain.size("--max-size", &options.max_size, "Bytes that the slices may have together: 500MB, 20G ...");
    retain.flag("--dry-run", &options.dry_run, "Only print what would go");
    add_zone_option(retain, &options.zone);
    retain.run([](const tool_context& context) { return retain_run(context, options); });
}

}  // namespace veldar::tool
