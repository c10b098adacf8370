#include "searchthing/slice/warmslice_runs.h"

#include <algorithm>
#include <limits>
#include <new>

#include "libzero/assertions.h"
#include "searchthing/slice/warmslice_lists.h"

namespace veldar {

// What a metric slice keeps between reads.
struct warm_metric_t {
    buffer<warm_run_t> runs;
    buffer<bool> cached;  // by piece of `runs`
    plist_reader lists;
    bool lists_open = false;
    ds_reader_t dimsets;
    bool dimsets_open = false;
};

void warm_metric_closer::operator()(warm_metric_t* metric) const {
    if (metric->lists_open) close_plist_reader(&metric->lists);
    ds_reader_close(&metric->dimsets);
    delete metric;
}

namespace {

constexpr uint32_t PIECE = 512;  // preambles
constexpr uint64_t LAST_NANOSECOND = 999999999;

uint32_t pieces(const WARM* warm) {
    return (warm_slice_runs(warm) + PIECE - 1) / PIECE;
}

int open_metric(WARM* warm, warm_rc_t* rc) {
    if (warm->metric != nullptr) return 0;
    std::unique_ptr<warm_metric_t, warm_metric_closer> metric(new (std::nothrow) warm_metric_t);
    if (metric == nullptr || !metric->runs.alloc(warm_slice_runs(warm)) || !metric->cached.alloc(pieces(warm))) {
        return _set_rc_msg(rc, WARM_RC_NO_MEMORY, "cache of preambles");
    }
    warm->metric = std::move(metric);
    return 0;
}

int decode_run(WARM* warm, uint32_t run, warm_run_t* out, warm_rc_t* rc) {
    st_tsval preamble;
    ST_TRY(tsval_reader_decode_preamble(&warm->tsval_reader, run, &preamble, rc));
    *out = {static_cast<uint32_t>(preamble.time), preamble.address};
    return 0;
}

// What the posting lists of a term add up to.
struct run_totals {
    uint64_t events = 0;
    st_time_t earliest = std::numeric_limits<st_time_t>::max();
    st_time_t latest = std::numeric_limits<st_time_t>::min();
};

int add_run(WARM* warm, uint32_t id, run_totals* totals, warm_rc_t* rc) {
    warm_run_t run;
    ST_TRY(warm_slice_run(warm, id, &run, rc));
    ST_ASSERT(run.count > 0);
    st_time_t newest = 0;
    st_time_t oldest = 0;
    uint64_t nanoseconds = 0;
    ST_TRY(tsval_reader_decode_time(&warm->tsval_reader, run.first, &newest, &nanoseconds, rc));
    ST_TRY(tsval_reader_decode_time(&warm->tsval_reader, run.first + run.count - 1, &oldest, &nanoseconds, rc));
    totals->events += run.count;
    totals->latest = std::max(totals->latest, newest);
    totals->earliest = std::min(totals->earliest, oldest);
    return 0;
}

}  // namespace

bool warm_slice_has_runs(const WARM* warm) {
    return warm->tsval_reader.num_preambles != 0 && st_warm_slice_is_msidx_with_dimsets(warm->body);
}

uint32_t warm_slice_runs(const WARM* warm) {
    return warm_slice_has_runs(warm) ? warm->tsval_reader.num_preambles : 0;
}

int tsval_reader_fetch_preambles_multiple(WARM* warm, uint32_t first, warm_run_t* out, uint32_t count, warm_rc_t* rc) {
    const uint32_t runs = warm_slice_runs(warm);
    const uint32_t values = st_warm_slice_values(warm);
    ST_ASSERT(first <= runs && count <= runs - first);
    uint64_t next = runs;  // where the run has to begin
    if (first != 0) {
        warm_run_t before;
        ST_TRY(decode_run(warm, first - 1, &before, rc));
        next = uint64_t{before.first} + before.count;
    }
    for (uint32_t i = 0; i < count; i++) {
        ST_TRY(decode_run(warm, first + i, &out[i], rc));
        const bool follows = out[i].first == next && next >= runs && out[i].count != 0;
        next += out[i].count;
        const bool last = first + i + 1 == runs;
        if (!follows || next > values || (last && next != values)) {
            return _set_rc_verbose(rc, WARM_RC_CORRUPT, first + i, "preamble out of place");
        }
    }
    return 0;
}

int warm_slice_run(WARM* warm, uint32_t run, warm_run_t* out, warm_rc_t* rc) {
    const uint32_t runs = warm_slice_runs(warm);
    if (run >= runs) return _set_rc_verbose(rc, WARM_RC_CORRUPT, run, "expected preamble");
    ST_TRY(open_metric(warm, rc));
    warm_metric_t& metric = *warm->metric;
    const uint32_t piece = run / PIECE;
    if (!metric.cached[piece]) {
        const uint32_t first = piece * PIECE;
        ST_TRY(tsval_reader_fetch_preambles_multiple(warm, first, metric.runs.data() + first,
                                                     std::min(PIECE, runs - first), rc));
        metric.cached[piece] = true;
    }
    *out = metric.runs[run];
    return 0;
}

ds_reader_t* st_warm_slice_dimset_reader(WARM* warm, warm_rc_t* rc) {
    if (open_metric(warm, rc) != 0) return nullptr;
    ds_reader_t* const dimsets = &warm->metric->dimsets;
    if (warm->metric->dimsets_open) return dimsets;
    const int64_t offset = st_warm_slice_dimsets_offset(warm, rc);
    if (offset == -1 || ds_reader_open(dimsets, warm->fd.get(), static_cast<uint64_t>(offset), rc) != 0) return nullptr;
    if (warm_slice_has_runs(warm) && dimsets->num_dimsets != warm_slice_runs(warm)) {
        _set_rc_verbose(rc, WARM_RC_CORRUPT, dimsets->num_dimsets, "not as many dimension sets as preambles");
        ds_reader_close(dimsets);
        return nullptr;
    }
    warm->metric->dimsets_open = true;
    return dimsets;
}

bool warm_slice_keeps_subseconds(const WARM* warm) {
    return warm->tsval_reader.milliseconds && warm->tsval_reader.addr_nbits == MILLISECOND_NBITS;
}

int warm_slice_first_before(WARM* warm, uint32_t low, uint32_t high, const st_timeval_t& bound, bool at_most,
                            uint32_t* out, warm_rc_t* rc) {
    ST_ASSERT(low <= high && high <= st_warm_slice_values(warm));
    const bool subseconds = warm_slice_keeps_subseconds(warm);
    while (low < high) {
        const uint32_t middle = low + (high - low) / 2;
        st_time_t seconds = 0;
        uint64_t nanoseconds = 0;
        ST_TRY(tsval_reader_decode_time(&warm->tsval_reader, middle, &seconds, &nanoseconds, rc));
        bool below = seconds < bound.time_s;
        if (seconds == bound.time_s) {
            below = subseconds ? nanoseconds < bound.time_ns || (at_most && nanoseconds == bound.time_ns) : at_most;
        }
        if (below) {
            high = middle;
        } else {
            low = middle + 1;
        }
    }
    *out = low;
    return 0;
}

bool warm_slice_within(const WARM* warm, const st_timeval_t& earliest, const st_timeval_t& latest) {
    if (warm_header_is_legacy(warm->body)) return false;
    const auto first = static_cast<st_time_t>(warm->body->earliest.get());
    const auto last = static_cast<st_time_t>(warm->body->latest.get());
    const bool whole_seconds = !warm_slice_keeps_subseconds(warm);
    const st_timeval_t upper = warm_upper_bound(latest);
    const bool from_first =
        earliest.time_s < first || (earliest.time_s == first && (whole_seconds || earliest.time_ns == 0));
    const bool to_last =
        upper.time_s > last || (upper.time_s == last && (whole_seconds || upper.time_ns >= LAST_NANOSECOND));
    return from_first && to_last;
}

st_timeval_t warm_upper_bound(const st_timeval_t& latest) {
    const bool unbounded = latest.time_s == std::numeric_limits<st_time_t>::max() && latest.time_ns == 0;
    return unbounded ? st_timeval_t{latest.time_s, LAST_NANOSECOND} : latest;
}

int warm_slice_count_runs(WARM* warm, uint32_t term, st_query_info_t* stats, st_term_metadata* out, warm_rc_t* rc) {
    ST_TRY(open_metric(warm, rc));
    plist_reader* lists = &warm->metric->lists;
    if (!warm->metric->lists_open) {
        ST_TRY(_init_reader(lists, warm, 1024, stats, rc));
        warm->metric->lists_open = true;
    }
    lists->stats = stats;
    ST_TRY(_seek_reader(lists, term, rc));
    run_totals totals;
    uint32_t ids[256];
    uint32_t count = 0;
    do {
        ST_TRY(plist_copy(lists, ids, std::size(ids), PLIST_END, &count, rc));
        for (uint32_t i = 0; i < count; i++) ST_TRY(add_run(warm, ids[i], &totals, rc));
    } while (count == std::size(ids));
    if (totals.events == 0 || totals.events > st_warm_slice_values(warm)) {
        return _set_rc_verbose(rc, WARM_RC_CORRUPT, term, "postings_count == answer->count");
    }
    *out = {static_cast<uint32_t>(totals.events), static_cast<uint32_t>(totals.earliest),
            static_cast<uint32_t>(totals.latest)};
    return 0;
}

}  // namespace veldar
