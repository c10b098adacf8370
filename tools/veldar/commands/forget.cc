// veldar forget: deletes what was loaded from files, which then count as never loaded.
#include <cstdio>

#include "tools/libveldar/load/loader.h"
#include "tools/libveldar/load/progress.h"
#include "tools/libveldar/store/disk_file.h"
#include "tools/libveldar/store/store.h"
#include "tools/libveldar/store/troubles.h"
#include "tools/veldar/commands/command.h"

namespace veldar::tool {

namespace {

int forget_run(const tool_context& context, const std::vector<std::string>& files) {
    const std::string path = store_choose(context.store);
    if (!disk_exists(path) || !store_is(path)) throw failure_t{OUTCOME_USAGE, path + ": no store is there"};
    const load_options options;
    loader load;
    loader_open(&load, path, options);
    bool all = true;
    for (const std::string& file : files) {
        std::string ignored;  // a file that is gone is known by its path
        const std::optional<uint64_t> deleted = loader_forget(&load, file, false, &ignored);
        if (!deleted) say_trouble(file + ": nothing that is known was loaded from it");
        if (deleted) std::printf("%s: %s events deleted\n", file.c_str(), number_text(*deleted).c_str());
        all = all && deleted.has_value();
    }
    loader_close(&load);
    return all ? OUTCOME_DONE : OUTCOME_NOT_FOUND;
}

}  // namespace

void add_forget_command(const command& veldar) {
    static std::vector<std::string> files;
    const command forget = veldar.subcommand("forget", "Delete what was loaded from files; they can be loaded anew");
    forget.footer(
        "A file is known by its content, whatever its name is now, or else by the path at which it was loaded last.\n"
        "Exit status: 0, 1 when nothing was loaded from one of them.");
    forget.text("FILE", &files, "Logs that were loaded").required();
    forget.run([](const tool_context& context) { return forget_run(context, files); });
}

}  // namespace veldar::tool
