// veldar gc: takes away what nobody needs any more.
#include <fmt/format.h>
#include <unistd.h>

#include "tools/libveldar/load/collect.h"
#include "tools/libveldar/load/progress.h"
#include "tools/libveldar/store/troubles.h"
#include "tools/veldar/commands/command.h"
#include "tools/veldar/output/text_output.h"

namespace veldar::tool {

namespace {

struct gc_options {
    std::string path;
    bool dry_run = false, yes = false;
};

int gc_run(const tool_context& context, const gc_options& options) {
    const bool removes = !options.dry_run && (options.yes || ::isatty(STDOUT_FILENO) == 0);
    const collected found = collect_garbage(context.path_or_store(options.path), removes);
    text_output out;
    output_open(&out, "never");
    uint64_t bytes = 0, kept = 0;
    for (const collected_item& item : found.items) {
        const char* const verb = item.is_kept ? "kept" : removes ? "removed" : "would remove";
        output_put(&out, fmt::format("{} {}, {}: {}\n", verb, item.path, bytes_text(item.bytes), item.why));
        bytes += item.is_kept ? 0 : item.bytes;
        kept += item.is_kept;
    }
    output_put(&out, fmt::format("{} {}{}\n", bytes_text(bytes), removes ? "freed" : "would be freed",
                                 removes || options.dry_run ? "" : "; --yes does it"));
    output_flush(&out);
    if (kept != 0) say_trouble("what is kept is for a person: docs/operating.md tells of *.pre-tsidx files");
    if (!found.is_loading) return OUTCOME_DONE;
    say_trouble("a load or a watch holds the store: its own notes and leftovers were not looked at");
    return OUTCOME_INCOMPLETE;
}

}  // namespace

void add_gc_command(const command& veldar) {
    static gc_options options;
    const command gc = veldar.subcommand("gc", "Take away what is left over");
    gc.footer(
        "What writers that were killed have left, seals without a slice, and in a store the notes of logs that are "
        "gone\n"
        "with all their events: should such a log come back, it counts as a new one. On a terminal only a list is\n"
        "printed, unless --yes is given.\n"
        "Exit status: 0, 3 when a load holds the store and part of it was not looked at.");
    gc.text("PATH", &options.path, "A store or an index directory (else the store)");
    gc.flag("--dry-run", &options.dry_run, "Only print what would be removed");
    gc.flag("--yes", &options.yes, "Remove it, on a terminal too");
    gc.run([](const tool_context& context) { return gc_run(context, options); });
}

}  // namespace veldar::tool
