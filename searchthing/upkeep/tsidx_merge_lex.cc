#include "searchthing/upkeep/tsidx_merge_lex.h"

#include <fcntl.h>

#include <string>
#include <string_view>

#include "libzero/assertions.h"
#include "searchthing/merge/merged_lexicon.h"
#include "searchthing/reading/cursors.h"
#include "searchthing/reading/tsidx_snapshot_walk.h"
#include "searchthing/slice/warmslice_terms.h"

namespace veldar {

namespace {

constexpr uint64_t PIECE_BYTES = 128 << 10;  // of a lexicon, at a time

// A merged lexicon of a directory under its temporary name.
struct lexicon_target {
    explicit lexicon_target(TSIDX* directory)
        : tsidx(directory),
          final_path(tsidx->path + "/" + TSIDX_MERGED_LEXICON_NAME),
          file(tsidx->path + "/" + TSIDX_MERGED_LEXICON_PART + std::to_string(st_warm_slice_unique_id(&tsidx->rng))) {}

    int create(uint32_t terms_per_block, uint64_t page_size, warm_rc_t* rc) {
        if (terms_per_block == 0) terms_per_block = tsidx->opts.merge_terms_per_block;
        return file.create(terms_per_block, page_size, rc);
    }

    // Completes the file and gives it its name.
    int finish(warm_rc_t* rc) {
        ST_TRY(file.finish(rc));
        ST_TRY(tsidx_flush(tsidx, file.path().c_str(), 0, rc));
        ST_TRY(file.rename_to(final_path, rc));
        return tsidx_flush(tsidx, tsidx->path.c_str(), O_DIRECTORY, rc);
    }

    TSIDX* tsidx;
    std::string final_path;
    merged_lexicon_file file;
};

int count_slices(TSIDX* tsidx, size_t* slices) {
    tsidx_snapshot snapshot({{.tsidx = tsidx, .path = {}}}, nullptr);
    ST_TRY(snapshot.begin(&tsidx->last_failure));
    *slices = snapshot.size();
    return 0;
}

int merge(TSIDX* tsidx, uint32_t min_src_count, uint32_t terms_per_block, uint64_t page_size, warm_rc_t* rc) {
    size_t slices = 0;
    if (const int status = count_slices(tsidx, &slices)) return _cpy_rc(rc, &tsidx->last_failure), status;
    if (slices < 2) return _set_rc(rc, WARM_RC_FEW_SLICES);
    if (slices < min_src_count) return _set_rc(rc, WARM_RC_FEW_SOURCES);
    lexicon_target target(tsidx);
    ST_TRY(target.create(terms_per_block, page_size, rc));
    rc->warm_rc = 0;
    const term_cursor_ptr terms =
        term_cursor_open({.sources = {{.tsidx = tsidx, .path = {}}}, .choice = {}, .on_failure = {}}, rc);
    if (terms == nullptr) return rc->warm_rc;
    while (true) {
        std::string_view term;
        term_totals_t totals;
        ST_TRY(term_cursor_next(terms.get(), &term, rc));
        if (term.data() == nullptr) return target.finish(rc);
        ST_TRY(term_cursor_totals(terms.get(), &totals, rc));
        ST_TRY(target.file.put(term, totals.count, rc));
    }
}

int filter(TSIDX* tsidx, uint32_t terms_per_block, uint64_t page_size, uint32_t min_events, warm_rc_t* rc) {
    lexicon_target target(tsidx);
    const warm_ptr warm(st_warm_slice_open_rdonly(target.final_path.c_str(), rc));
    if (warm == nullptr) return rc->warm_rc;
    const term_choice_t all;
    warm_terms terms;
    ST_TRY(terms.open(warm.get(), all, PIECE_BYTES, rc));
    ST_TRY(target.create(terms_per_block, page_size, rc));
    rc->warm_rc = 0;
    while (true) {
        ST_TRY(terms.next(rc));
        if (terms.at_end()) return target.finish(rc);
        term_totals_t totals;
        ST_TRY(terms.add_totals(&totals, rc));
        if (totals.count >= min_events) ST_TRY(target.file.put(terms.text(), totals.count, rc));
    }
}

}  // namespace

int st_tsidx_merge_lex_n(TSIDX* tsidx, uint32_t min_src_count, uint32_t terms_per_block, uint64_t page_size,
                         warm_rc_t* rc) {
    ST_ASSERT(tsidx != nullptr && rc != nullptr);
    try {
        return merge(tsidx, min_src_count, terms_per_block, page_size, rc);
    } catch (const std::bad_alloc&) {
        return _set_rc(rc, WARM_RC_NO_MEMORY);
    }
}

int st_tsidx_filter_merged_lex(TSIDX* tsidx, uint32_t terms_per_block, uint64_t page_size, uint32_t min_events,
                               warm_rc_t* rc) {
    ST_ASSERT(tsidx != nullptr && rc != nullptr);
    try {
        return filter(tsidx, terms_per_block, page_size, min_events, rc);
    } catch (const std::bad_alloc&) {
        return _set_rc(rc, WARM_RC_NO_MEMORY);
    }
}

}  // namespace veldar
