// Following logs: what is written to them is loaded as it comes, through all rotations, until the command is ended.
//
// A log is followed by a descriptor, so that what is written to a file that has been renamed or removed is not missed,
// and files that rotation left beside it are looked through whenever it was rotated, and at the beginning: what a
// command that was killed had not loaded, or what came and went between two looks. Which lines are new tells the store
// alone, as for any load.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "tools/libveldar/load/loader.h"

namespace veldar::tool {

struct watch_options {
    std::vector<std::string> names;  // of logs, which need not be there yet, and patterns with * ? [
    std::chrono::milliseconds sync_every{5000};
};

// Loads and follows until the command is interrupted; what is there then is loaded for some seconds yet, and all of it is
// safe in the end. Throws failure_t for failures of the store: then what was loaded before the last sync is safe.
void watch_logs(loader* load, const watch_options& options);

}  // namespace veldar::tool
