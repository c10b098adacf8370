// What a directory holds in numbers, slice by slice and in all; moving a handle to another directory.
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>

#include "libzero/assertions.h"
#include "searchthing/reading/tsidx_read.h"
#include "searchthing/reading/tsidx_snapshot_walk.h"
#include "searchthing/slice/warmslice_values.h"

namespace veldar {

namespace {

// Value numbers below the number of dimension sets are no events.
uint64_t event_values(const WARM* warm) {
    const uint64_t values = st_warm_slice_values(warm);
    const uint64_t preambles = warm->tsval_reader.num_preambles;
    return values - std::min(values, preambles);
}

int describe(const tsidx_snapshot& snapshot, size_t i, tsidx_info_t* info, warm_rc_t* rc) {
    WARM* const warm = snapshot.warm(i);
    const tsidx_slice_name_t& slice = snapshot.slice(i);
    *info = {};
    static_assert(sizeof info->name > NAME_MAX && sizeof info->format == sizeof warm->body->magic);
    std::snprintf(info->name, sizeof info->name, "%s", slice.name.c_str());
    std::memcpy(info->format, warm->body->magic, sizeof info->format - 1);
    info->earliest = slice.meta.earliest;
    info->latest = slice.meta.latest;
    info->id = slice.meta.id;
    info->part = slice.name.ends_with(TSIDX_PART_SUFFIX);
    info->events = event_values(warm);
    info->deleted = warm_slice_count_deleted(warm);
    info->terms = st_warm_slice_terms(warm);
    info->postings = warm->body->num_postings.get();
    info->bytes = st_warm_slice_size(warm, rc);
    return rc->warm_rc;
}

}  // namespace

int st_tsidx_meta(TSIDX* tsidx, tsidx_meta_t* meta) {
    ST_ASSERT(meta != nullptr);
    return static_cast<int>(tsidx_over_snapshot(tsidx, [&](tsidx_snapshot& snapshot) -> int64_t {
        *meta = {};
        const auto add_slice = [&](size_t i, warm_rc_t* why) {
            tsidx_info_t info;
            ST_TRY(describe(snapshot, i, &info, why));
            meta->earliest = meta->slices == 0 ? info.earliest : std::min(meta->earliest, info.earliest);
            meta->latest = meta->slices == 0 ? info.latest : std::max(meta->latest, info.latest);
            meta->slices++;
            meta->events += info.events;
            meta->deleted += info.deleted;
            meta->terms += info.terms;
            meta->postings += info.postings;
            meta->bytes += info.bytes;
            return 0;
        };
        return snapshot.each(TSIDX_FIRST_TIME, TSIDX_LAST_TIME, add_slice, &tsidx->last_failure);
    }));
}

int64_t st_tsidx_get_tsidx_info(TSIDX* tsidx, tsidx_info_t* infos, size_t capacity) {
    ST_ASSERT(infos != nullptr || capacity == 0);
    return tsidx_over_snapshot(tsidx, [&](tsidx_snapshot& snapshot) -> int64_t {
        for (size_t i = 0; i < std::min(capacity, snapshot.size()); i++) {
            warm_rc_t why;
            int64_t status = snapshot.open(i, &why);
            if (status == 0) status = describe(snapshot, i, &infos[i], &why);
            if (status != 0) return status == TSIDX_VANISHED ? status : snapshot.fail(i, why, &tsidx->last_failure);
            snapshot.close(i);
        }
        return static_cast<int64_t>(snapshot.size());
    });
}

int st_tsidx_cd(TSIDX* tsidx, const char* path) {
    ST_ASSERT(tsidx != nullptr);
    if (path == nullptr || *path == '\0') {
        return _set_rc_msg(&tsidx->last_failure, WARM_RC_INVALID_ARGUMENT, "an empty path");
    }
    try {
        std::string moved = path;
        const bool writable = tsidx_is_writable(tsidx);
        if (writable && ::access(path, R_OK | W_OK | X_OK) != 0) {
            return _set_rc_msg(&tsidx->last_failure, WARM_RC_OPEN, path);
        }
        ST_TRY(tsidx_begin_read(tsidx));
        if (writable) tsidx_save_params(tsidx);
        tsidx->cache.close_unused();
        tsidx->path.swap(moved);
        tsidx->parts_written = 0;
        if (writable) tsidx_load_params(tsidx);
    } catch (const std::bad_alloc&) {
        return tsidx_fail_no_memory(tsidx);
    }
    return 0;
}

}  // namespace veldar
