// The record of an open index directory, for tsidx*.cc only.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "libzero/change_stamp.h"
#include "libzero/ospath-builder.h"
#include "libzero/xorshift128plus.h"
#include "searchthing/base/stop_check.h"
#include "searchthing/directory/tsidx.h"
#include "searchthing/directory/tsidx_cache.h"
#include "searchthing/directory/tsidx_list.h"
#include "searchthing/directory/tsidx_params.h"
#include "searchthing/hot/hotslice.h"

namespace veldar {

// Keywords of the current transaction. Their texts lie in one arena that keeps its size, so that a directory in use
// allocates nothing a keyword.
struct tsidx_txn_buffer {
    bool open = false;
    int failed = 0;  // result of the first put that lost its keyword
    std::vector<char> arena;
    size_t used = 0;
    std::vector<hot_keyword_t> keywords;
    std::vector<st_measure_t> measures;  // metric directories: parallel to the keywords
};

// What the directory held when it had this stamp.
struct tsidx_known_listing {
    std::shared_ptr<const tsidx_listing_t> slices;  // null: not known
    change_stamp stamp;
};

struct st_tsidx {
    std::string path;
    bool streaming = false;
    bool is_msidx = false;
    uint32_t writer_number = TSIDX_ORDINARY_WRITER;
    TSWRITEOPTS opts;
    tsidx_limits_t limits;
    tsidx_limits_t loaded_limits;  // as the handle found them
    bool is_used = false;          // for events, since then
    xorshift128plus_state rng;

    HOT* hot = nullptr;  // owned; made by the first transaction that needs it
    tsidx_limits_t hot_limits;
    tsidx_txn_buffer txn;

    bool durable = true;
    bool autotune = true;
    tsidx_params_line stored_params;  // what the parameter file is known to hold
    std::chrono::steady_clock::time_point params_written;

    warm_rc_t last_failure;
    bool last_sync_failed = false;
    bool untold_loss = false;  // events were lost by a call whose result did not tell; the next one that can does
    uint64_t slices_written = 0;
    uint64_t txns_written = 0;  // the transactions that are in these slices
    uint64_t txns_in_hot = 0;
    uint32_t parts_written = 0;
    ospath_buf unmoved;
    bool warned_about_addresses = false;
    uint64_t keywords_cut = 0;

    tsidx_cache cache;  // of slices open for reading
    stop_check read_stop;
    tsidx_known_listing listing;
    int lock_seconds = 10;
    bool is_locked = false;  // a tsidx_lock of this handle holds the directory

    st_merge_mapper_t merge_mapper = nullptr;
    void* merge_mapper_context = nullptr;
    warm_merge_progress_fn merge_progress = nullptr;
    void* merge_progress_context = nullptr;
    stop_check merge_stop;
    bool merge_drops_deleted = false;
    std::vector<std::string> unmergeable;  // slices that differ from their seals
};

bool tsidx_is_writable(const TSIDX* tsidx);
// The number that tells this writer's file names from those of others.
uint32_t tsidx_writer_tag(const TSIDX* tsidx);
// Makes sure that there is a hot slice, of the current limits when it is empty: 0 or an engine status, recorded.
[[nodiscard]] int tsidx_ensure_hot(TSIDX* tsidx);
// Syncs because of a full code and lets autotune learn from it: 0 or TSIDX_SYNC_FAILED.
int tsidx_sync_full(TSIDX* tsidx, int code);
// Takes the limits that the parameter file remembers; those of a directory without one are the defaults.
void tsidx_load_params(TSIDX* tsidx);
// Writes the parameter file when it would change. A handle that only merges or deletes has nothing to tell, and need
// not even know which kind of directory it has. Failures are logged only: the next run starts with smaller limits.
void tsidx_save_params(TSIDX* tsidx);

// The live slices of the handle's directory (tsidx_list), remembered for as long as the directory's stamp tells that no
// name came or went: every change of what is live makes, renames or removes one. Slices that are no longer live leave
// the cache. 0, or a failure, recorded. May throw std::bad_alloc.
[[nodiscard]] int tsidx_live_slices(TSIDX* tsidx, std::shared_ptr<const tsidx_listing_t>* slices);
// Brings a file (or, with O_DIRECTORY, a directory) to the disk, unless durability is switched off. 0, WARM_RC_OPEN or
// WARM_RC_WRITE.
[[nodiscard]] int tsidx_flush(const TSIDX* tsidx, const char* path, int open_flags, warm_rc_t* rc);
// Removes a slice whose events are all deleted, behind its sentinel; the caller holds the lock. A failure is logged:
// the slice stays, with every event marked.
void tsidx_remove_slice(const TSIDX* tsidx, const std::string& path);
// Logs that a slice goes without a seal.
void tsidx_warn_unsealed(const char* slice, const warm_rc_t& rc);
// Removes the seal of a slice that is gone, or was not made; a failure leaves it to recovery. Never throws.
void tsidx_remove_seal(const char* slice);
// Removes a slice, then its seal, and, before it, a ".pre-tsidx" that is the same file, left by an interrupted sync: alone that would
// look like the only copy of its events. 0, also when the slice is gone, or -1 with errno. May throw std::bad_alloc.
[[nodiscard]] int tsidx_unlink_slice(const TSIDX* tsidx, const std::string& path);
// Cleans up after writers that are gone (tsidx_recover.cc).
void tsidx_recover(TSIDX* tsidx);

}  // namespace veldar
