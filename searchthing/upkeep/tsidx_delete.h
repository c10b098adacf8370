// Deleting events of an index directory: they stay in their slices, marked, and no read hands them out again.
//
// All deletes take the directory's lock for up to 10 seconds (st_tsidx_set_lock_timeout), sync the handle's own hot
// slice and look at one snapshot. First everything is found, then marked, so that a slice that cannot be read leaves
// all of them as they were. Marks are single bytes in the slice files, seen at once by whoever has them open, and on
// the disk when the call returns. A delete that was interrupted, even by the death of its process, is repaired by
// repeating it. A slice whose events are all deleted is removed.
//
// Each function returns the number of events that were not marked before, or WARM_RC_LOCK when the lock cannot be had
// (nothing has changed), WARM_RC_UNSUPPORTED for a metric directory or slice or a handle open for reading,
// WARM_RC_WRITE when marks may not have reached the disk, or a failure of reading (tsidx_read.h).
#pragma once

#include <cstddef>
#include <cstdint>

#include "searchthing/directory/tsidx.h"
#include "searchthing/search/query.h"

namespace veldar {

// Deletes the events with these keys, time and address, in every slice that has them. The keys are in any order; one
// that no event has is ignored.
[[nodiscard]] int64_t st_tsidx_delete_by_key(TSIDX* tsidx, const st_tsval_encoded* keys, size_t count);
// Deletes the events with these addresses, whatever their times. Reads the values of every slice.
[[nodiscard]] int64_t st_tsidx_delete_by_addr(TSIDX* tsidx, const st_addr_t* addresses, size_t count);
// Deletes the events that match exactly, within the query's bounds. Also WARM_RC_INVALID_ARGUMENT for a query with a
// cumspan, and the statuses of a text that is no query.
[[nodiscard]] int64_t st_tsidx_delete_by_query(TSIDX* tsidx, const st_query_spec* query);

// How many seconds deletes wait for the directory's lock; 10 unless set.
void st_tsidx_set_lock_timeout(TSIDX* tsidx, int seconds);

}  // namespace veldar
