// veldar fsck: checks slices against their seals and for what a slice must hold, and says what is wrong and where.
#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <set>

#include "tools/libveldar/check/fsck_seal.h"
#include "tools/libveldar/check/fsck_slice.h"
#include "tools/libveldar/check/fsck_source.h"
#include "tools/libveldar/check/fsck_store.h"
#include "tools/libveldar/store/slices.h"
#include "tools/libveldar/store/store.h"
#include "tools/veldar/commands/command.h"
#include "tools/veldar/output/event_output.h"
#include "tools/veldar/output/text_output.h"

namespace veldar::tool {

namespace {

struct fsck_options {
    std::string path;
    bool quiet = false, quick = false, json = false, against_source = false;
    uint64_t sample = 1;
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
    uint64_t checked = 0, damaged = 0, faults = 0, unsealed = 0;
};

// What was found in one file.
struct file_verdict {
    seal_report seal;
    fsck_report structure;
    std::vector<std::string> store;  // what the rest of the store does not know of its events
    uint64_t faults = 0;
};

void put_line(fsck_command* command, const std::string& path, const std::string& text) {
    if (command->options->quiet) return;
    if (command->options->json) {
        std::string line = "{\"path\":";
        json_put_string(&line, path);
        line += ",\"fault\":";
        json_put_string(&line, text);
        output_put(&command->out, line + "}\n");
    } else {
        output_put(&command->out, path + ": " + text + "\n");
    }
    output_end_record(&command->out);
}

const char* seal_text(const file_verdict& verdict) {
    switch (verdict.seal.state) {
        case SEAL_HOLDS:
            return "holds";
        case SEAL_DIFFERS:
            return "differs";
        case SEAL_DAMAGED:
            return "damaged";
        default:
            return "none";
    }
}

// Begins the next object of a list of findings.
void put_finding_json(std::string* out, std::string_view check, std::string_view section, uint64_t offset) {
    if (out->back() != '[') *out += ',';
    *out += fmt::format("{{\"check\":\"{}\",\"section\":", check);
    json_put_string(out, section);
    *out += fmt::format(",\"offset\":{}", offset);
}

void put_text_json(std::string* out, std::string_view name, std::string_view text) {
    if (text.empty()) return;
    *out += fmt::format(",\"{}\":", name);
    json_put_string(out, text);
}

// One object a slice, sound ones too.
void put_json(fsck_command* command, const std::string& path, const file_verdict& verdict) {
    std::string out = "{\"path\":";
    json_put_string(&out, path);
    out += fmt::format(",\"seal\":\"{}\",\"faults\":{},\"findings\":[", seal_text(verdict), verdict.faults);
    for (const seal_finding& finding : verdict.seal.findings) {
        put_finding_json(&out, "seal", finding.section, finding.offset);
        out += fmt::format(",\"bytes\":{}", finding.size);
        put_text_json(&out, "place", finding.place);
        out += '}';
    }
    for (const fsck_finding& finding : verdict.structure.findings) {
        put_finding_json(&out, "structure", slice_section_name(finding.section), finding.offset);
        if (finding.has_term) out += fmt::format(",\"term_number\":{}", finding.term);
        put_text_json(&out, "term", finding.term_text);
        put_text_json(&out, "what", finding.what);
        put_text_json(&out, "detail", finding.detail);
        out += '}';
    }
    out += "]";
    put_text_json(&out, "seal_error", verdict.seal.error);
    if (!verdict.store.empty()) out += ",\"store\":[";
    for (const std::string& line : verdict.store) {
        if (out.back() != '[') out += ',';
        json_put_string(&out, line);
    }
    if (!verdict.store.empty()) out += ']';
    output_put(&command->out, out + "}\n");
    output_end_record(&command->out);
}

void put_text(fsck_command* command, const std::string& path, const file_verdict& verdict) {
    if (verdict.seal.state == SEAL_DAMAGED)
        put_line(command, path, verdict.seal.error + "; for a sound slice 'veldar seal --anew' makes one");
    const size_t most = command->options->per_kind, found = verdict.seal.findings.size();
    for (size_t i = 0; i < std::min(most, found); i++) {
        put_line(command, path, seal_finding_text(verdict.seal.findings[i]));
    }
    if (found > most) put_line(command, path, fmt::format("{} more pieces are not what was sealed", found - most));
    for (const fsck_finding& finding : verdict.structure.findings) put_line(command, path, fsck_finding_text(finding));
    for (const std::string& line : fsck_more_lines(verdict.structure)) put_line(command, path, line);
    for (const std::string& line : verdict.store) put_line(command, path, line);
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
    if (slices.store.empty()) return;  // a bucket that was taken out of its store
    if (std::none_of(slices.directories.begin(), slices.directories.end(), has_sources)) return;
    std::string error;
    command->has_names = store_names_read(slices.store, &command->names, &error);
    if (!command->has_names) return troubles_add(&command->trouble, error);
    for (size_t i = 0; i < slices.directories.size(); i++) {
        if (!slices.directories[i].has_sources) continue;
        const std::string path = slices.directories[i].path + "/source.map";
        errno = 0;
        command->has_map[i] = source_map_open(&command->maps[i], path, false, &error);
        if (command->has_map[i]) continue;
        if (errno != 0) {
            troubles_add(&command->trouble, error);
        } else {
            put_store_fault(command, error);
        }
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

// What a slice must hold, and the rest of the store of it. False when the file has gone.
bool check_structure(fsck_command* command, size_t i, const std::string& path, file_verdict* verdict) {
    slice_image image;
    std::string error;
    const image_state_t state = slice_image_open(path, &image, &error);
    if (state == IMAGE_VANISHED) return false;
    if (state == IMAGE_UNREADABLE) {
        troubles_add(&command->trouble, error);
        return true;
    }
    verdict->structure.per_kind = command->options->per_kind;
    fsck_slice(image, &verdict->structure);
    if (verdict->structure.total == 0) verdict->store = check_events(command, i);
    verdict->faults += verdict->structure.total + verdict->store.size();
    return true;
}

// False when the file was deleted or merged since it was listed.
bool check_file(fsck_command* command, size_t i, const std::string& path) {
    file_verdict verdict;
    verdict.seal = fsck_seal(path);
    if (verdict.seal.state == SEAL_VANISHED) return false;
    if (verdict.seal.state == SEAL_UNREADABLE) troubles_add(&command->trouble, verdict.seal.error);
    verdict.faults = verdict.seal.findings.size() + (verdict.seal.state == SEAL_DAMAGED ? 1 : 0);
    if (!command->options->quick && !check_structure(command, i, path, &verdict)) return false;
    command->checked++;
    command->unsealed += verdict.seal.state == SEAL_NONE ? 1 : 0;
    command->damaged += verdict.faults != 0 ? 1 : 0;
    command->faults += verdict.faults;
    if (command->options->quiet) return true;
    if (command->options->json) {
        put_json(command, path, verdict);
    } else {
        put_text(command, path, verdict);
    }
    return true;
}

// One file more than memory holds must not keep the others from being checked.
bool check_file_or_tell(fsck_command* command, size_t i, const std::string& path) {
    std::string why = path + ": out of memory";
    try {
        return check_file(command, i, path);
    } catch (const std::bad_alloc&) {
    } catch (const failure_t& failure) {
        why = failure.message.starts_with(path) ? failure.message : path + ": " + failure.message;
    }
    troubles_add(&command->trouble, why);
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

std::string summary(const fsck_command& command) {
    std::string text = fmt::format("{} slices checked, ", command.checked);
    text += command.faults == 0 ? std::string("no faults")
                                : fmt::format("{} damaged, {} faults", command.damaged, command.faults);
    if (command.unsealed != 0) text += fmt::format("; {} without a seal", command.unsealed);
    return text + "\n";
}

// The events of every slice that can be read against their logs.
void compare_with_source(fsck_command* command) {
    source_check check;
    check.every = command->options->sample;
    check.most_lines = command->options->per_kind;
    source_check_open(&check, &command->set, &command->trouble);
    for (size_t i = 0; i < command->set.slices->size(); i++) {
        const uint32_t directory = command->set.slices->source(i);
        snapshot_slice_ptr warm;
        std::string error;
        warm_rc_t rc;
        if (!command->set.directories[directory].has_sources) continue;
        const slice_state_t state = slice_open(command->set, i, &warm, &error);
        if (state == SLICE_UNREADABLE) troubles_add(&command->trouble, error);
        if (state != SLICE_OPEN || source_check_slice(&check, warm.get(), directory, &rc) == 0) continue;
        slice_tell(command->set.slices->path(i), rc, &command->trouble);
    }
    command->faults += check.differing;
    if (command->options->quiet) return;
    for (const std::string& line : check.lines) put_line(command, "source", line);
    if (command->options->json) return;
    output_put(&command->out, fmt::format("{} events compared with their logs, {} differ, {} cannot be read there\n",
                                          check.compared, check.differing, check.unreadable));
}

int fsck_run_all(const tool_context& context, const fsck_options& options) {
    fsck_command command;
    command.options = &options;
    command.set = slices_list_all(context.path_or_store(options.path));
    output_open(&command.out, "never");
    if (!options.quick) open_store(&command);
    slices_hold(command.set, &command.trouble, [&] { return check_all(&command); });
    if (options.against_source) compare_with_source(&command);
    if (!options.quiet && !options.json) output_put(&command.out, summary(command));
    output_flush(&command.out);
    if (command.trouble.incomplete) return OUTCOME_IO;
    return command.faults != 0 ? OUTCOME_DAMAGED : OUTCOME_DONE;
}

}  // namespace

void add_fsck_command(const command& veldar) {
    static fsck_options options;
    const command fsck = veldar.subcommand("fsck", "Check slices for damage");
    fsck.footer(
        "Compares each slice with its seal, if it has one, and checks what a slice must hold. Prints one line a "
        "fault:\n"
        "the file, the section, the byte, the term, and what is wrong.\n"
        "Exit status: 0 no faults, 4 faults, 5 something could not be read.");
    fsck.text("PATH", &options.path, "A store, an index directory or a slice (else the store)");
    fsck.flag("-q,--quiet", &options.quiet, "Print nothing; the exit status tells");
    fsck.flag("--quick", &options.quick, "Compare with the seals alone, as fast as the disk reads");
    fsck.flag("--json", &options.json, "Print one JSON object a slice, sound ones too");
    fsck.flag("--against-source", &options.against_source,
              "Read the logs again and compare times and terms with the index");
    fsck.number("--sample", &options.sample, 1, 1u << 30, "With --against-source: one in so many events")
        .with_default();
    fsck.number("--max", &options.per_kind, 1, 1u << 30, "Faults of one kind to print for a slice").with_default();
    fsck.run([](const tool_context& context) { return fsck_run_all(context, options); });
}

}  // namespace veldar::tool
