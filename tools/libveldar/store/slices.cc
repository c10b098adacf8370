#include "tools/libveldar/store/slices.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "tools/libveldar/store/disk_file.h"
#include "tools/libveldar/store/failure.h"
#include "tools/libveldar/store/index_handle.h"
#include "tools/libveldar/store/observer.h"
#include "tools/libveldar/store/store.h"

namespace veldar::tool {

namespace {

std::string last_component(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

std::string parent_of(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, std::max<size_t>(slash, 1));
}

// Why a directory could not be listed.
std::string list_failure(const warm_rc_t& failure) {
    return failure.warm_rc == WARM_RC_RETRIES ? failure.message : std::strerror(failure.saved_errno);
}

void add_directory(slice_set* set, const std::string& path, bool has_sources) {
    set->directories.push_back({path, last_component(path), has_sources, index_handle_open(path, 0)});
    st_tsidx_set_read_stop(
        set->directories.back().tsidx.get(), [](void*) { return work_stops(); }, nullptr);
}

void take(slice_set* set, const cursor_failure_fn& on_failure) {
    set->slices = std::make_shared<tsidx_snapshot>(slices_sources(*set), on_failure);
    warm_rc_t rc;
    if (set->slices->begin(&rc) != 0) throw failure_t{OUTCOME_IO, "cannot read " + set->path + ": " + list_failure(rc)};
}

void list_store(slice_set* set, bool with_metrics) {
    set->store = set->path;
    for (const std::string& bucket : store_bucket_directories(set->store)) add_directory(set, bucket, true);
    const std::string metrics = set->store + "/" + STORE_METRICS;
    if (with_metrics && disk_exists(metrics)) add_directory(set, metrics, false);
    const auto errors = set->errors;
    const auto hear = [errors](const std::string& path, const warm_rc_t& rc) {
        errors->push_back(path + ": " + list_failure(rc));
    };
    take(set, hear);
    if (errors->empty()) return;
    // What cannot be listed does not join.
    std::erase_if(set->directories, [&](const slice_directory& directory) {
        const auto is_of = [&](const std::string& error) { return error.starts_with(directory.path + ": "); };
        return std::any_of(errors->begin(), errors->end(), is_of);
    });
    take(set, hear);
}

// A directory inside a store is searched with the store's names.
void find_store_above(slice_set* set, const std::string& directory) {
    if (store_is(directory + "/..")) set->store = directory + "/..";
}

void list_directory(slice_set* set) {
    add_directory(set, set->path, disk_exists(set->path + "/source.map"));
    take(set, nullptr);
    if (set->directories[0].has_sources) find_store_above(set, set->path);  // not for the store's metrics
}

// No directory: the file may be one that is no part of it, a mini slice or a copy by any name.
void list_file(slice_set* set) {
    const std::string parent = parent_of(set->path);
    set->directories = {{parent, last_component(parent), disk_exists(parent + "/source.map"), nullptr}};
    take(set, nullptr);
    if (set->directories[0].has_sources) find_store_above(set, parent);
}

void list(slice_set* set, bool with_metrics) {
    struct stat st;
    if (::stat(set->path.c_str(), &st) != 0) {
        if (errno != ENOENT && errno != ENOTDIR) fail_io("cannot read", set->path, errno);
        const std::string next_step =
            "expected a store, an index directory or a slice (a store is made by 'veldar load')";
        throw failure_t{.status = OUTCOME_USAGE,
                        .message = set->path + ": " + std::strerror(errno) + "; " + next_step,
                        .file = set->path,
                        .next_step = next_step};
    }
    if (!S_ISDIR(st.st_mode)) {
        list_file(set);
    } else if (store_is(set->path)) {
        list_store(set, with_metrics);
    } else {
        list_directory(set);
    }
}

// Every open slice takes a descriptor, and the usual limit of 1024 is far below what the system allows.
void raise_descriptor_limit() {
    rlimit limit;
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    static_cast<void>(::setrlimit(RLIMIT_NOFILE, &limit));
}

slice_set list_path(const std::string& path, bool with_metrics, bool tells_empty) {
    raise_descriptor_limit();
    slice_set set;
    set.path = path;
    set.errors = std::make_shared<std::vector<std::string>>();
    while (set.path.size() > 1 && set.path.ends_with('/')) set.path.pop_back();
    list(&set, with_metrics);
    if (tells_empty && set.slices->size() == 0 && set.errors->empty()) {
        const bool metrics = !set.store.empty() && disk_exists(set.store + "/" + STORE_METRICS);
        say_trouble(set.path + " holds no " + (metrics ? "events; 'veldar metrics' asks for its metrics" : "slices"));
    }
    return set;
}

}  // namespace

slice_set slices_list(const std::string& path, bool tells_empty) {
    return list_path(path, false, tells_empty);
}

slice_set slices_list_all(const std::string& path) {
    return list_path(path, true, true);
}

slice_set slices_none() {
    slice_set set;
    set.errors = std::make_shared<std::vector<std::string>>();
    take(&set, nullptr);
    return set;
}

std::vector<cursor_source_t> slices_sources(const slice_set& set) {
    std::vector<cursor_source_t> sources;
    for (const slice_directory& directory : set.directories) {
        const bool is_file = directory.tsidx == nullptr;
        sources.push_back({directory.tsidx.get(), is_file ? set.path : std::string()});
    }
    return sources;
}

void slices_tell_errors(const slice_set& set, troubles* trouble) {
    for (const std::string& error : *set.errors) troubles_add(trouble, error, OUTCOME_IO);
}

void slices_hold(const slice_set& set, troubles* trouble, const std::function<int64_t()>& work) {
    warm_rc_t rc;
    const int64_t status = set.slices->hold(work, &rc);
    slices_tell_errors(set, trouble);
    if (status < 0) slice_tell(set.path, rc, trouble);
}

bool slice_meets_bounds(const slice_set& set, size_t i, const st_query_spec& query) {
    return set.slices->overlaps(i, query.earliest.time_s, query.latest.time_s);
}

slice_times slices_times(const slice_set& set, const st_query_spec& bounds) {
    slice_times range;
    for (size_t i = 0; i < set.slices->size(); i++) {
        if (!slice_meets_bounds(set, i, bounds)) continue;
        const st_filename_metadata_t& meta = set.slices->slice(i).meta;
        int64_t earliest = meta.earliest, latest = meta.latest;
        if (earliest == INT_MIN || latest == INT_MAX) {
            snapshot_slice_ptr warm;
            std::string error;
            if (slice_open(set, i, &warm, &error) != SLICE_OPEN) continue;
            earliest = st_warm_slice_earliest(warm.get());
            latest = st_warm_slice_latest(warm.get());
        }
        range.earliest_s = std::min(range.earliest_s, earliest);
        range.latest_s = std::max(range.latest_s, latest);
    }
    if (range.is_empty()) return range;
    range.earliest_s = std::max<int64_t>(range.earliest_s, bounds.earliest.time_s);
    range.latest_s = std::min<int64_t>(range.latest_s, bounds.latest.time_s);
    return range;
}

void slice_fail_unless_told(const warm_rc_t& rc) {
    if (rc.warm_rc == WARM_RC_NO_MEMORY) throw failure_t{OUTCOME_IO, "out of memory"};
    if (rc.warm_rc == WARM_RC_CANCELLED) throw failure_t{OUTCOME_INTERRUPTED, "interrupted"};
}

slice_state_t slice_open(const slice_set& set, size_t i, snapshot_slice_ptr* warm, std::string* error) {
    warm_rc_t rc;
    const int64_t status = set.slices->open(i, &rc);
    if (status == TSIDX_VANISHED) return SLICE_VANISHED;
    *warm = snapshot_slice_ptr(set.slices->warm(i), {set.slices.get(), i});
    if (status == 0) return SLICE_OPEN;
    slice_fail_unless_told(rc);
    *error = slice_error(set.slices->path(i), rc);
    return SLICE_UNREADABLE;
}

void slice_tell(const std::string& path, const warm_rc_t& rc, troubles* trouble) {
    slice_fail_unless_told(rc);
    const bool restless = rc.warm_rc == WARM_RC_RETRIES;
    troubles_add(trouble, restless ? path + ": its slices change too fast to be read" : slice_error(path, rc));
}

std::string slice_error(const std::string& path, const warm_rc_t& rc) {
    std::string text = path + ": ";
    if (rc.warm_rc == WARM_RC_OPEN) return text + std::strerror(rc.saved_errno);
    if (rc.warm_rc == WARM_RC_BAD_MAGIC) {
        text += "not a slice, or damaged";
    } else if (warm_status_indicates_corruption(rc.warm_rc)) {
        text += "damaged";
    } else {
        text += "cannot be read";
    }
    if (rc.message[0] != '\0') text += std::string(" (") + rc.message + ")";
    if (warm_rc_has_cause(&rc)) return text + ": " + std::strerror(rc.saved_errno);
    return text + ", status " + std::to_string(rc.warm_rc);
}

}  // namespace veldar::tool
