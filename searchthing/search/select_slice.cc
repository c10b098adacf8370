#include "searchthing/search/select_slice.h"

#include <algorithm>
#include <new>

#include "libzero/assertions.h"
#include "searchthing/lexicon/fclex_cursor.h"
#include "searchthing/search/select_internal.h"
#include "searchthing/slice/warmslice_runs.h"

namespace veldar {

namespace {

constexpr uint64_t LEXICON_PIECE = uint64_t{256} << 10;

int read_time(const selection_t& selection, uint32_t value, int64_t* time, warm_rc_t* rc) {
    st_timeval_t read;
    ST_TRY(tsval_reader_decode_time(&selection.warm->tsval_reader, value, &read.time_s, &read.time_ns, rc));
    *time = select_time(read);
    return 0;
}

int select_kind(const selection_t& selection, warm_rc_t* rc) {
    const st_warm_slice_body* const header = selection.warm->body;
    if (!st_warm_slice_is_msidx(header)) return select_from_events(selection, rc);
    if (warm_slice_has_runs(selection.warm) && st_warm_slice_is_msidx_with_cstore(header)) {
        return select_from_metrics(selection, rc);
    }
    const std::vector<std::string>& groups = selection.spec->groups;
    if (!selection.spec->projections.empty() &&
        std::find(groups.begin(), groups.end(), "metric_name") == groups.end()) {
        return _set_rc_msg(rc, WARM_RC_LEGACY_PROJECTION,
                           "ST projection on legacy MSIDX V1 and V2 buckets has no group-by: metric_name");
    }
    return _set_rc_msg(rc, WARM_RC_UNSUPPORTED, "not a msidx cstore tsidx");
}

}  // namespace

int select_stretch(const selection_t& selection, uint32_t begin, uint32_t end, uint32_t guess, select_stretch_t* out,
                   warm_rc_t* rc) {
    *out = {begin, end, SELECT_NO_BIN};
    if (selection.bins->span == 0 && selection.bins->starts.empty()) return 0;
    int64_t time = 0;
    ST_TRY(read_time(selection, begin, &time, rc));
    out->bin = select_bin_of(*selection.bins, time);
    const int64_t from = time < out->bin ? SELECT_NO_BIN : out->bin;  // the first of given bins reaches back
    // Values below `low` lie in the bin, those from `high` on do not.
    uint32_t low = begin + 1, high = end;
    if (guess > 1 && guess <= end - begin) {
        ST_TRY(read_time(selection, begin + guess - 1, &time, rc));
        if (time < from) {
            high = begin + guess - 1;
        } else {
            low = begin + guess;
        }
    }
    for (uint32_t step = 1; low < high; step *= 2) {
        const uint32_t at = step < high - low ? low + step - 1 : high - 1;
        ST_TRY(read_time(selection, at, &time, rc));
        if (time < from) {
            high = at;
            break;
        }
        low = at + 1;
    }
    while (low < high) {
        const uint32_t middle = low + (high - low) / 2;
        ST_TRY(read_time(selection, middle, &time, rc));
        if (time < from) {
            high = middle;
        } else {
            low = middle + 1;
        }
    }
    ST_ASSERT(begin < low && low == high && low <= end);
    out->end = low;
    return 0;
}

int select_terms_add(const selection_t& selection, const std::string& prefix, select_terms_t* out, warm_rc_t* rc) {
    const fclex_cursor_ptr cursor = fclex_cursor_open(selection.warm->lexicon, prefix.c_str(), nullptr, {},
                                                      LEXICON_PIECE, selection.query->spec.info, rc);
    if (cursor == nullptr) return rc->warm_rc;
    fclex_cursor_term_t term;
    ST_TRY(fclex_cursor_next(cursor.get(), &term, rc));
    while (term.text != nullptr) {
        const auto length = static_cast<uint32_t>(term.length - prefix.size());
        out->terms.push_back({term.id, length, out->texts.size()});
        out->texts.append(term.text + prefix.size(), length + 1);
        ST_TRY(warm_slice_go_on(selection.warm, 1, rc));
        ST_TRY(fclex_cursor_next(cursor.get(), &term, rc));
    }
    return 0;
}

int select_add(const selection_t& selection, select_cell_t* cell, const select_value_t& value, uint64_t times,
               uint32_t aggregates, warm_rc_t* rc) {
    if (!value.is_number && select_wants_numbers(aggregates)) selection.report->refused += times;
    const size_t grown = select_cell_add(cell, value, times, aggregates);
    return grown == 0 ? 0 : select_grow(selection.table, grown, rc);
}

int warm_slice_select(WARM* warm, const parsed_query_t& query, const select_spec_t& spec, const select_bins_t& bins,
                      select_table_t* table, select_report_t* report, warm_rc_t* rc) {
    if (!st_warm_slice_has_fclex(warm)) return _set_rc_msg(rc, WARM_RC_MINIFIED, "warm slice select");
    const uint64_t refused = report->refused;
    int status = 0;
    try {
        status = select_kind({warm, &query, &spec, &bins, table, report}, rc);
    } catch (const std::bad_alloc&) {
        status = _set_rc(rc, WARM_RC_NO_MEMORY);
    }
    report->slices++;
    if (query.spec.info != nullptr) query.spec.info->refused += report->refused - refused;
    return status == 0 ? _set_rc(rc, WARM_RC_OK) : status;
}

}  // namespace veldar
