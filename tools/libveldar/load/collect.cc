#include "tools/libveldar/load/collect.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <set>

#include "searchthing/directory/merge_manifest.h"
#include "searchthing/directory/tsidx_list.h"
#include "searchthing/slice/warmslice.h"
#include "tools/libveldar/load/loader.h"
#include "tools/libveldar/store/disk_file.h"
#include "tools/libveldar/store/failure.h"
#include "tools/libveldar/store/index_handle.h"
#include "tools/libveldar/store/raw_reader.h"
#include "tools/libveldar/store/store.h"

namespace veldar::tool {

namespace {

constexpr uint32_t WRITE_LEVEL = 4;  // of the handle; no slice is written
constexpr std::string_view SEAL_ENDING = ".seal";
constexpr char OF_A_WRITER[] = "of a writer that is gone";

uint64_t size_of(const std::string& path) {
    struct stat status;
    return ::stat(path.c_str(), &status) == 0 ? static_cast<uint64_t>(status.st_size) : 0;
}

void remove(const std::string& path) {
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) fail_io("cannot remove", path, errno);
}

void add_leftovers(const std::string& directory, TSIDX* tsidx, collected* out) {
    std::vector<tsidx_leftover_t> found;
    if (st_tsidx_find_leftovers(tsidx, &found) != 0) {
        throw failure_t{OUTCOME_IO, directory + ": " + index_failure_text(tsidx)};
    }
    for (const tsidx_leftover_t& one : found) {
        const bool is_seal = one.name.ends_with(SEAL_ENDING);
        const char* const why = one.is_kept ? "events of an interrupted sync that are nowhere else"
                                : is_seal   ? "a seal without its slice"
                                            : OF_A_WRITER;
        out->items.push_back({directory + "/" + one.name, one.bytes, why, one.is_kept});
    }
}

// What a kill left in a bucket may go at once when no load is at work: its events count as not loaded.
void add_bucket_leftovers(const std::string& directory, collected* out) {
    std::vector<std::string> merging;
    warm_rc_t rc;
    if (merge_manifest_temporaries(directory, &merging, &rc) != 0) fail_io("cannot read", directory, rc.saved_errno);
    for (const std::string& name : disk_list_directory(directory)) {
        if (!name.ends_with(TSIDX_PRE_SUFFIX) && !name.ends_with(".part")) continue;
        if (std::find(merging.begin(), merging.end(), name) != merging.end()) continue;
        const std::string path = directory + "/" + name;
        std::erase_if(out->items, [&](const collected_item& item) { return item.path == path; });
        out->items.push_back({path, size_of(path), "of a load that was killed"});
    }
}

// Whether the log may be back: it is found, or where it was cannot be looked through, or a file there not be read.
bool may_exist(const source_file& file, const std::string& bucket) {
    if (file.kind == SOURCE_SPOOL) return false;  // the store's own copy serves its events alone
    const std::string parent = file.path.substr(0, std::max<size_t>(file.path.rfind('/'), 1));
    struct stat status;
    if (::stat(parent.c_str(), &status) != 0 || ::access(parent.c_str(), R_OK | X_OK) != 0) return true;
    std::string unread;
    return !source_file_locate(file, bucket, &unread).empty() || !unread.empty();
}

// Takes the files out of which a slice still holds events, marked as deleted or not.
void keep_those_with_events(const store_bucket& bucket, std::set<uint32_t>* numbers) {
    const std::vector<source_stretch>& stretches = bucket.map.stretches;
    tsidx_listing_t listing;
    warm_rc_t rc;
    if (tsidx_list(bucket.directory.c_str(), &listing, &rc) != 0) {
        fail_io("cannot list", bucket.directory, rc.saved_errno);
    }
    for (const tsidx_slice_name_t& slice : listing) {
        const std::string path = bucket.directory + "/" + slice.name;
        const warm_ptr warm(st_warm_slice_open_rdonly(path.c_str(), &rc));
        size_t at = 0;  // neighbours in time mostly lie in one stretch
        for (uint32_t id = 0; warm != nullptr && id < st_warm_slice_values(warm.get()) && !numbers->empty(); id++) {
            st_tsval value;
            if (tsval_reader_decode(&warm->tsval_reader, id, &value, false, 0, &rc) != 0) return numbers->clear();
            const auto holds = [&](size_t i) {
                return i < stretches.size() && stretches[i].base <= value.address &&
                       (i + 1 == stretches.size() || value.address < stretches[i + 1].base);
            };
            if (id != 0 && holds(at)) continue;
            const auto behind = std::upper_bound(stretches.begin(), stretches.end(), value.address,
                                                 [](uint64_t a, const source_stretch& s) { return a < s.base; });
            at = static_cast<size_t>(behind - stretches.begin()) - (behind == stretches.begin() ? 0 : 1);
            if (holds(at)) numbers->erase(stretches[at].number);
        }
        // One that is gone was merged: its events are in another; one that cannot be read may hold anything.
        if (warm == nullptr) return numbers->clear();
    }
}

// The files of which nothing is left: neither an event nor, as far as can be told, the log itself.
std::set<uint32_t> find_gone(const store& st, const known_files& known) {
    std::set<uint32_t> gone;
    for (const store_bucket& bucket : st.buckets) {
        for (const auto& [number, file] : bucket.map.files) {
            if (!may_exist(file, bucket.directory)) gone.insert(number);
        }
    }
    for (const auto& [number, file] : known.by_number) {
        // Not all of it is loaded.
        if (file.record_indexed || (file.file.kind == SOURCE_SPOOL && file.progress < file.file.size))
            gone.erase(number);
    }
    for (const store_bucket& bucket : st.buckets) {
        if (!gone.empty()) keep_those_with_events(bucket, &gone);
    }
    return gone;
}

void collect_notes(store_bucket* bucket, const std::set<uint32_t>& gone, bool removes, collected* out) {
    const std::string directory = bucket->directory + "/";
    for (const uint32_t number : gone) {
        const auto file = bucket->map.files.find(number);
        if (file == bucket->map.files.end()) continue;
        const bool is_spool = file->second.kind == SOURCE_SPOOL;
        const std::string points = directory + source_points_name(number);
        const std::string spool = directory + "spool-" + std::to_string(number);
        out->items.push_back({bucket->map.path + ": " + (is_spool ? "a pipe" : file->second.path), 0,
                              "notes of a log that is gone, with all its events"});
        if (disk_exists(points)) out->items.push_back({points, size_of(points), "of a log that is gone"});
        if (is_spool && disk_exists(spool)) out->items.push_back({spool, size_of(spool), "no event is left of it"});
    }
    const uint64_t before = bucket->map.size, after = source_map_rewritten_size(bucket->map, gone);
    if (before > after) out->items.push_back({bucket->map.path, before - after, "notes that newer ones have replaced"});
    if (!removes || before <= after) return;
    source_map_rewrite(&bucket->map, gone);  // from here on nobody looks for them
    for (const uint32_t number : gone) {
        remove(directory + source_points_name(number));
        remove(directory + "spool-" + std::to_string(number));
    }
}

// Whether no load is at work, as far as this moment tells.
bool is_free(const std::string& store) {
    const std::string path = store + "/lock";
    const unique_fd lock = disk_open(path, O_RDONLY);
    if (!lock.valid() && errno != ENOENT && errno != EACCES) fail_io("cannot open", path, errno);
    if (!lock.valid() || ::flock(lock.get(), LOCK_SH | LOCK_NB) == 0) return true;
    if (errno != EWOULDBLOCK) fail_io("cannot lock", path, errno);
    return false;
}

// The buckets as they lie there, for looking only.
void read_buckets(const std::string& path, store* st) {
    st->path = path;
    for (const std::string& directory : store_bucket_directories(path)) {
        store_bucket bucket;
        std::string error;
        bucket.directory = directory;
        if (!source_map_open(&bucket.map, directory + "/source.map", false, &error)) {
            throw failure_t{OUTCOME_IO, error};
        }
        st->buckets.push_back(std::move(bucket));
    }
}

void collect_store(const std::string& path, bool removes, collected* out) {
    const load_options options;
    loader load;
    if (removes) {
        loader_open(&load, path, options);
    } else {
        read_buckets(path, &load.st);
    }
    const std::set<uint32_t> gone = find_gone(load.st, load.known);
    for (store_bucket& bucket : load.st.buckets) collect_notes(&bucket, gone, removes, out);
    if (removes) loader_close(&load);
}

}  // namespace

collected collect_garbage(const std::string& path, bool removes) {
    collected out;
    const std::vector<std::string> directories = store_index_directories(path);
    const bool has_notes = store_is(path);
    out.is_loading = has_notes && !is_free(path);
    for (const std::string& directory : directories) {
        add_leftovers(directory, index_handle_open(directory, 0).get(), &out);
        const bool is_bucket = has_notes && disk_exists(directory + "/source.map");
        if (is_bucket && !out.is_loading) add_bucket_leftovers(directory, &out);
        if (removes) index_handle_open(directory, WRITE_LEVEL);  // removes what it finds
    }
    if (has_notes && !out.is_loading) collect_store(path, removes, &out);
    if (!removes) return out;
    // What is there still was not to be had.
    std::erase_if(out.items, [](const collected_item& item) {
        struct stat status;
        const bool is_file = ::lstat(item.path.c_str(), &status) == 0;
        return is_file && !item.is_kept && !item.path.ends_with("/source.map");
    });
    return out;
}

}  // namespace veldar::tool
