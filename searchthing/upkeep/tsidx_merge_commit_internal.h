// How a merge takes effect in a directory, for tsidx*.cc only.
//
//   step  action                                                          a crash after it leaves     readers see
//   M0    create the .tmp manifest with the owner's lines                 .tmp                        sources
//   M1    complete its text; write and flush the target as ".pre-tsidx"   .tmp, .pre                  sources
//         and read it back for its seal
//   M2    rename .tmp to the manifest, flush the directory                manifest, .pre              sources
//   M3    carry over what was deleted meanwhile, write the seal,          manifest, .pre, seal        sources
//         link .pre to the                                                manifest, .pre, target,     target
//         target's name, flush the directory: the commit point            sources
//   M4    unlink the sources, flush the directory                         manifest, .pre, target      target
//   M5    unlink .pre and the manifest                                    target                      target
//
// M0 is done under the directory's lock, and M3 to M5 under one hold of it. So whoever has the lock and finds a
// manifest whose target exists sees a merge that was cut off behind its commit point, and may finish it; and nobody
// removes a target while its sources could come back. A deleter under the lock sees either sources whose delete marks
// are yet to be carried over, or the target.
//
// Whether a merge whose target does not exist is still at work is told by an flock that its owner holds on the
// manifest, and where there is no flock by the owner's process, host and run of the system.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "libzero/resource.h"
#include "searchthing/directory/merge_manifest.h"
#include "searchthing/directory/tsidx.h"
#include "searchthing/seal/slice_seal.h"

namespace veldar {

// One merge on its way. What is begun and not committed is undone when it goes out of scope.
class tsidx_merge_commit {
  public:
    explicit tsidx_merge_commit(TSIDX* tsidx) : tsidx_(tsidx) {}
    ~tsidx_merge_commit();
    tsidx_merge_commit(const tsidx_merge_commit&) = delete;
    tsidx_merge_commit& operator=(const tsidx_merge_commit&) = delete;

    // These may throw std::bad_alloc, and are called in this order.

    // M0. 0, WARM_RC_CANCELLED, WARM_RC_MANIFEST_EXISTS when another merge is at work, WARM_RC_LOCK without the lock,
    // WARM_RC_PATH_TOO_LONG, WARM_RC_OPEN, WARM_RC_WRITE.
    [[nodiscard]] int begin(warm_rc_t* rc);
    // The first half of M1: the target will have events of these times. 0, WARM_RC_PATH_TOO_LONG, WARM_RC_DOES_NOT_FIT
    // or WARM_RC_WRITE.
    [[nodiscard]] int declare(st_time_t earliest, st_time_t latest, std::vector<std::string> sources, warm_rc_t* rc);
    std::string temp_path() const;
    // The end of M1: has the target sealed. A seal that cannot be told keeps nothing from being.
    void seal();
    // M2 to M5, once the temporary file is whole and flushed. 0; a failure before the commit point has changed nothing
    // that readers see; one behind it, such as a source that cannot be removed, leaves the target in effect and the
    // rest to the next settling. WARM_RC_CANCELLED, when stopped while waiting for the lock, WARM_RC_LOCK, WARM_RC_OPEN, WARM_RC_WRITE, WARM_RC_RETRIES or the
    // status of carrying the deletes.
    // `carry` brings the target, at that path, up to date with what was deleted from the sources meanwhile.
    using carry_fn = std::function<int(const std::string& target, warm_rc_t* rc)>;
    [[nodiscard]] int commit(const carry_fn& carry, warm_rc_t* rc);

  private:
    enum state_t { NOTHING, TMP, RENAMED, COMMITTED };

    [[nodiscard]] int publish(warm_rc_t* rc);
    [[nodiscard]] int put_in_effect(const carry_fn& carry, warm_rc_t* rc);
    void write_seal();
    [[nodiscard]] int name_target(st_time_t earliest, st_time_t latest, warm_rc_t* rc);

    TSIDX* tsidx_;
    state_t state_ = NOTHING;
    unique_fd fd_;  // the manifest, locked
    merge_manifest_t manifest_;
    std::string tmp_path_, manifest_path_, temp_path_, target_path_;
    std::unique_ptr<slice_seal_t> seal_;  // null: the target gets none
};

}  // namespace veldar
