#include "searchthing/reading/term_cursor.h"

#include <algorithm>

#include "searchthing/reading/tsidx_snapshot_walk.h"
#include "searchthing/slice/warmslice_terms.h"

namespace veldar {

namespace {

constexpr uint64_t ALL_PIECES_BYTES = uint64_t{8} << 20;

// A source at the moment of the cursor.
struct term_origin {
    TSIDX* tsidx = nullptr;
    std::string path;
    std::unique_ptr<tsidx_snapshot> snapshot;  // of a directory
    warm_ptr file;
};

// One slice's place in the walk.
struct term_slice {
    const term_origin* origin;
    size_t number;  // in the origin's snapshot
    WARM* warm;
    warm_terms terms;
};

// A heap order: the smallest term on top.
bool comes_later(const term_slice* a, const term_slice* b) {
    return a->terms.text() > b->terms.text();
}

}  // namespace

struct term_cursor_t {
    term_cursor_options_t options;
    std::vector<term_origin> origins;
    std::vector<term_slice> slices;
    std::vector<term_slice*> current;  // on the cursor's term; at first on none
    std::vector<term_slice*> heap;     // on later terms
};

namespace {

// Tells a failure to the hook; without one, or without memory, it is the cursor's.
int fail(const term_cursor_t* cursor, const term_origin& origin, size_t number, const warm_rc_t& why, warm_rc_t* rc) {
    const bool of_slice = origin.snapshot != nullptr && number < origin.snapshot->size();
    if (cursor->options.on_failure && why.warm_rc != WARM_RC_NO_MEMORY) {
        cursor->options.on_failure(of_slice ? origin.snapshot->path(number) : origin.path, why);
        return 0;
    }
    if (of_slice) origin.snapshot->fail(number, why);
    return _cpy_rc(rc, of_slice ? &origin.tsidx->last_failure : &why);
}

int add_file(term_cursor_t* cursor, term_origin* origin, warm_rc_t* rc) {
    warm_rc_t why;
    origin->file.reset(st_warm_slice_open_rdonly(origin->path.c_str(), &why));
    if (origin->file == nullptr) return fail(cursor, *origin, 0, why, rc);
    cursor->slices.push_back({origin, 0, origin->file.get(), {}});
    return 0;
}

// 0, TSIDX_VANISHED or a failure.
int64_t add_directory(term_cursor_t* cursor, term_origin* origin, warm_rc_t* rc) {
    TSIDX* const tsidx = origin->tsidx;
    auto snapshot = std::make_unique<tsidx_snapshot>(tsidx);
    int status = tsidx_begin_read(tsidx);
    if (status == 0) status = snapshot->take();
    if (status != 0) return fail(cursor, *origin, 0, tsidx->last_failure, rc);
    origin->snapshot = std::move(snapshot);
    for (size_t i = 0; i < origin->snapshot->size(); i++) {
        warm_rc_t why;
        const int64_t opened = origin->snapshot->try_open(i, &why);
        if (opened == TSIDX_VANISHED) return opened;
        if (opened == 0) {
            cursor->slices.push_back({origin, i, origin->snapshot->warm(i), {}});
        } else {
            ST_TRY(fail(cursor, *origin, i, why, rc));
        }
    }
    return 0;
}

int64_t open_slices(term_cursor_t* cursor, warm_rc_t* rc) {
    cursor->slices.clear();
    cursor->origins.clear();
    for (const cursor_source_t& source : cursor->options.sources) {
        const bool is_file = source.tsidx == nullptr;
        cursor->origins.push_back({source.tsidx, is_file ? source.path : source.tsidx->path, {}, {}});
    }
    for (term_origin& origin : cursor->origins) {
        const int64_t status =
            origin.tsidx == nullptr ? add_file(cursor, &origin, rc) : add_directory(cursor, &origin, rc);
        if (status != 0) return status;
    }
    return 0;
}

// Over new listings until all slices of one of them could be opened.
int open_at_one_moment(term_cursor_t* cursor, warm_rc_t* rc) {
    for (int i = 0; i < TSIDX_MAX_SNAPSHOTS; i++) {
        const int64_t status = open_slices(cursor, rc);
        if (status != TSIDX_VANISHED) return static_cast<int>(status);
        tsidx_pause(i);
    }
    for (const cursor_source_t& source : cursor->options.sources) {
        if (source.tsidx != nullptr) _cpy_rc(rc, (tsidx_fail_vanishing(source.tsidx), &source.tsidx->last_failure));
    }
    return WARM_RC_RETRIES;
}

int start(term_cursor_t* cursor, warm_rc_t* rc) {
    ST_TRY(open_at_one_moment(cursor, rc));
    const uint64_t piece = ALL_PIECES_BYTES / std::max<size_t>(cursor->slices.size(), 1);
    for (term_slice& slice : cursor->slices) {
        warm_rc_t why;
        if (slice.terms.open(slice.warm, cursor->options.choice, piece, &why) == 0) {
            cursor->current.push_back(&slice);
        } else {
            ST_TRY(fail(cursor, *slice.origin, slice.number, why, rc));
        }
    }
    return 0;
}

// The slices of the current term move on and join the others.
int advance(term_cursor_t* cursor, warm_rc_t* rc) {
    for (term_slice* const slice : cursor->current) {
        warm_rc_t why;
        if (slice->terms.next(&why) != 0) {
            ST_TRY(fail(cursor, *slice->origin, slice->number, why, rc));
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
        term_cursor_ptr cursor(
            new term_cursor_t{.options = options, .origins = {}, .slices = {}, .current = {}, .heap = {}});
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
            ST_TRY(fail(cursor, *slice->origin, slice->number, why, rc));
        }
    }
    return 0;
}

}  // namespace veldar
