// What the reads of one directory share.
#pragma once

#include <cstdint>
#include <new>

#include "searchthing/directory/tsidx_handle.h"
#include "searchthing/reading/tsidx_snapshot.h"
#include "searchthing/slice/warmslice.h"

namespace veldar {

// What comes before every read: own events become a slice. 0 or TSIDX_SYNC_FAILED.
int tsidx_begin_read(TSIDX* tsidx);
// Waits for whoever is changing the directory: 1 ms at the first try, twice as long at every further one, up to 100 ms.
void tsidx_pause(int tries);
int tsidx_fail_no_memory(TSIDX* tsidx);

// Runs `work(snapshot)` as tsidx_snapshot::hold; a failure is recorded.
template <typename Work>
int64_t tsidx_over_snapshot(TSIDX* tsidx, Work work) {
    try {
        tsidx_snapshot snapshot({{.tsidx = tsidx, .path = {}}}, nullptr);
        return snapshot.hold([&]() -> int64_t { return work(snapshot); }, &tsidx->last_failure);
    } catch (const std::bad_alloc&) {
        return tsidx_fail_no_memory(tsidx);
    }
}

}  // namespace veldar
