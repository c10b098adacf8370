// Writing the hot slice of a directory as a warm slice under its final name, in part mode "<...>.part-tsidx".
//
//   create "<...>.pre-tsidx"   whole, in one piece; transient errors are retried, the prepared hot slice being kept
//   fsync the file             never retried on the same file: after a failure nobody knows what reached the disk
//   read it back for its seal
//   write and fsync "<...>.tsidx.seal"   under a fresh id at every try, as the next
//   link to "<...>.tsidx"
//   fsync the directory
//   unlink the ".pre-tsidx"
//
// A failure before the link removes the file. One at the link or the directory leaves the complete ".pre-tsidx" behind,
// and no slice: whoever is told of a failure finds none of the events in the index. A seal that cannot be written keeps
// nothing from being: the slice goes without.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <new>
#include <utility>

#include "libzero/assertions.h"
#include "libzero/osfile.h"
#include "libzero/resource.h"
#include "searchthing/base/log.h"
#include "searchthing/directory/tsidx_handle.h"
#include "searchthing/hot/warmslice_create.h"
#include "searchthing/seal/slice_seal.h"

namespace veldar {

namespace {

constexpr uint32_t MAX_TRIES = 60;
constexpr uint32_t MAX_PART_NUMBER = 63;
constexpr int UNKNOWN_ERRNO = 69;

// Pauses of 1 ms, doubling up to a second, at most 60 tries.
struct backoff {
    uint32_t tries = 1;
    uint32_t milliseconds = 1;

    bool wait() {
        if (tries++ >= MAX_TRIES) return false;
        ::usleep(milliseconds * 1000);
        milliseconds = std::min(2 * milliseconds, 1000u);
        return true;
    }
};

bool is_transient(int errno_value) {
    return errno_value == ENOMEM || errno_value == EEXIST || errno_value == ENFILE || errno_value == EMFILE;
}

// Only these come from a call whose errno tells about it.
bool is_transient(const warm_rc_t& rc) {
    const bool from_system = rc.warm_rc == WARM_RC_NO_MEMORY || rc.warm_rc == WARM_RC_OPEN ||
                             rc.warm_rc == WARM_RC_WRITE || rc.warm_rc == WARM_RC_CLOSE;
    return from_system && (rc.saved_errno == EINTR || is_transient(rc.saved_errno));
}

warm_ptr create_slice(TSIDX* tsidx, const char* suffix, ospath_buf* file) {
    const auto create = tsidx->durable ? warm_slice_create_durable : st_warm_slice_create;
    for (backoff pause;;) {
        errno = 0;
        warm_ptr warm(create(tsidx->hot, file, tsidx->path.c_str(), suffix, &tsidx->opts, &tsidx->last_failure));
        if (warm != nullptr) return warm;
        // Empty when the file is not ours.
        if (file->val[0] != '\0') ::unlink(file->val);
        if (!is_transient(tsidx->last_failure) || !pause.wait()) return nullptr;
    }
}

int flush_directory(TSIDX* tsidx) {
    return tsidx_flush(tsidx, tsidx->path.c_str(), O_DIRECTORY, &tsidx->last_failure);
}

// The seal of the file; null for options without, or when it cannot be told.
std::unique_ptr<slice_seal_t> make_seal(const TSIDX* tsidx, const char* file) {
    if (tsidx->opts.seal == 0) return nullptr;
    warm_rc_t rc;
    try {
        auto seal = std::make_unique<slice_seal_t>();
        if (seal_make(file, seal.get(), &rc) == 0) return seal;
    } catch (const std::bad_alloc&) {
        _set_rc(&rc, WARM_RC_NO_MEMORY);
    }
    tsidx_warn_unsealed(file, rc);
    return nullptr;
}

void write_seal(const TSIDX* tsidx, const char* final_name, slice_seal_t* seal) {
    if (seal == nullptr) return;
    warm_rc_t rc;
    try {
        if (seal_write(final_name, seal, tsidx->durable, &rc) == 0) return;
    } catch (const std::bad_alloc&) {
        _set_rc(&rc, WARM_RC_NO_MEMORY);
    }
    tsidx_warn_unsealed(final_name, rc);
}

void remove_seal(const char* final_name, const slice_seal_t* seal) {
    if (seal != nullptr) tsidx_remove_seal(final_name);
}

int link_to_final_name(TSIDX* tsidx, const WARM* warm, const char* file, const char* suffix, slice_seal_t* seal,
                       ospath_buf* final_name) {
    for (backoff pause;;) {
        const int named =
            st_warm_slice_filename_from_time(final_name, tsidx->path.c_str(), suffix, st_warm_slice_earliest(warm),
                                             st_warm_slice_latest(warm), &tsidx->rng);
        if (named != 0) return _set_rc_msg(&tsidx->last_failure, named, file);
        write_seal(tsidx, final_name->val, seal);
        if (ospath_link(file, final_name->val) == 0) return 0;
        const int error = errno != 0 ? errno : UNKNOWN_ERRNO;
        remove_seal(final_name->val, seal);
        _log(0, "WARN  link command failed. rc=%i Retrying the following files \n\t%s\n\t%s\n", error, file,
             final_name->val);
        if (is_transient(error) && pause.wait()) continue;
        _set_rc_msg(&tsidx->last_failure, WARM_RC_RETRIES, file);
        tsidx->last_failure.saved_errno = error;
        return WARM_RC_RETRIES;
    }
}

int move_slice(TSIDX* tsidx, const WARM* warm, const char* file, const char* suffix) {
    ospath_buf final_name;
    const std::unique_ptr<slice_seal_t> seal = make_seal(tsidx, file);
    ST_TRY(link_to_final_name(tsidx, warm, file, suffix, seal.get(), &final_name));
    const int flushed = flush_directory(tsidx);
    if (flushed != 0) {
        ::unlink(final_name.val);
        remove_seal(final_name.val, seal.get());
        return flushed;
    }
    if (::unlink(file) != 0) {
        _log(0, "WARN  unlink command failed. rc=%i With the following files \n\t%s\n\t%s\n", errno, file,
             final_name.val);
    }
    return 0;
}

// The steps of a sync of a hot slice that holds something: 0 or the status, recorded.
int write_slice(TSIDX* tsidx, const char* suffix, const char* final_suffix) {
    ospath_buf file;
    const warm_ptr warm = create_slice(tsidx, suffix, &file);
    if (warm == nullptr) return tsidx->last_failure.warm_rc;
    const int moved = move_slice(tsidx, warm.get(), file.val, final_suffix);
    if (moved != 0) {
        tsidx->unmoved = file;
        _log(0, "ERROR slice is complete but was not moved into place. rc=%i, path=%s\n", moved, file.val);
    }
    return moved;
}

}  // namespace

int tsidx_flush(const TSIDX* tsidx, const char* path, int open_flags, warm_rc_t* rc) {
    if (!tsidx->durable) return 0;
    unique_fd fd;
    for (backoff pause; !fd.valid();) {
        fd.reset(os_retry([&] { return ::open(path, open_flags | O_RDONLY | O_CLOEXEC); }));
        if (fd.valid()) break;
        if (!is_transient(errno) || !pause.wait()) return _set_rc_msg(rc, WARM_RC_OPEN, path);
    }
    if (osfile_flush(fd.get()) == 0) return 0;
    // A file system that cannot flush a directory has nothing to flush there.
    if (errno == EINVAL && (open_flags & O_DIRECTORY) != 0) return 0;
    return _set_rc_msg(rc, WARM_RC_WRITE, path);
}

int _st_tsidx_sync(TSIDX* tsidx, const char* suffix, int part_mode) {
    ST_ASSERT(tsidx != nullptr);
    // Nothing was put since: transactions were refused.
    if (std::exchange(tsidx->untold_loss, false)) return TSIDX_SYNC_FAILED;
    if (tsidx->hot == nullptr || st_hot_slice_values(tsidx->hot) == 0) return 0;
    if (hot_slice_terms(tsidx->hot) == 0) {  // a slice without terms could not be opened
        st_hot_slice_reset(tsidx->hot);
        return 0;
    }
    char part_suffix[64];
    const char* final_suffix = TSIDX_SUFFIX;
    if (part_mode != 0) {
        if (tsidx->parts_written > MAX_PART_NUMBER) return TSIDX_PARTS_EXHAUSTED;
        static_assert(sizeof part_suffix > sizeof ".63.4294967295" + sizeof TSIDX_PART_SUFFIX && MAX_PART_NUMBER < 100);
        std::snprintf(part_suffix, sizeof part_suffix, ".%u.%u%s", tsidx->parts_written++, tsidx_writer_tag(tsidx),
                      TSIDX_PART_SUFFIX);
        suffix = TSIDX_PRE_SUFFIX;
        final_suffix = part_suffix;
    }
    ST_ASSERT(suffix != nullptr);
    tsidx->unmoved.val[0] = '\0';
    const int written = write_slice(tsidx, suffix, final_suffix);
    st_hot_slice_reset(tsidx->hot);
    ST_ASSERT(st_hot_slice_values(tsidx->hot) == 0 && (written != 0 || tsidx->unmoved.val[0] == '\0'));
    const uint64_t txns = std::exchange(tsidx->txns_in_hot, 0);
    tsidx->last_sync_failed = written != 0;
    if (written == 0) {
        tsidx->slices_written++;
        tsidx->txns_written += txns;
        tsidx->last_failure = {};  // of tries before the one that succeeded
    }
    const bool created = written == 0 || tsidx->unmoved.val[0] != '\0';
    if (created && st_tsidx_set_need_optimize(tsidx) != 0) {
        _log(0, "WARN  marker was not created. rc=%i, path=%s\n", errno, tsidx->path.c_str());
    }
    return written == 0 ? 0 : TSIDX_SYNC_FAILED;
}

int st_tsidx_sync(TSIDX* tsidx) {
    return _st_tsidx_sync(tsidx, TSIDX_PRE_SUFFIX, 0);
}

int st_tsidx_sync_part(TSIDX* tsidx) {
    const int result = _st_tsidx_sync(tsidx, nullptr, 1);
    return result == TSIDX_PARTS_EXHAUSTED ? st_tsidx_sync(tsidx) : result;
}

}  // namespace veldar
