// What becomes of the files of a merge that was cut off, for tsidx*.cc only. The steps of a merge:
// tsidx_merge_commit_internal.h.
#pragma once

#include <cstdint>

#include "searchthing/directory/tsidx.h"

namespace veldar {

// The owner of a merge on a host that cannot be asked is taken to live until its manifest has not changed for this
// long.
inline constexpr int64_t TSIDX_MERGE_MAX_SECONDS = 86400;

// Finishes or undoes what merges have left; the caller has the directory's lock. 0 when no merge is left,
// WARM_RC_MANIFEST_EXISTS when one is at work before its commit point, or WARM_RC_OPEN, WARM_RC_READ, WARM_RC_WRITE
// when its files cannot be read or removed; readers are right all the same. A source that cannot be removed is hidden,
// and named in `unremoved` (with WARM_RC_WRITE) unless that is null; the next writer tries again. May throw
// std::bad_alloc.
[[nodiscard]] int tsidx_settle_merge(const TSIDX* tsidx, warm_rc_t* rc, warm_rc_t* unremoved = nullptr);
// The names of the files that settling would remove now, of a merge whose owner is gone or that took effect: the lock need
// not be held, and some may not exist. 0, WARM_RC_OPEN or WARM_RC_READ. May throw std::bad_alloc.
[[nodiscard]] int tsidx_find_merge_leftovers(const TSIDX* tsidx, std::vector<std::string>* names, warm_rc_t* rc);
// Whether a manifest, complete or not, lies in the directory.
bool tsidx_has_merge(const TSIDX* tsidx);
// An exclusive flock without waiting: 1 taken, 0 held by another, -1 when the file system has none.
[[nodiscard]] int tsidx_lock_file(int fd);

}  // namespace veldar
