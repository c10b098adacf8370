#include "searchthing/search/search_runs.h"

#include "libzero/assertions.h"

namespace veldar {

namespace {

// Without branches: which of two stretches is newer follows no pattern.
inline bool is_newer(const run_entrant_t& a, const run_entrant_t& b) {
    const bool later = a.newest > b.newest;
    const bool before = a.newest == b.newest && a.stretch < b.stretch;
    return static_cast<bool>(static_cast<unsigned>(later) | static_cast<unsigned>(before));
}

inline int read_newest(run_merge_t* merge, uint32_t stretch, run_entrant_t* out, warm_rc_t* rc) {
    const run_stretch_t& left = merge->stretches[stretch];
    *out = {0, stretch};
    if (left.next == left.end) return 0;
    st_time_t seconds = 0;
    uint64_t nanoseconds = 0;
    ST_TRY(tsval_reader_decode_time(&merge->warm->tsval_reader, left.next, &seconds, &nanoseconds, rc));
    // The sign bit flipped, so that times before the epoch come first; and above 0.
    out->newest = (uint64_t{static_cast<uint32_t>(seconds) ^ 0x80000000} << 32 | nanoseconds) + 1;
    return 0;
}

}  // namespace

void run_merge_open(run_merge_t* merge, WARM* warm, const st_timeval_t& earliest, const st_timeval_t& latest) {
    merge->warm = warm;
    merge->earliest = earliest;
    merge->latest = warm_upper_bound(latest);
    merge->whole = warm_slice_within(warm, earliest, latest);
    merge->stretches.clear();
    merge->winner = {};
}

int run_merge_bounds(run_merge_t* merge, uint32_t id, uint32_t* first, uint32_t* end, warm_rc_t* rc) {
    WARM* const warm = merge->warm;
    warm_run_t run = {id, 1};
    if (warm_slice_has_runs(warm)) ST_TRY(warm_slice_run(warm, id, &run, rc));
    *first = run.first;
    *end = run.first + run.count;
    if (merge->whole) return 0;
    ST_TRY(warm_slice_first_before(warm, *first, *end, merge->latest, true, first, rc));
    ST_TRY(warm_slice_first_before(warm, *first, *end, merge->earliest, false, end, rc));
    ST_ASSERT(run.first <= *first && *first <= *end && *end <= run.first + run.count);
    return 0;
}

int run_merge_add(run_merge_t* merge, uint32_t id, warm_rc_t* rc) {
    run_stretch_t stretch = {.next = 0, .end = 0, .run = id};
    ST_TRY(run_merge_bounds(merge, id, &stretch.next, &stretch.end, rc));
    if (stretch.next < stretch.end) merge->stretches.push_back(stretch);
    return 0;
}

int run_merge_start(run_merge_t* merge, warm_rc_t* rc) {
    const size_t n = merge->stretches.size();
    ST_ASSERT(n < UINT32_MAX);
    merge->losers.resize(n);
    if (n == 0) return 0;
    std::vector<run_entrant_t> winners(2 * n);
    for (uint32_t i = 0; i < n; i++) ST_TRY(read_newest(merge, i, &winners[n + i], rc));
    for (size_t match = n - 1; match > 0; match--) {
        const run_entrant_t& a = winners[2 * match];
        const run_entrant_t& b = winners[2 * match + 1];
        winners[match] = is_newer(a, b) ? a : b;
        merge->losers[match] = is_newer(a, b) ? b : a;
    }
    merge->winner = winners[1];
    ST_ASSERT(merge->winner.newest > 0);  // no stretch is empty yet
    return 0;
}

int run_merge_pass(run_merge_t* merge, warm_rc_t* rc) {
    run_entrant_t winner = merge->winner;
    merge->stretches[winner.stretch].next++;
    ST_TRY(read_newest(merge, winner.stretch, &winner, rc));
    run_entrant_t* const losers = merge->losers.data();
    for (size_t match = (merge->stretches.size() + winner.stretch) / 2; match > 0; match /= 2) {
        const run_entrant_t other = losers[match];
        const bool beaten = is_newer(other, winner);
        losers[match] = beaten ? winner : other;
        winner = beaten ? other : winner;
    }
    merge->winner = winner;
    return 0;
}

}  // namespace veldar
