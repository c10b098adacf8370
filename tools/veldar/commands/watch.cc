// veldar watch: loads logs and follows them.
#include "tools/libveldar/load/watch.h"

#include <fmt/format.h>

#include "tools/libveldar/load/load_run.h"
#include "tools/libveldar/store/disk_file.h"
#include "tools/libveldar/store/store.h"
#include "tools/libveldar/store/troubles.h"
#include "tools/veldar/commands/command.h"
#include "tools/veldar/commands/log_options.h"

namespace veldar::tool {

namespace {

constexpr int64_t LEAST_MS = 100, MOST_MS = 3'600'000;

// "5s", "500ms", "2m"; nothing for what is none, or too short or too long.
std::optional<std::chrono::milliseconds> span_of(const std::string& text) {
    const size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
    const std::string unit = text.substr(digits);
    const int64_t factor = unit == "ms" ? 1 : unit == "s" ? 1000 : unit == "m" ? 60000 : 0;
    if (digits == 0 || digits > 7 || factor == 0) return std::nullopt;
    const int64_t ms = std::stoll(text.substr(0, digits)) * factor;
    if (ms < LEAST_MS || ms > MOST_MS) return std::nullopt;
    return std::chrono::milliseconds(ms);
}

int watch_run(const tool_context& context, load_options options, const std::string& sync_every) {
    load_options_check(options);
    for (const std::string& name : options.files) {
        if (name.empty()) throw failure_t{OUTCOME_USAGE, "an empty name of a log"};
    }
    options.follows = true;
    const watch_options watch = {.names = std::exchange(options.files, {}), .sync_every = *span_of(sync_every)};
    work_catch_interrupts();
    loader load;
    loader_open(&load, store_choose(context.store), options);
    load.shown.is_hidden = true;
    try {
        watch_logs(&load, watch);
        loader_close(&load);
    } catch (failure_t& failure) {
        failure.message += "\nveldar: " + loader_give_up(&load);
        throw;
    }
    say_summary(totals_text(load.shown, load.totals, &load.dating));
    return OUTCOME_DONE;
}

}  // namespace

void add_watch_command(const command& veldar) {
    static load_options options;
    static std::string sync_every = "5s";
    const command watch = veldar.subcommand("watch", "Index logs, and follow them as they grow and are rotated");
    watch.footer(
        "A log need not be there yet, and 'app-*.log' (in quotes) stands for all that have such names, now or later.\n"
        "What was loaded before is not loaded again, whether by watch or by load. SIGINT and SIGTERM end it in order.\n"
        "Exit status: 0 when it was ended, 5 when the store cannot be written: begin it again and nothing is lost.");
    watch.text("FILE", &options.files, "Logs, or patterns of their names").required();
    watch.text("--sync-every", &sync_every, "In what time a line can be found: 500ms, 5s, 1m ... (default 5s)")
        .checked([](const std::string& text) {
            return span_of(text) ? std::string() : text + " is no time from 100ms to 60m, such as 5s";
        });
    add_log_options(watch, &options);
    watch.flag("--no-fsync", &options.no_fsync, "Leave out every fsync, for throw-away stores");
    watch.flag("--no-optimize", &options.no_optimize, "Do not merge slices beside");
    watch.number("--bucket-bytes", &options.bucket_bytes, 1, BUCKET_BYTES_MAX, "").hidden();
    watch.run([](const tool_context& context) { return watch_run(context, options, sync_every); });
}

}  // namespace veldar::tool
