#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "libzero/assertions.h"
#include "libzero/osfile.h"
#include "searchthing/directory/tsidx_handle.h"
#include "searchthing/reading/tsidx_snapshot_walk.h"
#include "searchthing/seal/slice_seal.h"
#include "searchthing/upkeep/tsidx_upkeep.h"

namespace veldar {

namespace {

// Removes the file when it goes out of scope, whatever happened.
struct temporary_file {
    std::string path;
    ~temporary_file() { ::unlink(path.c_str()); }
};

// Before the mini slice has its name; anew when another process made one meanwhile.
bool seal_mini(const TSIDX* tsidx, const std::string& temporary, const std::string& mini) {
    warm_rc_t rc;
    slice_seal_t seal;
    if (seal_make(temporary, &seal, &rc) == 0 && seal_write(mini, &seal, tsidx->durable, &rc) == 0) return true;
    tsidx_warn_unsealed(mini.c_str(), rc);
    return false;
}

// 1 when the mini slice was made, 0 when there is one, TSIDX_VANISHED or a failure in `rc`.
int64_t minify_slice(const TSIDX* tsidx, const std::string& slice, const std::string& mini, warm_rc_t* rc) {
    if (::access(mini.c_str(), F_OK) == 0) return 0;
    const temporary_file temporary{mini + "." + std::to_string(::getpid()) + TSIDX_MINI_PRE_SUFFIX};
    // One of this name was left by a process that had this one's number.
    unique_fd fd = osfile_create_anew(temporary.path.c_str());
    if (!fd.valid()) return _set_rc_msg(rc, WARM_RC_OPEN, temporary.path.c_str());
    errno = 0;
    if (const int status = st_warm_slice_create_mini(slice.c_str(), fd.get()); status != 0) {
        if (status == WARM_RC_OPEN && errno == ENOENT) return TSIDX_VANISHED;
        return _set_rc_msg(rc, status, slice.c_str());
    }
    if (fd.close_checked() != 0) return _set_rc_msg(rc, WARM_RC_CLOSE, temporary.path.c_str());
    ST_TRY(tsidx_flush(tsidx, temporary.path.c_str(), 0, rc));
    const bool is_sealed = tsidx->opts.seal != 0 && seal_mini(tsidx, temporary.path, mini);
    if (::link(temporary.path.c_str(), mini.c_str()) == 0) return 1;
    const int error = errno;
    if (is_sealed && error == EEXIST) {
        seal_mini(tsidx, mini, mini);
    } else if (is_sealed) {
        tsidx_remove_seal(mini.c_str());
    }
    errno = error;
    return error == EEXIST ? 0 : _set_rc_msg(rc, WARM_RC_RETRIES, mini.c_str());
}

std::string mini_name(const st_filename_metadata_t& meta) {
    return std::to_string(meta.latest) + "-" + std::to_string(meta.earliest) + "-" + std::to_string(meta.id) +
           TSIDX_MINI_SUFFIX;
}

}  // namespace

int st_tsidx_minify(TSIDX* tsidx, const char* output_directory) {
    ST_ASSERT(tsidx != nullptr && output_directory != nullptr);
    int64_t made = 0;
    return static_cast<int>(tsidx_over_snapshot(tsidx, [&](tsidx_snapshot& snapshot) -> int64_t {
        warm_rc_t* const rc = &tsidx->last_failure;
        for (size_t i = 0; i < snapshot.size(); i++) {
            const std::string mini = std::string(output_directory) + "/" + mini_name(snapshot.slice(i).meta);
            const int64_t result = minify_slice(tsidx, snapshot.path(i), mini, rc);
            if (result < 0) return result;
            made += result;
        }
        if (made != 0) ST_TRY(tsidx_flush(tsidx, output_directory, O_DIRECTORY, rc));
        return made;
    }));
}

}  // namespace veldar
