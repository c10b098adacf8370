// Transactions of an index directory: buffered keywords, applied whole at close.
#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "libzero/assertions.h"
#include "libzero/vbe.h"
#include "searchthing/base/log.h"
#include "searchthing/columns/dimset.h"
#include "searchthing/directory/tsidx_handle.h"
#include "searchthing/lexicon/fclex.h"

namespace veldar {

namespace {

int fail(TSIDX* tsidx, int status, const char* message) {
    return _set_rc_msg(&tsidx->last_failure, status, message);
}

// A plain refusal: the event or keyword is at fault, not the engine.
int refuse(TSIDX* tsidx, int code) {
    tsidx->last_failure = {};
    return code;
}

// Without one of its keywords the event would not be whole: close answers as the first such put did.
int lose_keyword(TSIDX* tsidx, int code) {
    if (tsidx->txn.failed == 0) tsidx->txn.failed = code;
    return code == WARM_RC_NO_MEMORY ? fail(tsidx, code, "transaction buffer") : refuse(tsidx, code);
}

// An entry of a companion array is never wider than 31 bits.
bool fits_companions(const st_txn& txn) {
    static_assert(MAX_COMPANION_NBITS == 31 && ST_DELETED_SOURCE >> MAX_COMPANION_NBITS != 0);
    const auto fits = [](uint32_t value) { return value < uint32_t{1} << 31; };
    return (fits(txn.source) || txn.source == ST_DELETED_SOURCE) && fits(txn.source_type) && fits(txn.host);
}

void warn_about_length(TSIDX* tsidx, size_t length) {
    if (tsidx->keywords_cut++ != 0) return;
    _log(0, "WARN  keywords of more than %u bytes are cut. length=%zu, path=%s\n", ST_MAX_TERM_LENGTH, length,
         tsidx->path.c_str());
}

const char* keep_text(tsidx_txn_buffer& buffered, const char* text, uint32_t length) {
    if (buffered.arena.size() - buffered.used < length) {
        const char* const before = buffered.arena.data();
        const size_t grown = std::max<size_t>(2 * (buffered.used + length), 16384);
        std::vector<char> arena(grown);
        std::copy_n(before, buffered.used, arena.data());
        for (hot_keyword_t& keyword : buffered.keywords) keyword.text = arena.data() + (keyword.text - before);
        buffered.arena.swap(arena);
    }
    char* const copy = buffered.arena.data() + buffered.used;
    std::memcpy(copy, text, length);
    buffered.used += length;
    ST_ASSERT(buffered.used <= buffered.arena.size());
    return copy;
}

// Appends a keyword of the open transaction, whose text stays where it is unless it is to be kept.
int put_keyword(TSIDX* tsidx, const char* text, size_t length, const st_txn& txn, bool keep) {
    if (length == 0) return 0;
    const uint32_t kept = static_cast<uint32_t>(std::min<size_t>(length, ST_MAX_TERM_LENGTH));
    const hot_hash_t hash = hot_slice_hash_checked(text, kept);
    if (hash.has_nul) return lose_keyword(tsidx, HOT_PUT_RC_BAD_KEYWORD);
    if (length > kept) warn_about_length(tsidx, length);
    try {
        if (keep) text = keep_text(tsidx->txn, text, kept);
        tsidx->txn.keywords.push_back({.text = text, .length = kept, .hash = hash.hash});
        if (tsidx->is_msidx) tsidx->txn.measures.push_back(txn.measure);
    } catch (const std::bad_alloc&) {
        return lose_keyword(tsidx, WARM_RC_NO_MEMORY);
    }
    return 0;
}

// Metric directories: whether the keywords make one dimension set with something measured under it. A field of a set
// has one value.
int check_metric_event(TSIDX* tsidx) {
    const hot_keyword_t* fields[HOT_DIM_COLUMN + 1] = {};
    static_assert(std::max({HOT_DIM_HOST, HOT_DIM_SOURCE, HOT_DIM_SOURCE_TYPE, HOT_DIM_OPTIONAL}) < HOT_DIM_COLUMN);
    for (const hot_keyword_t& keyword : tsidx->txn.keywords) {
        const std::string_view text(keyword.text, keyword.length);
        const hot_dimension_t dimension = hot_slice_classify(text);
        const hot_keyword_t* const before = std::exchange(fields[dimension], &keyword);
        const bool is_field =
            dimension == HOT_DIM_HOST || dimension == HOT_DIM_SOURCE || dimension == HOT_DIM_SOURCE_TYPE;
        if (is_field && before != nullptr && text != std::string_view(before->text, before->length)) {
            return fail(tsidx, WARM_RC_INVALID_ARGUMENT, "metric event has two hosts, sources or source types");
        }
    }
    if (fields[HOT_DIM_COLUMN] != nullptr) return 0;
    return fail(tsidx, WARM_RC_INVALID_ARGUMENT, "metric event without a measure");
}

bool same_fields(const st_tsval& value, const st_txn& txn) {
    return value.time == txn.time && value.s == txn.source && value.st == txn.source_type && value.h == txn.host;
}

// Whether the event would be taken for another one of the hot slice, or come out of order in streaming mode.
bool conflicts(const TSIDX* tsidx, const st_txn& txn) {
    if (const st_tsval* value = hot_slice_find_value(tsidx->hot, &txn)) return !same_fields(*value, txn);
    if (!tsidx->streaming) return false;
    const st_tsval* last = hot_slice_last_value(tsidx->hot);
    return last != nullptr && (txn.time < last->time || (txn.time == last->time && txn.address < last->address));
}

void warn_about_addresses(TSIDX* tsidx, st_addr_t address) {
    if (std::exchange(tsidx->warned_about_addresses, true)) return;
    _log(0, "WARN  events out of order or with one address for several of them end slices early. address=%u, path=%s\n",
         address, tsidx->path.c_str());
}

// Raises the limits that the transaction alone exceeds to a power of two that holds twice its need. False, and nothing
// changed, when that would leave the ranges of a directory.
bool grow_limits(TSIDX* tsidx) {
    uint64_t bytes = 0;
    for (const hot_keyword_t& keyword : tsidx->txn.keywords) bytes += keyword.length + 1;
    const uint64_t count = tsidx->txn.keywords.size();
    tsidx_limits_t grown = tsidx->limits;
    const auto raise = [](uint64_t* limit, uint64_t need) {
        if (*limit <= need) *limit = round_up_to_power_of_two(2 * need);
    };
    raise(&grown.lexicon_bytes, bytes);
    raise(&grown.max_terms, count);
    raise(&grown.max_postings, count);
    raise(&grown.max_values, 1);
    if (tsidx->is_msidx) {
        raise(&grown.keywords_per_txn, count);
        raise(&grown.dimset_words, count + DS_MIN_WORDS);
        raise(&grown.max_dimset_measures, count);
    }
    if (!tsidx_limits_within(grown, tsidx_clamp_limits(grown))) return false;
    tsidx->limits = grown;
    return true;
}

st_hotput_rc_t check_fit(const TSIDX* tsidx, const st_txn* txn) {
    return tsidx->is_msidx ? hot_slice_check_metric_txn(tsidx->hot, tsidx->txn.keywords)
                           : hot_slice_check_txn(tsidx->hot, txn, tsidx->txn.keywords);
}

// Leaves a hot slice with room for the transaction, or refuses it.
int make_room(TSIDX* tsidx, const st_txn* txn) {
    ST_TRY(tsidx_ensure_hot(tsidx));
    if (const int code = st_hot_slice_check_space(tsidx->hot); code != 0) {
        ST_TRY(tsidx_sync_full(tsidx, code));
        ST_TRY(tsidx_ensure_hot(tsidx));
    } else if (conflicts(tsidx, *txn)) {
        warn_about_addresses(tsidx, txn->address);
        ST_TRY(st_tsidx_sync(tsidx));
        ST_TRY(tsidx_ensure_hot(tsidx));
    }
    int code = check_fit(tsidx, txn);
    // A dimension set that is too large by itself is so in any hot slice.
    const bool set_too_large =
        code == HOT_PUT_RC_TXN_TOO_LARGE && tsidx->txn.keywords.size() <= tsidx->hot_limits.keywords_per_txn;
    if (set_too_large) return refuse(tsidx, code);
    if (code != 0 && st_hot_slice_values(tsidx->hot) != 0) {
        ST_TRY(tsidx_sync_full(tsidx, code));
        ST_TRY(tsidx_ensure_hot(tsidx));
        code = check_fit(tsidx, txn);
    }
    if (code != 0 && grow_limits(tsidx)) {
        ST_TRY(tsidx_ensure_hot(tsidx));
        code = check_fit(tsidx, txn);
    }
    return code == 0 ? 0 : refuse(tsidx, code);
}

}  // namespace

int st_tsidx_txn_start(TSIDX* tsidx, const st_txn* txn) {
    ST_ASSERT(tsidx != nullptr && txn != nullptr);
    if (!tsidx_is_writable(tsidx)) return fail(tsidx, WARM_RC_UNSUPPORTED, "directory is open for reading");
    if (tsidx->txn.open && tsidx->txn.failed == 0) {
        return fail(tsidx, WARM_RC_INVALID_ARGUMENT, "a transaction is open");
    }
    tsidx->txn.open = false;
    if (!fits_companions(*txn)) return fail(tsidx, WARM_RC_DOES_NOT_FIT, "source, source type or host beyond 31 bits");
    tsidx->txn.open = true;
    tsidx->txn.failed = 0;
    tsidx->txn.used = 0;
    tsidx->txn.keywords.clear();
    tsidx->txn.measures.clear();
    return 0;
}

int st_tsidx_txn_put(TSIDX* tsidx, const char* text, size_t length, const st_txn* txn) {
    ST_ASSERT(tsidx != nullptr && txn != nullptr && (text != nullptr || length == 0));
    if (!tsidx->txn.open) return fail(tsidx, WARM_RC_INVALID_ARGUMENT, "no transaction is open");
    return put_keyword(tsidx, text, length, *txn, true);
}

int st_tsidx_put_event(TSIDX* tsidx, const st_txn* txn, std::span<const std::string_view> keywords) {
    ST_TRY(st_tsidx_txn_start(tsidx, txn));
    for (const std::string_view& keyword : keywords) {
        static_cast<void>(put_keyword(tsidx, keyword.data(), keyword.size(), *txn, false));  // close tells
    }
    return st_tsidx_txn_close(tsidx, txn);
}

void st_tsidx_txn_abort(TSIDX* tsidx) {
    ST_ASSERT(tsidx != nullptr);
    tsidx->txn.open = false;
}

int st_tsidx_txn_close(TSIDX* tsidx, const st_txn* given) {
    ST_ASSERT(tsidx != nullptr && given != nullptr);
    if (!std::exchange(tsidx->txn.open, false)) {
        return fail(tsidx, WARM_RC_INVALID_ARGUMENT, "no transaction is open");
    }
    if (tsidx->txn.failed != 0) return lose_keyword(tsidx, tsidx->txn.failed);
    if (std::exchange(tsidx->untold_loss, false)) return TSIDX_SYNC_FAILED;
    tsidx->last_failure.warm_rc = 0;
    st_txn txn = *given;
    if (tsidx->is_msidx) {
        ST_TRY(check_metric_event(tsidx));
        // Metric slices have no deletes.
        if (txn.source == ST_DELETED_SOURCE) txn.source = 0;
    }
    if (tsidx->txn.keywords.empty()) return 0;
    if (!fits_companions(txn)) return fail(tsidx, WARM_RC_DOES_NOT_FIT, "source, source type or host beyond 31 bits");
    try {
        ST_TRY(make_room(tsidx, &txn));
    } catch (const std::bad_alloc&) {
        return fail(tsidx, WARM_RC_NO_MEMORY, "transaction check");
    }
    if (tsidx->is_msidx) {
        ST_ASSERT(tsidx->txn.measures.size() == tsidx->txn.keywords.size());
        hot_slice_put_metric(tsidx->hot, &txn, tsidx->txn.keywords, tsidx->txn.measures);
    } else {
        hot_slice_put_all(tsidx->hot, &txn, tsidx->txn.keywords);
    }
    ST_ASSERT(st_hot_slice_values(tsidx->hot) > 0 && !tsidx->txn.open);
    tsidx->txns_in_hot++;
    return 0;
}

}  // namespace veldar
