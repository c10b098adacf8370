// veldar-optimize: one pass of merges over index directories, as a process of its own that a service starts. It tells
// what it does in the engine's log lines, on standard error.
#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <new>
#include <string>
#include <vector>

#include "libzero/osfile.h"
#include "searchthing/st_optimize.h"
#include "tools/veldar/commands/number_input.h"

namespace {

using veldar::tool::whole_number;

volatile std::sig_atomic_t interrupted = 0;
constexpr int OUTCOME_INTERRUPTED = 130;

void catch_interrupts() {
    struct sigaction action = {};
    action.sa_handler = [](int) { interrupted = 1; };
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
}

struct options {
    std::vector<std::string> directories;
    int mode = veldar::TSIDX_OPTIMIZE_TIERED;
    bool is_final = false;
    uint32_t max_iterations = 1000;
    uint32_t min_sources = veldar::TSIDX_OPTIMIZE_MIN_SOURCES;
    uint32_t lexicon_tpb = 64;
    uint32_t level = 4;
    uint64_t target_mib = 1500;
};

void add_options(CLI::App* app, options* o) {
    app->footer(
        "Exit status: 0, also when there was nothing to merge; 1 when a directory could not be merged; 2;\n"
        "130 when SIGINT or SIGTERM ended it: the merge at work is then undone.");
    app->add_option("DIR", o->directories, "Index directories")->required();
    app->add_option("--mode", o->mode,
                    "0 slices of one size (default), 1 all, 2 slices written in part mode, 3 dry run")
        ->transform(whole_number(0, 3));
    app->add_flag("--final", o->is_final, "Two slices of one size are enough; leaves the file optimize.result");
    app->add_option("--max-iterations", o->max_iterations, "Merges in a directory (default 1000)")
        ->transform(whole_number(0, UINT32_MAX));
    app->add_option("--min-sources", o->min_sources, "Slices of one size that are enough (default 8)")
        ->transform(whole_number(0, UINT32_MAX));
    app->add_option("--lex-tpb", o->lexicon_tpb, "Terms in a block of merged lexicons (default 64)")
        ->transform(whole_number(1, 65536));
    app->add_option("--level", o->level, "Write level of the directories (default 4)")->transform(whole_number(1, 4));
    app->add_option("--target-mib", o->target_mib, "Size up to which slices are merged (default 1500)")
        ->transform(whole_number(1, UINT32_MAX));
}

int run(const options& o) {
    veldar::TSWRITEOPTS opts;
    veldar::st_tsidx_write_opts_init(&opts, o.level, o.target_mib, 1, 1024);
    bool failed = false;
    for (const std::string& directory : o.directories) {
        veldar::warm_rc_t rc;
        const veldar::st_optimize_options_t options = {.write = &opts,
                                                       .mode = o.mode,
                                                       .is_final = o.is_final,
                                                       .max_iterations = o.mode == 3 ? 1 : o.max_iterations,
                                                       .min_sources = o.min_sources,
                                                       .terms_per_block = o.lexicon_tpb,
                                                       .stop = [](void*) { return interrupted != 0; }};
        const int result = veldar::st_optimize_directory(directory.c_str(), options, &rc);
        if (interrupted != 0) return OUTCOME_INTERRUPTED;
        if (result == 0) continue;
        failed = true;
        std::fprintf(stderr, "veldar-optimize: %s: status %i: %s\n", directory.c_str(), result, rc.message);
    }
    return failed ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
    veldar::osfile_open_standard();
    CLI::App app("Merges slices of index directories.", "veldar-optimize");
    options o;
    app.set_version_flag("--version", "veldar-optimize " VELDAR_VERSION);
    add_options(&app, &o);
    try {
        app.parse(argc, argv);
        veldar::st_init("veldar-optimize");
        veldar::stSetupLogger(0, 1);
        catch_interrupts();
        return run(o);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 2;
    } catch (const std::bad_alloc&) {
        std::fputs("veldar-optimize: out of memory\n", stderr);
        return 1;
    }
}
