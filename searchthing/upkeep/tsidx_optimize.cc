#include <fcntl.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <new>

#include "libzero/assertions.h"
#include "libzero/osfile.h"
#include "searchthing/base/log.h"
#include "searchthing/directory/tsidx_lock.h"
#include "searchthing/directory/tsidx_merge_settle.h"
#include "searchthing/merge/warmslice_merge.h"
#include "searchthing/reading/tsidx_read.h"
#include "searchthing/reading/tsidx_snapshot_walk.h"
#include "searchthing/seal/slice_seal.h"
#include "searchthing/slice/warmslice_values.h"
#include "searchthing/upkeep/tsidx_merge_commit_internal.h"
#include "searchthing/upkeep/tsidx_merge_plan.h"
#include "searchthing/upkeep/tsidx_upkeep.h"

namespace veldar {

namespace {

constexpr int MAX_TRIES = 16;
constexpr uint64_t DEFAULT_TARGET_SIZE = uint64_t{1500} << 20;

// A listed slice that was gone when it was opened; no status.
constexpr int VANISHED = 1;

bool has_vanished(const warm_rc_t& rc) {
    return rc.warm_rc == WARM_RC_OPEN && rc.saved_errno == ENOENT;
}

int check_arguments(const TSIDX* tsidx, int mode, uint64_t file_offset, uint32_t flags, warm_rc_t* rc) {
    if (mode < TSIDX_OPTIMIZE_TIERED || mode > TSIDX_OPTIMIZE_DRY_RUN) {
        return _set_rc_msg(rc, WARM_RC_INVALID_ARGUMENT, "unknown mode of optimisation");
    }
    if (file_offset != 0 || flags != 0) {
        return _set_rc_msg(rc, WARM_RC_UNSUPPORTED, "a file offset and flags are not supported");
    }
    if (mode != TSIDX_OPTIMIZE_DRY_RUN && !tsidx_is_writable(tsidx)) {
        return _set_rc_msg(rc, WARM_RC_UNSUPPORTED, "directory is open for reading");
    }
    return 0;
}

tsidx_merge_rules_t rules_of(const TSIDX* tsidx, int mode, uint32_t min_src_count, uint64_t target_size,
                             bool is_final) {
    if (target_size == 0) target_size = tsidx->opts.byte_size;
    return {.tiered = mode == TSIDX_OPTIMIZE_TIERED || mode == TSIDX_OPTIMIZE_DRY_RUN,
            .parts_only = mode == TSIDX_OPTIMIZE_PARTS,
            .min_sources = is_final ? 2 : min_src_count,
            .target_size = target_size != 0 ? target_size : DEFAULT_TARGET_SIZE,
            .rewrite_fraction = !tsidx->merge_drops_deleted || mode == TSIDX_OPTIMIZE_PARTS ? 0
                                : mode == TSIDX_OPTIMIZE_ALL                                ? UINT32_MAX
                                                                                            : 3};
}

// A slice whose header cannot be read takes no part, and does not keep the others from merging.
int read_source(const std::string& path, tsidx_merge_source_t* source, bool* usable, warm_rc_t* rc) {
    const unique_fd fd = osfile_open_regular(path.c_str(), O_RDONLY);
    if (!fd.valid()) return errno == ENOENT ? VANISHED : _set_rc_msg(rc, WARM_RC_OPEN, path.c_str());
    if (osfile_get_size(fd.get(), &source->bytes) != 0) return _set_rc_msg(rc, WARM_RC_FILE_SIZE, path.c_str());
    *usable = warm_header_read(fd.get(), &source->header, rc) == 0;
    if (!*usable) {
        _log(0, "WARN  a slice is not merged. rc=%i, errno=%i, path=%s: %s\n", rc->warm_rc, rc->saved_errno,
             path.c_str(), rc->message);
    }
    return 0;
}

struct source_listing {
    size_t live = 0;  // slices, those included that cannot be read
    std::vector<tsidx_merge_source_t> slices;
};

int list_sources_once(TSIDX* tsidx, source_listing* found, warm_rc_t* rc) {
    tsidx_listing_t listing;
    ST_TRY(tsidx_list(tsidx->path.c_str(), &listing, rc));
    *found = {.live = listing.size(), .slices = {}};
    for (const tsidx_slice_name_t& slice : listing) {
        const std::vector<std::string>& damaged = tsidx->unmergeable;
        if (std::find(damaged.begin(), damaged.end(), slice.name) != damaged.end()) continue;
        tsidx_merge_source_t source;
        bool usable = false;
        source.name = slice.name;
        source.part = slice.name.ends_with(TSIDX_PART_SUFFIX);
        ST_TRY(read_source(tsidx->path + "/" + slice.name, &source, &usable, rc));
        if (usable) found->slices.push_back(std::move(source));
    }
    return 0;
}

int list_sources(TSIDX* tsidx, source_listing* found, warm_rc_t* rc) {
    for (int i = 0; i < MAX_TRIES; i++) {
        const int status = list_sources_once(tsidx, found, rc);
        if (status != VANISHED) return status;
        tsidx_pause(i);
    }
    return _set_rc_msg(rc, WARM_RC_RETRIES, "slices go faster than they can be opened");
}

// Whether the slice would be packed or more than one in `fraction` of its events is deleted, and not all.
bool is_worth_rewriting(const std::string& path, bool packs, uint32_t fraction) {
    warm_rc_t ignored;  // a slice that has gone, or does not open, is left alone
    const warm_ptr warm(st_warm_slice_open_rdonly(path.c_str(), &ignored));
    if (warm == nullptr) return false;
    const uint64_t deleted = warm_slice_count_deleted(warm.get()), values = st_warm_slice_values(warm.get());
    return (packs || deleted * fraction > values) && deleted < values;
}

// Whether no merge has written this slice, and a merge of it alone, as this handle writes, about halves it. What that
// writes would not: else there were no end.
bool would_pack(const TSIDX* tsidx, const st_warm_slice_body& header) {
    constexpr uint32_t PACKS_ALWAYS = uint32_t{1} << 25;  // so many values are within 2^32 bits however wide they are
    return !warm_header_is_enabled(&header, WARM_FLAG_VALUES_PACKED) && warm_header_is_rev1(&header) &&
           tsidx->opts.write_level >= 4 && header.num_values.get() <= PACKS_ALWAYS;
}

int make_plan(TSIDX* tsidx, const tsidx_merge_rules_t& rules, tsidx_optimize_plan_t* plan, warm_rc_t* rc) {
    source_listing found;
    *plan = {};
    ST_TRY(list_sources(tsidx, &found, rc));
    for (const size_t i : tsidx_plan_merge(found.slices, rules)) {
        plan->sources.push_back(found.slices[i].name);
        plan->bytes += found.slices[i].bytes;
    }
    for (const tsidx_merge_source_t& slice : found.slices) {
        if (!plan->sources.empty() || rules.rewrite_fraction == 0) break;
        const bool worth =
            st_warm_slice_merge_kind(&slice.header) >= 0 && !st_warm_slice_is_msidx(&slice.header) &&
            st_warm_slice_merge_fitting({&slice.header, 1}, {&slice.bytes, 1}) == 1 &&
            is_worth_rewriting(tsidx->path + "/" + slice.name, would_pack(tsidx, slice.header), rules.rewrite_fraction);
        if (worth) *plan = {.sources = {slice.name}, .bytes = slice.bytes};
    }
    if (!plan->sources.empty()) return 0;
    if (!tsidx->unmergeable.empty()) {
        return _set_rc_msg(
            rc, WARM_RC_CORRUPT,
            ("a slice differs from its seal and was not merged: " + tsidx->path + "/" + tsidx->unmergeable.front())
                .c_str());
    }
    if (found.live < 2) return _set_rc_msg(rc, WARM_RC_FEW_SLICES, "fewer than two slices");
    return _set_rc_msg(rc, WARM_RC_FEW_SOURCES, "no two slices are to be merged");
}

// A plan of slices that are as they were sealed, before their damage would become part of another slice.
int make_sound_plan(TSIDX* tsidx, const tsidx_merge_rules_t& rules, tsidx_optimize_plan_t* plan, warm_rc_t* rc) {
    for (bool sound = false; !sound;) {
        ST_TRY(make_plan(tsidx, rules, plan, rc));
        sound = true;
        for (const std::string& source : plan->sources) {
            const int status = seal_verify(tsidx->path + "/" + source, rc);
            if (status == 0) continue;
            if (status != WARM_RC_CORRUPT) return status;
            _log(0, "WARN  a slice is not merged. rc=%i: %s\n", status, rc->message);
            tsidx->unmergeable.push_back(source);
            sound = false;
        }
    }
    return 0;
}

int check_space(const TSIDX* tsidx, uint64_t needed, warm_rc_t* rc) {
    struct statvfs system;
    const bool is_told = ::statvfs(tsidx->path.c_str(), &system) == 0;  // else the write will tell
    const uint64_t free = is_told ? uint64_t{system.f_bavail} * system.f_frsize : UINT64_MAX;
    if (free >= needed) return 0;
    char message[128];
    std::snprintf(message, sizeof message, "a merge needs %llu bytes of disk space, and %llu are free",
                  static_cast<unsigned long long>(needed), static_cast<unsigned long long>(free));
    errno = ENOSPC;
    return _set_rc_msg(rc, WARM_RC_WRITE, message);
}

merge_ptr open_merge(const TSIDX* tsidx, const tsidx_optimize_plan_t& plan, uint32_t lexicon_tpb, warm_rc_t* rc) {
    std::vector<std::string> paths;
    for (const std::string& source : plan.sources) paths.push_back(tsidx->path + "/" + source);
    std::vector<const char*> texts;
    for (const std::string& path : paths) texts.push_back(path.c_str());
    const warm_merge_options_t options = {.write_options = tsidx->opts,
                                          .lexicon_tpb = lexicon_tpb,
                                          .mapper = tsidx->merge_mapper,
                                          .mapper_context = tsidx->merge_mapper_context,
                                          .progress = tsidx->merge_progress,
                                          .progress_context = tsidx->merge_progress_context,
                                          .stop = tsidx->merge_stop.asked,
                                          .stop_context = tsidx->merge_stop.context,
                                          .drop_deleted = tsidx->merge_drops_deleted};
    return merge_ptr(st_warm_slice_merge_open(texts, &options, rc));
}

// One merge, or VANISHED.
int merge_once(TSIDX* tsidx, const tsidx_merge_rules_t& rules, uint32_t lexicon_tpb, warm_rc_t* rc) {
    tsidx_merge_commit commit(tsidx);
    ST_TRY(commit.begin(rc));
    tsidx_optimize_plan_t plan;
    ST_TRY(make_sound_plan(tsidx, rules, &plan, rc));
    ST_TRY(check_space(tsidx, plan.bytes, rc));
    const merge_ptr merge = open_merge(tsidx, plan, lexicon_tpb, rc);
    if (merge == nullptr) return has_vanished(*rc) ? VANISHED : rc->warm_rc;
    const warm_merge_totals_t& totals = *st_warm_slice_merge_totals(merge.get());
    ST_TRY(commit.declare(totals.earliest, totals.latest, plan.sources, rc));
    ST_TRY(st_warm_slice_merge_write(merge.get(), commit.temp_path().c_str(), tsidx->durable, rc));
    commit.seal();
    const int committed = commit.commit(
        [&merge](const std::string& target, warm_rc_t* why) {
            return st_warm_slice_merge_carry_deletes(merge.get(), target.c_str(), why);
        },
        rc);
    tsidx->cache.close_unused();  // the sources among them still take their disk space
    return committed;
}

int settle_leftovers(TSIDX* tsidx, warm_rc_t* rc) {
    if (!tsidx_has_merge(tsidx)) return 0;
    tsidx_lock lock;
    if (lock.acquire(tsidx, tsidx->lock_seconds, &tsidx->merge_stop) != 0) return _cpy_rc(rc, &tsidx->last_failure);
    return tsidx_settle_merge(tsidx, rc);
}

int optimize(TSIDX* tsidx, const tsidx_merge_rules_t& rules, uint32_t lexicon_tpb, warm_rc_t* rc) {
    tsidx_optimize_plan_t plan;
    ST_TRY(settle_leftovers(tsidx, rc));
    for (int i = 0; i < MAX_TRIES; i++) {
        ST_TRY(tsidx->merge_stop.ask(rc));
        // First without a lock: most calls find nothing to do.
        ST_TRY(make_plan(tsidx, rules, &plan, rc));
        const int status = merge_once(tsidx, rules, lexicon_tpb, rc);
        if (status != VANISHED) return status;
        tsidx_pause(i);
    }
    return _set_rc_msg(rc, WARM_RC_RETRIES, "slices go faster than they can be opened");
}

}  // namespace

int st_tsidx_optimize_n(TSIDX* tsidx, int mode, uint32_t min_src_count, uint32_t lexicon_tpb, uint64_t target_size,
                        warm_rc_t* rc, uint64_t file_offset, uint32_t flags, bool is_final) {
    ST_ASSERT(tsidx != nullptr);
    warm_rc_t result;
    try {
        if (check_arguments(tsidx, mode, file_offset, flags, &result) == 0) {
            const tsidx_merge_rules_t rules = rules_of(tsidx, mode, min_src_count, target_size, is_final);
            tsidx_optimize_plan_t plan;
            const int status = mode == TSIDX_OPTIMIZE_DRY_RUN ? make_plan(tsidx, rules, &plan, &result)
                                                              : optimize(tsidx, rules, lexicon_tpb, &result);
            if (status == 0) result = {};  // of slices that were left out
        }
    } catch (const std::bad_alloc&) {
        _set_rc(&result, WARM_RC_NO_MEMORY);
    }
    _cpy_rc(&tsidx->last_failure, &result);
    if (rc != nullptr) _cpy_rc(rc, &result);
    return result.warm_rc;
}

int st_tsidx_optimize_plan(TSIDX* tsidx, int mode, uint32_t min_src_count, uint64_t target_size, bool is_final,
                           tsidx_optimize_plan_t* plan) {
    ST_ASSERT(tsidx != nullptr && plan != nullptr);
    warm_rc_t* const rc = &tsidx->last_failure;
    try {
        return make_plan(tsidx, rules_of(tsidx, mode, min_src_count, target_size, is_final), plan, rc);
    } catch (const std::bad_alloc&) {
        return tsidx_fail_no_memory(tsidx);
    }
}

int st_tsidx_is_optimized(TSIDX* tsidx) {
    ST_TRY(tsidx_begin_read(tsidx));
    const int status =
        st_tsidx_optimize_n(tsidx, TSIDX_OPTIMIZE_DRY_RUN, TSIDX_OPTIMIZE_MIN_SOURCES, 0, 0, nullptr, 0, 0, false);
    return status == WARM_RC_FEW_SLICES || status == WARM_RC_FEW_SOURCES ? 1 : status;
}

void st_tsidx_set_merge_mapper(TSIDX* tsidx, st_merge_mapper_t mapper, void* context) {
    ST_ASSERT(tsidx != nullptr);
    tsidx->merge_mapper = mapper;
    tsidx->merge_mapper_context = context;
}

void st_tsidx_set_merge_drops_deleted(TSIDX* tsidx, bool drops) {
    ST_ASSERT(tsidx != nullptr);
    tsidx->merge_drops_deleted = drops;
}

void st_tsidx_set_merge_progress(TSIDX* tsidx, warm_merge_progress_fn progress, void* context) {
    ST_ASSERT(tsidx != nullptr);
    tsidx->merge_progress = progress;
    tsidx->merge_progress_context = context;
}

void st_tsidx_set_merge_stop(TSIDX* tsidx, warm_stop_fn stop, void* context) {
    ST_ASSERT(tsidx != nullptr);
    tsidx->merge_stop = {stop, context};
}

}  // namespace veldar
