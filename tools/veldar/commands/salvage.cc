// veldar salvage: puts what can be saved of damaged slices in their place, and the damaged ones aside.
#include "tools/libveldar/check/salvage.h"

#include <fmt/format.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <new>

#include "searchthing/upkeep/tsidx_upkeep.h"
#include "tools/libveldar/store/disk_file.h"
#include "tools/libveldar/store/index_handle.h"
#include "tools/libveldar/store/observer.h"
#include "tools/libveldar/store/slices.h"
#include "tools/veldar/commands/command.h"
#include "tools/veldar/output/event_output.h"
#include "tools/veldar/output/text_output.h"

namespace veldar::tool {

namespace {

constexpr uint32_t WRITE_LEVEL = 4;
constexpr size_t TERMS_NAMED = 2;
constexpr char QUARANTINE[] = "/quarantine";
constexpr char SCRATCH[] = "salvage.";  // and the number of the process
constexpr char REPAIRED[] = ".repaired";
constexpr unsigned MERGE_PAUSE_US = 100000;

struct salvage_options {
    std::string path;
    bool dry_run = false, proved_only = false;
};

struct salvage_command {
    const salvage_options* options = nullptr;
    slice_set set;
    text_output out;
    troubles trouble;
    uint64_t sound = 0, whole_again = 0, in_part = 0, given_up = 0, left_alone = 0;
};

// Removes what salvages that were killed left behind.
void remove_scratch(const std::string& quarantine) {
    for (const std::string& name : disk_list_directory(quarantine)) {
        pid_t process = 0;
        if (!name.starts_with(SCRATCH)) continue;
        const char* const end = name.data() + name.size();
        const auto number = std::from_chars(name.data() + sizeof SCRATCH - 1, end, process);
        if (number.ec != std::errc() || number.ptr != end || process <= 0) continue;
        const bool lives = process != ::getpid() && (::kill(process, 0) == 0 || errno != ESRCH);
        if (!lives) disk_remove_tree(quarantine + "/" + name);
    }
}

// Where slices are put aside, with a directory in it that goes with everything in it. Those that hold nothing go too.
struct quarantine_place {
    quarantine_place(const std::string& path, std::string aside_path) : quarantine(path), aside(std::move(aside_path)) {
        is_new = !disk_exists(quarantine);
        disk_make_directory(quarantine);
        remove_scratch(quarantine);
        scratch = quarantine + "/" + SCRATCH + std::to_string(::getpid());
        try {
            disk_make_directory(aside);
            disk_make_directory(scratch);
        } catch (...) {
            remove();
            throw;
        }
    }
    ~quarantine_place() { remove(); }
    quarantine_place(const quarantine_place&) = delete;
    quarantine_place& operator=(const quarantine_place&) = delete;
    void remove() const {
        disk_remove_tree(scratch);
        ::rmdir(aside.c_str());  // unless something lies in it
        if (is_new) ::rmdir(quarantine.c_str());
    }
    std::string quarantine, aside, scratch;
    bool is_new = false;
};

// The same where nothing is to be changed: it lies where other programs' passing files do.
struct passing_place {
    passing_place() {
        std::string pattern = std::filesystem::temp_directory_path().string() + "/veldar-salvage-XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr) fail_io("cannot make", pattern, errno);
        scratch = pattern;
    }
    ~passing_place() { disk_remove_tree(scratch); }
    passing_place(const passing_place&) = delete;
    passing_place& operator=(const passing_place&) = delete;
    std::string scratch;
};

std::string directory_of(const std::string& slice) {
    const size_t slash = slice.rfind('/');
    return slash == std::string::npos ? "." : slice.substr(0, std::max<size_t>(slash, 1));
}

int64_t modified_ns(const std::string& path) {
    struct stat status;
    if (::stat(path.c_str(), &status) != 0) throw failure_t{OUTCOME_IO, path + ": " + std::strerror(errno)};
    return int64_t{status.st_mtim.tv_sec} * 1000000000 + status.st_mtim.tv_nsec;
}

std::string range_text(const salvage_command& command, const salvage_report& report) {
    return fmt::format("between {} and {}", event_time_text(report.earliest, 0, command.out.zone),
                       event_time_text(report.latest, 0, command.out.zone));
}

std::string terms_text(const salvage_report& report) {
    std::string text;
    for (size_t i = 0; i < std::min(TERMS_NAMED, report.lost_terms.size()); i++) {
        text += fmt::format("{}\"{}\"", text.empty() ? " (" : ", ", fsck_term_text(report.lost_terms[i]));
    }
    if (text.empty()) return text;
    return text + (report.terms_lost > TERMS_NAMED ? ", ...)" : ")");
}

std::string verdict_text(const salvage_command& command, const salvage_report& report) {
    if (report.is_repaired) return fmt::format("whole again, {} bits were flipped back", report.repaired_bits);
    if (report.is_hopeless && report.is_metric) return report.error + "; left as it is";
    if (report.is_hopeless) {
        return fmt::format("nothing can be saved: {}; its events lay {}", report.error, range_text(command, report));
    }
    std::string text = fmt::format("{} events saved; lost: {} events, {} of {} terms{}, {}", report.events,
                                   report.events_lost, report.terms_lost, report.terms + report.terms_lost,
                                   terms_text(report), range_text(command, report));
    if (report.repaired_bits != 0) text += fmt::format("; {} bits were flipped back", report.repaired_bits);
    return text;
}

bool is_nothing_lost(const salvage_report& report) {
    return report.is_repaired || (!report.is_hopeless && report.events_lost == 0 && report.terms_lost == 0);
}

void count(salvage_command* command, const salvage_report& report) {
    if (report.is_hopeless && report.is_metric) {
        command->left_alone++;
    } else if (report.is_hopeless) {
        command->given_up++;
    } else if (is_nothing_lost(report)) {
        command->whole_again++;
    } else {
        command->in_part++;
    }
}

void replace(const std::string& slice, const std::string& aside, const salvage_report& report, int64_t modified) {
    if (report.is_hopeless && report.is_metric) return;
    const tsidx_ptr tsidx = index_handle_open(directory_of(slice), WRITE_LEVEL);
    const std::string name = slice.substr(slice.rfind('/') + 1);
    const char* const by = report.file.empty() ? nullptr : report.file.c_str();
    const auto put = [&] { return st_tsidx_replace(tsidx.get(), name.c_str(), by, aside.c_str(), modified); };
    int status = put();
    if (status == WARM_RC_MANIFEST_EXISTS) say_trouble("waiting for a merge in " + directory_of(slice));
    while (status == WARM_RC_MANIFEST_EXISTS && !work_stops()) {
        ::usleep(MERGE_PAUSE_US);
        status = put();
    }
    if (status != 0) throw failure_t{OUTCOME_IO, slice + ": " + index_failure_text(tsidx.get())};
    if (!is_nothing_lost(report)) return;
    // There is nothing to rebuild. Where that is not told, it is rebuilt all the same.
    const std::string kept = aside + "/" + name;
    if (std::rename(kept.c_str(), (kept + REPAIRED).c_str()) != 0) {
        throw failure_t{OUTCOME_IO, kept + ": " + std::strerror(errno)};
    }
}

void salvage_file(salvage_command* command, const std::string& slice) {
    const int64_t modified = modified_ns(slice);
    const std::string directory = directory_of(slice), &store = command->set.store;
    const std::string quarantine = (store.empty() ? directory : store) + QUARANTINE;
    salvage_report report;
    if (command->options->dry_run) {
        report = salvage_slice(slice, passing_place().scratch, command->options->proved_only);
    } else {
        const std::string bucket = std::filesystem::canonical(directory).filename();  // it may be "."
        const quarantine_place place(quarantine, store.empty() ? quarantine : quarantine + "/" + bucket);
        report = salvage_slice(slice, place.scratch, command->options->proved_only);
        if (!report.is_sound) replace(slice, place.aside, report, modified);
    }
    if (report.is_sound) {
        command->sound++;
        return;
    }
    count(command, report);
    output_put(&command->out, slice + ": " + verdict_text(*command, report) + "\n");
    output_end_record(&command->out);
}

int salvage_run(const tool_context& context, const salvage_options& options) {
    salvage_command command;
    command.options = &options;
    command.set = slices_list_all(context.path_or_store(options.path));
    output_open(&command.out, "never");
    slices_tell_errors(command.set, &command.trouble);
    for (size_t i = 0; i < command.set.slices->size(); i++) {
        const std::string path = command.set.slices->path(i);
        try {
            salvage_file(&command, path);
        } catch (const failure_t& failure) {
            troubles_add(&command.trouble, failure.message);
        } catch (const std::bad_alloc&) {
            troubles_add(&command.trouble, path + ": out of memory");
        }
    }
    const uint64_t damaged = command.whole_again + command.in_part + command.given_up + command.left_alone;
    output_put(&command.out, fmt::format("{} slices sound, {} damaged", command.sound, damaged));
    if (damaged != 0) {
        output_put(&command.out, fmt::format(": {} whole again, {} saved in part, {} lost", command.whole_again,
                                             command.in_part, command.given_up + command.left_alone));
        if (options.dry_run) output_put(&command.out, "; nothing was changed");
    }
    output_put(&command.out, "\n");
    output_flush(&command.out);
    if (command.trouble.incomplete) return OUTCOME_IO;
    return damaged == command.whole_again ? OUTCOME_DONE : OUTCOME_DAMAGED;
}

}  // namespace

void add_salvage_command(const command& veldar) {
    static salvage_options options;
    const command salvage = veldar.subcommand("salvage", "Save what can be saved of damaged slices");
    salvage.footer(
        "A damaged slice makes way for a new one with what its seal proves or what is sound, and goes to quarantine/ "
        "in\n"
        "the store or directory. Says what is lost. Single flipped bits are flipped back where a seal tells them.\n"
        "Exit status: 0 nothing lost, 4 something lost, 5 something could not be read or written.");
    salvage.text("PATH", &options.path, "A store, an index directory or a slice (else the store)");
    salvage.flag("--proved-only", &options.proved_only,
                 "Save nothing of a damaged block, also where only a part of it is seen to be wrong");
    salvage.flag("--dry-run", &options.dry_run, "Only say what would be saved and lost");
    salvage.run([](const tool_context& context) { return salvage_run(context, options); });
}

}  // namespace veldar::tool
