#include "searchthing/reading/tsidx_snapshot.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>

#include "libzero/assertions.h"
#include "searchthing/base/log.h"
#include "searchthing/reading/tsidx_snapshot_walk.h"

namespace veldar {

int tsidx_snapshot::take() {
    ST_TRY(tsidx_list(tsidx_->path.c_str(), &slices_, &tsidx_->last_failure));
    warms_.assign(slices_.size(), nullptr);
    tsidx_->cache.keep_only(slices_);
    return 0;
}

int64_t tsidx_snapshot::try_open(size_t i, warm_rc_t* rc) {
    ST_ASSERT(warms_[i] == nullptr);
    warms_[i] = tsidx_->cache.open(tsidx_->path, slices_[i], rc);
    if (warms_[i] != nullptr) return 0;
    return rc->warm_rc == WARM_RC_OPEN && rc->saved_errno == ENOENT ? TSIDX_VANISHED : rc->warm_rc;
}

int64_t tsidx_snapshot::open(size_t i) {
    warm_rc_t rc;
    const int64_t status = try_open(i, &rc);
    return status == 0 || status == TSIDX_VANISHED ? status : fail(i, rc);
}

void tsidx_snapshot::close(size_t i) {
    if (warms_[i] == nullptr) return;
    warms_[i] = nullptr;
    tsidx_->cache.release(slices_[i].name);
}

void tsidx_snapshot::close_all() {
    for (size_t i = 0; i < warms_.size(); i++) close(i);
}

int tsidx_snapshot::fail(size_t i, const warm_rc_t& rc) const {
    const std::string where = path(i);
    _log(0, "ERROR slice cannot be read. rc=%i, errno=%i, path=%s: %s\n", rc.warm_rc, rc.saved_errno, where.c_str(),
         rc.message);
    const std::string message = rc.message[0] == '\0' ? where : where + ": " + rc.message;
    _set_rc_verbose(&tsidx_->last_failure, rc.warm_rc, rc.detail, message.c_str());
    tsidx_->last_failure.saved_errno = rc.saved_errno;
    return rc.warm_rc;
}

int tsidx_begin_read(TSIDX* tsidx) {
    ST_ASSERT(tsidx != nullptr);
    tsidx->last_failure.warm_rc = 0;
    return tsidx_is_writable(tsidx) ? st_tsidx_sync(tsidx) : 0;
}

void tsidx_pause(int tries) {
    constexpr useconds_t FIRST = 1000, LONGEST = 100000;
    ::usleep(std::min(FIRST << tries, LONGEST));
}

int tsidx_fail_no_memory(TSIDX* tsidx) {
    return _set_rc(&tsidx->last_failure, WARM_RC_NO_MEMORY);
}

int tsidx_fail_vanishing(TSIDX* tsidx) {
    return _set_rc_msg(&tsidx->last_failure, WARM_RC_RETRIES, "slices go faster than they can be opened");
}

int64_t tsidx_open_all(tsidx_snapshot& snapshot, st_time_t earliest, st_time_t latest) {
    for (size_t i = 0; i < snapshot.size(); i++) {
        if (!snapshot.overlaps(i, earliest, latest)) continue;
        if (const int64_t opened = snapshot.open(i); opened != 0) return opened;
    }
    return 0;
}

int64_t st_tsidx_apply_slices(TSIDX* tsidx, st_time_t earliest, st_time_t latest, tsidx_slice_fn fn, void* context) {
    return tsidx_over_snapshot(tsidx, [&](tsidx_snapshot& snapshot) -> int64_t {
        if (const int64_t opened = tsidx_open_all(snapshot, earliest, latest); opened != 0) return opened;
        int64_t total = 0;
        for (size_t i = 0; i < snapshot.size(); i++) {
            if (snapshot.warm(i) == nullptr) continue;
            const std::string path = snapshot.path(i);
            const tsidx_slice_view_t view = {path.c_str(), &snapshot.slice(i).meta, snapshot.warm(i)};
            const int result = fn(&view, context);
            if (result == -1) return -1;
            total += result;
        }
        return total;
    });
}

tsidx_snapshot* st_tsidx_snapshot_take(TSIDX* tsidx) {
    try {
        if (tsidx_begin_read(tsidx) != 0) return nullptr;
        auto snapshot = std::make_unique<tsidx_snapshot>(tsidx);
        return snapshot->take() == 0 ? snapshot.release() : nullptr;
    } catch (const std::bad_alloc&) {
        tsidx_fail_no_memory(tsidx);
        return nullptr;
    }
}

void st_tsidx_snapshot_free(tsidx_snapshot* snapshot) {
    delete snapshot;
}

size_t st_tsidx_snapshot_size(const tsidx_snapshot* snapshot) {
    return snapshot->size();
}

const char* st_tsidx_snapshot_name(const tsidx_snapshot* snapshot, size_t i) {
    return snapshot->slice(i).name.c_str();
}

const st_filename_metadata_t* st_tsidx_snapshot_meta(const tsidx_snapshot* snapshot, size_t i) {
    return &snapshot->slice(i).meta;
}

int st_tsidx_snapshot_open(tsidx_snapshot* snapshot, size_t i, WARM** warm, warm_rc_t* rc) {
    *warm = nullptr;
    try {
        const int64_t status = snapshot->try_open(i, rc);
        *warm = snapshot->warm(i);
        return status == TSIDX_VANISHED ? TSIDX_SLICE_GONE : static_cast<int>(status);
    } catch (const std::bad_alloc&) {
        return _set_rc(rc, WARM_RC_NO_MEMORY);
    }
}

void st_tsidx_snapshot_close(tsidx_snapshot* snapshot, size_t i) {
    snapshot->close(i);
}

}  // namespace veldar
