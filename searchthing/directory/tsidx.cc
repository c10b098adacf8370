#include "searchthing/directory/tsidx.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

#include "libzero/assertions.h"
#include "libzero/osfile.h"
#include "libzero/vbe.h"
#include "searchthing/base/log.h"
#include "searchthing/directory/tsidx_handle.h"

namespace veldar {

namespace {

constexpr uint64_t AUTOTUNE_MAX_BYTES = uint64_t{256} << 20;
constexpr std::chrono::minutes PARAMS_INTERVAL{1};

uint64_t* limit_behind(tsidx_limits_t* limits, int code) {
    switch (code) {
        case HOT_PUT_RC_TERMS_FULL:
            return &limits->max_terms;
        case HOT_PUT_RC_VALUES_FULL:
            return &limits->max_values;
        case HOT_PUT_RC_POSTINGS_FULL:
            return &limits->max_postings;
        case HOT_PUT_RC_LEXICON_FULL:
            return &limits->lexicon_bytes;
        case HOT_PUT_RC_DIMSETS_FULL:
            return &limits->dimset_words;
        case HOT_PUT_RC_MEASURES_FULL:
            return &limits->max_dimset_measures;
        default:
            return nullptr;
    }
}

void tune(TSIDX* tsidx, int code) {
    tsidx_limits_t tuned = tsidx->limits;
    uint64_t* const limit = limit_behind(&tuned, code);
    ST_ASSERT(limit != nullptr);
    const bool is_huge = *limit > AUTOTUNE_MAX_BYTES;  // else nothing below wraps
    *limit *= 2;
    const uint64_t words = tsidx->is_msidx ? tuned.dimset_words : 0;
    const uint64_t measures = tsidx->is_msidx ? tuned.max_dimset_measures : 0;
    if (is_huge || st_hot_slice_size_est(tuned.lexicon_bytes, tuned.max_terms, tuned.max_postings, tuned.max_values,
                                         words, measures) > AUTOTUNE_MAX_BYTES) {
        return;
    }
    tsidx->limits = tuned;
    if (std::chrono::steady_clock::now() - tsidx->params_written >= PARAMS_INTERVAL) tsidx_save_params(tsidx);
}

HOT* create_hot(TSIDX* tsidx, warm_rc_t* rc) {
    const tsidx_limits_t l = tsidx_writable_limits(tsidx->limits, tsidx->is_msidx);
    return st_hot_slice_create(l.lexicon_bytes, l.max_terms, l.max_postings, l.max_values, l.keywords_per_txn,
                               l.dimset_words, l.max_dimset_measures, tsidx->streaming, tsidx->is_msidx, &tsidx->opts,
                               rc);
}

// Rounding yields 0 for what has no power of two above it; such a number stays, for creation to refuse.
uint64_t as_power_of_two(uint64_t limit) {
    return std::max(limit, round_up_to_power_of_two(limit));
}

// The marker of a directory that waits for a merge; "" where its name has no room, which is no file's.
const char* marker_path(const TSIDX* tsidx, ospath_builder* path) {
    const char* const directory = tsidx->path.c_str();
    static_cast<void>(ospath_builder_concat_two_paths_with_sep(path, directory, TSIDX_NEED_OPTIMIZE_NAME));
    return path->buf.val;
}

}  // namespace

bool tsidx_is_writable(const TSIDX* tsidx) {
    return tsidx->opts.write_level != 0;
}

uint32_t tsidx_writer_tag(const TSIDX* tsidx) {
    return tsidx->writer_number != TSIDX_ORDINARY_WRITER ? tsidx->writer_number : static_cast<uint32_t>(::getpid());
}

int tsidx_ensure_hot(TSIDX* tsidx) {
    tsidx->is_used = true;
    if (tsidx->hot != nullptr) {
        if (st_hot_slice_values(tsidx->hot) != 0 || tsidx->hot_limits == tsidx->limits) return 0;
        st_hot_slice_close(std::exchange(tsidx->hot, nullptr));
    }
    tsidx->hot = create_hot(tsidx, &tsidx->last_failure);
    if (tsidx->hot == nullptr && warm_status_indicates_oomem(tsidx->last_failure.warm_rc)) {
        tsidx->limits = tsidx_default_limits(tsidx->is_msidx);
        tsidx->hot = create_hot(tsidx, &tsidx->last_failure);
    }
    tsidx->hot_limits = tsidx->limits;
    return tsidx->hot != nullptr ? 0 : tsidx->last_failure.warm_rc;
}

int tsidx_sync_full(TSIDX* tsidx, int code) {
    ST_TRY(st_tsidx_sync(tsidx));
    if (tsidx->autotune && st_hot_slice_needs_limits_adjusted(code)) tune(tsidx, code);
    return 0;
}

void tsidx_load_params(TSIDX* tsidx) {
    tsidx->params_written = std::chrono::steady_clock::now();
    tsidx->stored_params = {};
    tsidx->limits = tsidx_default_limits(tsidx->is_msidx);
    tsidx_limits_t stored;
    if (tsidx_read_params(tsidx->path.c_str(), &tsidx->stored_params) &&
        deserialize_params(tsidx->stored_params.text, &stored)) {
        const tsidx_limits_t sane = tsidx_clamp_limits(stored);
        if (tsidx_limits_within(stored, sane)) {
            tsidx->limits = sane;
        } else {
            _log(0, "WARN  a parameter file with limits out of range was ignored. path=%s\n", tsidx->path.c_str());
        }
    }
    ST_ASSERT(std::has_single_bit(tsidx->limits.max_terms));
    tsidx->loaded_limits = tsidx->limits;
    tsidx->is_used = false;
}

void tsidx_save_params(TSIDX* tsidx) {
    if (!tsidx->is_used && tsidx->limits == tsidx->loaded_limits) return;
    const tsidx_params_line line = serialize_params(tsidx->limits, tsidx->writer_number);
    if (std::strcmp(line.text, tsidx->stored_params.text) == 0) return;
    tsidx->params_written = std::chrono::steady_clock::now();
    if (tsidx_write_params(tsidx->path.c_str(), line, tsidx_writer_tag(tsidx)) == 0) {
        tsidx->stored_params = line;
    } else {
        _log(0, "WARN  parameter file was not written. rc=%i, path=%s\n", errno, tsidx->path.c_str());
    }
}

TSIDX* st_tsidx_open(const char* path, int streaming, int is_msidx, const TSWRITEOPTS* opts, uint32_t writer_number) {
    ST_ASSERT(path != nullptr && opts != nullptr);
    if (*path == '\0') return nullptr;
    try {
        auto tsidx = std::make_unique<st_tsidx>();
        tsidx->path = path;
        tsidx->streaming = streaming != 0;
        tsidx->is_msidx = is_msidx != 0;
        tsidx->writer_number = writer_number;
        tsidx->limits = tsidx_default_limits(tsidx->is_msidx);
        xorshift128plus_init(&tsidx->rng);
        if (opts->write_level == 0) {
            st_tsidx_write_opts_init_write_level(&tsidx->opts, 0);
            return tsidx.release();
        }
        st_tsidx_write_opts_copy(&tsidx->opts, opts);
        if (tsidx->is_msidx) tsidx->opts.write_level = std::max(tsidx->opts.write_level, 4u);
        tsidx_load_params(tsidx.get());
        tsidx_recover(tsidx.get());
        return tsidx.release();
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

int st_tsidx_close(TSIDX* tsidx) {
    ST_ASSERT(tsidx != nullptr);
    const std::unique_ptr<st_tsidx> owner(tsidx);
    if (tsidx_is_writable(tsidx)) {
        static_cast<void>(st_tsidx_sync(tsidx));
        tsidx_save_params(tsidx);
    }
    st_hot_slice_close(tsidx->hot);
    return tsidx->last_sync_failed ? TSIDX_SYNC_FAILED : 0;
}

void st_tsidx_abandon(TSIDX* tsidx) {
    ST_ASSERT(tsidx != nullptr);
    const std::unique_ptr<st_tsidx> owner(tsidx);
    st_hot_slice_close(tsidx->hot);
}

void st_tsidx_set_params(TSIDX* tsidx, uint64_t max_terms, uint64_t lexicon_bytes, uint64_t max_postings,
                         uint64_t max_values, uint64_t keywords_per_txn, uint64_t dimset_words) {
    ST_ASSERT(tsidx != nullptr);
    tsidx->limits.max_terms = as_power_of_two(max_terms);
    tsidx->limits.lexicon_bytes = lexicon_bytes;
    tsidx->limits.max_postings = max_postings;
    tsidx->limits.max_values = max_values;
    tsidx->limits.keywords_per_txn = keywords_per_txn;
    tsidx->limits.dimset_words = dimset_words;
}

int st_tsidx_options(TSIDX* tsidx, uint64_t lexicon_bytes, uint64_t max_terms, uint64_t max_postings,
                     uint64_t max_values) {
    ST_ASSERT(tsidx != nullptr);
    if (max_postings > st_hot_slice_max_postings() || max_values > st_hot_slice_max_values()) {
        return _set_rc_msg(&tsidx->last_failure, WARM_RC_INVALID_ARGUMENT, "max_postings or max_values is too large");
    }
    if (lexicon_bytes != 0) tsidx->limits.lexicon_bytes = lexicon_bytes;
    if (max_terms != 0) tsidx->limits.max_terms = as_power_of_two(max_terms);
    if (max_postings != 0) tsidx->limits.max_postings = max_postings;
    if (max_values != 0) tsidx->limits.max_values = max_values;
    if (tsidx->hot != nullptr) {
        const int rc = st_tsidx_sync(tsidx);
        if (rc != 0) _log(0, "ERROR sync failed in options(), rc=%i, path=%s\n", rc, tsidx->path.c_str());
        tsidx->untold_loss = rc != 0;
        st_hot_slice_close(std::exchange(tsidx->hot, nullptr));
    }
    return 0;
}

uint64_t st_tsidx_max_terms(const TSIDX* tsidx) {
    return tsidx->limits.max_terms;
}
uint64_t st_tsidx_max_term_chars(const TSIDX* tsidx) {
    return tsidx->limits.lexicon_bytes;
}
uint64_t st_tsidx_max_postings(const TSIDX* tsidx) {
    return tsidx->limits.max_postings;
}
uint64_t st_tsidx_max_values(const TSIDX* tsidx) {
    return tsidx->limits.max_values;
}

int st_tsidx_autotune(TSIDX* tsidx, int enable) {
    ST_ASSERT(tsidx != nullptr);
    tsidx->autotune = enable != 0;
    return 0;
}

void st_tsidx_set_durable(TSIDX* tsidx, int durable) {
    ST_ASSERT(tsidx != nullptr);
    tsidx->durable = durable != 0;
}

int st_tsidx_need_optimize(const TSIDX* tsidx) {
    ST_ASSERT(tsidx != nullptr);
    ospath_builder path;
    return ::access(marker_path(tsidx, &path), F_OK) == 0 ? 1 : 0;
}

int st_tsidx_set_need_optimize(TSIDX* tsidx) {
    ST_ASSERT(tsidx != nullptr);
    ospath_builder path;
    return ospath_mark(marker_path(tsidx, &path)) == 0 ? 0 : WARM_RC_OPEN;
}

int st_tsidx_clear_need_optimize(TSIDX* tsidx) {
    ST_ASSERT(tsidx != nullptr);
    ospath_builder path;
    return ::unlink(marker_path(tsidx, &path)) == 0 || errno == ENOENT ? 0 : WARM_RC_WRITE;
}

uint64_t st_tsidx_keywords_cut(const TSIDX* tsidx) {
    return tsidx->keywords_cut;
}
void st_tsidx_set_read_stop(TSIDX* tsidx, warm_stop_fn stop, void* context) {
    tsidx->read_stop = {stop, context};
}

const warm_rc_t* st_tsidx_last_failure(const TSIDX* tsidx) {
    return &tsidx->last_failure;
}
int st_tsidx_get_warm_rc(const TSIDX* tsidx) {
    return tsidx->last_failure.warm_rc;
}
int st_tsidx_get_warm_errno(const TSIDX* tsidx) {
    return tsidx->last_failure.saved_errno;
}
uint64_t st_tsidx_slices_written(const TSIDX* tsidx) {
    return tsidx->slices_written;
}
uint64_t st_tsidx_txn_per_sync(const TSIDX* tsidx) {
    return tsidx->slices_written == 0 ? 0 : tsidx->txns_written / tsidx->slices_written;
}
const char* st_tsidx_unmoved_slice(const TSIDX* tsidx) {
    return tsidx->unmoved.val;
}

}  // namespace veldar
