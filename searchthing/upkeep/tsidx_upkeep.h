// What changes the slices of an index directory that are there: deletes, copies without terms, merges.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "searchthing/base/stop_check.h"
#include "searchthing/directory/tsidx.h"
#include "searchthing/search/query.h"
#include "searchthing/values/st_tsval.h"

namespace veldar {

// Deleting events: they stay in their slices, marked, and no read hands them out again.
//
// All deletes take the directory's lock for up to 10 seconds (st_tsidx_set_lock_timeout), sync the handle's own hot
// slice and look at one snapshot. First everything is found, then marked, so that a slice that cannot be read leaves
// all of them as they were. Marks are single bytes in the slice files, on the disk and seen by every read
// that begins when the call has returned. A delete that was interrupted, even by the death of its process, is repaired by
// repeating it. A slice whose events are all deleted is removed.
//
// Each of the four deletes returns the number of events that were not marked before, or WARM_RC_LOCK when the lock cannot be
// had (nothing has changed), WARM_RC_UNSUPPORTED for a metric directory or slice or a handle open for reading,
// WARM_RC_WRITE when marks may not have reached the disk, or a failure of reading (tsidx_read.h).

// Deletes the events with these keys, time and address, in every slice that has them. The keys are in any order; one
// that no event has is ignored.
[[nodiscard]] int64_t st_tsidx_delete_by_key(TSIDX* tsidx, const st_tsval_encoded* keys, size_t count);
// Deletes the events with these addresses, whatever their times. Reads the values of every slice.
[[nodiscard]] int64_t st_tsidx_delete_by_addr(TSIDX* tsidx, const st_addr_t* addresses, size_t count);
// Deletes the events that match exactly, within the query's bounds. Also WARM_RC_INVALID_ARGUMENT for a query with a
// cumspan, and the statuses of a text that is no query.
[[nodiscard]] int64_t st_tsidx_delete_by_query(TSIDX* tsidx, const st_query_spec* query);

// Deletes every event of a time before this one.
[[nodiscard]] int64_t st_tsidx_delete_before(TSIDX* tsidx, st_time_t time);

// What is to be known of a slice before it is removed, as far as it can be read.
struct tsidx_slice_facts_t {
    uint64_t bytes = 0;
    uint64_t events = 0, older = 0;  // that are not deleted; of these those of times before `time`, of metrics none
    uint64_t address_max = 0;        // the greatest that it may have
    uint32_t values = 0;
    bool exists = false, is_read = false, is_metric = false, has_marks = false;  // not read: all else may be missing
};
tsidx_slice_facts_t st_tsidx_slice_facts(const TSIDX* tsidx, const std::string& name, st_time_t time);

// Removes whole slices, named as in the directory, with the events that they hold, whatever these are: slices of metrics
// and those that cannot be read go too. Names of no live slice are passed over. `dropped`, which is not null, tells what
// went, also beside a failure. Under the directory's lock as deletes; while a merge is at work the events are marked
// first, so that its target does not bring them back, and a slice that has no marks waits as long as the lock for the
// merge's end.
//
// 0; WARM_RC_LOCK or WARM_RC_MANIFEST_EXISTS when that takes too long; WARM_RC_UNSUPPORTED for a handle open for
// reading; WARM_RC_WRITE for a slice that cannot be removed; a failure of marking or listing.
struct tsidx_dropped_t {
    uint64_t slices = 0, bytes = 0;
    uint64_t events = 0;     // that were not deleted before
    uint64_t uncounted = 0;  // slices that could not be read, and may have held more
};
[[nodiscard]] int st_tsidx_drop_slices(TSIDX* tsidx, const std::vector<std::string>& names, tsidx_dropped_t* dropped);

// How many seconds deletes wait for the directory's lock; 10 unless set.
void st_tsidx_set_lock_timeout(TSIDX* tsidx, int seconds);

// Mini slices: copies of a directory's slices that end before the terms, for answering what was when without the index.

// Writes "<latest>-<earliest>-<id>.mini.tsidx" into the output directory for every live slice. Each is written under a
// name of its own, flushed, and linked into place; one that exists already is left as it is. Terms, posting lists and
// metadata of a mini slice answer WARM_RC_MINIFIED.
//
// Returns how many were made. A failure (WARM_RC_OPEN, WARM_RC_WRITE, WARM_RC_CLOSE, WARM_RC_RETRIES, that of a slice,
// or of listing) leaves those made before.
[[nodiscard]] int st_tsidx_minify(TSIDX* tsidx, const char* output_directory);

// Seals: NAME.tsidx.seal beside a slice says what its bytes were (seal/slice_seal.h). Slices are written with one unless
// the write options say otherwise, and whatever changes or removes a slice takes its seal along.

// Seals the slice of this name as it is, in the place of a seal that it has; whether it is whole is for the caller to
// look at first. 1; 0 when the slice has gone; WARM_RC_UNSUPPORTED for a handle open for reading, WARM_RC_LOCK, what
// opening or reading the slice reports, WARM_RC_OPEN or WARM_RC_WRITE of the seal.
[[nodiscard]] int st_tsidx_seal(TSIDX* tsidx, const char* name);

// Puts a slice in the place of another one, as a merge does: readers see one of the two, and so they do after a crash.
// `name` is the old slice, `by` the path of the new one in the same file system, null for none at all, and `modified_ns`
// when the old file was last modified before it was read for the new one, in nanoseconds since the epoch. The old slice,
// with its seal, is first given a name in the directory `aside`. 0; WARM_RC_RETRIES when the old slice has been deleted
// from since; WARM_RC_UNSUPPORTED for a handle open for reading; WARM_RC_OPEN when a name cannot be made; WARM_RC_WRITE
// when the old slice, for which nothing comes, cannot be removed; else what a merge reports.
[[nodiscard]] int st_tsidx_replace(TSIDX* tsidx, const char* name, const char* by, const char* aside,
                                   int64_t modified_ns);

// Merging slices, one merge a call.
//
// Any number of processes may read the directory, write into it and delete from it meanwhile; of those that merge, one
// at a time does. A merge takes effect at once, and when it is cut off, at whatever moment, the directory is left with
// the same events; the next one that merges, deletes or opens the directory for writing removes what is left behind.
// How: tsidx_merge_commit_internal.h; which slices: tsidx_merge_plan.h.

enum tsidx_optimize_mode_t : int {
    TSIDX_OPTIMIZE_TIERED = 0,   // the lowest tier with enough slices
    TSIDX_OPTIMIZE_ALL = 1,      // whatever fits the target size
    TSIDX_OPTIMIZE_PARTS = 2,    // slices written in part mode
    TSIDX_OPTIMIZE_DRY_RUN = 3,  // as tiered, but nothing is changed
};

// How many slices of a tier make a merge worth its while.
inline constexpr uint32_t TSIDX_OPTIMIZE_MIN_SOURCES = 8;

// Makes one merge: 0 when it was made (dry run: would be made), WARM_RC_FEW_SLICES when the directory has fewer than
// two slices, WARM_RC_FEW_SOURCES when no two of them are to be merged. Anything else is a failure, described in `rc`
// (which may be null) and in st_tsidx_last_failure, and leaves the events as they were: WARM_RC_MANIFEST_EXISTS when
// another process merges here, WARM_RC_CANCELLED when it was stopped, WARM_RC_LOCK when the directory cannot be locked, WARM_RC_WRITE with ENOSPC when the
// file system has not as many bytes free as the sources have, WARM_RC_UNSUPPORTED for a directory opened for reading, a
// file offset or flags, WARM_RC_INVALID_ARGUMENT for another mode, and the failures of listing and of merging.
//
// min_src_count   slices that a tier must have in TIERED; 2 when `is_final`
// lexicon_tpb     terms in a block of the target's lexicon; 0: the write options'
// target_size     bytes that the sources may have together; 0: the write options', or 1500 MiB when that is 0 too
// file_offset, flags   0
//
// Uses of the write options: the target size, terms a block, the working memory of a merge, whether lists take the best
// of all encodings, the span of its readers. The hot slice is left alone.
[[nodiscard]] int st_tsidx_optimize_n(TSIDX* tsidx, int mode, uint32_t min_src_count, uint32_t lexicon_tpb,
                                      uint64_t target_size, warm_rc_t* rc, uint64_t file_offset, uint32_t flags,
                                      bool is_final);

// What the call above would merge: names in the directory, newest first, and their bytes, which are also what a merge
// needs free. 0, WARM_RC_FEW_SLICES, WARM_RC_FEW_SOURCES, or a failure as above; nothing is changed.
struct tsidx_optimize_plan_t {
    std::vector<std::string> sources;
    uint64_t bytes = 0;
};
[[nodiscard]] int st_tsidx_optimize_plan(TSIDX* tsidx, int mode, uint32_t min_src_count, uint64_t target_size,
                                         bool is_final, tsidx_optimize_plan_t* plan);

// 1 when there is nothing to merge in tiers of TSIDX_OPTIMIZE_MIN_SOURCES slices; else 0, or a failure.
int st_tsidx_is_optimized(TSIDX* tsidx);

// Gives every event of later merges of this handle a new address, before the events are ordered: the mapper need not
// keep their order. Null: addresses stay.
void st_tsidx_set_merge_mapper(TSIDX* tsidx, st_merge_mapper_t mapper, void* context);
// Later merges of this handle leave deleted events behind. A slice is then rewritten alone, when nothing is to be
// merged, if any of its events is deleted (TSIDX_OPTIMIZE_ALL) or more than a third of them (tiered), or if no merge has
// written it, which halves it.
void st_tsidx_set_merge_drops_deleted(TSIDX* tsidx, bool drops);
// Is told how far a merge is, in bytes. Null: nobody is.
void st_tsidx_set_merge_progress(TSIDX* tsidx, warm_merge_progress_fn progress, void* context);
// Is asked all the time while one of this handle's merges is made: every few thousand terms or values, between pieces of
// some MiB that go to the disk, while it waits for the lock. When it says true, the merge ends with WARM_RC_CANCELLED,
// within some milliseconds, and leaves nothing: no file, no manifest, the events as they were. Once the merge has begun
// to take effect it is completed. Null: nobody is asked.
void st_tsidx_set_merge_stop(TSIDX* tsidx, warm_stop_fn stop, void* context);

}  // namespace veldar
