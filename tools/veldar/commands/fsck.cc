// veldar fsck: checks slices, and says what is wrong with them and where.
#include <fmt/format.h>

#include <algorithm>
#include <new>
#include <set>

#include "tools/veldar/check/fsck_slice.h"
#include "tools/veldar/check/fsck_store.h"
#include "tools/veldar/commands/command.h"
#include "tools/veldar/output/text_output.h"
#include "tools/veldar/store/slices.h"
#include "tools/veldar/store/store.h"

namespace veldar::tool {

namespace {

struct fsck_options {
    std::string path;
    bool quiet = false;
    uint32_t per_kind = 10;
};

struct fsck_command {
    const fsck_options* options = nullptr;
    slice_set set;
    std::set<std::string> seen;  // the files that were looked at
    store_names names;           // of the store
    bool has_names = false;
    std::vector<source_map> maps;  // by directory
    std::vector<bool> has_map;
    text_output out;
    troubles trouble;
    uint64_t checked = 0, damaged = 0, faults = 0;
};

void put_line(fsck_command* command, const std::string& path, const std::string& text) {
    if (command->options->quiet) return;
    output_put(&command->out, path + ": " + text + "\n");
    output_end_record(&command->out);
}

// A damaged file beside the slices.
void put_store_fault(fsck_command* command, const std::string& text) {
    command->damaged++;
    command->faults++;
    put_line(command, command->set.store, text);
}

void open_store(fsck_command* command) {
    const slice_set& slices = command->set;
    command->maps.resize(slices.directories.size());
    command->has_map.resize(slices.directories.size());
    const auto has_sources = [](const slice_directory& directory) { return directory.has_sources; };
    if (std::none_of(slices.directories.begin(), slices.directories.end(), has_sources)) return;
    std::string error;
    command->has_names = store_names_read(slices.store, &command->names, &error);
    if (!command->has_names) return troubles_add(&command->trouble, error);
    for (size_t i = 0; i < slices.directories.size(); i++) {
        if (!slices.directories[i].has_sources) continue;
        const std::string path = slices.directories[i].path + "/source.map";
        command->has_map[i] = source_map_open(&command->maps[i], path, false, &error);
        if (!command->has_map[i]) put_store_fault(command, error);
    }
}

// The events of a slice in which nothing is wrong, against the rest of the store.
std::vector<std::string> check_events(fsck_command* command, size_t i) {
    snapshot_slice_ptr warm;
    std::string error;
    const uint32_t directory = command->set.slices->source(i);
    if (!command->has_names || !command->has_map[directory]) return {};
    if (slice_open(command->set, i, &warm, &error) != SLICE_OPEN) return {};
    return fsck_store_slice(warm.get(), command->maps[directory], command->names);
}

// False when the file was deleted or merged since it was listed.
bool check_file(fsck_command* command, size_t i, const std::string& path) {
    slice_image image;
    std::string error;
    const image_state_t state = slice_image_open(path, &image, &error);
    if (state == IMAGE_VANISHED) return false;
    if (state == IMAGE_UNREADABLE) {
        troubles_add(&command->trouble, error);
        return true;
    }
    fsck_report report;
    report.per_kind = command->options->per_kind;
    fsck_slice(image, &report);
    std::vector<std::string> lines;
    for (const fsck_finding& finding : report.findings) lines.push_back(fsck_finding_text(finding));
    for (const std::string& line : fsck_more_lines(report)) lines.push_back(line);
    if (report.total == 0) {
        lines = check_events(command, i);
        report.total = lines.size();
    }
    command->checked++;
    command->damaged += report.total != 0 ? 1 : 0;
    command->faults += report.total;
    for (const std::string& line : lines) put_line(command, path, line);
    return true;
}

// One file more than memory holds must not keep the others from being checked.
bool check_file_or_tell(fsck_command* command, size_t i, const std::string& path) {
    std::string why = "out of memory";
    try {
        return check_file(command, i, path);
    } catch (const std::bad_alloc&) {
    } catch (const tool_failure& failure) {
        why = failure.message;
    }
    troubles_add(&command->trouble, path + ": " + why);
    return true;
}

// Every file once. Those that have gone meanwhile were merged into others, which a new list has.
int64_t check_all(fsck_command* command) {
    const tsidx_snapshot& slices = *command->set.slices;
    bool vanished = false;
    for (size_t i = 0; i < slices.size(); i++) {
        const std::string path = slices.path(i);
        if (command->seen.contains(path)) continue;
        if (check_file_or_tell(command, i, path)) {
            command->seen.insert(path);
        } else {
            vanished = true;
        }
    }
    return vanished ? TSIDX_VANISHED : 0;
}

int fsck_run_all(const tool_context& context, const fsck_options& options) {
    fsck_command command;
    command.options = &options;
    command.set = slices_list_all(context.path_or_store(options.path));
    output_open(&command.out, "never");
    open_store(&command);
    slices_hold(command.set, &command.trouble, [&] { return check_all(&command); });
    if (!options.quiet) {
        output_put(&command.out, command.faults == 0 ? fmt::format("{} slices checked, no faults\n", command.checked)
                                                     : fmt::format("{} slices checked, {} damaged, {} faults\n",
                                                                   command.checked, command.damaged, command.faults));
    }
    output_flush(&command.out);
    if (command.trouble.incomplete) return EXIT_IO;
    return command.faults != 0 ? EXIT_DAMAGED : EXIT_DONE;
}

}  // namespace

void add_fsck_command(const command& veldar) {
    static fsck_options options;
    const command fsck = veldar.subcommand("fsck", "Check slices for damage");
    fsck.footer(
        "Prints one line a fault: the file, the section, the byte, the term, and what is wrong.\n"
        "Exit status: 0 no faults, 4 faults, 5 something could not be read.");
    fsck.text("PATH", &options.path, "A store, an index directory or a slice (else the store)");
    fsck.flag("-q,--quiet", &options.quiet, "Print nothing; the exit status tells");
    fsck.number("--max", &options.per_kind, 1, 1u << 30, "Faults of one kind to print for a slice").with_default();
    fsck.run([](const tool_context& context) { return fsck_run_all(context, options); });
}

}  // namespace veldar::tool
