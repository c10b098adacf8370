// Merging the slices of index directories, for `veldar optimize` and at the end of a load: one directory a thread, a
// progress line on a terminal, and what came of it.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace veldar::tool {

constexpr uint32_t MERGE_WRITE_LEVEL = 4;  // of the handles; what is worth a merge depends on it

struct merge_settings {
    bool everything = false;     // whatever fits the target size, and not only enough slices of one size
    bool is_final = false;       // two slices of one size are enough
    bool drops_deleted = false;  // and slices are rewritten for it
    bool spares_space = false;   // no merge takes most of a large directory: not all lies on the disk twice
    uint32_t min_sources = 0;    // of one size that are enough; 0: the engine's
    uint64_t least_bytes = 0;    // nothing smaller is merged
    uint64_t target_size = 0;    // bytes; 0: the engine's
    uint32_t jobs = 1;           // directories at a time
    bool shows_progress = true;
};

struct merge_totals {
    uint64_t merges = 0, slices_before = 0, slices_after = 0, bytes_before = 0, bytes_after = 0;
    std::vector<std::string> failures;  // "DIRECTORY: why"
    bool out_of_space = false;          // of disk or memory, in one of them
};

// Merges in each directory until nothing is left to merge, or until the command is interrupted: then the merges at work
// end without a trace. Throws std::bad_alloc only.
merge_totals merge_directories(const std::vector<std::string>& directories, const merge_settings& settings);
// What a load writes first takes up to twice the bytes that it is merged into, so a large load merges as it goes: the
// last slices of its directory, when there are enough of them, in a thread of its own. For one thread.
struct merge_aside {
    bool follows = false;  // many small slices come one after another: only many of them merge, at low priority
    std::atomic<bool> at_work = false;
    uint64_t merges = 0;
    std::jthread thread;
};
// Begins unless it is at work still. A failure is told by the merges after the load.
void merge_aside_begin(merge_aside* aside, const std::string& directory);
// Waits for its end. How many merges it made since the last call.
uint64_t merge_aside_wait(merge_aside* aside);
// Many loads, or a large one, leave many slices: merges them and says so. With merges made while
// loading, those that they left over as well. What is loaded is loaded, whatever becomes of this.
void merge_after_load(const std::vector<std::string>& directories, uint64_t merges_before = 0);
// "64 slices merged into 3, 120.3 MB into 80.1 MB, 5.2 s"
std::string merge_totals_text(const merge_totals& totals, double seconds);

}  // namespace veldar::tool
