#include "tools/veldar/store/slices.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "searchthing/directory/tsidx_list.h"
#include "tools/veldar/store/index_handle.h"
#include "tools/veldar/store/store.h"
#include "tools/veldar/store/tool_failure.h"
#include "tools/veldar/store/tool_file.h"

namespace veldar::tool {

struct slice_snapshot {
    slice_snapshot() = default;
    slice_snapshot(const slice_snapshot&) = delete;
    slice_snapshot& operator=(const slice_snapshot&) = delete;
    ~slice_snapshot() {
        if (slices != nullptr) st_tsidx_snapshot_free(slices);
    }

    std::shared_ptr<TSIDX> tsidx;
    tsidx_snapshot* slices = nullptr;  // owned
};

namespace {

std::string last_component(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

std::string parent_of(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, std::max<size_t>(slash, 1));
}

// A file given by its path; a name that tells no times may hold events of all time.
slice_file slice_of(const std::string& path) {
    st_filename_metadata_t meta;
    if (tsidx_is_slice_name(last_component(path).c_str(), &meta) || st_tsidx_file_parse(path.c_str(), &meta) != 0) {
        return {path, 0, meta.earliest, meta.latest, nullptr, 0};
    }
    return {path, 0, INT_MIN, INT_MAX, nullptr, 0};
}

// Why a directory could not be listed.
std::string list_failure(const slice_directory& directory) {
    const warm_rc_t& failure = *st_tsidx_last_failure(directory.tsidx.get());
    return failure.warm_rc == WARM_RC_RETRIES ? failure.message : std::strerror(failure.saved_errno);
}

// The index of the directory in the set, which it joins when it is new.
uint32_t directory_index(slice_set* set, const std::string& path, bool has_sources) {
    uint32_t i = 0;
    while (i < set->directories.size() && set->directories[i].path != path) i++;
    if (i < set->directories.size()) return i;
    set->directories.push_back({path, last_component(path), has_sources, index_handle_open(path, 0)});
    return i;
}

// Adds the live slices of a directory. When it cannot be listed, false with the reason; then it does not join the set.
bool add_directory(slice_set* set, const std::string& path, bool has_sources, std::string* error) {
    const size_t known = set->directories.size();
    const uint32_t index = directory_index(set, path, has_sources);
    const slice_directory& directory = set->directories[index];
    const auto snapshot = std::make_shared<slice_snapshot>();
    snapshot->tsidx = directory.tsidx;
    snapshot->slices = st_tsidx_snapshot_take(directory.tsidx.get());
    if (snapshot->slices == nullptr) {
        *error = list_failure(directory);
        set->directories.resize(known);
        return false;
    }
    for (size_t i = 0; i < st_tsidx_snapshot_size(snapshot->slices); i++) {
        const st_filename_metadata_t& meta = *st_tsidx_snapshot_meta(snapshot->slices, i);
        set->files.push_back(
            {path + "/" + st_tsidx_snapshot_name(snapshot->slices, i), index, meta.earliest, meta.latest, snapshot, i});
    }
    return true;
}

void list_store(slice_set* set) {
    set->store = set->path;
    for (const std::string& bucket : store_bucket_directories(set->store)) {
        std::string error;
        if (!add_directory(set, bucket, true, &error)) set->errors.push_back(bucket + ": " + error);
    }
    std::string error;
    const std::string metrics = set->store + "/" + STORE_METRICS;
    if (!set->with_metrics || !tool_exists(metrics)) return;
    if (!add_directory(set, metrics, false, &error)) set->errors.push_back(metrics + ": " + error);
}

// A directory inside a store is searched with the store's names.
void find_store_above(slice_set* set, const std::string& directory) {
    if (store_is(directory + "/..")) set->store = directory + "/..";
}

void list_directory(slice_set* set) {
    std::string error;
    if (!add_directory(set, set->path, tool_exists(set->path + "/source.map"), &error)) {
        throw tool_failure{EXIT_IO, "cannot read " + set->path + ": " + error};
    }
    if (set->directories[0].has_sources) find_store_above(set, set->path);  // not for the store's metrics
}

// No snapshot: the file may be one that is no part of a directory, a mini slice or a copy by any name.
void list_file(slice_set* set) {
    const std::string parent = parent_of(set->path);
    set->directories = {{parent, last_component(parent), tool_exists(parent + "/source.map"), nullptr}};
    set->files.push_back(slice_of(set->path));
    if (set->directories[0].has_sources) find_store_above(set, parent);
}

void list(slice_set* set) {
    struct stat st;
    if (::stat(set->path.c_str(), &st) != 0) {
        if (errno != ENOENT && errno != ENOTDIR) fail_io("cannot read " + set->path, errno);
        throw tool_failure{EXIT_USAGE, set->path + ": " + std::strerror(errno) +
                                           "; -s names a store, an index directory or a slice (a store is made by "
                                           "'veldar load')"};
    }
    set->files.clear();
    set->errors.clear();
    if (!S_ISDIR(st.st_mode)) return list_file(set);
    if (store_is(set->path)) {
        list_store(set);
    } else {
        list_directory(set);
    }
    std::sort(set->files.begin(), set->files.end(), [](const slice_file& a, const slice_file& b) {
        return a.latest != b.latest ? a.latest > b.latest : a.path > b.path;
    });
}

// Every open slice takes a descriptor, and the usual limit of 1024 is far below what the system allows.
void raise_descriptor_limit() {
    rlimit limit;
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    static_cast<void>(::setrlimit(RLIMIT_NOFILE, &limit));
}

}  // namespace

namespace {

slice_set list_path(const std::string& path, bool with_metrics) {
    raise_descriptor_limit();
    slice_set set;
    set.path = path;
    set.with_metrics = with_metrics;
    while (set.path.size() > 1 && set.path.ends_with('/')) set.path.pop_back();
    list(&set);
    const bool is_file = set.directories.size() == 1 && set.directories[0].tsidx == nullptr;
    if (set.files.empty() && set.errors.empty() && !is_file) {
        const bool metrics = !set.store.empty() && tool_exists(set.store + "/" + STORE_METRICS);
        say_trouble(set.path + " holds no " + (metrics ? "events; 'veldar metrics' asks for its metrics" : "slices"));
    }
    return set;
}

}  // namespace

slice_set slices_list(const std::string& path) {
    return list_path(path, false);
}

slice_set slices_list_all(const std::string& path) {
    return list_path(path, true);
}

void slices_tell_errors(const slice_set& set, troubles* trouble) {
    for (const std::string& error : set.errors) troubles_add(trouble, error, EXIT_IO);
}

void slices_list_again(slice_set* set, int tries) {
    constexpr useconds_t FIRST_PAUSE = 1000, LONGEST_PAUSE = 100000;
    ::usleep(std::min(FIRST_PAUSE << std::min(tries - 1, 16), LONGEST_PAUSE));
    list(set);
}

void slices_visit(const std::string& path, troubles* trouble, const std::function<bool(const slice_set&)>& work) {
    slice_set set = slices_list(path);
    for (int i = 0; i < SLICES_MAX_TRIES; i++) {
        if (i > 0) slices_list_again(&set, i);
        slices_tell_errors(set, trouble);
        if (work(set)) return;
    }
    troubles_add(trouble, set.path + ": its slices change too fast to be read");
}

bool slice_meets_bounds(const slice_file& file, const st_query_spec& query) {
    return file.latest >= query.earliest.time_s && file.earliest <= query.latest.time_s;
}

void warm_close::operator()(WARM* warm) const {
    if (snapshot == nullptr) {
        st_warm_slice_close(warm);
    } else {
        st_tsidx_snapshot_close(snapshot->slices, number);
    }
}

slice_state_t slice_open(const slice_file& file, warm_ptr* warm, std::string* error) {
    warm_rc_t rc;
    WARM* opened = nullptr;
    if (file.snapshot == nullptr) {
        opened = st_warm_slice_open_rdonly(file.path.c_str(), &rc);
    } else {
        st_tsidx_snapshot_open(file.snapshot->slices, file.number, &opened, &rc);
    }
    *warm = warm_ptr(opened, {file.snapshot, file.number});
    if (opened != nullptr) return SLICE_OPEN;
    if (rc.warm_rc == WARM_RC_OPEN && rc.saved_errno == ENOENT) return SLICE_VANISHED;
    if (rc.warm_rc == WARM_RC_NO_MEMORY) throw tool_failure{EXIT_IO, "out of memory"};
    *error = slice_error(file.path, rc);
    return SLICE_UNREADABLE;
}

bool slices_open_all(const slice_set& set, std::vector<opened_slice>* slices, troubles* trouble) {
    slices->clear();
    for (const slice_file& file : set.files) {
        opened_slice one{&file, {}};
        std::string error;
        const slice_state_t state = slice_open(file, &one.warm, &error);
        if (state == SLICE_VANISHED) return false;
        if (state == SLICE_OPEN) {
            slices->push_back(std::move(one));
        } else {
            troubles_add(trouble, error);
        }
    }
    return true;
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
    return text + ", status " + std::to_string(rc.warm_rc);
}

}  // namespace veldar::tool
