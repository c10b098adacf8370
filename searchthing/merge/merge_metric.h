// The merge of metric slices: dimension sets, runs of values, and the column store.
//
// The sources' sets, with their terms in merged numbers, become one section in which every set is there once. A set's
// values come from the sources that have it and form one run, newest first; equal times stay in the order of the
// sources, and no two values become one. Posting lists hold run numbers, so a source's list moves by a map of runs:
//
//   old run p  ->  set P - 1 - p of the source  ->  merged set m  ->  new run P' - 1 - m
//
// The map ascends, as do the maps of terms and of values of one source.
#pragma once

#include <cstdint>
#include <vector>

#include "libzero/resource.h"
#include "searchthing/base/st_timeval.h"
#include "searchthing/base/stop_check.h"
#include "searchthing/base/warm_rc.h"
#include "searchthing/columns/dimset_io.h"
#include "searchthing/slice/warmslice_runs.h"
#include "searchthing/values/term_meta.h"

namespace veldar {

struct warm_merge_t;
struct merge_list_t;

// The times of a run's oldest and newest value.
struct merge_span_t {
    st_time_t earliest, latest;
};

struct merge_metric_source_t {
    buffer<uint32_t> terms;      // old term number -> merged term number
    buffer<warm_run_t> runs;     // by run, in the numbering of the source
    buffer<merge_span_t> spans;  // by run, once the values are written
    buffer<uint32_t> values;     // old value number - old runs -> merged value number
};

// A run of the target.
struct merge_metric_run_t {
    uint32_t count;
    uint32_t end;  // one past its last value
    st_time_t earliest, latest;
};

struct merge_metric_t {
    std::vector<merge_metric_source_t> sources;  // parallel to those of the merge
    ds_writer_t dimsets;
    ds_merge_info_t info;
    buffer<merge_metric_run_t> runs;  // once the values are written
};

// Whether any value of a slice has milliseconds other than 0. 0, WARM_RC_CANCELLED or the failure of a decoding.
[[nodiscard]] int merge_metric_find_milliseconds(WARM* warm, stop_check* stop, bool* found, warm_rc_t* rc);
// Makes the sources' term maps, which the merge of the lexicons then fills.
[[nodiscard]] int merge_metric_open(warm_merge_t* merge, warm_rc_t* rc);
// Merges the sets, numbers the runs (the sources' maps become maps of runs) and fills in the header's counts, widths
// and sizes of values. The term maps are filled. Once for a merge. WARM_RC_CORRUPT for damage, WARM_RC_DOES_NOT_FIT for
// what the format cannot hold.
[[nodiscard]] int merge_metric_plan(warm_merge_t* merge, warm_rc_t* rc);
// Writes preambles, values and companions, and numbers the values. WARM_RC_CORRUPT for a run whose values are not
// newest first, WARM_RC_INVALID_ARGUMENT for times outside the slice's, WARM_RC_WRITE.
[[nodiscard]] int merge_metric_values_write(warm_merge_t* merge, int fd, warm_rc_t* rc);
// Writes the dimension sets behind the posting lists, which end at `offset`, and the column store behind them; fills in
// the header's reference and leaves `offset` at the end of the file. The values have been written.
[[nodiscard]] int merge_metric_sections_write(warm_merge_t* merge, int fd, uint64_t* offset, warm_rc_t* rc);
// Whether the finished slice has these sets and this column store. WARM_RC_CORRUPT, or the status of what does not
// open.
[[nodiscard]] int merge_metric_verify(const warm_merge_t* merge, WARM* target, warm_rc_t* rc);

// The record of a merged list of runs. Their values have been written.
st_term_metadata merge_metric_count(const merge_metric_t& metric, const merge_list_t& list);

}  // namespace veldar
