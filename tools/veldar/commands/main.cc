#include <cstdio>
#include <exception>
#include <new>
#include <string>

#include "libzero/create-crash-dump.h"
#include "libzero/osfile.h"
#include "searchthing/base/st_init.h"
#include "tools/libveldar/store/failure.h"
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
    veldar::tool::add_search_command,  veldar::tool::add_count_command,  veldar::tool::add_stats_command,
    veldar::tool::add_top_command,     veldar::tool::add_new_command,    veldar::tool::add_diff_command,
    veldar::tool::add_terms_command,   veldar::tool::add_fields_command, veldar::tool::add_seen_command,
    veldar::tool::add_metrics_command, veldar::tool::add_sql_command,    veldar::tool::add_explain_command,
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

}  // namespace

int main(int argc, char** argv) {
    veldar::osfile_open_standard();
    veldar::tool::terminal_observer terminal;
    const veldar::tool::observer prints = veldar::tool::terminal_observer_open(&terminal);
    const veldar::tool::observer_scope observed(&prints);
    try {
        veldar::st_init("veldar");
        static_cast<void>(veldar::create_crash_dump_install_from_environment("veldar"));  // it works without
        const std::string version =
            "veldar " VELDAR_VERSION "\ncommit " VELDAR_COMMIT "\n" + veldar::tool::library_versions();
        return veldar::tool::command_line_run(GROUPS, {argv + 1, argv + argc}, version.c_str());
    } catch (const veldar::tool::failure_t& failure) {
        veldar::tool::say_trouble(failure.message);
        return failure.status;
    } catch (const std::bad_alloc&) {
        std::fputs("veldar: out of memory\n", stderr);
        return veldar::tool::OUTCOME_IO;
    } catch (const std::exception& error) {  // the parser's own and the library's, thread or locale
        std::fprintf(stderr, "veldar: %s\n", error.what());
        return veldar::tool::OUTCOME_IO;
    }
}
