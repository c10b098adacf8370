// The matching events of one open slice, newest first, some at a time.
//
// Values are numbered newest first, so a query is evaluated over windows of value numbers that grow from the newest on,
// and no further than events are asked for. In metric slices with dimension sets a query selects runs, or values, and
// their events are merged by time (search_runs.h).
#pragma once

#include <cstdint>
#include <memory>

#include "searchthing/search/parsed_query.h"
#include "searchthing/search/search_literals.h"
#include "searchthing/search/search_runs.h"
#include "searchthing/values/tsval.h"

namespace veldar {

// What a search did, for people who ask why it took its time.
struct search_report_t {
    uint32_t range_begin = 0;  // the run of value numbers inside the time bounds
    uint32_t range_end = 0;
    uint64_t lists_read = 0;  // posting lists positioned on, a list once per window
    uint64_t values_decoded = 0;
    uint32_t windows = 0;
    bool from_metadata = false;  // a count that needed no posting list
};

// The numbers of a result, ascending, which is newest first.
class match_ids {
  public:
    match_ids() = default;
    // Both must outlive the walk; without a result there are no numbers.
    match_ids(const query_result_t* result, const id_range_t& range);
    bool next(uint32_t* id) {
        for (; is_list_ && at_ < count_; at_++) {
            const uint32_t bit = list_[at_] - range_.begin;
            if (excluded_ != nullptr && (excluded_[bit / 8] >> (bit % 8) & 1) != 0) continue;
            *id = list_[at_++];
            return true;
        }
        while (word_ == 0) {
            if (is_list_ || at_ >= count_) return false;
            load_word();
        }
        *id = range_.begin + static_cast<uint32_t>((at_ - 8) * 8) + static_cast<uint32_t>(__builtin_ctzll(word_));
        word_ &= word_ - 1;
        return *id < range_.end;
    }

  private:
    void load_word();

    const uint32_t* list_ = nullptr;
    const uint8_t* bits_ = nullptr;  // null for everything
    const uint8_t* excluded_ = nullptr;
    id_range_t range_;
    bool is_list_ = true;
    uint64_t at_ = 0, count_ = 0;  // in the list, or in bytes of the bitmap
    uint64_t word_ = 0;
};

struct event_walk_t {
    event_walk_t() = default;
    event_walk_t(const event_walk_t&) = delete;
    event_walk_t& operator=(const event_walk_t&) = delete;
    ~event_walk_t() { conjunction_context_close(&context); }

    conjunction_context context;
    const parsed_query_t* query = nullptr;
    bool is_exact = true;
    search_report_t report;
    uint64_t wanted = 0;
    bool is_begun = false;
    bool is_over = false;
    // Slices in the order of time: the windows, of which the last one's result is being visited.
    uint32_t windows_end = 0;
    uint64_t window = 0;
    query_result_t result;
    match_ids ids;
    // Others.
    run_merge_t merge;
};
using event_walk_ptr = std::unique_ptr<event_walk_t>;

// A walk over the events not later than `latest`, which may narrow the query's own bound. `wanted` is how many events
// will be asked for, if that is known, or UINT64_MAX. With `is_exact` false the events are a superset of the match
// (warmslice_search.h). Nothing is read yet; slice and query must outlive the walk. May throw std::bad_alloc.
event_walk_ptr event_walk_open(WARM* warm, const parsed_query_t& query, const st_timeval_t& latest, uint64_t wanted,
                               bool is_exact);
// Writes the next events, at most `capacity`, without deleted ones and those off the cumulative span. Their number,
// below `capacity` at the end alone, or the failure of a read, after which the walk is over.
[[nodiscard]] int event_walk_next(event_walk_t* walk, st_tsval* events, uint32_t capacity, warm_rc_t* rc);

// For other questions about the match. Each gives 0 or a status that the context holds too, and may throw
// std::bad_alloc.

// Finds the range of value numbers, once.
[[nodiscard]] int event_walk_begin(event_walk_t* walk);
// The whole match.
[[nodiscard]] int event_walk_evaluate(event_walk_t* walk, query_result_t* result);
// Whether the numbers of a match are not in time order: those of runs, or the values of a metric slice without.
bool is_unordered(const WARM* warm);
// The numbers of such a match, as a bitmap over the context's range, which may be empty.
[[nodiscard]] int event_walk_evaluate_unordered(event_walk_t* walk, query_result_t* result);
[[nodiscard]] int event_walk_merge_runs(event_walk_t* walk, run_merge_t* merge);

}  // namespace veldar
