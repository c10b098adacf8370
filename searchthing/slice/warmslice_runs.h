// The runs of an open metric slice.
//
// The values of a slice with preambles are grouped by dimension set, the highest set first, and newest first within a
// set. Such a group is a run, and preamble p, an 8-byte record at the head of the values section, describes run p:
//
//   value number     0 ... P - 1      P ... | ...           | ... num_values - 1
//   what it is       preambles        run 0 | run 1 ...     | run P - 1
//   dimension set                     P - 1 | P - 2 ...     | 0
//
// The runs follow each other without gaps and none is empty. Posting lists of such a slice hold run numbers: a term of
// the list belongs to every value of the run.
#pragma once

#include <cstdint>

#include "searchthing/base/st_timeval.h"
#include "searchthing/columns/dimset_io.h"
#include "searchthing/slice/warmslice.h"
#include "searchthing/values/term_meta.h"

namespace veldar {

// A run of value numbers: `first` to `first + count - 1`.
struct warm_run_t {
    uint32_t first;
    uint32_t count;
};

// Whether the posting lists of the slice hold run numbers. Metric slices of older generations have no preambles; their
// lists hold value numbers.
bool warm_slice_has_runs(const WARM* warm);
// How many runs there are; 0 for a slice without.
uint32_t warm_slice_runs(const WARM* warm);
// The dimension set that the values of a run belong to.
inline uint32_t warm_slice_run_dimset(const WARM* warm, uint32_t run) {
    return warm_slice_runs(warm) - 1 - run;
}

// Decodes the preambles `first` to `first + count - 1`, which exist. WARM_RC_CORRUPT for one that does not continue the
// run before it or leaves the slice.
[[nodiscard]] int tsval_reader_fetch_preambles_multiple(WARM* warm, uint32_t first, warm_run_t* out, uint32_t count,
                                                        warm_rc_t* rc);
// The same for one run, through the handle's cache, which is filled 512 preambles at a time. WARM_RC_CORRUPT also for a
// run that does not exist.
[[nodiscard]] int warm_slice_run(WARM* warm, uint32_t run, warm_run_t* out, warm_rc_t* rc);

// The slice's dimension sets, opened on first use; the handle owns the reader. Null with a failure of
// st_warm_slice_dimsets_offset or ds_reader_open, or with WARM_RC_CORRUPT when there are not as many sets as runs.
ds_reader_t* st_warm_slice_dimset_reader(WARM* warm, warm_rc_t* rc);

// Whether the slice tells times finer than a second. Where it does not, times are compared by whole seconds, because a
// stored second may hide a later fraction.
bool warm_slice_keeps_subseconds(const WARM* warm);
// The first value of [low, high), newest first, that is earlier than the bound, or with `at_most` not later than it;
// `high` when none is. 0 or the failure of a read.
[[nodiscard]] int warm_slice_first_before(WARM* warm, uint32_t low, uint32_t high, const st_timeval_t& bound,
                                          bool at_most, uint32_t* out, warm_rc_t* rc);
// Inclusive time bounds hold every value of the slice, as far as its header tells.
bool warm_slice_within(const WARM* warm, const st_timeval_t& earliest, const st_timeval_t& latest);
// The upper bound that a search means: "no bound" is spelled INT32_MAX without nanoseconds and must not cut off the
// fractions of that second.
st_timeval_t warm_upper_bound(const st_timeval_t& latest);

// A term's record, computed from its posting list and the runs: the events of the runs that have the term, and the
// times of the newest and the oldest of them. For slices with runs. 0, WARM_RC_CORRUPT for a damaged list or preamble,
// or a status of the posting reader.
[[nodiscard]] int warm_slice_count_runs(WARM* warm, uint32_t term, st_query_info_t* stats, st_term_metadata* out,
                                        warm_rc_t* rc);

}  // namespace veldar
