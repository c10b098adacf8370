#include "tools/veldar/slices.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "searchthing/tsidx_list.h"
#include "tools/veldar/command.h"
#include "tools/veldar/store.h"

namespace veldar {

namespace {

std::string last_component(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

std::string parent_of(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, std::max<size_t>(slash, 1));
}

bool exists(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

// A file given by its path; a name that tells no times may hold events of all time.
slice_file slice_of(const std::string& path, uint32_t directory) {
    st_filename_metadata_t meta;
    if (tsidx_is_slice_name(last_component(path).c_str(), &meta) || st_tsidx_file_parse(path.c_str(), &meta) != 0) {
        return {path, directory, meta.earliest, meta.latest};
    }
    return {path, directory, INT_MIN, INT_MAX};
}

// Adds the live slices of a directory; false with the errno in rc when it cannot be listed.
bool add_directory(slice_set* set, const std::string& path, bool has_sources, warm_rc_t* rc) {
    tsidx_listing_t listing;
    if (tsidx_list(path.c_str(), &listing, rc) != 0) return false;
    const auto index = static_cast<uint32_t>(set->directories.size());
    set->directories.push_back({path, last_component(path), has_sources});
    for (const tsidx_slice_name_t& slice : listing) {
        set->files.push_back({path + "/" + slice.name, index, slice.meta.earliest, slice.meta.latest});
    }
    return true;
}

void add_store(slice_set* set, const std::string& path) {
    set->store = path;
    for (const std::string& bucket : store_bucket_directories(path)) {
        warm_rc_t rc;
        if (!add_directory(set, bucket, true, &rc)) {
            set->errors.push_back(bucket + ": " + std::strerror(rc.saved_errno));
        }
    }
}

// A directory inside a store is searched with the store's names.
void find_store_above(slice_set* set, const std::string& directory) {
    if (store_is(directory + "/..")) set->store = directory + "/..";
}

}  // namespace

slice_set slices_list(const std::string& given) {
    std::string path = given;
    while (path.size() > 1 && path.ends_with('/')) path.pop_back();
    struct stat st;
    slice_set set;
    if (::stat(path.c_str(), &st) != 0) {
        throw tool_failure{EXIT_USAGE, path + ": " + std::strerror(errno) +
                                           "; -s names a store, an index directory or a slice (a store is made by "
                                           "'veldar load')"};
    }
    if (!S_ISDIR(st.st_mode)) {
        const std::string parent = parent_of(path);
        set.directories.push_back({parent, last_component(parent), exists(parent + "/source.map")});
        set.files.push_back(slice_of(path, 0));
        find_store_above(&set, parent);
        return set;
    }
    if (store_is(path)) {
        add_store(&set, path);
    } else {
        warm_rc_t rc;
        if (!add_directory(&set, path, exists(path + "/source.map"), &rc))
            fail_io("cannot read " + path, rc.saved_errno);
        find_store_above(&set, path);
    }
    if (set.files.empty()) std::fprintf(stderr, "veldar: %s holds no slices\n", path.c_str());
    std::sort(set.files.begin(), set.files.end(), [](const slice_file& a, const slice_file& b) {
        return a.latest != b.latest ? a.latest > b.latest : a.path > b.path;
    });
    return set;
}

bool slice_meets_bounds(const slice_file& file, const st_query_spec& query) {
    return file.latest >= query.earliest.time_s && file.earliest <= query.latest.time_s;
}

slice_state_t slice_open(const slice_file& file, warm_ptr* warm, std::string* error) {
    warm_rc_t rc;
    warm->reset(st_warm_slice_open_rdonly(file.path.c_str(), &rc));
    if (*warm != nullptr) return SLICE_OPEN;
    if (rc.warm_rc == WARM_RC_OPEN && rc.saved_errno == ENOENT) return SLICE_VANISHED;
    if (rc.warm_rc == WARM_RC_NO_MEMORY) throw tool_failure{EXIT_IO, "out of memory"};
    *error = slice_error(file, rc);
    return SLICE_UNREADABLE;
}

std::string slice_error(const slice_file& file, const warm_rc_t& rc) {
    std::string text = file.path + ": ";
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

}  // namespace veldar
