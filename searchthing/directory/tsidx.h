// An index directory: its handle, limits, options, parameter file and marker, transactions, and the sync of its hot
// slice into a new warm slice. How it is read: tsidx_read.h, tsidx_snapshot.h; deletes: tsidx_upkeep.h.
//
// A directory is used through one handle by one thread at a time. Several handles may write into one directory at once:
// every file that a sync makes has a name of its own. A slice appears under its final name only by a link to a complete
// file whose bytes have reached the disk, so that a directory listing never shows a partial slice, whenever the process
// is killed.
//
//   name in the directory              what
//   <latest>-<earliest>-<id>.tsidx     a slice
//   ...-<id>.pre-tsidx                 a slice being written, or complete but not moved (st_tsidx_unmoved_slice)
//   ...-<id>.<n>.<writer>.part-tsidx   a slice written in part mode
//   <name of a slice>.deleted          hides that slice, whose events are all deleted (tsidx_upkeep.h)
//   veldar-autogen-params.dat          tuned limits (tsidx_params.h)
//   veldar-need-optimize.dat           marker: there is something to merge
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "searchthing/base/stop_check.h"
#include "searchthing/base/warm_rc.h"
#include "searchthing/format/write_options.h"
#include "searchthing/values/st_tsval.h"

namespace veldar {

// Sizes of the next hot slice (hotslice.h).
struct tsidx_limits_t {
    uint64_t lexicon_bytes = 0;
    uint64_t max_terms = 0;  // kept as a power of two
    uint64_t max_postings = 0;
    uint64_t max_values = 0;
    uint64_t keywords_per_txn = 0;
    uint64_t dimset_words = 0;
    uint64_t max_dimset_measures = 0;
    bool operator==(const tsidx_limits_t&) const = default;
};

inline constexpr uint32_t TSIDX_ORDINARY_WRITER = 0xFFFFFFFF;

// The result of a sync that could not create or move its slice.
inline constexpr int TSIDX_SYNC_FAILED = -6;
// The result of a part-mode sync beyond the last part number: nothing was written, the hot slice is as it was.
inline constexpr int TSIDX_PARTS_EXHAUSTED = 1;

struct st_tsidx;
using TSIDX = st_tsidx;

// A handle on the directory, or null for an empty path or when memory is short. Write level 0 opens for reading:
// nothing in the directory is read or changed and transactions answer WARM_RC_UNSUPPORTED. Any other level reads the
// parameter file and removes what interrupted writers have left behind.
// The writer number names the files of a writer that shares the directory with others; TSIDX_ORDINARY_WRITER takes the
// process id instead.
TSIDX* st_tsidx_open(const char* path, int streaming, int is_msidx, const TSWRITEOPTS* opts, uint32_t writer_number);
// Syncs, writes the parameter file when its content would change, and frees the handle: 0, or TSIDX_SYNC_FAILED when
// the last sync failed, this one or an earlier one. A transaction that is not closed is dropped.
[[nodiscard]] int st_tsidx_close(TSIDX* tsidx);
// Frees the handle and writes nothing: what is in memory is lost. For a writer whose sync has failed and who must not
// make later events visible while earlier ones are lost.
void st_tsidx_abandon(TSIDX* tsidx);
// For handles without events in memory: their close has nothing to tell.
struct tsidx_closer {
    void operator()(TSIDX* handle) const { static_cast<void>(st_tsidx_close(handle)); }
};
using tsidx_ptr = std::unique_ptr<TSIDX, tsidx_closer>;

// Writes the hot slice as a warm slice: 0 (also when there is nothing to write) or TSIDX_SYNC_FAILED with the reason in
// st_tsidx_last_failure. Transient errors are retried with pauses, for about a minute. The hot slice is empty
// afterwards in either case: after a failure its events are lost to the index and must be put again, unless
// st_tsidx_unmoved_slice names a file that holds them.
[[nodiscard]] int st_tsidx_sync(TSIDX* tsidx);
// The same in part mode; falls back to an ordinary sync when the directory has used its 64 part numbers.
[[nodiscard]] int st_tsidx_sync_part(TSIDX* tsidx);
// Both of them: in part mode the suffix is made here and the argument is ignored.
[[nodiscard]] int _st_tsidx_sync(TSIDX* tsidx, const char* suffix, int part_mode);

// Limits of the next hot slice; `max_terms` is rounded up to a power of two.
void st_tsidx_set_params(TSIDX* tsidx, uint64_t max_terms, uint64_t lexicon_bytes, uint64_t max_postings,
                         uint64_t max_values, uint64_t keywords_per_txn, uint64_t dimset_words);
// The same for four of them, 0 leaving a limit as it is, applied at once: a hot slice in use is synced first. When that
// fails, the events lost are told by the next transaction close (which refuses its event), sync or read:
// TSIDX_SYNC_FAILED. 0, or WARM_RC_INVALID_ARGUMENT for more postings or values than a hot slice can have.
//
// The limits are what memory is reserved for. A slice ends when one of them is passed by seven eighths (from 65536 on,
// fifteen sixteenths), earlier for what st_tsidx_txn_close says, and at 2 GiB of lexicon and 138547332 values (metric
// directories: 69273666) in any case; a transaction that does not fit by itself raises them, as does autotune.
[[nodiscard]] int st_tsidx_options(TSIDX* tsidx, uint64_t lexicon_bytes, uint64_t max_terms, uint64_t max_postings,
                                   uint64_t max_values);
uint64_t st_tsidx_max_terms(const TSIDX* tsidx);
uint64_t st_tsidx_max_term_chars(const TSIDX* tsidx);  // lexicon bytes
uint64_t st_tsidx_max_postings(const TSIDX* tsidx);
uint64_t st_tsidx_max_values(const TSIDX* tsidx);
// Whether a limit that ended a hot slice doubles for the next one, while the estimated memory stays within 256 MiB; it
// does unless switched off. 0.
int st_tsidx_autotune(TSIDX* tsidx, int enable);
// Durability switch: 0 leaves out every fsync, for throw-away indexes; the default is 1.
void st_tsidx_set_durable(TSIDX* tsidx, int durable);

// What writers that are gone have left in the directory, whichever way the handle was opened; what may still be written
// is not among it. 0, or a failure of listing or of reading a manifest, recorded.
struct tsidx_leftover_t {
    std::string name;
    uint64_t bytes = 0;  // that its removal frees
    bool is_kept =
        false;  // it holds events that are nowhere else; anything else goes when the directory is opened for writing
};
[[nodiscard]] int st_tsidx_find_leftovers(TSIDX* tsidx, std::vector<tsidx_leftover_t>* found);

// The marker file: 1 when it exists, else 0; creating and removing it: 0, or WARM_RC_OPEN or WARM_RC_WRITE with errno
// set.
int st_tsidx_need_optimize(const TSIDX* tsidx);
[[nodiscard]] int st_tsidx_set_need_optimize(TSIDX* tsidx);
[[nodiscard]] int st_tsidx_clear_need_optimize(TSIDX* tsidx);

// Keywords of more than 2047 bytes that this handle cut. The first one is logged.
uint64_t st_tsidx_keywords_cut(const TSIDX* tsidx);
// The failure of the last sync, transaction call, read or delete that failed in the engine; code 0 after one that
// succeeded or that was refused with a hot-put result.
const warm_rc_t* st_tsidx_last_failure(const TSIDX* tsidx);
// Is asked while this handle's directory is read: before each slice, every few thousand events or terms of a cursor, and
// inside of a slice after as much work, but not during one posting list.
// When it says true, the read fails with WARM_RC_CANCELLED, whoever hears of failures. Null: nobody is asked.
void st_tsidx_set_read_stop(TSIDX* tsidx, warm_stop_fn stop, void* context);
int st_tsidx_get_warm_rc(const TSIDX* tsidx);
int st_tsidx_get_warm_errno(const TSIDX* tsidx);
uint64_t st_tsidx_slices_written(const TSIDX* tsidx);  // by this handle
// How many transactions a slice that this handle wrote holds on average, rounded down; 0 before the first one.
uint64_t st_tsidx_txn_per_sync(const TSIDX* tsidx);
// The complete ".pre-tsidx" file of the last sync whose move failed, or an empty text. Valid until the next sync.
const char* st_tsidx_unmoved_slice(const TSIDX* tsidx);

// Transactions: start, any number of puts, close. All or nothing: keywords are buffered and applied at close after an
// exact check of the space, so that no event is split over two slices. The record is passed to each call; close indexes
// the event as the record then is.
//
// start: 0, WARM_RC_DOES_NOT_FIT for a source other than all-ones, a source type or a host of 2^31 or more,
// WARM_RC_UNSUPPORTED for a directory opened for reading, WARM_RC_INVALID_ARGUMENT while a transaction is open, which
// then stays open. One with a refused put has been told of and is over: a start begins afresh.
int st_tsidx_txn_start(TSIDX* tsidx, const st_txn* txn);
// put: 0, also for an empty keyword, which is ignored; WARM_RC_INVALID_ARGUMENT without a transaction;
// HOT_PUT_RC_BAD_KEYWORD for a NUL byte among the first 2047 bytes, or WARM_RC_NO_MEMORY, and then close refuses the
// event with the same result. A keyword longer than 2047 bytes is cut and counted (st_tsidx_keywords_cut). In a metric
// directory the record's measure goes with the keyword, when that names one.
int st_tsidx_txn_put(TSIDX* tsidx, const char* text, size_t length, const st_txn* txn);
// abort: drops the open transaction, if there is one.
void st_tsidx_txn_abort(TSIDX* tsidx);
// close: 0, and then the event is in the hot slice, whole. An event without keywords leaves no trace. A hot-put result:
// too large for any hot slice. TSIDX_SYNC_FAILED or another engine status: nothing of the event was applied, see
// st_tsidx_last_failure. What does not fit syncs the hot slice first, as does an event whose address belongs to another
// event of the hot slice, and in streaming mode an event older than the last.
//
// Metric directories: the keywords are the event's dimension set (hotslice.h), the address is not kept, an all-ones
// source counts as 0. WARM_RC_INVALID_ARGUMENT for an event without a measure or with two hosts, sources or source
// types. A keyword that is no dimension by its beginning is kept in the set as one: it is found at exactly the events
// that it was put with, and told among their dimensions.
[[nodiscard]] int st_tsidx_txn_close(TSIDX* tsidx, const st_txn* txn);
// A whole event: start, a put of every keyword, close, with the first of their results that is not 0. The keywords are
// not copied before they are indexed.
[[nodiscard]] int st_tsidx_put_event(TSIDX* tsidx, const st_txn* txn, std::span<const std::string_view> keywords);

}  // namespace veldar
