#include "searchthing/directory/tsidx_merge_settle.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "libzero/assertions.h"
#include "libzero/osfile.h"
#include "searchthing/base/log.h"
#include "searchthing/directory/merge_manifest.h"
#include "searchthing/directory/tsidx_handle.h"
#include "searchthing/directory/tsidx_list.h"

namespace veldar {

namespace {

constexpr char DAMAGED_SUFFIX[] = ".damaged";

// A manifest as it lies in the directory.
struct manifest_file {
    std::string path;
    unique_fd fd;
    std::string text;
    merge_manifest_t manifest;
    bool whole = false;
};

int open_manifest(const TSIDX* tsidx, const char* name, manifest_file* file, warm_rc_t* rc) {
    file->path = tsidx->path + "/" + name;
    file->fd = osfile_open_regular(file->path.c_str(), O_RDWR);
    if (!file->fd.valid()) {
        if (errno == ENOENT || errno == ENAMETOOLONG) return 0;
        return _set_rc_msg(rc, WARM_RC_OPEN, file->path.c_str());
    }
    ST_TRY(merge_manifest_read_fd(file->fd.get(), &file->text, rc));
    file->whole = merge_manifest_parse(file->text, &file->manifest);
    return 0;
}

bool has_not_changed_for_long(int fd) {
    struct stat status;
    return os_retry([&] { return ::fstat(fd, &status); }) == 0 &&
           std::time(nullptr) - status.st_mtime >= TSIDX_MERGE_MAX_SECONDS;
}

// Whether the owner cannot be at work any more. The caller has the directory's lock, under which manifests are made,
// locked and signed: one without a signature was left in between.
bool owner_is_gone(const manifest_file& file) {
    const int locked = tsidx_lock_file(file.fd.get());
    if (locked == 0) return false;
    merge_owner_t owner;
    if (!merge_manifest_parse_owner(file.text, &owner)) return true;
    const merge_owner_t self = merge_owner_self();
    if (owner.boot == self.boot && owner.boot != "-") {
        return locked > 0 || (::kill(static_cast<pid_t>(owner.process), 0) != 0 && errno == ESRCH);
    }
    if (owner.host == self.host && owner.host != "-") return true;  // the system has been started again since
    return has_not_changed_for_long(file.fd.get());
}

int remove_file(const std::string& path, warm_rc_t* rc) {
    if (::unlink(path.c_str()) == 0 || errno == ENOENT) return 0;
    return _set_rc_msg(rc, WARM_RC_WRITE, path.c_str());
}

// A source that cannot be removed is hidden by a sentinel, and the next writer tries again.
int remove_source(const TSIDX* tsidx, const std::string& path, warm_rc_t* unremoved, warm_rc_t* rc) {
    if (tsidx_unlink_slice(tsidx, path) == 0) return 0;
    _set_rc_msg(unremoved, WARM_RC_WRITE, ("a merged slice was not removed, " + path).c_str());
    _log(0, "WARN  a merged slice was not removed. errno=%i, path=%s\n", errno, path.c_str());
    const std::string sentinel = path + TSIDX_SENTINEL_SUFFIX;
    return ospath_mark(sentinel.c_str()) == 0 ? 0 : _set_rc_msg(rc, WARM_RC_WRITE, sentinel.c_str());
}

// Steps M4 and M5. A step is flushed before the next one, so that not even the death of the system brings sources back.
int finish(const TSIDX* tsidx, const manifest_file& file, warm_rc_t* unremoved, warm_rc_t* rc) {
    ST_ASSERT(file.whole && tsidx->is_locked);
    const char* const directory = tsidx->path.c_str();
    ST_TRY(tsidx_flush(tsidx, directory, O_DIRECTORY, rc));
    for (const std::string& source : file.manifest.sources) {
        ST_TRY(remove_source(tsidx, tsidx->path + "/" + source, unremoved, rc));
    }
    ST_TRY(tsidx_flush(tsidx, directory, O_DIRECTORY, rc));
    ST_TRY(remove_file(tsidx->path + "/" + file.manifest.temp, rc));
    return remove_file(file.path, rc);
}

int undo(const TSIDX* tsidx, const manifest_file& file, warm_rc_t* rc) {
    ST_ASSERT(file.whole && tsidx->is_locked);
    ST_TRY(remove_file(tsidx->path + "/" + file.manifest.temp, rc));
    tsidx_remove_seal((tsidx->path + "/" + file.manifest.target).c_str());
    return remove_file(file.path, rc);
}

int exists(const std::string& path, bool* found, warm_rc_t* rc) {
    struct stat status;
    *found = os_retry([&] { return ::stat(path.c_str(), &status); }) == 0;
    return *found || errno == ENOENT ? 0 : _set_rc_msg(rc, WARM_RC_FILE_SIZE, path.c_str());
}

// A name by which nobody takes it for a manifest any more, for a person to look at.
int set_aside(const manifest_file& file, warm_rc_t* rc) {
    const std::string aside = file.path + DAMAGED_SUFFIX;
    if (::rename(file.path.c_str(), aside.c_str()) != 0) return _set_rc_msg(rc, WARM_RC_WRITE, aside.c_str());
    _log(0, "WARN  a damaged merge manifest was set aside, path=%s\n", aside.c_str());
    return 0;
}

int fail_at_work(warm_rc_t* rc) {
    return _set_rc_msg(rc, WARM_RC_MANIFEST_EXISTS, "tmp manifest file already exists");
}

int settle_manifest(const TSIDX* tsidx, warm_rc_t* unremoved, warm_rc_t* rc) {
    manifest_file file;
    ST_TRY(open_manifest(tsidx, MERGE_MANIFEST_NAME, &file, rc));
    if (!file.fd.valid()) return 0;
    if (file.whole) {
        bool committed = false;
        ST_TRY(exists(tsidx->path + "/" + file.manifest.target, &committed, rc));
        if (committed) return finish(tsidx, file, unremoved, rc);
    }
    if (!owner_is_gone(file)) return fail_at_work(rc);
    return file.whole ? undo(tsidx, file, rc) : set_aside(file, rc);
}

int settle_tmp(const TSIDX* tsidx, warm_rc_t* rc) {
    manifest_file file;
    ST_TRY(open_manifest(tsidx, MERGE_MANIFEST_TMP_NAME, &file, rc));
    if (!file.fd.valid()) return 0;
    if (!owner_is_gone(file)) return fail_at_work(rc);
    return file.whole ? undo(tsidx, file, rc) : remove_file(file.path, rc);
}

}  // namespace

int tsidx_lock_file(int fd) {
    if (os_retry([fd] { return ::flock(fd, LOCK_EX | LOCK_NB); }) == 0) return 1;
    return errno == EWOULDBLOCK ? 0 : -1;
}

int tsidx_settle_merge(const TSIDX* tsidx, warm_rc_t* rc, warm_rc_t* unremoved) {
    ST_ASSERT(tsidx->is_locked);
    warm_rc_t ignored;
    // In this order a manifest that its owner renames meanwhile is not missed.
    const int of_tmp = settle_tmp(tsidx, rc);
    if (of_tmp != 0 && of_tmp != WARM_RC_MANIFEST_EXISTS) return of_tmp;
    const int of_manifest = settle_manifest(tsidx, unremoved != nullptr ? unremoved : &ignored, rc);
    return of_manifest != 0 ? of_manifest : of_tmp;
}

int tsidx_find_merge_leftovers(const TSIDX* tsidx, std::vector<std::string>* names, warm_rc_t* rc) {
    for (const char* name : {MERGE_MANIFEST_TMP_NAME, MERGE_MANIFEST_NAME}) {
        manifest_file file;
        bool committed = false;
        ST_TRY(open_manifest(tsidx, name, &file, rc));
        if (!file.fd.valid() || !owner_is_gone(file)) continue;
        if (file.whole) ST_TRY(exists(tsidx->path + "/" + file.manifest.target, &committed, rc));
        names->emplace_back(name);
        if (file.whole) names->push_back(file.manifest.temp);
        if (committed) names->insert(names->end(), file.manifest.sources.begin(), file.manifest.sources.end());
    }
    return 0;
}

bool tsidx_has_merge(const TSIDX* tsidx) {
    for (const char* name : {MERGE_MANIFEST_TMP_NAME, MERGE_MANIFEST_NAME}) {
        const std::string path = tsidx->path + "/" + name;
        if (::access(path.c_str(), F_OK) == 0) return true;
    }
    return false;
}

}  // namespace veldar
