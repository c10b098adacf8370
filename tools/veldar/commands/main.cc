#include <cstddef>
#include <string>

#include "libzero/create-crash-dump.h"
#include "libzero/osfile.h"
#include "searchthing/base/st_init.h"
#include "tools/libveldar/store/library_versions.h"
#include "tools/libveldar/store/observer.h"
#include "tools/veldar/commands/command.h"
#include "tools/veldar/output/terminal_observer.h"

namespace {

using veldar::tool::command;

constexpr void (*IN[])(const command&) = {
    veldar::tool::add_load_command,
    veldar::tool::add_watch_command,
    veldar::tool::add_put_command,
    veldar::tool::add_forget_command,
};
constexpr void (*ASKING[])(const command&) = {
    veldar::tool::add_search_command,        veldar::tool::add_count_command,  veldar::tool::add_stats_command,
    veldar::tool::add_top_command,           veldar::tool::add_new_command,    veldar::tool::add_diff_command,
    veldar::tool::add_terms_command,         veldar::tool::add_fields_command, veldar::tool::add_seen_command,
    veldar::tool::add_metrics_command,       veldar::tool::add_sql_command,    veldar::tool::add_explain_command,
    veldar::tool::add_merge_answers_command,
};
constexpr void (*LOOKING[])(const command&) = {
    veldar::tool::add_ls_command,     veldar::tool::add_info_command, veldar::tool::add_dump_command,
    veldar::tool::add_health_command, veldar::tool::add_fsck_command,
};
constexpr void (*KEEPING[])(const command&) = {
    veldar::tool::add_optimize_command, veldar::tool::add_delete_command, veldar::tool::add_retain_command,
    veldar::tool::add_gc_command,       veldar::tool::add_seal_command,   veldar::tool::add_salvage_command,
    veldar::tool::add_rebuild_command,
};
constexpr void (*TOOL[])(const command&) = {veldar::tool::add_completion_command};
constexpr veldar::tool::command_group GROUPS[] = {
    {"Getting in", IN},  {"Asking", ASKING}, {"Looking inside", LOOKING}, {"Keeping in order", KEEPING},
    {"This tool", TOOL},
};

std::string version() {
    return "veldar " VELDAR_VERSION "\ncommit " VELDAR_COMMIT "\n" + veldar::tool::library_versions();
}

}  // namespace

int main(int argc, char** argv) {
    veldar::osfile_open_standard();
    veldar::tool::terminal_observer terminal;
    const veldar::tool::observer prints = veldar::tool::terminal_observer_open(&terminal);
    const veldar::tool::observer_scope observed(&prints);
    veldar::st_init("veldar");
    static_cast<void>(veldar::create_crash_dump_install_from_environment("veldar"));  // it works without
    const size_t count = argc > 0 ? static_cast<size_t>(argc) - 1 : 0;
    return veldar::tool::command_line_main(GROUPS, argv + 1, count, version);
}
