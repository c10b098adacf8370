#include "tools/libveldar/store/store.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <optional>

#include "searchthing/directory/merge_manifest.h"
#include "searchthing/format/tsidx_names.h"
#include "searchthing/format/warmslice_header.h"
#include "tools/libveldar/store/disk_file.h"
#include "tools/libveldar/store/failure.h"
#include "tools/libveldar/store/percent_text.h"

namespace veldar::tool {

namespace {

constexpr char STORE_MARK[] = "veldar store 1\n";
constexpr char STORE_ID[] = "id";
constexpr char BUCKET_PREFIX[] = "bucket-", DELETED_PREFIX[] = "deleted-";

// The number behind the prefix of a name of at most `digits` digits.
std::optional<uint64_t> number_behind(const std::string& name, std::string_view prefix, size_t digits) {
    const size_t size = prefix.size();
    if (!name.starts_with(prefix) || name.size() == size || name.size() > size + digits) return std::nullopt;
    if (name.find_first_not_of("0123456789", size) != std::string::npos) return std::nullopt;
    return std::strtoull(name.c_str() + size, nullptr, 10);
}

uint32_t bucket_number(const std::string& name) {
    return static_cast<uint32_t>(number_behind(name, BUCKET_PREFIX, 9).value_or(0));
}

// The whole lines of a dictionary.
std::vector<std::string> decode_names(std::string_view content) {
    std::vector<std::string> names;
    size_t at = 0;
    for (size_t end; (end = content.find('\n', at)) != std::string_view::npos; at = end + 1) {
        names.push_back(percent_decode(content.substr(at, end - at)));
    }
    return names;
}

void open_dictionary(store_dictionary* dictionary, const std::string& path, bool durable) {
    dictionary->names = decode_names(line_file_open(&dictionary->file, path, durable));
    for (size_t i = 0; i < dictionary->names.size(); i++) {
        dictionary->numbers.emplace(dictionary->names[i], static_cast<uint32_t>(i));
    }
}

bool is_slice(const std::string& name) {
    st_filename_metadata_t meta;
    return st_tsidx_file_parse(name.c_str(), &meta) != 0 && !name.ends_with(TSIDX_MINI_SUFFIX);
}

// The greatest address of a slice; false when it has been merged meanwhile.
bool slice_address_max(const std::string& path, uint64_t* address) {
    const unique_fd fd = disk_open(path, O_RDONLY);
    if (!fd.valid() && errno == ENOENT) return false;
    if (!fd.valid()) fail_io("cannot open", path, errno);
    st_warm_slice_body header;
    warm_rc_t rc;
    const int status = warm_header_read(fd.get(), &header, &rc);
    if (status == WARM_RC_READ) fail_io("cannot read", path, rc.saved_errno);
    if (status != 0 || !verify_magic(&header) || !warm_header_is_rev1(&header)) {
        throw failure_t{OUTCOME_IO, path + ": not a slice that veldar load wrote; nothing was loaded"};
    }
    *address = header.seek_addr_max.get();
    return true;
}

// The path of a slice that has been merged meanwhile, or is a link to nothing; else empty.
std::string look_over_files(store_bucket* bucket) {
    for (const std::string& name : disk_list_directory(bucket->directory)) {
        const std::string path = bucket->directory + "/" + name;
        uint64_t address = 0;
        if (const std::optional<uint64_t> deleted = number_behind(name, DELETED_PREFIX, 19)) {
            address = *deleted;
            if (address < bucket->map.frontier && ::unlink(path.c_str()) != 0) {
                fail_io("cannot remove", path, errno);
            }
        } else if (!is_slice(name)) {
            continue;
        } else if (!slice_address_max(path, &address)) {
            return path;
        }
        bucket->address_max = std::max(bucket->address_max, address);
        bucket->has_events = true;
    }
    return {};
}

void open_bucket(store* st, store_bucket* bucket) {
    store_remove_leftovers(bucket->directory);
    std::string error;
    bucket->map.durable = st->durable;
    if (!source_map_open(&bucket->map, bucket->directory + "/source.map", true, &error)) {
        throw failure_t{OUTCOME_IO, error};
    }
    std::string gone;
    for (std::string again; !(again = look_over_files(bucket)).empty(); gone = again) {
        if (again == gone) fail_io("cannot open", gone, ENOENT);
    }
}

// Gives the store a number that no other has, before it is one.
void make_id(const std::string& path, bool durable) {
    uint64_t numbers[2];
    if (::getentropy(numbers, sizeof numbers) != 0) fail_io("cannot draw a random number", "", errno);
    const std::string id = fmt::format("{:016x}{:016x}", numbers[0], numbers[1]);
    if (!disk_replace_file(path + "/" + STORE_ID, id + "\n", durable))
        fail_io("cannot write", path + "/" + STORE_ID, errno);
}

// The number of a store; empty where there is none.
std::string read_id(const std::string& path) {
    const std::string file = path + "/" + STORE_ID;
    std::string id;
    if (!store_is(path) || !disk_exists(file)) return {};
    if (!disk_read_file(file, &id)) fail_io("cannot read", file, errno);
    const bool is_whole = id.size() == 33 && id.find_first_not_of("0123456789abcdef") == 32 && id[32] == '\n';
    if (!is_whole) throw failure_t{OUTCOME_IO, file + ": damaged: 32 hexadecimal digits are expected"};
    return id.substr(0, 32);
}

}  // namespace

bool store_is(const std::string& path) {
    const std::string file = path + "/store";
    struct stat st;
    if (!disk_exists(file)) return false;
    // Opened without blocking, because a name like this may be anything elsewhere.
    const unique_fd fd(::open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!fd.valid() || ::fstat(fd.get(), &st) != 0) fail_io("cannot read", file, errno);
    if (!S_ISREG(st.st_mode)) return false;
    char mark[sizeof STORE_MARK];
    const int64_t size = disk_read_at(fd.get(), mark, sizeof mark, 0);
    if (size < 0) fail_io("cannot read", file, errno);
    if (std::string_view(mark, static_cast<size_t>(size)) == STORE_MARK) return true;
    throw failure_t{OUTCOME_IO, file + ": damaged, or of another version: a store's says \"veldar store 1\""};
}

std::string store_part(const std::string& directory) {
    if (store_is(directory)) return "a store";
    // Events whose addresses no log has would tell the next load that nothing of the bucket was loaded.
    if (disk_exists(directory + "/source.map")) return "a store's bucket";
    std::error_code ignored;
    const auto place = (std::filesystem::weakly_canonical(directory, ignored) / "").parent_path();
    if (place.filename() != STORE_METRICS) return {};
    try {
        return store_is(place.parent_path().string()) ? "a store's metric directory" : "";
    } catch (const failure_t&) {
        return {};  // something else that is called so
    }
}

std::string store_choose(const std::string& option) {
    if (!option.empty()) return option;
    const char* const environment = std::getenv("VELDAR_STORE");
    if (environment != nullptr && *environment != '\0') return environment;
    char here[4096];
    std::string directory = ::getcwd(here, sizeof here) == nullptr ? "" : here;
    while (!directory.empty()) {
        // One above that this user may not enter is no place for his store.
        const bool is_closed = ::access(directory.c_str(), X_OK) != 0 && errno == EACCES;
        if (!is_closed && store_is(directory + "/.veldar")) return directory + "/.veldar";
        directory.resize(directory.rfind('/'));
    }
    return ".veldar";
}

std::vector<std::string> store_bucket_directories(const std::string& path) {
    std::vector<std::string> names = disk_list_directory(path);
    std::erase_if(names, [](const std::string& name) { return bucket_number(name) == 0; });
    std::sort(names.begin(), names.end(),
              [](const std::string& a, const std::string& b) { return bucket_number(a) < bucket_number(b); });
    for (std::string& name : names) name = path + "/" + name;
    return names;
}

std::vector<std::string> store_index_directories(const std::string& path) {
    struct stat status = {};
    if (::stat(path.c_str(), &status) != 0 && errno != ENOENT && errno != ENOTDIR) fail_io("cannot read", path, errno);
    if (!S_ISDIR(status.st_mode)) {
        throw failure_t{OUTCOME_USAGE, path + ": neither a store nor an index directory"};
    }
    if (!store_is(path)) return {path};
    std::vector<std::string> directories = store_bucket_directories(path);
    const std::string metrics = path + "/" + STORE_METRICS;
    if (disk_exists(metrics)) directories.push_back(metrics);
    return directories;
}

bool store_read_names(const std::string& path, const char* dictionary, std::vector<std::string>* names) {
    std::string content;
    if (!disk_read_file(path + "/" + dictionary, &content)) return false;
    *names = decode_names(content);
    return true;
}

std::string index_identity(const std::string& directory) {
    char path[PATH_MAX], host[256] = {};
    const std::string full = ::realpath(directory.c_str(), path) == nullptr ? directory : path;
    const size_t slash = full.rfind('/');
    if (const std::string id = read_id(full); !id.empty()) return id;
    const std::string id = slash == std::string::npos ? "" : read_id(full.substr(0, slash));
    if (!id.empty()) return id + full.substr(slash);
    static_cast<void>(::gethostname(host, sizeof host - 1));
    return std::string(host) + ":" + full;
}

// A slice that was never moved into place holds events that count as not loaded: they are loaded again. The file of a
// merge holds what is in slices.
void store_remove_leftovers(const std::string& directory) {
    const std::vector<std::string> names = disk_list_directory(directory);
    std::vector<std::string> merging;
    warm_rc_t rc;
    if (merge_manifest_temporaries(directory, &merging, &rc) != 0) fail_io("cannot read", directory, rc.saved_errno);
    for (const std::string& name : names) {
        if (!name.ends_with(TSIDX_PRE_SUFFIX) && !name.ends_with(".part")) continue;
        if (std::find(merging.begin(), merging.end(), name) != merging.end()) continue;
        const std::string path = directory + "/" + name;
        if (::unlink(path.c_str()) != 0 && errno != ENOENT) fail_io("cannot remove", path, errno);
    }
}

void store_note_deleted(const std::string& bucket_directory, uint64_t address) {
    source_map map;
    std::string error;
    if (!source_map_open(&map, bucket_directory + "/source.map", false, &error)) throw failure_t{OUTCOME_IO, error};
    if (address < map.frontier) return;
    const std::string path = bucket_directory + "/" + DELETED_PREFIX + std::to_string(address);
    const unique_fd fd = disk_open(path, O_WRONLY | O_CREAT);
    if (!fd.valid()) fail_io("cannot make", path, errno);
    if (!disk_sync_directory(bucket_directory)) fail_io("cannot sync", bucket_directory, errno);
}

void store_make(const std::string& path, bool durable) {
    disk_make_directory(path);
    // Of loads that begin at once, one makes the store while the others wait.
    const unique_fd directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory.valid()) fail_io("cannot open", path, errno);
    static_cast<void>(::flock(directory.get(), LOCK_EX));
    if (store_is(path)) return;
    const std::vector<std::string> names = disk_list_directory(path);
    const auto foreign = [](const std::string& name) {
        return name != "." && name != ".." && name != "lock" && name != "store.part" && name != STORE_ID &&
               name != "id.part";
    };
    if (std::any_of(names.begin(), names.end(), foreign)) {
        throw failure_t{OUTCOME_USAGE, path + " is neither a store nor an empty directory"};
    }
    if (durable) disk_sync_name(path);
    make_id(path, durable);
    if (!disk_replace_file(path + "/store", STORE_MARK, durable)) fail_io("cannot write", path + "/store", errno);
}

void store_open_for_load(store* st, const std::string& path, bool durable) {
    st->path = path;
    st->durable = durable;
    store_make(path, durable);
    st->lock = disk_lock(st->path + "/lock", st->path);
    if (!disk_exists(path + "/" + STORE_ID)) make_id(path, durable);
    open_dictionary(&st->sources, path + "/sources", durable);
    open_dictionary(&st->sourcetypes, path + "/sourcetypes", durable);
    open_dictionary(&st->hosts, path + "/hosts", durable);
    for (const std::string& directory : store_bucket_directories(path)) {
        store_bucket bucket;
        bucket.number = bucket_number(directory.substr(directory.rfind('/') + 1));
        bucket.directory = directory;
        open_bucket(st, &bucket);
        st->buckets.push_back(std::move(bucket));
    }
    if (durable && !disk_sync_directory(path)) fail_io("cannot sync", path, errno);
}

store_bucket* store_add_bucket(store* st) {
    store_bucket bucket;
    bucket.number = st->buckets.empty() ? 1 : st->buckets.back().number + 1;
    bucket.directory = fmt::format("{}/{}{:06}", st->path, BUCKET_PREFIX, bucket.number);
    if (::mkdir(bucket.directory.c_str(), 0700) != 0) fail_io("cannot make", bucket.directory, errno);
    open_bucket(st, &bucket);
    if (st->durable && (!disk_sync_directory(bucket.directory) || !disk_sync_directory(st->path))) {
        fail_io("cannot sync", bucket.directory, errno);
    }
    return &st->buckets.emplace_back(std::move(bucket));
}

uint32_t store_number(store_dictionary* dictionary, const std::string& name) {
    const auto known = dictionary->numbers.find(name);
    if (known != dictionary->numbers.end()) return known->second;
    line_file_add(&dictionary->file, percent_encode(name) + "\n");
    const uint32_t number = static_cast<uint32_t>(dictionary->names.size());
    dictionary->names.push_back(name);
    dictionary->numbers.emplace(name, number);
    return number;
}

}  // namespace veldar::tool
