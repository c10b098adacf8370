// What a read sees of an index directory: its live slices at one moment (tsidx_list.h), newest first.
//
// A slice that was listed may be gone when it is opened, because it was merged or deleted meanwhile; then what was read
// so far is dropped and the read begins again with a new listing. A read on a writing handle syncs the handle's own hot
// slice first, so that it sees what the handle has put.
#pragma once

#include <cstddef>
#include <cstdint>

#include "searchthing/directory/tsidx.h"
#include "searchthing/format/tsidx_names.h"

namespace veldar {

struct st_warm_slice;
using WARM = st_warm_slice;

// One slice of a snapshot, for the length of a visit.
struct tsidx_slice_view_t {
    const char* path;                    // with the directory
    const st_filename_metadata_t* meta;  // of the name; kind 1, or 3 for a slice written in part mode
    WARM* warm;                          // open for reading, owned by the directory
};

// Receives a slice and the caller's context; -1 stops the walk, any other result is added to the walk's total.
using tsidx_slice_fn = int (*)(const tsidx_slice_view_t* slice, void* context);

// Visits the slices whose names overlap [earliest, latest], by latest time descending. The total of the callback's
// results, or -1 when it stopped the walk. All of the slices are open before the first visit, so that the walk is of
// one moment: -4 with EMFILE when the process may not have that many descriptors. -4 and -8 when the directory cannot
// be read, -35 when it does not hold still, TSIDX_SYNC_FAILED, -2, or the failure to open a slice; see
// st_tsidx_last_failure, whose message names the path. The callback may read from the same directory.
int64_t st_tsidx_apply_slices(TSIDX* tsidx, st_time_t earliest, st_time_t latest, tsidx_slice_fn fn, void* context);

// A snapshot in the caller's hands, for reads that open slices one by one and may end early. Its slices are numbered
// newest first. It belongs to the directory, which must outlive it, may be used for other reads meanwhile, and must not
// be moved with st_tsidx_cd.
class tsidx_snapshot;

// The result of opening a slice that has gone since the snapshot was taken. What was read of the snapshot so far is of
// a moment that has passed: the whole read begins again with a new snapshot, or goes on with one where it stopped.
inline constexpr int TSIDX_SLICE_GONE = 1;

// Lists the directory. Null with the failure in st_tsidx_last_failure: -4, -8, -35, TSIDX_SYNC_FAILED or -2.
tsidx_snapshot* st_tsidx_snapshot_take(TSIDX* tsidx);
// Closes the slices that are still open, too.
void st_tsidx_snapshot_free(tsidx_snapshot* snapshot);
size_t st_tsidx_snapshot_size(const tsidx_snapshot* snapshot);
// The slice's name without the directory, and its metadata; valid as long as the snapshot.
const char* st_tsidx_snapshot_name(const tsidx_snapshot* snapshot, size_t i);
const st_filename_metadata_t* st_tsidx_snapshot_meta(const tsidx_snapshot* snapshot, size_t i);
// Opens a slice that is not open in this snapshot: 0 and `*warm`, owned by the directory and valid until the slice is
// closed here; TSIDX_SLICE_GONE; or the failure to open it, with the reason in `rc`.
int st_tsidx_snapshot_open(tsidx_snapshot* snapshot, size_t i, WARM** warm, warm_rc_t* rc);
// Nothing when it is not open. The directory keeps it for the next reader who asks.
void st_tsidx_snapshot_close(tsidx_snapshot* snapshot, size_t i);

}  // namespace veldar
