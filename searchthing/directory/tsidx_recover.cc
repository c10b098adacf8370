// Cleaning up after writers that are gone, when a directory is opened for writing.
//
//   found                                      what becomes of it
//   x.deleted                                  x and it are removed: a delete was interrupted
//   x.pre-tsidx, the same file as a slice      removed: a sync was interrupted after its link
//   x.pre-tsidx, not whole                     removed: a sync was interrupted while it wrote
//   x.pre-tsidx, whole                         kept and named in a WARN line: it holds the only copy of its events
//   x.<process>.mini.pre-tsidx                 removed: minify was interrupted
//   veldar-autogen-params.dat.part.<process>   removed
//   x.seal, and no slice x                     removed: a sync or a merge was interrupted, or a slice's removal
//   x.seal.part.<process>                      removed
//   a merge manifest, whole or not             the merge is finished or undone (tsidx_merge_settle.cc)
//   merged_lexicon.lex.part.<id>               removed
//
// A file whose process number is in use, or that changed within the last ten minutes, is left alone: process numbers
// tell nothing about other hosts and containers.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <ctime>
#include <string_view>
#include <vector>

#include "libzero/assertions.h"
#include "libzero/osfile.h"
#include "searchthing/base/log.h"
#include "searchthing/directory/merge_manifest.h"
#include "searchthing/directory/tsidx_handle.h"
#include "searchthing/directory/tsidx_lock.h"
#include "searchthing/directory/tsidx_merge_settle.h"
#include "searchthing/seal/slice_seal.h"

namespace veldar {

namespace {

constexpr time_t MIN_AGE_SECONDS = 600;
constexpr uint32_t PROCESS_RESIDUES = 65535;  // of process numbers in slice ids
constexpr uint32_t MAX_PROCESS = 4194304;     // the largest process number that Linux can be set to
constexpr std::string_view PARAMS_PART = "veldar-autogen-params.dat.part.";
constexpr std::string_view LEXICON_PART = TSIDX_MERGED_LEXICON_PART;

enum leftover_kind { NO_LEFTOVER, SENTINEL, PRE_SLICE, SEAL, TEMPORARY };

struct leftover {
    leftover_kind kind = NO_LEFTOVER;
    std::string path;
    st_filename_metadata_t meta;  // of a pre-slice
};

bool exists(uint32_t process) {
    return process != 0 && (::kill(static_cast<pid_t>(process), 0) == 0 || errno != ESRCH);
}

// A slice's id keeps the remainder of its writer's process number.
bool writer_may_live(uint64_t id) {
    for (uint32_t process = (id >> 16) & 0xFFFF; process <= MAX_PROCESS; process += PROCESS_RESIDUES) {
        if (exists(process)) return true;
    }
    return false;
}

template <typename Number>
bool is_number(std::string_view text, Number* number) {
    const std::from_chars_result result = std::from_chars(text.data(), text.data() + text.size(), *number, 10);
    return result.ec == std::errc() && result.ptr == text.data() + text.size();
}

bool number_may_live(std::string_view text) {
    uint32_t process = 0;
    return !is_number(text, &process) || exists(process);
}

bool id_may_live(std::string_view text) {
    uint64_t id = 0;
    return !is_number(text, &id) || writer_may_live(id);
}

// The process number in front of a suffix: of "a.12.suffix" it is "12".
std::string_view number_before(std::string_view name, std::string_view suffix) {
    ST_ASSERT(name.ends_with(suffix));
    name.remove_suffix(suffix.size());
    return name.substr(name.rfind('.') + 1);
}

// What kind of leftover a name is, if its writer is gone. `names` are all of the directory, sorted.
leftover_kind classify(const std::string& name, const std::vector<std::string>& names, st_filename_metadata_t* meta) {
    const std::string_view text = name;
    if (text.ends_with(TSIDX_SENTINEL_SUFFIX)) {
        const std::string slice = name.substr(0, name.size() + 1 - sizeof TSIDX_SENTINEL_SUFFIX);
        return tsidx_is_slice_name(slice.c_str(), meta) ? SENTINEL : NO_LEFTOVER;
    }
    if (text.starts_with(PARAMS_PART)) {
        return number_may_live(text.substr(PARAMS_PART.size())) ? NO_LEFTOVER : TEMPORARY;
    }
    if (text.starts_with(LEXICON_PART)) {
        return id_may_live(text.substr(LEXICON_PART.size())) ? NO_LEFTOVER : TEMPORARY;
    }
    if (text.ends_with(TSIDX_MINI_PRE_SUFFIX)) {
        return number_may_live(number_before(text, TSIDX_MINI_PRE_SUFFIX)) ? NO_LEFTOVER : TEMPORARY;
    }
    if (text.ends_with(SEAL_SUFFIX)) {
        const std::string slice = name.substr(0, name.size() + 1 - sizeof SEAL_SUFFIX);
        const bool is_orphan = tsidx_is_slice_name(slice.c_str(), meta) &&
                               !std::binary_search(names.begin(), names.end(), slice) && !writer_may_live(meta->id);
        return is_orphan ? SEAL : NO_LEFTOVER;
    }
    if (const size_t part = text.rfind(SEAL_PART); part != std::string_view::npos) {
        return number_may_live(text.substr(part + sizeof SEAL_PART - 1)) ? NO_LEFTOVER : TEMPORARY;
    }
    if (!text.ends_with(TSIDX_PRE_SUFFIX) || tsidx_pre_file_parse(name.c_str(), meta) == 0) return NO_LEFTOVER;
    return writer_may_live(meta->id) ? NO_LEFTOVER : PRE_SLICE;
}

bool is_old(const std::string& path, struct stat* status) {
    return os_retry([&] { return ::stat(path.c_str(), status); }) == 0 &&
           std::time(nullptr) - status->st_mtime >= MIN_AGE_SECONDS;
}

bool is_same_file(const std::string& path, const struct stat& file) {
    struct stat status;
    return os_retry([&] { return ::stat(path.c_str(), &status); }) == 0 && status.st_ino == file.st_ino &&
           status.st_dev == file.st_dev;
}

// Whether a slice of the same time range is the same file.
bool is_linked(const std::string& directory, const leftover& pre, const struct stat& pre_status,
               const std::vector<std::string>& names) {
    return std::any_of(names.begin(), names.end(), [&](const std::string& name) {
        st_filename_metadata_t meta;
        return tsidx_is_slice_name(name.c_str(), &meta) && meta.latest == pre.meta.latest &&
               meta.earliest == pre.meta.earliest && is_same_file(directory + "/" + name, pre_status);
    });
}

// Whether a slice was cut off while it was written. Damage of any other kind is not the writer's death.
bool is_cut_off(const std::string& path) {
    warm_rc_t rc;
    WARM* const warm = st_warm_slice_open_rdonly(path.c_str(), &rc);
    if (warm == nullptr) {
        return rc.warm_rc == WARM_RC_SHORT_READ || rc.warm_rc == WARM_RC_END_OF_FILE ||
               rc.warm_rc == WARM_RC_EMPTY_FILE || rc.warm_rc == WARM_RC_NO_SECTION || rc.warm_rc == WARM_RC_NO_LEXICON;
    }
    const bool whole = st_warm_slice_has_fclex(warm) && warm->file_size >= warm->postings_base + warm->plo_last;
    st_warm_slice_close(warm);
    return !whole;
}

void warn(const char* what, const TSIDX* tsidx, const warm_rc_t& rc) {
    _log(0, "WARN  %s. rc=%i, errno=%i, path=%s: %s\n", what, rc.warm_rc, rc.saved_errno, tsidx->path.c_str(),
         rc.message);
}

void remove_file(const std::string& path) {
    if (::unlink(path.c_str()) == 0 || errno == ENOENT) return;
    _log(0, "WARN  a leftover file was not removed. errno=%i, path=%s\n", errno, path.c_str());
}

enum leftover_fate { WAITS, GOES, IS_KEPT };

leftover_fate fate_of(const TSIDX* tsidx, const leftover& found, const std::vector<std::string>& names) {
    struct stat status;
    if (found.kind == SENTINEL) return GOES;
    if (!is_old(found.path, &status)) return WAITS;
    if (found.kind == TEMPORARY) return GOES;
    if (found.kind == SEAL) {
        const std::string slice = found.path.substr(0, found.path.size() + 1 - sizeof SEAL_SUFFIX);
        return ospath_try_stat(slice.c_str()) != 0 && errno == ENOENT ? GOES : WAITS;
    }
    return is_linked(tsidx->path, found, status, names) || is_cut_off(found.path) ? GOES : IS_KEPT;
}

void recover(const TSIDX* tsidx, const leftover& found, const std::vector<std::string>& names) {
    const leftover_fate fate = fate_of(tsidx, found, names);
    if (fate == GOES && found.kind == SENTINEL) {
        tsidx_remove_slice(tsidx, found.path.substr(0, found.path.size() + 1 - sizeof TSIDX_SENTINEL_SUFFIX));
    } else if (fate == GOES) {
        remove_file(found.path);
    } else if (fate == IS_KEPT) {
        _log(0, "WARN  this file holds events of an interrupted sync that are nowhere else, path=%s\n",
             found.path.c_str());
    }
}

int remove_second_name(const TSIDX* tsidx, const std::string& path) {
    struct stat status;
    if (os_retry([&] { return ::stat(path.c_str(), &status); }) != 0) return errno == ENOENT ? 0 : -1;
    if (status.st_nlink < 2) return 0;
    std::vector<std::string> names;
    warm_rc_t rc;
    if (tsidx_read_names(tsidx->path.c_str(), &names, &rc) != 0) {
        errno = rc.saved_errno;
        return -1;
    }
    for (const std::string& name : names) {
        const std::string second = tsidx->path + "/" + name;
        if (!name.ends_with(TSIDX_PRE_SUFFIX)) continue;
        errno = 0;
        if (is_same_file(second, status)) ::unlink(second.c_str());
        if (errno != 0 && errno != ENOENT) return -1;
    }
    return 0;
}

std::vector<leftover> classify_all(const TSIDX* tsidx, std::vector<std::string> names) {
    std::vector<leftover> found;
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
        leftover file;
        file.kind = classify(name, names, &file.meta);
        if (file.kind == NO_LEFTOVER) continue;
        file.path = tsidx->path + "/" + name;
        found.push_back(file);
    }
    return found;
}

// Not what is gone already. One of several names frees nothing.
void add_leftover(const TSIDX* tsidx, const std::string& name, bool is_kept, std::vector<tsidx_leftover_t>* found) {
    struct stat status;
    const bool is_seen = os_retry([&] { return ::stat((tsidx->path + "/" + name).c_str(), &status); }) == 0;
    if (!is_seen && errno == ENOENT) return;
    const uint64_t bytes = !is_seen || status.st_nlink > 1 ? 0 : static_cast<uint64_t>(status.st_size);
    found->push_back({name, bytes, is_kept});
}

}  // namespace

int tsidx_unlink_slice(const TSIDX* tsidx, const std::string& path) {
    if (remove_second_name(tsidx, path) != 0) return -1;
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) return -1;
    tsidx_remove_seal(path.c_str());
    return 0;
}

void tsidx_warn_unsealed(const char* slice, const warm_rc_t& rc) {
    _log(0, "WARN  a slice has no seal. rc=%i, errno=%i, path=%s: %s\n", rc.warm_rc, rc.saved_errno, slice, rc.message);
}

void tsidx_remove_seal(const char* slice) {
    ospath_buf path;
    const int length = std::snprintf(path.val, sizeof path.val, "%s%s", slice, SEAL_SUFFIX);
    if (length > 0 && static_cast<size_t>(length) < sizeof path.val) ::unlink(path.val);
}

int st_tsidx_find_leftovers(TSIDX* tsidx, std::vector<tsidx_leftover_t>* found) {
    ST_ASSERT(tsidx != nullptr && found != nullptr);
    warm_rc_t* const rc = &tsidx->last_failure;
    std::vector<std::string> names, merging;
    found->clear();
    try {
        ST_TRY(tsidx_read_names(tsidx->path.c_str(), &names, rc));
        ST_TRY(merge_manifest_temporaries(tsidx->path, &merging, rc));
        std::vector<std::string> going;
        ST_TRY(tsidx_find_merge_leftovers(tsidx, &going, rc));
        for (const std::string& name : going) add_leftover(tsidx, name, false, found);
        for (const leftover& file : classify_all(tsidx, names)) {
            const std::string name = file.path.substr(tsidx->path.size() + 1);
            if (std::find(merging.begin(), merging.end(), name) != merging.end()) continue;
            const leftover_fate fate = fate_of(tsidx, file, names);
            if (fate == WAITS) continue;
            add_leftover(tsidx, name, fate == IS_KEPT, found);
            if (file.kind == SENTINEL) {
                add_leftover(tsidx, name.substr(0, name.size() + 1 - sizeof TSIDX_SENTINEL_SUFFIX), false, found);
            }
        }
        return _set_rc(rc, 0);
    } catch (const std::bad_alloc&) {
        return _set_rc(rc, WARM_RC_NO_MEMORY);
    }
}

void tsidx_recover(TSIDX* tsidx) {
    warm_rc_t rc;
    std::vector<std::string> names;
    if (tsidx_read_names(tsidx->path.c_str(), &names, &rc) != 0) {
        if (rc.saved_errno != ENOENT) warn("leftovers were not looked for", tsidx, rc);
        return;
    }
    const std::vector<leftover> found = classify_all(tsidx, names);
    const bool merge = std::any_of(names.begin(), names.end(), [](const std::string& name) {
        return name == MERGE_MANIFEST_NAME || name == MERGE_MANIFEST_TMP_NAME;
    });
    if (found.empty() && !merge) return;
    // Whoever holds the lock is at work on just these files.
    tsidx_lock lock;
    const bool locked = lock.acquire(tsidx, 0) == 0;
    tsidx->last_failure = {};
    if (!locked) return;
    if (merge && tsidx_settle_merge(tsidx, &rc) != 0 && rc.warm_rc != WARM_RC_MANIFEST_EXISTS) {
        warn("a merge that was cut off was not settled", tsidx, rc);
    }
    // What a merge that is at work writes is no sync's.
    std::vector<std::string> merging;
    if (merge_manifest_temporaries(tsidx->path, &merging, &rc) != 0) {
        warn("leftovers were not removed", tsidx, rc);
        return;
    }
    for (const leftover& file : found) {
        const std::string name = file.path.substr(tsidx->path.size() + 1);
        if (std::find(merging.begin(), merging.end(), name) == merging.end()) recover(tsidx, file, names);
    }
}

}  // namespace veldar
