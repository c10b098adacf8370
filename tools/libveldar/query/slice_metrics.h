// The sets and samples of one metric slice, in file order: set by set, and of a set newest first. Single files are read
// here; directories are asked through their handle (searchthing/reading/tsidx_read.h).
#pragma once

#include <cstdint>
#include <functional>
#include <string_view>
#include <vector>

#include "searchthing/slice/warmslice_runs.h"

namespace veldar::tool {

struct slice_metric_set {
    warm_run_t run;                            // its values
    std::vector<std::string_view> dimensions;  // terms without their leading blank
    std::vector<std::string_view> names;       // of its metrics
    std::vector<uint32_t> columns;             // their term numbers
};
struct slice_metric_sample {
    const slice_metric_set* set;
    size_t name;  // which of the set's
    st_time_t time;
    uint64_t nanoseconds;
    double value;
};

// Calls back for every set; a result other than 0 ends the walk. 0 or the status of a read; WARM_RC_UNSUPPORTED for a
// slice without runs, WARM_RC_CORRUPT for damage. May throw std::bad_alloc; the texts live until the walk ends.
[[nodiscard]] int slice_metric_sets(WARM* warm, const std::function<int(const slice_metric_set&)>& visit,
                                    warm_rc_t* rc);
// The same for every sample, event by event; false ends the walk.
[[nodiscard]] int slice_metric_samples(WARM* warm, const std::function<bool(const slice_metric_sample&)>& visit,
                                       warm_rc_t* rc);

}  // namespace veldar::tool
