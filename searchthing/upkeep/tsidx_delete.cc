#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <memory>
#include <new>
#include <span>
#include <vector>

#include "libzero/assertions.h"
#include "libzero/osfile.h"
#include "searchthing/base/log.h"
#include "searchthing/directory/tsidx_lock.h"
#include "searchthing/directory/tsidx_merge_settle.h"
#include "searchthing/reading/tsidx_query_walk.h"
#include "searchthing/reading/tsidx_snapshot_walk.h"
#include "searchthing/seal/slice_seal.h"
#include "searchthing/search/warmslice_search.h"
#include "searchthing/slice/warmslice_runs.h"
#include "searchthing/slice/warmslice_values.h"
#include "searchthing/upkeep/tsidx_upkeep.h"
#include "searchthing/values/tsval_order.h"

namespace veldar {

namespace {

// The values of one slice that are to go, as a bitmap over its value numbers.
struct doomed_values {
    std::vector<uint8_t> bits;
    bool any = false;

    void add(uint32_t id) {
        bits[id / 8] = static_cast<uint8_t>(bits[id / 8] | 1u << (id % 8));
        any = true;
    }
};

struct key_newest_first {
    bool operator()(const st_tsval_encoded& a, const st_tsval_encoded& b) const {
        return tsval_key_compare(&a, &b) < 0;
    }
};

// Keys are sorted newest first, as values are: each run of keys of one time meets one run of values.
int find_keys(WARM* warm, const std::vector<st_tsval_encoded>& keys, doomed_values* doomed, warm_rc_t* rc) {
    const uint32_t values = st_warm_slice_values(warm);
    uint32_t id = 0;
    for (auto begin = keys.begin(); begin != keys.end() && id < values;) {
        const st_time_t time = begin->time;
        const auto end = std::find_if(begin, keys.end(), [time](const auto& key) { return key.time != time; });
        ST_TRY(tsidx_first_not_later(warm, id, time, &id, rc));
        for (; id < values; id++) {
            st_tsval value;
            ST_TRY(tsval_reader_decode(&warm->tsval_reader, id, &value, false, 0, rc));
            if (value.time != time) break;
            if (std::binary_search(begin, end, st_tsval_encoded{time, value.address}, key_newest_first())) {
                doomed->add(id);
            }
        }
        begin = end;
    }
    return 0;
}

int find_addresses(WARM* warm, const std::vector<st_addr_t>& addresses, doomed_values* doomed, warm_rc_t* rc) {
    for (uint32_t id = 0; id < st_warm_slice_values(warm); id++) {
        st_tsval value;
        ST_TRY(tsval_reader_decode(&warm->tsval_reader, id, &value, false, 0, rc));
        if (std::binary_search(addresses.begin(), addresses.end(), value.address)) doomed->add(id);
    }
    return 0;
}

int find_matches(WARM* warm, const parsed_query_t& query, doomed_values* doomed, warm_rc_t* rc) {
    bitmap_and_bounds_t matches;
    uint64_t count = 0;
    ST_TRY(query_to_bitmap_and_bounds(warm, query, &matches, &count, rc));
    for (uint32_t bit = 0; count != 0 && bit < matches.end - matches.begin; bit++) {
        if ((matches.bm[bit / 8] >> (bit % 8) & 1) == 0) continue;
        doomed->add(matches.begin + bit);
        count--;
    }
    ST_ASSERT(count == 0);
    return 0;
}

bool is_marked(const WARM* warm, uint32_t id) {
    return id / 8 < warm->tsval_reader.d.bytes.size() && (warm->d_array[id / 8] >> (id % 8) & 1) != 0;
}

// Flushes and ends a writable handle: 0 when the marks are on the disk.
int close_flushed(WARM* warm, warm_rc_t* rc) {
    bool still_open = false;
    if (st_warm_slice_close(warm, &still_open) == 0 || !still_open) return 0;
    _set_rc_msg(rc, WARM_RC_WRITE, "flushing delete marks");
    st_warm_slice_discard(warm);
    return rc->warm_rc;
}

std::vector<uint8_t> marks_of(const WARM* warm) {
    return {warm->d_array, warm->d_array + warm->tsval_reader.d.bytes.size()};
}

// The slice's marks with those of the doomed values.
std::vector<uint8_t> marks_with(const WARM* warm, const doomed_values& doomed) {
    std::vector<uint8_t> marks = marks_of(warm);
    const size_t values = st_warm_slice_values(warm);
    for (size_t i = 0; i < std::min(marks.size(), values / 8 + 1); i++) {
        const unsigned in_slice = 8 * i + 8 <= values ? 0xFF : (1u << (values % 8)) - 1;
        marks[i] = static_cast<uint8_t>(marks[i] | (doomed.bits[i] & in_slice));
    }
    return marks;
}

int end_marks(const std::string& path, std::span<const uint8_t> marks, bool durable, warm_rc_t* rc) {
    try {
        return seal_end_marks(path, marks, durable, rc);
    } catch (const std::bad_alloc&) {
        return _set_rc(rc, WARM_RC_NO_MEMORY);
    }
}

int mark_values(WARM* warm, const doomed_values& doomed, uint64_t* newly, bool* all_deleted, warm_rc_t* rc) {
    uint32_t left = 0;
    int status = 0;
    for (uint32_t id = 0; id < st_warm_slice_values(warm) && status == 0; id++) {
        if (is_marked(warm, id)) continue;
        if ((doomed.bits[id / 8] >> (id % 8) & 1) == 0) {
            left++;
        } else if ((status = warm_slice_set_deleted(warm, id, rc)) == 0) {
            ++*newly;
        }
    }
    *all_deleted = left == 0;
    if (change_stamp_renew(warm->fd.get()) != 0 && status == 0) {
        status = _set_rc_msg(rc, WARM_RC_WRITE, "telling readers of delete marks");
    }
    return status;
}

struct warm_discarder {
    void operator()(WARM* warm) const { st_warm_slice_discard(warm); }
};

// Marks the values in the file and tells how many of them were not marked before and whether any value is left.
int mark_in_file(const std::string& path, const doomed_values& doomed, bool durable, uint64_t* newly, bool* all_deleted,
                 warm_rc_t* rc) {
    std::unique_ptr<WARM, warm_discarder> warm(st_warm_slice_open_rdwr(path.c_str(), rc));
    if (warm == nullptr) return rc->warm_rc;
    if (st_warm_slice_values(warm.get()) > 8 * doomed.bits.size()) {
        return _set_rc_msg(rc, WARM_RC_CORRUPT, "another slice has taken the place of the one that was searched");
    }
    // Room for what they are in the end: from here on nothing may throw.
    std::vector<uint8_t> marks = marks_of(warm.get());
    ST_TRY(seal_begin_marks(path, marks, marks_with(warm.get(), doomed), durable, rc));
    const int status = mark_values(warm.get(), doomed, newly, all_deleted, rc);
    std::copy_n(warm->d_array, marks.size(), marks.begin());
    warm_rc_t why;
    if (close_flushed(warm.release(), &why) != 0) return status != 0 ? status : _cpy_rc(rc, &why);
    // The marks are made: a seal that does not tell so says that a delete is on its way, which is no fault.
    if (end_marks(path, marks, durable, &why) != 0) {
        _log(0, "WARN  the end of a delete was not sealed. rc=%i, errno=%i, path=%s\n", why.warm_rc, why.saved_errno,
             path.c_str());
    }
    return status;
}

int check_deletable(TSIDX* tsidx) {
    ST_ASSERT(tsidx != nullptr);
    if (tsidx_is_writable(tsidx) && !tsidx->is_msidx) return 0;
    return _set_rc_msg(&tsidx->last_failure, WARM_RC_UNSUPPORTED,
                       tsidx->is_msidx ? "metric directories have no deletes" : "directory is open for reading");
}

// Finds the values of every slice that overlaps the bounds, then marks them. `find(warm, doomed, rc)` is called with
// slices of events only.
template <typename Find>
int64_t delete_found(TSIDX* tsidx, st_time_t earliest, st_time_t latest, Find find) {
    uint64_t newly = 0;  // over all snapshots: what a discarded one has marked is marked
    const auto find_and_mark = [&](tsidx_snapshot& snapshot) -> int64_t {
        std::vector<doomed_values> doomed(snapshot.size());
        warm_rc_t* const rc = &tsidx->last_failure;
        const auto find_in_slice = [&](size_t i, warm_rc_t* why) {
            WARM* const warm = snapshot.warm(i);
            doomed[i].bits.resize(st_warm_slice_values(warm) / 8 + 1);
            const int status = st_warm_slice_is_msidx(warm->body)
                                   ? _set_rc_msg(why, WARM_RC_UNSUPPORTED, "metric slices have no deletes")
                                   : find(warm, &doomed[i], why);
            if (!doomed[i].any) doomed[i].bits = {};
            return status;
        };
        if (const int64_t status = snapshot.each(earliest, latest, find_in_slice, rc); status != 0) return status;
        for (size_t i = 0; i < snapshot.size(); i++) {
            if (!doomed[i].any) continue;
            warm_rc_t why;
            bool all_deleted = false;
            if (mark_in_file(snapshot.path(i), doomed[i], tsidx->durable, &newly, &all_deleted, &why) != 0) {
                const bool gone = why.warm_rc == WARM_RC_OPEN && why.saved_errno == ENOENT;
                return gone ? TSIDX_VANISHED : snapshot.fail(i, why, rc);
            }
            if (all_deleted) tsidx_remove_slice(tsidx, snapshot.path(i));
        }
        return static_cast<int64_t>(newly);
    };
    try {
        tsidx_lock lock;
        ST_TRY(lock.acquire(tsidx, tsidx->lock_seconds));
        // Else the sources of a merge that was cut off could come back when the target goes.
        const int settled = tsidx_settle_merge(tsidx, &tsidx->last_failure);
        if (settled != 0 && settled != WARM_RC_MANIFEST_EXISTS) return settled;
        return tsidx_over_snapshot(tsidx, find_and_mark);
    } catch (const std::bad_alloc&) {
        return tsidx_fail_no_memory(tsidx);
    }
}

// WARM_RC_MANIFEST_EXISTS for a slice whose events a merge that is at work would bring back.
int drop_slice(TSIDX* tsidx, const std::string& name, bool merging, tsidx_dropped_t* dropped) {
    warm_rc_t* const rc = &tsidx->last_failure;
    const std::string path = tsidx->path + "/" + name;
    const tsidx_slice_facts_t facts = st_tsidx_slice_facts(tsidx, name, TSIDX_FIRST_TIME);
    if (merging && !facts.has_marks) return _set_rc_msg(rc, WARM_RC_MANIFEST_EXISTS, "a merge is at work");
    if (merging) {
        const doomed_values all = {.bits = std::vector<uint8_t>(facts.values / 8 + 1, 0xFF), .any = true};
        uint64_t newly = 0;
        bool all_deleted = false;
        ST_TRY(mark_in_file(path, all, tsidx->durable, &newly, &all_deleted, rc));
    }
    tsidx_remove_slice(tsidx, path);
    if (::access(path.c_str(), F_OK) == 0) return _set_rc_msg(rc, WARM_RC_WRITE, path.c_str());
    dropped->slices++;
    dropped->bytes += facts.bytes;
    dropped->events += facts.events;
    dropped->uncounted += facts.is_read ? 0 : 1;
    return 0;
}

int drop_slices(TSIDX* tsidx, const std::vector<std::string>& names, tsidx_dropped_t* dropped) {
    tsidx_lock lock;
    tsidx_listing_t live;
    warm_rc_t* const rc = &tsidx->last_failure;
    ST_TRY(lock.acquire(tsidx, tsidx->lock_seconds));
    const int settled = tsidx_settle_merge(tsidx, rc);
    if (settled != 0 && settled != WARM_RC_MANIFEST_EXISTS) return settled;
    ST_TRY(tsidx_list(tsidx->path.c_str(), &live, rc));
    for (const tsidx_slice_name_t& slice : live) {
        if (std::find(names.begin(), names.end(), slice.name) == names.end()) continue;
        ST_TRY(drop_slice(tsidx, slice.name, settled != 0, dropped));
    }
    return _set_rc(rc, 0);
}

}  // namespace

void tsidx_remove_slice(const TSIDX* tsidx, const std::string& path) {
    ST_ASSERT(tsidx->is_locked);
    const std::string sentinel = path + TSIDX_SENTINEL_SUFFIX;
    if (ospath_mark(sentinel.c_str()) != 0 || tsidx_unlink_slice(tsidx, path) != 0 || ::unlink(sentinel.c_str()) != 0) {
        _log(0, "WARN  a slice without events was not removed. errno=%i, path=%s\n", errno, path.c_str());
    }
    // Should the removal not last, the slice comes back with every event marked.
    warm_rc_t ignored;
    static_cast<void>(tsidx_flush(tsidx, tsidx->path.c_str(), O_DIRECTORY, &ignored));
}

int64_t st_tsidx_delete_by_key(TSIDX* tsidx, const st_tsval_encoded* keys, size_t count) {
    ST_TRY(check_deletable(tsidx));
    ST_ASSERT(keys != nullptr || count == 0);
    try {
        std::vector<st_tsval_encoded> sorted(keys, keys + count);
        std::sort(sorted.begin(), sorted.end(), key_newest_first());
        if (sorted.empty()) return 0;
        return delete_found(
            tsidx, sorted.back().time, sorted.front().time,
            [&](WARM* warm, doomed_values* doomed, warm_rc_t* rc) { return find_keys(warm, sorted, doomed, rc); });
    } catch (const std::bad_alloc&) {
        return tsidx_fail_no_memory(tsidx);
    }
}

int64_t st_tsidx_delete_by_addr(TSIDX* tsidx, const st_addr_t* addresses, size_t count) {
    ST_TRY(check_deletable(tsidx));
    ST_ASSERT(addresses != nullptr || count == 0);
    try {
        std::vector<st_addr_t> sorted(addresses, addresses + count);
        std::sort(sorted.begin(), sorted.end());
        if (sorted.empty()) return 0;
        return delete_found(
            tsidx, TSIDX_FIRST_TIME, TSIDX_LAST_TIME,
            [&](WARM* warm, doomed_values* doomed, warm_rc_t* rc) { return find_addresses(warm, sorted, doomed, rc); });
    } catch (const std::bad_alloc&) {
        return tsidx_fail_no_memory(tsidx);
    }
}

int64_t st_tsidx_delete_by_query(TSIDX* tsidx, const st_query_spec* query) {
    ST_TRY(check_deletable(tsidx));
    parsed_query_t parsed;
    ST_TRY(tsidx_parse_query(tsidx, query, &parsed));
    if (query->cumspan != 0) {
        return _set_rc_msg(&tsidx->last_failure, WARM_RC_INVALID_ARGUMENT, "a delete takes no cumspan");
    }
    const st_query_spec& bounded = parsed.spec;
    if (tsidx_is_empty_range(bounded)) return 0;
    return delete_found(
        tsidx, bounded.earliest.time_s, bounded.latest.time_s,
        [&](WARM* warm, doomed_values* doomed, warm_rc_t* rc) { return find_matches(warm, parsed, doomed, rc); });
}

int64_t st_tsidx_delete_before(TSIDX* tsidx, st_time_t time) {
    ST_TRY(check_deletable(tsidx));
    if (time == TSIDX_FIRST_TIME) return 0;
    return delete_found(tsidx, TSIDX_FIRST_TIME, time - 1, [&](WARM* warm, doomed_values* doomed, warm_rc_t* rc) {
        uint32_t id = 0;
        ST_TRY(tsidx_first_not_later(warm, 0, time - 1, &id, rc));
        for (; id < st_warm_slice_values(warm); id++) doomed->add(id);
        return 0;
    });
}

tsidx_slice_facts_t st_tsidx_slice_facts(const TSIDX* tsidx, const std::string& name, st_time_t time) {
    ST_ASSERT(tsidx != nullptr);
    tsidx_slice_facts_t facts;
    const std::string path = tsidx->path + "/" + name;
    struct stat status;
    const bool is_seen = ::stat(path.c_str(), &status) == 0;
    facts.exists = is_seen || errno != ENOENT;  // one that cannot be looked at is there still
    if (is_seen) facts.bytes = static_cast<uint64_t>(status.st_size);
    warm_rc_t ignored;
    const warm_ptr warm(st_warm_slice_open_rdonly(path.c_str(), &ignored));
    facts.is_read = is_seen && warm != nullptr;
    if (warm == nullptr) return facts;
    facts.is_metric = st_warm_slice_is_msidx(warm->body);
    facts.values = st_warm_slice_values(warm.get());
    facts.events =
        facts.values - (facts.is_metric ? warm_slice_runs(warm.get()) : warm_slice_count_deleted(warm.get()));
    facts.address_max = warm_header_is_rev1(warm->body) ? warm->body->seek_addr_max.get() : UINT32_MAX;
    facts.has_marks = !facts.is_metric && warm->d_array != nullptr;
    uint32_t id = facts.values;  // so that none is, where their times cannot be read
    if (facts.is_metric || time == TSIDX_FIRST_TIME) return facts;
    static_cast<void>(tsidx_first_not_later(warm.get(), 0, time - 1, &id, &ignored));
    for (; id < facts.values; id++) facts.older += is_marked(warm.get(), id) ? 0 : 1;
    return facts;
}

int st_tsidx_drop_slices(TSIDX* tsidx, const std::vector<std::string>& names, tsidx_dropped_t* dropped) {
    ST_ASSERT(tsidx != nullptr && dropped != nullptr);
    *dropped = {};
    if (!tsidx_is_writable(tsidx)) {
        return _set_rc_msg(&tsidx->last_failure, WARM_RC_UNSUPPORTED, "directory is open for reading");
    }
    try {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(tsidx->lock_seconds);
        for (int i = 0;; i++) {
            const int status = drop_slices(tsidx, names, dropped);
            if (status != WARM_RC_MANIFEST_EXISTS || std::chrono::steady_clock::now() >= deadline) return status;
            tsidx_pause(std::min(i, 8));
        }
    } catch (const std::bad_alloc&) {
        return tsidx_fail_no_memory(tsidx);
    }
}

void st_tsidx_set_lock_timeout(TSIDX* tsidx, int seconds) {
    ST_ASSERT(tsidx != nullptr);
    tsidx->lock_seconds = std::max(seconds, 0);
}

}  // namespace veldar
