#include <algorithm>

#include "libzero/assertions.h"
#include "searchthing/reading/cursors.h"
#include "searchthing/reading/tsidx_snapshot.h"
#include "searchthing/slice/warmslice_terms.h"

namespace veldar {

namespace {

constexpr uint64_t ALL_PIECES_BYTES = uint64_t{8} << 20;

// One slice's place in the walk.
struct term_slice {
    size_t number;  // in the snapshot
    warm_terms terms;
};

// A heap order: the smallest term on top.
bool comes_later(const term_slice* a, const term_slice* b) {
    return a->terms.text() > b->terms.text();
}

}  // namespace

struct term_cursor_t {
    term_choice_t choice;
    tsidx_snapshot snapshot;
    std::vector<term_slice> slices;    // go before the snapshot
    std::vector<term_slice*> current;  // on the cursor's term; at first on none
    std::vector<term_slice*> heap;     // on later terms
};

namespace {

int start(term_cursor_t* cursor, warm_rc_t* rc) {
    tsidx_snapshot& snapshot = cursor->snapshot;
    const auto open_all = [&]() -> int64_t { return snapshot.open_all(TSIDX_FIRST_TIME, TSIDX_LAST_TIME, rc); };
    ST_TRY(static_cast<int>(snapshot.hold(open_all, rc)));
    for (size_t i = 0; i < snapshot.size(); i++) {
        if (snapshot.warm(i) != nullptr) cursor->slices.push_back({i, {}});
    }
    const uint64_t piece = ALL_PIECES_BYTES / std::max<size_t>(cursor->slices.size(), 1);
    for (term_slice& slice : cursor->slices) {
        warm_rc_t why;
        if (slice.terms.open(snapshot.warm(slice.number), cursor->choice, piece, &why) == 0) {
            cursor->current.push_back(&slice);
        } else {
            ST_TRY(snapshot.fail(slice.number, why, rc));
        }
    }
    return 0;
}

// The slices of the current term move on and join the others.
int advance(term_cursor_t* cursor, warm_rc_t* rc) {
    for (term_slice* const slice : cursor->current) {
        warm_rc_t why;
        ST_TRY(cursor->snapshot.go_on(slice->number, 1, rc));
        if (slice->terms.next(&why) != 0) {
            ST_TRY(cursor->snapshot.fail(slice->number, why, rc));
        } else if (!slice->terms.at_end()) {
            cursor->heap.push_back(slice);
            std::push_heap(cursor->heap.begin(), cursor->heap.end(), comes_later);
        }
    }
    cursor->current.clear();
    return 0;
}

}  // namespace

void term_cursor_closer::operator()(term_cursor_t* cursor) const {
    delete cursor;
}

term_cursor_ptr term_cursor_open(const term_cursor_options_t& options, warm_rc_t* rc) {
    try {
        term_cursor_ptr cursor(new term_cursor_t{.choice = options.choice,
                                                 .snapshot = {options.sources, options.on_failure},
                                                 .slices = {},
                                                 .current = {},
                                                 .heap = {}});
        return start(cursor.get(), rc) == 0 ? std::move(cursor) : nullptr;
    } catch (const std::bad_alloc&) {
        _set_rc(rc, WARM_RC_NO_MEMORY);
        return nullptr;
    }
}

int term_cursor_next(term_cursor_t* cursor, std::string_view* term, warm_rc_t* rc) {
    *term = {};
    try {
        if (const int status = advance(cursor, rc); status != 0) {
            cursor->current.clear();
            cursor->heap.clear();
            return status;
        }
        std::vector<term_slice*>& heap = cursor->heap;
        if (heap.empty()) return 0;
        *term = heap.front()->terms.text();
        do {
            std::pop_heap(heap.begin(), heap.end(), comes_later);
            cursor->current.push_back(heap.back());
            heap.pop_back();
        } while (!heap.empty() && heap.front()->terms.text() == *term);
        ST_ASSERT(cursor->current.size() + heap.size() <= cursor->slices.size());
        return 0;
    } catch (const std::bad_alloc&) {
        return _set_rc(rc, WARM_RC_NO_MEMORY);
    }
}

int term_cursor_totals(term_cursor_t* cursor, term_totals_t* totals, warm_rc_t* rc) {
    *totals = {};
    for (term_slice* const slice : cursor->current) {
        warm_rc_t why;
        if (slice->terms.add_totals(totals, &why) != 0) {
            ST_TRY(cursor->snapshot.fail(slice->number, why, rc));
        }
    }
    return 0;
}

}  // namespace veldar
