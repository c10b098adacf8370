// What the two loaders share: how they tell of their work, and a run over the files of a command line.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tools/libveldar/load/progress.h"
#include "tools/libveldar/store/failure.h"
#include "tools/libveldar/store/log_input.h"

namespace veldar::tool {

struct load_report {
    load_totals totals;
    progress shown;
    uint64_t bytes_done = 0;  // of the files as they lie on the disk
    uint64_t unchanged = 0;   // files with nothing new
    std::vector<std::string> slices_before;
};

// Begins the progress of loading these files.
void load_begin(load_report* report, const std::vector<std::string>& files);
// Shows how far the load is, in this file.
void load_show(load_report* report, const log_input& input);

// The loader's own steps. They throw failure_t for failures of the index.
struct load_steps {
    // One file; false with a message when not all of it could be read.
    std::function<bool(const std::string& path, std::string* error)> load;
    std::function<void()> close;
    std::function<std::string()> summary;  // of what was loaded
    // After a failure: what the user can do, empty for nothing to say. Throws std::bad_alloc at most.
    std::function<std::string(const failure_t& failure)> give_up;
};

// Loads file after file, until the command is interrupted, and tells of it. Returns OUTCOME_DONE,
// OUTCOME_INCOMPLETE or OUTCOME_INTERRUPTED, and throws what the steps throw.
outcome_t load_files(load_report* report, const std::vector<std::string>& files, const load_steps& steps);

}  // namespace veldar::tool
