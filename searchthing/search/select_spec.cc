#include "searchthing/search/select_spec.h"

#include <algorithm>

#include "libzero/assertions.h"
#include "searchthing/lexicon/term_choice.h"

namespace veldar {

namespace {

constexpr int64_t SECOND = 1000000000;
constexpr size_t MAX_FIELD = 2045;  // what a term has room for beside "::"
static_assert(MAX_FIELD + 2 == ST_MAX_TERM_LENGTH);

int64_t floor_divided(int64_t a, int64_t b) {
    return a / b - (a % b < 0 ? 1 : 0);
}

}  // namespace

int select_bins_open(select_bins_t* bins, const st_query_spec& query, const select_spec_t& spec, warm_rc_t* rc) {
    const st_timeval_t& span = query.opt_span;
    if (span.time_s < 0 || span.time_ns >= SECOND) return _set_rc_msg(rc, WARM_RC_TIME_BINS, "time bins init");
    constexpr int64_t FARTHEST = int64_t{1} << 32;
    if (spec.bin_offset_s < -FARTHEST || spec.bin_offset_s > FARTHEST) {
        return _set_rc_msg(rc, WARM_RC_TIME_BINS, "time bins init");
    }
    bins->span = select_time(span);
    bins->offset = bins->span == 0 ? 0 : spec.bin_offset_s * SECOND % bins->span;
    if (spec.bin_starts_s.size() > SELECT_MAX_BINS) {
        return _set_rc_msg(rc, WARM_RC_TIME_BINS_LIMIT, "alloc time bins hard limit exceeded");
    }
    bins->starts.clear();
    int64_t before = -FARTHEST - 1;
    for (const int64_t start : spec.bin_starts_s) {
        if (start <= before || start > FARTHEST) return _set_rc_msg(rc, WARM_RC_TIME_BINS, "time bins init");
        bins->starts.push_back(start * SECOND);
        before = start;
    }
    if (!bins->starts.empty()) bins->span = 0;
    return 0;
}

int64_t select_bin_of(const select_bins_t& bins, int64_t time) {
    if (bins.span != 0) {
        const int64_t start = floor_divided(time - bins.offset, bins.span) * bins.span + bins.offset;
        ST_ASSERT(start <= time && time - start < bins.span);
        return start;
    }
    if (bins.starts.empty()) return SELECT_NO_BIN;
    const auto behind = std::upper_bound(bins.starts.begin(), bins.starts.end(), time);
    return behind == bins.starts.begin() ? *behind : *std::prev(behind);
}

int64_t select_bin_end(const select_bins_t& bins, int64_t start) {
    if (bins.span != 0) return start + bins.span;
    const auto behind = std::upper_bound(bins.starts.begin(), bins.starts.end(), start);
    return behind == bins.starts.end() ? std::numeric_limits<int64_t>::max() : *behind;
}

int select_bins_check(const select_bins_t& bins, int64_t earliest, int64_t latest, warm_rc_t* rc) {
    if (bins.span == 0 || earliest > latest) return 0;
    const int64_t behind =
        floor_divided(latest - bins.offset, bins.span) - floor_divided(earliest - bins.offset, bins.span);
    ST_ASSERT(behind >= 0);
    if (static_cast<uint64_t>(behind) < SELECT_MAX_BINS) return 0;
    return _set_rc_msg(rc, WARM_RC_TIME_BINS_LIMIT, "alloc time bins hard limit exceeded");
}

int select_spec_check(const select_spec_t& spec, warm_rc_t* rc) {
    if (spec.groups.size() > SELECT_MAX_GROUPS) {
        return _set_rc_msg(rc, WARM_RC_INVALID_ARGUMENT, "too many group fields");
    }
    if (spec.projections.size() > SELECT_MAX_PROJECTIONS) {
        return _set_rc_msg(rc, WARM_RC_INVALID_ARGUMENT, "too many projections");
    }
    for (const std::string& field : spec.groups) {
        if (field.empty()) return _set_rc_msg(rc, WARM_RC_INVALID_ARGUMENT, "a group field without a name");
        if (field.size() > MAX_FIELD) return _set_rc_msg(rc, WARM_RC_TOKEN_TOO_BIG, "token too big");
    }
    for (const select_projection_t& projection : spec.projections) {
        const bool is_known = projection.aggregates != 0 && projection.aggregates <= SELECT_ALL_AGGREGATES;
        if (!is_known || projection.field.empty()) return _set_rc_msg(rc, WARM_RC_INVALID_ARGUMENT, "a projection");
        if (projection.field.size() > MAX_FIELD) return _set_rc_msg(rc, WARM_RC_TOKEN_TOO_BIG, "token too big");
    }
    return 0;
}

}  // namespace veldar
