#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

#include "libzero/assertions.h"
#include "libzero/osfile.h"
#include "searchthing/base/log.h"
#include "searchthing/directory/tsidx_handle.h"
#include "searchthing/directory/tsidx_lock.h"
#include "searchthing/directory/tsidx_merge_settle.h"
#include "searchthing/merge/warmslice_merge.h"
#include "searchthing/upkeep/tsidx_merge_commit_internal.h"

namespace veldar {

namespace {

// A merge that waits for a delete has much more to lose than a delete that waits for a merge.
constexpr int LOCK_PATIENCE = 6;

bool write_text(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t put = os_retry([&] { return ::write(fd, text.data(), text.size()); });
        if (put <= 0) return false;
        text.remove_prefix(static_cast<size_t>(put));
    }
    return true;
}

int fail_write(warm_rc_t* rc) {
    return _set_rc_msg(rc, WARM_RC_WRITE, "error writing to manifest file");
}

}  // namespace

tsidx_merge_commit::~tsidx_merge_commit() {
    if (state_ == NOTHING || state_ == COMMITTED) return;
    // The manifest goes last: while it is there, the next merge knows what to remove.
    bool removed = temp_path_.empty() || ::unlink(temp_path_.c_str()) == 0 || errno == ENOENT;
    if (seal_ != nullptr) tsidx_remove_seal(target_path_.c_str());
    const std::string& path = state_ == TMP ? tmp_path_ : manifest_path_;
    removed = removed && ::unlink(path.c_str()) == 0;
    if (!removed) _log(0, "WARN  an unfinished merge was not removed. errno=%i, path=%s\n", errno, path.c_str());
}

std::string tsidx_merge_commit::temp_path() const {
    return temp_path_;
}

int tsidx_merge_commit::begin(warm_rc_t* rc) {
    ST_ASSERT(state_ == NOTHING);
    manifest_path_ = tsidx_->path + "/" + MERGE_MANIFEST_NAME;
    tmp_path_ = tsidx_->path + "/" + MERGE_MANIFEST_TMP_NAME;
    if (tmp_path_.size() >= OSPATH_BUF_SIZE) {
        return _set_rc_msg(rc, WARM_RC_PATH_TOO_LONG, "merge manifest file path too long");
    }
    manifest_.owner = merge_owner_self();
    const std::string text = merge_manifest_owner_text(manifest_.owner);
    tsidx_lock lock;
    if (lock.acquire(tsidx_, tsidx_->lock_seconds, &tsidx_->merge_stop) != 0) return _cpy_rc(rc, &tsidx_->last_failure);
    ST_TRY(tsidx_settle_merge(tsidx_, rc));
    ST_ASSERT(tsidx_->is_locked);
    fd_.reset(os_retry([&] { return ::open(tmp_path_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600); }));
    if (!fd_.valid() && errno == EEXIST) {
        return _set_rc_msg(rc, WARM_RC_MANIFEST_EXISTS, "tmp manifest file already exists");
    }
    if (!fd_.valid()) return _set_rc_msg(rc, WARM_RC_OPEN, tmp_path_.c_str());
    state_ = TMP;
    static_cast<void>(tsidx_lock_file(fd_.get()));  // where there are no locks, its process number tells
    return write_text(fd_.get(), text) ? 0 : fail_write(rc);
}

// The names that the target has before and after the merge takes effect.
int tsidx_merge_commit::name_target(st_time_t earliest, st_time_t latest, warm_rc_t* rc) {
    const uint64_t id = st_warm_slice_unique_id(&tsidx_->rng);
    const char* const directory = tsidx_->path.c_str();
    ospath_buf path;
    for (const char* suffix : {TSIDX_PRE_SUFFIX, TSIDX_SUFFIX}) {
        const int named = st_warm_slice_filename(&path, directory, suffix, earliest, latest, id);
        if (named != 0) return _set_rc_msg(rc, named, directory);
        const std::string text = path.val;
        (suffix == TSIDX_SUFFIX ? manifest_.target : manifest_.temp) = text.substr(text.rfind('/') + 1);
    }
    return 0;
}

int tsidx_merge_commit::declare(st_time_t earliest, st_time_t latest, std::vector<std::string> sources, warm_rc_t* rc) {
    ST_ASSERT(state_ == TMP && temp_path_.empty() && !sources.empty() && sources.size() <= MERGE_MAX_SOURCES);
    ST_TRY(name_target(earliest, latest, rc));
    manifest_.sources = std::move(sources);
    const std::string text = merge_manifest_text(manifest_);
    // Names may have any number of leading zeros.
    if (text.size() > MERGE_MANIFEST_MAX_BYTES) return _set_rc_msg(rc, WARM_RC_DOES_NOT_FIT, "merge manifest");
    const size_t written = merge_manifest_owner_text(manifest_.owner).size();
    if (!write_text(fd_.get(), std::string_view(text).substr(written))) return fail_write(rc);
    if (tsidx_->durable && osfile_flush(fd_.get()) != 0) return fail_write(rc);
    target_path_ = tsidx_->path + "/" + manifest_.target;
    temp_path_ = tsidx_->path + "/" + manifest_.temp;
    return 0;
}

int tsidx_merge_commit::publish(warm_rc_t* rc) {
    if (::rename(tmp_path_.c_str(), manifest_path_.c_str()) != 0) return fail_write(rc);
    state_ = RENAMED;
    return tsidx_flush(tsidx_, tsidx_->path.c_str(), O_DIRECTORY, rc);
}

void tsidx_merge_commit::seal() {
    ST_ASSERT(state_ == TMP && !temp_path_.empty());
    if (tsidx_->opts.seal == 0) return;
    warm_rc_t rc;
    seal_ = std::make_unique<slice_seal_t>();
    if (seal_make(temp_path_, seal_.get(), &rc) == 0) return;
    seal_.reset();
    tsidx_warn_unsealed(manifest_.target.c_str(), rc);
}

// With the marks that were carried over.
void tsidx_merge_commit::write_seal() {
    if (seal_ == nullptr) return;
    warm_rc_t rc;
    if (seal_make_marks(temp_path_, seal_.get(), &rc) == 0 &&
        seal_write(target_path_, seal_.get(), tsidx_->durable, &rc) == 0) {
        return;
    }
    tsidx_warn_unsealed(target_path_.c_str(), rc);
}

int tsidx_merge_commit::put_in_effect(const carry_fn& carry, warm_rc_t* rc) {
    ST_ASSERT(state_ == RENAMED && tsidx_->is_locked);
    ST_TRY(carry(temp_path_, rc));
    write_seal();
    if (ospath_link(temp_path_.c_str(), target_path_.c_str()) != 0) {
        return _set_rc_msg(rc, WARM_RC_RETRIES, target_path_.c_str());
    }
    state_ = COMMITTED;
    const int flushed = tsidx_flush(tsidx_, tsidx_->path.c_str(), O_DIRECTORY, rc);
    // A target of which nobody knows whether it lasts must not be the only one to take deletes.
    if (flushed != 0 && ::unlink(target_path_.c_str()) == 0) state_ = RENAMED;
    return flushed;
}

int tsidx_merge_commit::commit(const carry_fn& carry, warm_rc_t* rc) {
    ST_ASSERT(state_ == TMP && !temp_path_.empty());
    ST_TRY(publish(rc));
    tsidx_lock lock;
    if (lock.acquire(tsidx_, LOCK_PATIENCE * tsidx_->lock_seconds, &tsidx_->merge_stop) != 0) {
        return _cpy_rc(rc, &tsidx_->last_failure);
    }
    ST_TRY(put_in_effect(carry, rc));
    warm_rc_t unremoved;
    ST_TRY(tsidx_settle_merge(tsidx_, rc, &unremoved));
    return unremoved.warm_rc == 0 ? 0 : _cpy_rc(rc, &unremoved);
}

}  // namespace veldar
