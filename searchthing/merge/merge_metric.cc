#include "searchthing/merge/merge_metric.h"

#include <algorithm>

#include "libzero/assertions.h"
#include "searchthing/merge/merge_internal.h"
#include "searchthing/merge/merge_lists.h"
#include "searchthing/values/values_writer.h"

namespace veldar {

namespace {

// The width that the entries of a companion array need. An entry of 32 bits decodes as 0: so wide an array holds
// nothing. Creation gives every array at least one bit a value, also where all are 0.
uint32_t used_nbits(const tsval_companion_t& array) {
    const bool any = std::any_of(array.bytes.begin(), array.bytes.end(), [](uint8_t byte) { return byte != 0; });
    return array.nbits > MAX_COMPANION_NBITS || !any ? 0 : array.nbits;
}

int merge_dimsets(warm_merge_t* merge, warm_rc_t* rc) {
    merge_metric_t* const metric = merge->metric.get();
    std::vector<int> fds;
    std::vector<const st_warm_slice_body*> bodies;
    std::vector<uint64_t> offsets;
    std::vector<std::span<const uint32_t>> maps;
    for (size_t i = 0; i < merge->sources.size(); i++) {
        const WARM* const warm = merge->sources[i].warm.get();
        fds.push_back(warm->fd.get());
        bodies.push_back(warm->body);
        offsets.push_back(warm->postings_base);
        maps.push_back(metric->sources[i].terms.span());
    }
    const int status = st_dimset_merge(static_cast<uint32_t>(fds.size()), fds.data(), bodies.data(), offsets.data(),
                                       maps.data(), &metric->info, &metric->dimsets, rc);
    if (status != WARM_RC_CORRUPT || rc->detail >= merge->sources.size()) return status;
    const std::string text = rc->message + (": " + merge->sources[rc->detail].path);
    return _set_rc_verbose(rc, status, rc->detail, text.c_str());
}

// The runs of a source, and where they go.
int load_runs(merge_source_t* source, merge_metric_source_t* metric, std::span<const uint32_t> new_sets,
              uint32_t new_runs, warm_rc_t* rc) {
    WARM* const warm = source->warm.get();
    const uint32_t runs = warm_slice_runs(warm);
    ST_ASSERT(new_sets.size() == runs);
    if (!metric->runs.alloc(runs) || !metric->spans.alloc(runs) || !source->map.alloc(runs) ||
        !metric->values.alloc(source->num_values - runs)) {
        return _set_rc_msg(rc, WARM_RC_NO_MEMORY, "runs of a metric slice");
    }
    ST_TRY(tsval_reader_fetch_preambles_multiple(warm, 0, metric->runs.data(), runs, rc));
    if (runs == 0 && source->num_values != 0) return _set_rc_msg(rc, WARM_RC_CORRUPT, "values without a run");
    for (uint32_t run = 0; run < runs; run++) {
        ST_ASSERT(new_sets[runs - 1 - run] < new_runs);
        source->map[run] = new_runs - 1 - new_sets[runs - 1 - run];
    }
    return 0;
}

}  // namespace

int merge_metric_find_milliseconds(WARM* warm, stop_check* stop, bool* found, warm_rc_t* rc) {
    *found = false;
    if (!warm_slice_keeps_subseconds(warm)) return 0;
    for (uint32_t number = warm_slice_runs(warm); number < st_warm_slice_values(warm) && !*found; number++) {
        st_time_t seconds = 0;
        uint64_t nanoseconds = 0;
        ST_TRY(stop->after(1, rc));
        ST_TRY(tsval_reader_decode_time(&warm->tsval_reader, number, &seconds, &nanoseconds, rc));
        *found = nanoseconds != 0;
    }
    return 0;
}

int merge_metric_open(warm_merge_t* merge, warm_rc_t* rc) {
    merge->metric->sources.resize(merge->sources.size());
    for (size_t i = 0; i < merge->sources.size(); i++) {
        if (!merge->metric->sources[i].terms.alloc(st_warm_slice_terms(merge->sources[i].warm.get()))) {
            return _set_rc_msg(rc, WARM_RC_NO_MEMORY, "term map");
        }
    }
    return 0;
}

int merge_metric_plan(warm_merge_t* merge, warm_rc_t* rc) {
    merge_metric_t* const metric = merge->metric.get();
    ST_TRY(merge_dimsets(merge, rc));
    const uint32_t new_runs = metric->info.num_dimsets;
    uint64_t total = new_runs;
    uint32_t s = 0, st = 0, h = 0;
    for (size_t i = 0; i < merge->sources.size(); i++) {
        merge_source_t* const source = &merge->sources[i];
        if (load_runs(source, &metric->sources[i], metric->info.dimset_old2new_id_maps[i].span(), new_runs, rc) != 0) {
            rc->detail = static_cast<uint32_t>(i);
            return rc->warm_rc;
        }
        metric->info.dimset_old2new_id_maps[i].reset();
        const tsval_reader_t& reader = source->warm->tsval_reader;
        total += source->num_values - metric->sources[i].runs.size();
        s = std::max(s, used_nbits(reader.s));
        st = std::max(st, used_nbits(reader.st));
        h = std::max(h, used_nbits(reader.h));
    }
    const auto values = static_cast<uint32_t>(total);  // no more than those of the sources, which fit
    st_warm_slice_body* const header = &merge->header;
    merge->totals.values = values;
    header->num_dimsets.set(new_runs);
    return values_set_header(header, values, {.m = 0, .s = s, .st = st, .h = h}, rc);
}

st_term_metadata merge_metric_count(const merge_metric_t& metric, const merge_list_t& list) {
    uint32_t count = 0;
    st_time_t earliest = INT32_MAX, latest = INT32_MIN;
    merge_list_for_each(list, [&](uint32_t number) {
        const merge_metric_run_t& run = metric.runs[number];
        count += run.count;
        earliest = std::min(earliest, run.earliest);
        latest = std::max(latest, run.latest);
    });
    return {.count = count, .earliest = static_cast<uint32_t>(earliest), .latest = static_cast<uint32_t>(latest)};
}

}  // namespace veldar
