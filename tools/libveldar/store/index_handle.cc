#include "tools/libveldar/store/index_handle.h"

#include <cerrno>
#include <cstring>

#include "tools/libveldar/store/failure.h"

namespace veldar::tool {

tsidx_ptr index_handle_open(const std::string& path, uint32_t level) {
    TSWRITEOPTS opts;
    st_tsidx_write_opts_init_write_level(&opts, level);
    tsidx_ptr tsidx(st_tsidx_open(path.c_str(), 0, 0, &opts, TSIDX_ORDINARY_WRITER));
    if (tsidx == nullptr) throw failure_t{OUTCOME_IO, path + ": cannot be opened"};
    return tsidx;
}

std::string index_failure_text(const TSIDX* tsidx) {
    const warm_rc_t& rc = *st_tsidx_last_failure(tsidx);
    const int error = rc.saved_errno;
    const std::string message = rc.message;
    switch (rc.warm_rc) {
        case WARM_RC_MANIFEST_EXISTS:
            return "another process merges there";
        case WARM_RC_LOCK:
            if (error == EACCES || error == EPERM || error == EROFS || error == ENOSPC || error == EIO) {
                return std::string("no lock file can be made beside it: ") + std::strerror(error);
            }
            return "its lock is held, or its file system is not known for sure locks (if it is local, set "
                   "OPTIMISTIC_ABOUT_FILE_LOCKING=1)";
        case WARM_RC_NO_MEMORY:
            return "out of memory";
        case WARM_RC_UNSUPPORTED:
            return message;
        default:
            if (rc.warm_rc == WARM_RC_RETRIES || warm_rc_has_cause(&rc))
                return message + " (" + std::strerror(error) + ")";
            return message + ", status " + std::to_string(rc.warm_rc) + "; veldar fsck tells what is damaged";
    }
}

}  // namespace veldar::tool
