// Terms of a directory: enumeration, and walks over the lexicons of all slices, one by one or merged.
#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "libzero/assertions.h"
#include "searchthing/lexicon/fclex_cursor.h"
#include "searchthing/lexicon/matcher.h"
#include "searchthing/reading/tsidx_read.h"
#include "searchthing/reading/tsidx_snapshot_walk.h"
#include "searchthing/values/tsval_order.h"
#include "searchthing/slice/warmslice_meta.h"

namespace veldar {

namespace {

constexpr uint64_t ALL_PIECES_BYTES = uint64_t{8} << 20;

int need_lexicon(const WARM* warm, warm_rc_t* rc) {
    return st_warm_slice_has_fclex(warm) ? 0 : _set_rc_msg(rc, WARM_RC_MINIFIED, "minified slice");
}

// The ids of enumerated terms become event counts.
int replace_ids(WARM* warm, st_enum_answer* answers, int count, warm_rc_t* rc) {
    for (int i = 0; i < count; i++) {
        uint32_t events = 0;
        ST_TRY(get_meta_count(warm, answers[i].id, nullptr, &events, rc));
        answers[i].id = events;
    }
    return 0;
}

struct slice_term_walk {
    WARM* warm;
    tsidx_term_fn fn;
    void* context;
    warm_rc_t rc;
    int64_t total = 0;
    bool stopped = false;
};

int walk_term(int32_t id, const char* term, size_t length, void* opaque) {
    auto* walk = static_cast<slice_term_walk*>(opaque);
    uint32_t count = 0;
    if (get_meta_count(walk->warm, static_cast<uint32_t>(id), nullptr, &count, &walk->rc) != 0) return -1;
    const int result = walk->fn(term, length, count, walk->context);
    if (result == -1) {
        walk->stopped = true;
    } else {
        walk->total += result;
    }
    return walk->stopped ? -1 : 0;
}

// One slice's place in the merged walk.
struct term_source {
    size_t slice;
    WARM* warm;
    fclex_cursor_ptr cursor;
    fclex_cursor_term_t term;
};

// A heap order: the smallest term on top, of equal ones that of the newest slice.
bool comes_later(const term_source* a, const term_source* b) {
    const int order = std::memcmp(a->term.text, b->term.text, std::min(a->term.length, b->term.length));
    if (order != 0) return order > 0;
    return a->term.length != b->term.length ? a->term.length > b->term.length : a->slice > b->slice;
}

// The lexicons of all open slices of a snapshot as one ascending sequence of distinct terms.
class merged_terms {
  public:
    explicit merged_terms(tsidx_snapshot& snapshot) : snapshot_(snapshot) {}

    // 0 or a failure, recorded.
    int open(const char* prefix) {
        const uint64_t piece = ALL_PIECES_BYTES / std::max<size_t>(snapshot_.size(), 1);
        sources_.reserve(snapshot_.size());
        for (size_t i = 0; i < snapshot_.size(); i++) {
            WARM* const warm = snapshot_.warm(i);
            warm_rc_t rc;
            if (need_lexicon(warm, &rc) != 0) return snapshot_.fail(i, rc);
            sources_.push_back({i, warm, fclex_cursor_open(warm->lexicon, prefix, piece, nullptr, &rc), {}});
            if (sources_.back().cursor == nullptr) return snapshot_.fail(i, rc);
            ST_TRY(advance(&sources_.back()));
        }
        std::make_heap(heap_.begin(), heap_.end(), comes_later);
        return 0;
    }

    // The next term, or false after the last one. It is valid until `skip` or `count`, one of which comes next.
    bool peek(fclex_cursor_term_t* term) const {
        if (heap_.empty()) return false;
        *term = heap_.front()->term;
        return true;
    }
    // Passes the term in every lexicon that has it. 0 or a failure, recorded.
    int skip() {
        return pass([](term_source*) { return 0; });
    }
    // The same, adding up the event counts.
    int count(uint64_t* events) {
        *events = 0;
        return pass([&](term_source* source) {
            uint32_t of_slice = 0;
            warm_rc_t rc;
            if (get_meta_count(source->warm, source->term.id, nullptr, &of_slice, &rc) != 0) {
                return snapshot_.fail(source->slice, rc);
            }
            *events += of_slice;
            return 0;
        });
    }

  private:
    int advance(term_source* source) {
        warm_rc_t rc;
        if (fclex_cursor_next(source->cursor.get(), &source->term, &rc) != 0) return snapshot_.fail(source->slice, rc);
        if (source->term.text != nullptr) heap_.push_back(source);
        return 0;
    }

    template <typename Visit>
    int pass(Visit visit) {
        text_.assign(heap_.front()->term.text, heap_.front()->term.length);
        while (!heap_.empty() && text_ == std::string_view(heap_.front()->term.text, heap_.front()->term.length)) {
            std::pop_heap(heap_.begin(), heap_.end(), comes_later);
            term_source* const source = heap_.back();
            heap_.pop_back();
            ST_TRY(visit(source));
            const size_t before = heap_.size();
            ST_TRY(advance(source));
            if (heap_.size() != before) std::push_heap(heap_.begin(), heap_.end(), comes_later);
        }
        return 0;
    }

    tsidx_snapshot& snapshot_;
    std::vector<term_source> sources_;
    std::vector<term_source*> heap_;  // those that stand on a term
    std::string text_;
};

// Runs `each(terms, term)` for every distinct term; it passes the term and returns 0 to go on.
template <typename Each>
int64_t over_distinct_terms(TSIDX* tsidx, const char* prefix, Each each, int64_t* total) {
    return tsidx_over_snapshot(tsidx, [&](tsidx_snapshot& snapshot) -> int64_t {
        *total = 0;
        const int64_t opened = tsidx_open_all(snapshot, TSIDX_FIRST_TIME, TSIDX_LAST_TIME);
        if (opened != 0) return opened;
        merged_terms terms(snapshot);
        ST_TRY(terms.open(prefix));
        fclex_cursor_term_t term;
        while (terms.peek(&term)) {
            if (const int64_t result = each(terms, term); result != 0) return result;
        }
        return *total;
    });
}

struct matcher_closer {
    void operator()(OpaqueMatcher_T* matcher) const { freeOpaqueMatcher(matcher); }
};

// Hands out the distinct terms behind a prefix that a matcher accepts, when there is one.
int64_t apply_distinct(TSIDX* tsidx, const char* prefix, const OpaqueMatcher_T* matcher, tsidx_term_fn fn,
                       void* context) {
    int64_t total = 0;
    std::string text;
    return over_distinct_terms(
        tsidx, prefix,
        [&](merged_terms& terms, const fclex_cursor_term_t& term) -> int64_t {
            if (matcher != nullptr && isMatch(term.text, matcher) == 0) return terms.skip();
            text.assign(term.text, term.length);
            uint64_t events = 0;
            ST_TRY(terms.count(&events));
            const int result = fn(text.c_str(), text.size(), events, context);
            if (result == -1) return -1;
            total += result;
            return 0;
        },
        &total);
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
        const auto add_slice = [&](size_t i) -> int64_t {
            WARM* const warm = snapshot.warm(i);
            warm_rc_t rc;
            if (need_lexicon(warm, &rc) != 0) return snapshot.fail(i, rc);
            const uint32_t wanted = std::min(capacity, st_warm_slice_terms(warm));
            if (pool.size() < held + wanted) pool.resize(held + wanted);
            st_enum_answer* const added = pool.data() + held;
            const int count = st_fclex_enum(warm->lexicon, prefix, added, wanted, case_flag);
            if (replace_ids(warm, added, count, &rc) != 0) return snapshot.fail(i, rc);
            const uint32_t both = held + static_cast<uint32_t>(count);
            st_enum_answer_qsort(pool.data(), both);
            held = std::min(capacity, static_cast<uint32_t>(st_enum_gather(pool.data(), static_cast<int>(both))));
            return 0;
        };
        const int64_t status = tsidx_each_slice(snapshot, TSIDX_FIRST_TIME, TSIDX_LAST_TIME, add_slice);
        if (status != 0) return status;
        std::copy_n(pool.begin(), held, answers);
        return held;
    }));
}

int64_t st_tsidx_apply_terms(TSIDX* tsidx, const char* prefix, tsidx_term_fn fn, void* context) {
    return tsidx_over_snapshot(tsidx, [&](tsidx_snapshot& snapshot) -> int64_t {
        const int64_t opened = tsidx_open_all(snapshot, TSIDX_FIRST_TIME, TSIDX_LAST_TIME);
        if (opened != 0) return opened;
        int64_t total = 0;
        for (size_t i = 0; i < snapshot.size(); i++) {
            slice_term_walk walk{.warm = snapshot.warm(i), .fn = fn, .context = context, .rc = {}};
            if (need_lexicon(walk.warm, &walk.rc) != 0) return snapshot.fail(i, walk.rc);
            const int64_t status = st_fclex_apply(walk.warm->lexicon, prefix, walk_term, &walk, nullptr);
            if (walk.stopped) return -1;
            if (walk.rc.warm_rc != 0) return snapshot.fail(i, walk.rc);
            if (status < 0) {
                _set_rc_msg(&walk.rc, static_cast<int>(status), "walking the lexicon");
                return snapshot.fail(i, walk.rc);
            }
            total += walk.total;
        }
        return total;
    });
}

int64_t st_tsidx_distinct_apply_terms(TSIDX* tsidx, const char* prefix, tsidx_term_fn fn, void* context) {
    return apply_distinct(tsidx, prefix, nullptr, fn, context);
}

int64_t st_tsidx_distinct_term_count(TSIDX* tsidx) {
    int64_t total = 0;
    return over_distinct_terms(
        tsidx, nullptr,
        [&](merged_terms& terms, const fclex_cursor_term_t&) -> int64_t {
            total++;
            return terms.skip();
        },
        &total);
}

int64_t st_tsidx_lex_query(TSIDX* tsidx, const char* needle, tsidx_term_fn fn, void* context) {
    ST_ASSERT(tsidx != nullptr);
    if (needle == nullptr) return _set_rc_msg(&tsidx->last_failure, WARM_RC_INVALID_ARGUMENT, "no needle");
    const std::unique_ptr<OpaqueMatcher_T, matcher_closer> matcher(createMatcher(needle));
    if (matcher == nullptr) return tsidx_fail_no_memory(tsidx);
    const bool exact = std::strchr(needle, '*') == nullptr;
    const char* const prefix = exact ? needle : getHardStart(matcher.get());
    return apply_distinct(tsidx, prefix, matcher.get(), fn, context);
}

}  // namespace veldar
