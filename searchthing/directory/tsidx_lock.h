// The lock that whoever changes or removes slices of a directory holds: for tsidx*.cc only.
//
// It is two locks. The file mutex beside the directory's canonical path reaches processes on other hosts, but stays
// behind when its holder is killed. The flock on the directory itself ends with its holder; it is taken first, so that
// whoever has it and finds a lock file of a process of this host that is gone may remove that file.
#pragma once

#include <string>

#include "libzero/resource.h"
#include "searchthing/base/stop_check.h"
#include "searchthing/directory/tsidx.h"

namespace veldar {

class tsidx_lock {
  public:
    tsidx_lock() = default;
    ~tsidx_lock() { release(); }
    tsidx_lock(const tsidx_lock&) = delete;
    tsidx_lock& operator=(const tsidx_lock&) = delete;

    // Waits up to `seconds` (0: a single try), or until it is stopped, where `stop` is not null. 0; WARM_RC_LOCK with
    // errno, recorded in the handle and logged; WARM_RC_CANCELLED, recorded. May throw std::bad_alloc, and then nothing
    // is locked.
    [[nodiscard]] int acquire(TSIDX* tsidx, int seconds, stop_check* stop = nullptr);
    void release();

  private:
    bool take(int seconds, stop_check* stop);

    TSIDX* tsidx_ = nullptr;
    std::string shown_;  // the path as the directory was opened, for the log
    std::string path_;   // canonical
    bool locked_ = false;
    unique_fd directory_;
};

}  // namespace veldar
