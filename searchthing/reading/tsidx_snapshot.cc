#include "searchthing/reading/tsidx_snapshot.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "libzero/assertions.h"
#include "searchthing/base/log.h"
#include "searchthing/directory/tsidx_list.h"
#include "searchthing/reading/tsidx_snapshot_walk.h"

namespace veldar {

tsidx_snapshot::tsidx_snapshot(std::vector<cursor_source_t> sources, cursor_failure_fn on_failure)
    : sources_(std::move(sources)), on_failure_(std::move(on_failure)) {}

int tsidx_snapshot::begin(warm_rc_t* rc) {
    for (const cursor_source_t& source : sources_) {
        if (source.tsidx == nullptr || tsidx_begin_read(source.tsidx) == 0) continue;
        _cpy_rc(rc, &source.tsidx->last_failure);
        return rc->warm_rc = TSIDX_SYNC_FAILED;
    }
    return take(rc);
}

void tsidx_snapshot::add_listing(std::shared_ptr<const tsidx_listing_t> listing, uint32_t source) {
    slices_.reserve(slices_.size() + listing->size());
    for (const tsidx_slice_name_t& name : *listing) slices_.push_back({&name, source, nullptr});
    listings_.push_back(std::move(listing));
}

// The name of a file need not tell its times.
void tsidx_snapshot::add_file(uint32_t source) {
    const auto listing = std::make_shared<tsidx_listing_t>(1, tsidx_slice_name_t{sources_[source].path, {}});
    const std::string& path = listing->front().name;
    st_filename_metadata_t* const meta = &listing->front().meta;
    if (!tsidx_is_slice_name(path.c_str() + (path.rfind('/') + 1), meta) &&
        st_tsidx_file_parse(path.c_str(), meta) == 0) {
        meta->earliest = TSIDX_FIRST_TIME;
        meta->latest = TSIDX_LAST_TIME;
    }
    add_listing(listing, source);
}

int tsidx_snapshot::add_directory(uint32_t source, warm_rc_t* rc) {
    TSIDX* const tsidx = sources_[source].tsidx;
    std::shared_ptr<const tsidx_listing_t> listing;
    if (tsidx_live_slices(tsidx, &listing) != 0) {
        if (!on_failure_) return _cpy_rc(rc, &tsidx->last_failure);
        on_failure_(tsidx->path, tsidx->last_failure);
        return 0;
    }
    add_listing(std::move(listing), source);
    return 0;
}

int tsidx_snapshot::take(warm_rc_t* rc) {
    close_all();
    slices_.clear();
    listings_.clear();
    for (uint32_t source = 0; source < sources_.size(); source++) {
        if (sources_[source].tsidx == nullptr) {
            add_file(source);
        } else {
            ST_TRY(add_directory(source, rc));
        }
    }
    const auto before = [](const entry& a, const entry& b) {
        const st_time_t latest_a = a.name->meta.latest, latest_b = b.name->meta.latest;
        return latest_a != latest_b ? latest_a > latest_b : a.source > b.source;
    };
    // The slices of a directory keep their order.
    if (sources_.size() > 1) std::stable_sort(slices_.begin(), slices_.end(), before);
    ST_ASSERT(std::is_sorted(slices_.begin(), slices_.end(), before));
    return 0;
}

std::string tsidx_snapshot::path(size_t i) const {
    const TSIDX* const tsidx = sources_[source(i)].tsidx;
    return tsidx == nullptr ? slice(i).name : tsidx->path + "/" + slice(i).name;
}

int64_t tsidx_snapshot::open(size_t i, warm_rc_t* rc) {
    ST_ASSERT(warm(i) == nullptr);
    TSIDX* const tsidx = sources_[source(i)].tsidx;
    if (tsidx != nullptr) ST_TRY(tsidx->read_stop.ask(rc));
    WARM* const warm = tsidx == nullptr ? st_warm_slice_open_rdonly(slice(i).name.c_str(), rc)
                                        : tsidx->cache.open(tsidx->path, slice(i), rc);
    slices_[i].warm = warm;
    if (warm != nullptr && tsidx != nullptr) warm->read_stop = &tsidx->read_stop;
    if (warm != nullptr) return 0;
    const bool vanished = tsidx != nullptr && rc->warm_rc == WARM_RC_OPEN && rc->saved_errno == ENOENT;
    return vanished ? TSIDX_VANISHED : rc->warm_rc;
}

void tsidx_snapshot::close(size_t i) {
    WARM* const warm = std::exchange(slices_[i].warm, nullptr);
    if (warm == nullptr) return;
    TSIDX* const tsidx = sources_[source(i)].tsidx;
    if (tsidx == nullptr) {
        st_warm_slice_close(warm);
    } else {
        tsidx->cache.release(slice(i).name);
    }
}

void tsidx_snapshot::close_all() {
    for (size_t i = 0; i < size(); i++) close(i);
}

int tsidx_snapshot::go_on(size_t i, uint64_t steps, warm_rc_t* rc) {
    TSIDX* const tsidx = sources_[source(i)].tsidx;
    return tsidx == nullptr ? 0 : tsidx->read_stop.after(steps, rc);
}

int tsidx_snapshot::fail(size_t i, const warm_rc_t& why, warm_rc_t* rc) const {
    const std::string where = path(i);
    if (on_failure_ && why.warm_rc != WARM_RC_NO_MEMORY && why.warm_rc != WARM_RC_CANCELLED) {
        on_failure_(where, why);
        return 0;
    }
    TSIDX* const tsidx = sources_[source(i)].tsidx;
    if (tsidx == nullptr || why.warm_rc == WARM_RC_CANCELLED) return _cpy_rc(rc, &why);
    _log(0, "ERROR slice cannot be read. rc=%i, errno=%i, path=%s: %s\n", why.warm_rc, why.saved_errno, where.c_str(),
         why.message);
    const std::string message = why.message[0] == '\0' ? where : where + ": " + why.message;
    _set_rc_verbose(&tsidx->last_failure, why.warm_rc, why.detail, message.c_str());
    tsidx->last_failure.saved_errno = why.saved_errno;
    return _cpy_rc(rc, &tsidx->last_failure);
}

int64_t tsidx_snapshot::hold(const std::function<int64_t()>& work, warm_rc_t* rc) {
    try {
        ST_TRY(begin(rc));
        for (int tries = 0; tries < TSIDX_MAX_SNAPSHOTS; tries++) {
            const int64_t result = work();
            if (result != TSIDX_VANISHED) return result;
            close_all();
            tsidx_pause(tries);
            ST_TRY(take(rc));
        }
    } catch (const std::bad_alloc&) {
        return _set_rc(rc, WARM_RC_NO_MEMORY);
    }
    _set_rc_msg(rc, WARM_RC_RETRIES, "slices go faster than they can be opened");
    for (const cursor_source_t& source : sources_) {
        if (source.tsidx != nullptr) _cpy_rc(&source.tsidx->last_failure, rc);
    }
    return rc->warm_rc;
}

int64_t tsidx_snapshot::each(st_time_t earliest, st_time_t latest, const std::function<int(size_t, warm_rc_t*)>& step,
                             warm_rc_t* rc) {
    for (size_t i = 0; i < size(); i++) {
        if (!overlaps(i, earliest, latest)) continue;
        warm_rc_t why;
        int64_t status = open(i, &why);
        if (status == TSIDX_VANISHED) return status;
        if (status == 0) status = step(i, &why);
        close(i);
        if (status == END) return 0;
        if (status != 0) ST_TRY(fail(i, why, rc));
    }
    return 0;
}

int64_t tsidx_snapshot::open_all(st_time_t earliest, st_time_t latest, warm_rc_t* rc) {
    for (size_t i = 0; i < size(); i++) {
        warm_rc_t why;
        const int64_t status = overlaps(i, earliest, latest) ? open(i, &why) : 0;
        if (status == TSIDX_VANISHED) return status;
        if (status != 0) ST_TRY(fail(i, why, rc));
    }
    return 0;
}

int tsidx_begin_read(TSIDX* tsidx) {
    ST_ASSERT(tsidx != nullptr);
    tsidx->last_failure.warm_rc = 0;
    return tsidx_is_writable(tsidx) ? st_tsidx_sync(tsidx) : 0;
}

void tsidx_pause(int tries) {
    constexpr useconds_t FIRST = 1000, LONGEST = 100000;
    ST_ASSERT(tries >= 0 && tries < TSIDX_MAX_SNAPSHOTS);
    ::usleep(std::min(FIRST << tries, LONGEST));
}

int tsidx_fail_no_memory(TSIDX* tsidx) {
    return _set_rc(&tsidx->last_failure, WARM_RC_NO_MEMORY);
}

}  // namespace veldar
