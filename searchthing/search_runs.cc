#include "searchthing/search_runs.h"

#include <algorithm>

namespace veldar {

namespace {

bool is_newer(const run_stretch_t& a, const run_stretch_t& b) {
    return a.newest != b.newest ? a.newest > b.newest : a.run < b.run;
}

int read_newest(WARM* warm, run_stretch_t* stretch, warm_rc_t* rc) {
    st_time_t seconds = 0;
    uint64_t nanoseconds = 0;
    ST_TRY(tsval_reader_decode_time(&warm->tsval_reader, stretch->next, &seconds, &nanoseconds, rc));
    // The sign bit flipped, so that times before the epoch come first.
    stretch->newest = uint64_t{static_cast<uint32_t>(seconds) ^ 0x80000000} << 32 | nanoseconds;
    return 0;
}

// Moves the first stretch down to where it belongs.
void sift_down(std::vector<run_stretch_t>* heap) {
    const size_t size = heap->size();
    run_stretch_t* const at = heap->data();
    const run_stretch_t moved = at[0];
    size_t hole = 0;
    for (size_t child = 1; child < size; child = 2 * hole + 1) {
        if (child + 1 < size && is_newer(at[child + 1], at[child])) child++;
        if (!is_newer(at[child], moved)) break;
        at[hole] = at[child];
        hole = child;
    }
    at[hole] = moved;
}

}  // namespace

void run_merge_open(run_merge_t* merge, WARM* warm, const st_timeval_t& earliest, const st_timeval_t& latest) {
    merge->warm = warm;
    merge->earliest = earliest;
    merge->latest = warm_upper_bound(latest);
    merge->whole = warm_slice_within(warm, earliest, latest);
    merge->heap.clear();
}

int run_merge_bounds(run_merge_t* merge, uint32_t id, uint32_t* first, uint32_t* end, warm_rc_t* rc) {
    WARM* const warm = merge->warm;
    warm_run_t run = {id, 1};
    if (warm_slice_has_runs(warm)) ST_TRY(warm_slice_run(warm, id, &run, rc));
    *first = run.first;
    *end = run.first + run.count;
    if (merge->whole) return 0;
    ST_TRY(warm_slice_first_before(warm, *first, *end, merge->latest, true, first, rc));
    return warm_slice_first_before(warm, *first, *end, merge->earliest, false, end, rc);
}

int run_merge_add(run_merge_t* merge, uint32_t id, warm_rc_t* rc) {
    run_stretch_t stretch = {};
    ST_TRY(run_merge_bounds(merge, id, &stretch.next, &stretch.end, rc));
    if (stretch.next >= stretch.end) return 0;
    stretch.run = id;
    ST_TRY(read_newest(merge->warm, &stretch, rc));
    merge->heap.push_back(stretch);
    return 0;
}

void run_merge_start(run_merge_t* merge) {
    std::make_heap(merge->heap.begin(), merge->heap.end(),
                   [](const run_stretch_t& a, const run_stretch_t& b) { return is_newer(b, a); });
}

int run_merge_pass(run_merge_t* merge, warm_rc_t* rc) {
    run_stretch_t* const top = &merge->heap.front();
    if (++top->next < top->end) {
        ST_TRY(read_newest(merge->warm, top, rc));
    } else {
        *top = merge->heap.back();
        merge->heap.pop_back();
        if (merge->heap.empty()) return 0;
    }
    sift_down(&merge->heap);
    return 0;
}

}  // namespace veldar
