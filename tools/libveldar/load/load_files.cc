#include "tools/libveldar/load/load_files.h"

#include <sys/stat.h>

#include <new>

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

namespace {

void give_up(const load_steps& steps, failure_t* failure) {
    progress_end();
    const std::string advice = steps.give_up(*failure);
    if (!advice.empty()) failure->message += "\nveldar: " + advice;
}

std::string summary_text(const load_report& report, const load_steps& steps) {
    std::string text = (work_stops() ? "interrupted; loaded so far: " : "") + steps.summary();
    if (report.unchanged == 1) text += " (1 file with nothing new)";
    if (report.unchanged > 1) text += " (" + std::to_string(report.unchanged) + " files with nothing new)";
    return text;
}

}  // namespace

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
        progress_end();
        say_summary(summary_text(*report, steps));
    } catch (failure_t& failure) {
        give_up(steps, &failure);
        throw;
    } catch (const std::bad_alloc&) {
        failure_t failure{OUTCOME_IO, "out of memory"};
        give_up(steps, &failure);
        throw failure;
    }
    if (work_stops()) return OUTCOME_INTERRUPTED;
    return incomplete ? OUTCOME_INCOMPLETE : OUTCOME_DONE;
}

}  // namespace veldar::tool
