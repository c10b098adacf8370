// What a selection asks for beside its query: bins of time, groups, and aggregates of fields.
//
// The query's option block is the span of a bin, (0, 0) for none. Bins are one grid for all slices: a bin begins where
// the time, less the offset, is a multiple of the span. Its option byte B of 1 keeps events that lack a group field,
// under the text "". Its option word is how many different texts a group field may have in one slice, 0 for 2^20.
#pragma once

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "searchthing/base/warm_rc.h"
#include "searchthing/search/query.h"
#include "searchthing/search/select_cell.h"

namespace veldar {

inline constexpr size_t SELECT_MAX_GROUPS = 8;
inline constexpr size_t SELECT_MAX_PROJECTIONS = 16;
inline constexpr uint64_t SELECT_MAX_BINS = uint64_t{1} << 20;
inline constexpr uint32_t SELECT_MAX_GROUP_TEXTS = uint32_t{1} << 20;
inline constexpr uint8_t SELECT_KEEPS_MISSING = 1;  // st_query_spec::opt_b

// The values of a field are the terms "<field>::<value>" of an event; in metric slices the field names a dimension, or
// the measures of one metric ("cpu.idle"; "*" stands for any characters of the name).
struct select_projection_t {
    std::string field;
    uint32_t aggregates = 0;  // SELECT_* bits (select_cell.h)
};

struct select_spec_t {
    std::vector<std::string> groups;  // fields; in metric slices dimensions, or "metric_name"
    std::vector<select_projection_t> projections;
    int64_t bin_offset_s = 0;
    // Instead of a span: where bins begin, ascending, seconds since the epoch. The first one reaches back to the first
    // time, the last one to the last.
    std::vector<int64_t> bin_starts_s;
};

inline constexpr int64_t SELECT_NO_BIN = std::numeric_limits<int64_t>::min();

// The grid, in nanoseconds since the epoch.
struct select_bins_t {
    int64_t span = 0;  // 0: one bin, SELECT_NO_BIN, or the starts
    int64_t offset = 0;
    std::vector<int64_t> starts;
};
// 0; WARM_RC_TIME_BINS "time bins init" for a span that is negative or holds a whole second of nanoseconds, and for
// starts that do not ascend; WARM_RC_TIME_BINS_LIMIT "alloc time bins hard limit exceeded" for too many starts. May
// throw std::bad_alloc.
[[nodiscard]] int select_bins_open(select_bins_t* bins, const st_query_spec& query, const select_spec_t& spec,
                                   warm_rc_t* rc);
// Where the bin of a time begins, and where the one behind it does (INT64_MAX for the last).
int64_t select_bin_of(const select_bins_t& bins, int64_t time);
int64_t select_bin_end(const select_bins_t& bins, int64_t start);
// 0, or WARM_RC_TIME_BINS_LIMIT when the times inclusive need more bins than allowed.
[[nodiscard]] int select_bins_check(const select_bins_t& bins, int64_t earliest, int64_t latest, warm_rc_t* rc);

inline int64_t select_time(const st_timeval_t& time) {
    return int64_t{time.time_s} * 1000000000 + static_cast<int64_t>(time.time_ns);
}

// Whether the fields make sense: 0; WARM_RC_INVALID_ARGUMENT for too many groups or projections, an empty group field,
// or unknown aggregates; WARM_RC_TOKEN_TOO_BIG "token too big" for a field longer than a term can be.
[[nodiscard]] int select_spec_check(const select_spec_t& spec, warm_rc_t* rc);

}  // namespace veldar
