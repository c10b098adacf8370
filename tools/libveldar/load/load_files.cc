#include "tools/libveldar/load/load_files.h"

#include <sys/stat.h>

#include "tools/libveldar/store/disk_file.h"
#include "tools/libveldar/store/troubles.h"

namespace veldar::tool {

void load_begin(load_report* report, const std::vector<std::string>& files) {
    uint64_t total = 0;
    struct stat st;
    for (const std::string& file : files) {
        const bool regular = ::stat(file.c_str(), &st) == 0 && S_ISREG(st.st_mode);
        total += regular ? static_cast<uint64_t>(st.st_size) : 0;
    }
    report->shown = progress_begin(total);
}

void load_show(load_report* report, const log_input& input) {
    progress_show(&report->shown, report->bytes_done + log_input_stored_offset(input), report->totals.events);
}

outcome_t load_files(load_report* report, const std::vector<std::string>& files, const load_steps& steps) {
    bool incomplete = false;
    try {
        for (const std::string& file : files) {
            std::string error;
            if (work_stops()) break;
            if (steps.load(file, &error)) continue;
            say_trouble((file == "-" ? "standard input" : file) + ": " + error);
            incomplete = true;
        }
        steps.close();
    } catch (failure_t& failure) {
        progress_end();
        const std::string advice = steps.give_up(failure);
        if (!advice.empty()) failure.message += "\nveldar: " + advice;
        throw;
    }
    progress_end();
    std::string text = work_stops() ? "interrupted; loaded so far: " : "";
    text += steps.summary();
    if (report->unchanged == 1) text += " (1 file with nothing new)";
    if (report->unchanged > 1) text += " (" + std::to_string(report->unchanged) + " files with nothing new)";
    say_summary(text);
    if (work_stops()) return OUTCOME_INTERRUPTED;
    return incomplete ? OUTCOME_INCOMPLETE : OUTCOME_DONE;
}

}  // namespace veldar::tool
