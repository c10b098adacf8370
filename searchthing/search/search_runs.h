// The values of a metric slice that a search selects, newest first.
//
// In a metric slice only the values of one run are in time order. A search selects whole runs; what lies inside its
// time bounds is one stretch of each, found by two binary searches. A tournament of the stretches yields their values
// newest first, of equal times those of the run selected first: series that are sampled together take turns, and in a
// tournament a turn costs one comparison a round, whose operands do not depend on each other. In slices without runs
// each selected value is a stretch of its own.
#pragma once

#include <cstdint>
#include <vector>

#include "searchthing/slice/warmslice_runs.h"

namespace veldar {

// The values [next, end) of one run.
struct run_stretch_t {
    uint32_t next;
    uint32_t end;
    uint32_t run;
};

// A stretch with the time of its next value, as a number that grows with it; 0 when no value is left.
struct run_entrant_t {
    uint64_t newest;
    uint32_t stretch;
};

struct run_merge_t {
    WARM* warm = nullptr;
    st_timeval_t earliest;  // inclusive, as is the latest
    st_timeval_t latest;
    bool whole = false;                    // the bounds hold every value of the slice
    std::vector<run_stretch_t> stretches;  // in the order of selection; none is empty at first
    // With n stretches, stretch i enters at n + i, match m is played by the winners of 2m and 2m + 1, and losers[m] is
    // who lost it.
    std::vector<run_entrant_t> losers;
    run_entrant_t winner = {};
};

// Begins a merge over an open slice, which must outlive it: nothing is selected yet.
void run_merge_open(run_merge_t* merge, WARM* warm, const st_timeval_t& earliest, const st_timeval_t& latest);
// The stretch of a run inside the bounds; of a value, in slices without runs. It may be empty. 0, or WARM_RC_CORRUPT
// for damage.
[[nodiscard]] int run_merge_bounds(run_merge_t* merge, uint32_t id, uint32_t* first, uint32_t* end, warm_rc_t* rc);
// Selects a run, or a value. As run_merge_bounds; may throw std::bad_alloc.
[[nodiscard]] int run_merge_add(run_merge_t* merge, uint32_t id, warm_rc_t* rc);
// Everything has been selected. 0 or the failure of reading a time; may throw std::bad_alloc.
[[nodiscard]] int run_merge_start(run_merge_t* merge, warm_rc_t* rc);
// The newest value that is left, and its run: false when there is none.
inline bool run_merge_peek(const run_merge_t* merge, uint32_t* value, uint32_t* run) {
    if (merge->winner.newest == 0) return false;
    const run_stretch_t& stretch = merge->stretches[merge->winner.stretch];
    *value = stretch.next;
    *run = stretch.run;
    return true;
}
// The time of that value.
inline st_timeval_t run_merge_time(const run_merge_t* merge) {
    const uint64_t newest = merge->winner.newest - 1;
    return {static_cast<st_time_t>(static_cast<uint32_t>(newest >> 32) ^ 0x80000000), newest & 0xFFFFFFFF};
}
// Passes that value. 0 or the failure of reading the time of the one behind it.
[[nodiscard]] int run_merge_pass(run_merge_t* merge, warm_rc_t* rc);

}  // namespace veldar
