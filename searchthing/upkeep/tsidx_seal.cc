#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <new>

#include "libzero/assertions.h"
#include "searchthing/directory/tsidx_handle.h"
#include "searchthing/directory/tsidx_lock.h"
#include "searchthing/reading/tsidx_snapshot_walk.h"
#include "searchthing/seal/slice_seal.h"
#include "searchthing/upkeep/tsidx_upkeep.h"

namespace veldar {

int st_tsidx_seal(TSIDX* tsidx, const char* name) {
    ST_ASSERT(tsidx != nullptr && name != nullptr);
    warm_rc_t* const rc = &tsidx->last_failure;
    if (!tsidx_is_writable(tsidx)) return _set_rc_msg(rc, WARM_RC_UNSUPPORTED, "directory is open for reading");
    const auto has_gone = [rc] { return rc->warm_rc == WARM_RC_OPEN && rc->saved_errno == ENOENT ? 0 : rc->warm_rc; };
    try {
        const std::string path = tsidx->path + "/" + name;
        slice_seal_t seal;
        if (seal_make(path, &seal, rc) != 0) return has_gone();
        // Nobody deletes while the marks are read and said to be these.
        tsidx_lock lock;
        ST_TRY(lock.acquire(tsidx, tsidx->lock_seconds));
        if (seal_make_marks(path, &seal, rc) != 0) return has_gone();
        ST_TRY(seal_write(path, &seal, tsidx->durable, rc));
        ST_TRY(tsidx_flush(tsidx, tsidx->path.c_str(), O_DIRECTORY, rc));
        return 1;
    } catch (const std::bad_alloc&) {
        return tsidx_fail_no_memory(tsidx);
    }
}

}  // namespace veldar
