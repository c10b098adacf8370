// Waiting until something changes in some directories: by inotify, or where that cannot be had by the clock.
#pragma once

#include <chrono>
#include <set>
#include <string>

#include "libzero/resource.h"

namespace veldar::tool {

struct change_notice {
    unique_fd names, writes;  // inotify: of names that come and go; of what is written to files
    bool is_complete = true;  // every directory is watched by it
};

// Sets the directories, whose changes from now on count. Throws std::bad_alloc.
void change_notice_set(change_notice* notice, const std::set<std::string>& directories);
// Waits until a name comes or goes, something is written (if `writes_count`), the time is up, or the command is
// interrupted. Whether a name may have come or gone since the last call. Throws failure_t.
bool change_notice_wait(change_notice* notice, bool writes_count, std::chrono::milliseconds time);

}  // namespace veldar::tool
