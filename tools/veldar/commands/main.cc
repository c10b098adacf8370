#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <exception>
#include <new>
#include <string>
#include <vector>

#include "libzero/create-crash-dump.h"
#include "libzero/osfile.h"
#include "searchthing/base/st_init.h"
#include "tools/veldar/commands/command.h"
#include "tools/veldar/commands/suggestion.h"
#include "tools/veldar/output/text_output.h"
#include "tools/veldar/query/query_input.h"

namespace {

int run(int argc, char** argv) {
    CLI::App app("Veldar: an index for logs and other events with a time.", "veldar");
    veldar::tool::tool_context context;
    app.add_option(
        "-s,--store", context.store,
        "The store (else $VELDAR_STORE, else .veldar here or above); to ask, also an index directory or a slice");
    app.set_version_flag("--version", "veldar " VELDAR_VERSION);
    app.fallthrough();  // -s may stand behind the subcommand too
    veldar::tool::add_put_command(&app, &context);
    veldar::tool::add_load_command(&app, &context);
    veldar::tool::add_search_command(&app, &context);
    veldar::tool::add_count_command(&app, &context);
    veldar::tool::add_terms_command(&app, &context);
    veldar::tool::add_fields_command(&app, &context);
    veldar::tool::add_seen_command(&app, &context);
    veldar::tool::add_explain_command(&app, &context);
    veldar::tool::add_fsck_command(&app, &context);
    veldar::tool::add_info_command(&app, &context);
    veldar::tool::add_ls_command(&app, &context);
    veldar::tool::add_dump_command(&app, &context);
    veldar::tool::add_delete_command(&app, &context);
    veldar::tool::add_health_command(&app, &context);
    veldar::tool::add_optimize_command(&app, &context);
    veldar::tool::add_metrics_command(&app, &context);
    try {
        std::vector<std::string> arguments(argv + 1, argv + argc);
        veldar::tool::query_protect_words(&arguments);
        std::reverse(arguments.begin(), arguments.end());  // as the parser takes them
        app.parse(std::move(arguments));
    } catch (const CLI::ParseError& error) {
        if (app.exit(error) == 0) return veldar::tool::EXIT_DONE;
        std::fputs(veldar::tool::suggest_meant(app).c_str(), stderr);
        return veldar::tool::EXIT_USAGE;
    }
    if (app.get_subcommands().empty()) {
        std::fputs("a subcommand is required\nRun with --help for more information.\n", stderr);
        return veldar::tool::EXIT_USAGE;
    }
    return context.status;
}

}  // namespace

int main(int argc, char** argv) {
    veldar::osfile_open_standard();
    try {
        veldar::st_init("veldar");
        veldar::create_crash_dump_install_from_environment("veldar");
        return run(argc, argv);
    } catch (const veldar::tool::tool_failure& failure) {
        veldar::tool::say_trouble(failure.message);
        return failure.status;
    } catch (const std::bad_alloc&) {
        std::fputs("veldar: out of memory\n", stderr);
        return veldar::tool::EXIT_IO;
    } catch (const std::exception& error) {  // the parser's own and the library's, thread or locale
        std::fprintf(stderr, "veldar: %s\n", error.what());
        return veldar::tool::EXIT_IO;
    }
}
