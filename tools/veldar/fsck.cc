// veldar fsck: checks slices, and says what is wrong with them and where.
#include <fmt/format.h>

#include <CLI/CLI.hpp>

#include "tools/veldar/command.h"
#include "tools/veldar/fsck_slice.h"
#include "tools/veldar/slices.h"
#include "tools/veldar/store.h"
#include "tools/veldar/text_output.h"

namespace veldar {

namespace {

struct fsck_options {
    std::string path;
    bool quiet = false;
    uint32_t per_kind = 10;
};

struct fsck_totals {
    uint64_t slices = 0, damaged = 0, findings = 0;
    troubles trouble;
};

void put_line(text_output* out, const std::string& path, const std::string& text) {
    output_put(out, path);
    output_put(out, ": ");
    output_put(out, text);
    output_put(out, "\n");
    output_end_record(out);
}

void check_file(const std::string& path, const fsck_options& options, text_output* out, fsck_totals* totals) {
    slice_image image;
    std::string error;
    const image_state_t state = slice_image_open(path, &image, &error);
    if (state == IMAGE_VANISHED) return;  // deleted or merged since it was listed
    if (state == IMAGE_UNREADABLE) return troubles_add(&totals->trouble, error);
    fsck_report report;
    report.per_kind = options.per_kind;
    fsck_slice(image, &report);
    totals->slices++;
    totals->damaged += report.total != 0 ? 1 : 0;
    totals->findings += report.total;
    if (options.quiet) return;
    for (const fsck_finding& finding : report.findings) put_line(out, path, fsck_finding_text(finding));
    for (const std::string& line : fsck_more_lines(report)) put_line(out, path, line);
}

int fsck_run_all(const tool_context& context, const fsck_options& options) {
    const slice_set slices = slices_list(options.path.empty() ? store_choose(context.store) : options.path);
    text_output out;
    output_open(&out, "never");
    fsck_totals totals;
    for (const std::string& error : slices.errors) troubles_add(&totals.trouble, error);
    for (const slice_file& file : slices.files) check_file(file.path, options, &out, &totals);
    if (!options.quiet) {
        output_put(&out, totals.damaged == 0 ? fmt::format("{} slices checked, no faults\n", totals.slices)
                                             : fmt::format("{} slices checked, {} damaged, {} faults\n", totals.slices,
                                                           totals.damaged, totals.findings));
    }
    output_flush(&out);
    if (totals.trouble.incomplete) return EXIT_IO;
    return totals.damaged != 0 ? EXIT_DAMAGED : EXIT_DONE;
}

}  // namespace

void add_fsck_command(CLI::App* app, tool_context* context) {
    static fsck_options options;
    CLI::App* fsck = app->add_subcommand("fsck", "Check slices for damage");
    fsck->footer(
        "Prints one line a fault: the file, the section, the byte, the term, and what is wrong.\n"
        "Exit status: 0 no faults, 4 faults, 5 something could not be read.");
    fsck->add_option("PATH", options.path, "A store, an index directory or a slice (else the store)");
    fsck->add_flag("-q,--quiet", options.quiet, "Print nothing; the exit status tells");
    fsck->add_option("--max", options.per_kind, "Faults of one kind to print for a slice")
        ->check(CLI::Range(1u, 1u << 30))
        ->capture_default_str();
    fsck->callback([context] { context->status = fsck_run_all(*context, options); });
}

}  // namespace veldar
