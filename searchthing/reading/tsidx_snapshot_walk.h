// Snapshots of a directory, for tsidx*.cc only.
#pragma once

#include <cerrno>
#include <cstdint>
#include <limits>
#include <new>
#include <string>
#include <vector>

#include "searchthing/directory/tsidx_handle.h"
#include "searchthing/reading/tsidx_snapshot.h"
#include "searchthing/slice/warmslice.h"

namespace veldar {

inline constexpr st_time_t TSIDX_FIRST_TIME = std::numeric_limits<st_time_t>::min();
inline constexpr st_time_t TSIDX_LAST_TIME = std::numeric_limits<st_time_t>::max();

// The result of a step that found a listed slice gone; no status and no count.
inline constexpr int64_t TSIDX_VANISHED = std::numeric_limits<int64_t>::min();

// How often a read begins again when slices go before they are opened.
inline constexpr int TSIDX_MAX_SNAPSHOTS = 16;

// The live slices of one moment and those of them that are open.
class tsidx_snapshot {
  public:
    explicit tsidx_snapshot(TSIDX* tsidx) : tsidx_(tsidx) {}
    ~tsidx_snapshot() { close_all(); }
    tsidx_snapshot(const tsidx_snapshot&) = delete;
    tsidx_snapshot& operator=(const tsidx_snapshot&) = delete;

    // Lists the directory: 0 or a failure, recorded in the directory's handle. May throw std::bad_alloc, as may open.
    int take();

    size_t size() const { return slices_.size(); }
    const tsidx_slice_name_t& slice(size_t i) const { return slices_[i]; }
    std::string path(size_t i) const { return tsidx_->path + "/" + slices_[i].name; }
    bool overlaps(size_t i, st_time_t earliest, st_time_t latest) const {
        return slices_[i].meta.latest >= earliest && slices_[i].meta.earliest <= latest;
    }

    // Opens a slice that is not open in this snapshot; it stays open until `close` or the snapshot's end. 0,
    // TSIDX_VANISHED, or a failure, recorded and logged.
    int64_t open(size_t i);
    // The same without a record or a log line of the failure, whose reason is in `rc`.
    int64_t try_open(size_t i, warm_rc_t* rc);
    WARM* warm(size_t i) const { return warms_[i]; }
    void close(size_t i);
    void close_all();

    // Records and logs the failure of reading a slice; returns its code.
    int fail(size_t i, const warm_rc_t& rc) const;

  private:
    TSIDX* tsidx_;
    tsidx_listing_t slices_;
    std::vector<WARM*> warms_;  // by slice; null while not open here
};

// What comes before every read: own events become a slice. 0 or TSIDX_SYNC_FAILED.
int tsidx_begin_read(TSIDX* tsidx);
// Waits for whoever is changing the directory: 1 ms at the first try, twice as long at every further one, up to 100 ms.
void tsidx_pause(int tries);
int tsidx_fail_no_memory(TSIDX* tsidx);
int tsidx_fail_vanishing(TSIDX* tsidx);

// Runs `work(snapshot)` over new snapshots until one of them holds: its result (not TSIDX_VANISHED), or a failure,
// recorded. The work begins afresh every time.
template <typename Work>
int64_t tsidx_over_snapshot(TSIDX* tsidx, Work work) {
    try {
        ST_TRY(tsidx_begin_read(tsidx));
        for (int i = 0; i < TSIDX_MAX_SNAPSHOTS; i++) {
            tsidx_snapshot snapshot(tsidx);
            ST_TRY(snapshot.take());
            const int64_t result = work(snapshot);
            if (result != TSIDX_VANISHED) return result;
            tsidx_pause(i);
        }
    } catch (const std::bad_alloc&) {
        return tsidx_fail_no_memory(tsidx);
    }
    return tsidx_fail_vanishing(tsidx);
}

// Runs `step(i)` over the open slices that overlap the bounds, newest first, one open at a time, until a step returns
// something else than 0; that is the result. A failure of the step has been recorded by it.
template <typename Step>
int64_t tsidx_each_slice(tsidx_snapshot& snapshot, st_time_t earliest, st_time_t latest, Step step) {
    for (size_t i = 0; i < snapshot.size(); i++) {
        if (!snapshot.overlaps(i, earliest, latest)) continue;
        if (const int64_t opened = snapshot.open(i); opened != 0) return opened;
        if (const int64_t result = step(i); result != 0) return result;
        snapshot.close(i);
    }
    return 0;
}

// Opens every slice that overlaps the bounds, for walks that cannot begin again once the caller has seen a part.
int64_t tsidx_open_all(tsidx_snapshot& snapshot, st_time_t earliest, st_time_t latest);

}  // namespace veldar
