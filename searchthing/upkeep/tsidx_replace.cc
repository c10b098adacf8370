#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <new>

#include "libzero/assertions.h"
#include "libzero/change_stamp.h"
#include "libzero/osfile.h"
#include "searchthing/directory/tsidx_handle.h"
#include "searchthing/directory/tsidx_lock.h"
#include "searchthing/reading/tsidx_snapshot_walk.h"
#include "searchthing/upkeep/tsidx_merge_commit_internal.h"
#include "searchthing/upkeep/tsidx_upkeep.h"

namespace veldar {

namespace {

bool is_same_file(const std::string& one, const std::string& other) {
    struct stat a, b;
    return ::stat(one.c_str(), &a) == 0 && ::stat(other.c_str(), &b) == 0 && a.st_ino == b.st_ino &&
           a.st_dev == b.st_dev;
}

// Gives the slice, and its seal if it has one, second names in another directory. They may be there, of one that was
// killed; then the seal may have been made anew since.
int keep_aside(const TSIDX* tsidx, const std::string& slice, const std::string& aside, warm_rc_t* rc) {
    const std::string kept = aside + slice.substr(slice.rfind('/'));
    const std::string seal = seal_path(slice), kept_seal = seal_path(kept);
    if (ospath_link(slice.c_str(), kept.c_str()) != 0) {
        const int why = errno;
        const bool is_there = why == EEXIST && is_same_file(slice, kept);
        errno = why;
        if (!is_there) return _set_rc_msg(rc, WARM_RC_OPEN, kept.c_str());
    }
    bool sealed = ospath_link(seal.c_str(), kept_seal.c_str()) == 0;
    if (!sealed && errno == EEXIST) {
        ::unlink(kept_seal.c_str());
        sealed = ospath_link(seal.c_str(), kept_seal.c_str()) == 0;
    }
    if (!sealed && errno != ENOENT) return _set_rc_msg(rc, WARM_RC_OPEN, kept_seal.c_str());
    return tsidx_flush(tsidx, aside.c_str(), O_DIRECTORY, rc);
}

int check_unchanged(const std::string& slice, int64_t modified_ns, warm_rc_t* rc) {
    change_stamp now;
    if (change_stamp_of(slice.c_str(), &now) && now.modified_ns == modified_ns) return 0;
    return _set_rc_msg(rc, WARM_RC_RETRIES, ("a slice has been deleted from meanwhile: " + slice).c_str());
}

int remove_old(TSIDX* tsidx, const std::string& slice, const std::string& aside, int64_t modified_ns, warm_rc_t* rc) {
    tsidx_lock lock;
    if (lock.acquire(tsidx, tsidx->lock_seconds) != 0) return _cpy_rc(rc, &tsidx->last_failure);
    ST_TRY(check_unchanged(slice, modified_ns, rc));
    ST_TRY(keep_aside(tsidx, slice, aside, rc));
    tsidx_remove_slice(tsidx, slice);
    return ::access(slice.c_str(), F_OK) != 0 ? 0 : _set_rc_msg(rc, WARM_RC_WRITE, slice.c_str());
}

int put_in_place(TSIDX* tsidx, const std::string& slice, const std::string& by, const std::string& aside,
                 int64_t modified_ns, warm_rc_t* rc) {
    const warm_ptr warm(st_warm_slice_open_rdonly(by.c_str(), rc));
    if (warm == nullptr) return rc->warm_rc;
    tsidx_merge_commit commit(tsidx);
    ST_TRY(commit.begin(rc));
    ST_TRY(commit.declare(st_warm_slice_earliest(warm.get()), st_warm_slice_latest(warm.get()),
                          {slice.substr(slice.rfind('/') + 1)}, rc));
    if (ospath_link(by.c_str(), commit.temp_path().c_str()) != 0) return _set_rc_msg(rc, WARM_RC_OPEN, by.c_str());
    ST_TRY(tsidx_flush(tsidx, by.c_str(), 0, rc));
    commit.seal();
    const auto carry = [&](const std::string&, warm_rc_t* why) {
        ST_TRY(check_unchanged(slice, modified_ns, why));
        return keep_aside(tsidx, slice, aside, why);
    };
    const int committed = commit.commit(carry, rc);
    tsidx->cache.close_unused();
    return committed;
}

}  // namespace

int st_tsidx_replace(TSIDX* tsidx, const char* name, const char* by, const char* aside, int64_t modified_ns) {
    ST_ASSERT(tsidx != nullptr && name != nullptr && aside != nullptr);
    warm_rc_t* const rc = &tsidx->last_failure;
    if (!tsidx_is_writable(tsidx)) return _set_rc_msg(rc, WARM_RC_UNSUPPORTED, "directory is open for reading");
    try {
        const std::string slice = tsidx->path + "/" + name;
        warm_rc_t result;
        const int status = by == nullptr ? remove_old(tsidx, slice, aside, modified_ns, &result)
                                         : put_in_place(tsidx, slice, by, aside, modified_ns, &result);
        return status == 0 ? 0 : _cpy_rc(rc, &result);
    } catch (const std::bad_alloc&) {
        return tsidx_fail_no_memory(tsidx);
    }
}

}  // namespace veldar
