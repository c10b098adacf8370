// veldar seal: seals the slices that have no seal, of an index from before seals, or one whose seal was lost.
#include <fmt/format.h>

#include "searchthing/upkeep/tsidx_upkeep.h"
#include "tools/libveldar/check/fsck_seal.h"
#include "tools/libveldar/check/fsck_slice.h"
#include "tools/libveldar/store/index_handle.h"
#include "tools/libveldar/store/observer.h"
#include "tools/libveldar/store/slices.h"
#include "tools/veldar/commands/command.h"
#include "tools/veldar/output/text_output.h"

namespace veldar::tool {

namespace {

constexpr uint32_t WRITE_LEVEL = 4;  // of the handle; sealing writes no slice

struct seal_options {
    std::string path;
    bool anew = false;
};

struct seal_command {
    const seal_options* options = nullptr;
    slice_set set;
    troubles trouble;
    uint64_t sealed = 0, had_one = 0, damaged = 0;
};

// Whether the slice is to be sealed: it has no seal, or none that counts any more.
bool wants_seal(seal_command* command, const std::string& path) {
    if (command->options->anew) return true;
    const seal_report report = fsck_seal(path);
    switch (report.state) {
        case SEAL_NONE:
            return true;
        case SEAL_HOLDS:
            command->had_one++;
            return false;
        case SEAL_DIFFERS:
            command->damaged++;
            say_trouble(path + ": " + seal_finding_text(report.findings.front()));
            return false;
        case SEAL_DAMAGED:
            command->damaged++;
            say_trouble(report.error + "; 'veldar seal --anew' makes one for a slice that is sound");
            return false;
        case SEAL_UNREADABLE:
            troubles_add(&command->trouble, report.error);
            return false;
        case SEAL_VANISHED:
            break;
    }
    return false;
}

// A seal says of bytes that they are whole: they are looked at first.
bool is_sound(seal_command* command, const std::string& path) {
    slice_image image;
    std::string error;
    const image_state_t state = slice_image_open(path, &image, &error);
    if (state == IMAGE_UNREADABLE) troubles_add(&command->trouble, error);
    if (state != IMAGE_OPEN) return false;
    fsck_report report;
    fsck_slice(image, &report);
    if (report.total == 0) return true;
    command->damaged++;
    say_trouble(path + ": " + fsck_finding_text(report.findings.front()));
    return false;
}

void seal_file(seal_command* command, const std::string& path) {
    if (!wants_seal(command, path) || !is_sound(command, path)) return;
    const size_t slash = path.rfind('/');
    const std::string directory = slash == std::string::npos ? "." : path.substr(0, std::max<size_t>(slash, 1));
    const tsidx_ptr tsidx = index_handle_open(directory, WRITE_LEVEL);
    const int status = st_tsidx_seal(tsidx.get(), path.substr(slash + 1).c_str());
    if (status < 0) return troubles_add(&command->trouble, path + ": " + index_failure_text(tsidx.get()));
    command->sealed += static_cast<uint64_t>(status);
}

int seal_run(const tool_context& context, const seal_options& options) {
    seal_command command;
    command.options = &options;
    command.set = slices_list_all(context.path_or_store(options.path));
    slices_tell_errors(command.set, &command.trouble);
    const tsidx_snapshot& slices = *command.set.slices;
    for (size_t i = 0; i < slices.size(); i++) seal_file(&command, slices.path(i));
    text_output out;
    output_open(&out, "never");
    output_put(&out, fmt::format("{} slices sealed, {} had a seal that holds\n", command.sealed, command.had_one));
    output_flush(&out);
    if (command.damaged != 0) return OUTCOME_DAMAGED;
    return command.trouble.incomplete ? OUTCOME_IO : OUTCOME_DONE;
}

}  // namespace

void add_seal_command(const command& veldar) {
    static seal_options options;
    const command seal = veldar.subcommand("seal", "Seal slices, so that fsck finds every changed bit");
    seal.footer(
        "Slices are sealed when they are written; this is for those that are not. Each is checked first.\n"
        "Exit status: 0, 4 when a slice or a seal is damaged, 5 when something could not be read or written.");
    seal.text("PATH", &options.path, "A store, an index directory or a slice (else the store)");
    seal.flag("--anew", &options.anew, "Replace seals, also those that are damaged or differ from a sound slice");
    seal.run([](const tool_context& context) { return seal_run(context, options); });
}

}  // namespace veldar::tool
