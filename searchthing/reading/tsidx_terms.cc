// Terms of a directory: enumeration, and walks over the lexicons of all slices, one by one or merged.
#include <algorithm>
#include <climits>
#include <string_view>
#include <vector>

#include "libzero/assertions.h"
#include "searchthing/reading/cursors.h"
#include "searchthing/reading/tsidx_read.h"
#include "searchthing/reading/tsidx_snapshot_walk.h"
#include "searchthing/slice/warmslice_terms.h"
#include "searchthing/values/tsval_order.h"

namespace veldar {

namespace {

// Runs `each(cursor, term)` for every distinct term until it returns something else than 0; 0, that, or a failure,
// recorded.
template <typename Each>
int64_t over_distinct_terms(TSIDX* tsidx, const char* prefix, const char* needle, Each each) {
    ST_ASSERT(tsidx != nullptr);
    warm_rc_t* const rc = &tsidx->last_failure;
    try {
        term_cursor_options_t options;
        options.sources = {{.tsidx = tsidx, .path = {}}};
        if (prefix != nullptr) options.choice.prefix = prefix;
        if (needle != nullptr) options.choice.needle = needle;
        const term_cursor_ptr cursor = term_cursor_open(options, rc);
        if (cursor == nullptr) return rc->warm_rc;
        std::string_view term;
        while (true) {
            ST_TRY(term_cursor_next(cursor.get(), &term, rc));
            if (term.data() == nullptr) return 0;
            if (const int64_t result = each(cursor.get(), term); result != 0) return result;
        }
    } catch (const std::bad_alloc&) {
        return tsidx_fail_no_memory(tsidx);
    }
}

int64_t apply_distinct(TSIDX* tsidx, const char* prefix, const char* needle, tsidx_term_fn fn, void* context) {
    int64_t total = 0;
    const int64_t status =
        over_distinct_terms(tsidx, prefix, needle, [&](term_cursor_t* cursor, std::string_view term) -> int64_t {
            term_totals_t totals;
            ST_TRY(term_cursor_totals(cursor, &totals, &tsidx->last_failure));
            const int result = fn(term.data(), term.size(), totals.count, context);
            if (result != -1) total += result;
            return result == -1 ? -1 : 0;
        });
    return status == 0 ? total : status;
}

}  // namespace

int st_tsidx_enum(TSIDX* tsidx, const char* prefix, st_enum_answer* answers, uint32_t capacity, bool case_flag) {
    ST_ASSERT(tsidx != nullptr && (answers != nullptr || capacity == 0));
    if (capacity == 0) return 0;
    capacity = std::min<uint32_t>(capacity, INT_MAX / 2);
    return static_cast<int>(tsidx_over_snapshot(tsidx, [&](tsidx_snapshot& snapshot) -> int64_t {
        // The answers so far, and behind them those of one slice: the first `capacity` of every slice hold the first
        // `capacity` of all.
        std::vector<st_enum_answer> pool;
        uint32_t held = 0;
        const auto add_slice = [&](size_t i, warm_rc_t* why) {
            WARM* const warm = snapshot.warm(i);
            const uint32_t wanted = std::min(capacity, st_warm_slice_terms(warm));
            if (pool.size() < held + wanted) pool.resize(held + wanted);
            st_enum_answer* const added = pool.data() + held;
            const int count = warm_slice_enum(warm, prefix, added, wanted, case_flag, why);
            if (count < 0) return count;
            const uint32_t both = held + static_cast<uint32_t>(count);
            ST_ASSERT(both <= pool.size() && both <= INT_MAX);
            st_enum_answer_qsort(pool.data(), both);
            held = std::min(capacity, static_cast<uint32_t>(st_enum_gather(pool.data(), static_cast<int>(both))));
            return 0;
        };
        const int64_t status = snapshot.each(TSIDX_FIRST_TIME, TSIDX_LAST_TIME, add_slice, &tsidx->last_failure);
        if (status != 0) return status;
        std::copy_n(pool.begin(), held, answers);
        return held;
    }));
}

int64_t st_tsidx_apply_terms(TSIDX* tsidx, const char* prefix, tsidx_term_fn fn, void* context) {
    return tsidx_over_snapshot(tsidx, [&](tsidx_snapshot& snapshot) -> int64_t {
        const int64_t opened = snapshot.open_all(TSIDX_FIRST_TIME, TSIDX_LAST_TIME, &tsidx->last_failure);
        if (opened != 0) return opened;
        int64_t total = 0;
        for (size_t i = 0; i < snapshot.size(); i++) {
            warm_rc_t rc;
            rc.warm_rc = 0;
            const int64_t of_slice = warm_slice_apply_terms(snapshot.warm(i), prefix, fn, context, &rc);
            if (rc.warm_rc != 0) return snapshot.fail(i, rc, &tsidx->last_failure);
            if (of_slice == -1) return -1;
            total += of_slice;
        }
        return total;
    });
}

int64_t st_tsidx_distinct_apply_terms(TSIDX* tsidx, const char* prefix, tsidx_term_fn fn, void* context) {
    return apply_distinct(tsidx, prefix, nullptr, fn, context);
}

int64_t st_tsidx_distinct_term_count(TSIDX* tsidx) {
    int64_t total = 0;
    const int64_t status =
        over_distinct_terms(tsidx, nullptr, nullptr, [&](term_cursor_t*, std::string_view) -> int64_t {
            total++;
            return 0;
        });
    return status == 0 ? total : status;
}

int64_t st_tsidx_lex_query(TSIDX* tsidx, const char* needle, tsidx_term_fn fn, void* context) {
    ST_ASSERT(tsidx != nullptr);
    if (needle == nullptr) return _set_rc_msg(&tsidx->last_failure, WARM_RC_INVALID_ARGUMENT, "no needle");
    return apply_distinct(tsidx, nullptr, needle, fn, context);
}

}  // namespace veldar
