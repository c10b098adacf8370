#include "searchthing/directory/tsidx_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <string_view>
#include <utility>

#include "libzero/assertions.h"
#include "libzero/filemutex.h"
#include "libzero/osfile.h"
#include "searchthing/base/log.h"
#include "searchthing/base/timed_read.h"
#include "searchthing/directory/tsidx_handle.h"

namespace veldar {

namespace {

constexpr useconds_t POLL_MICROSECONDS = 10000;
constexpr int UNLOCK_TRIES = 10;
constexpr char LOCK_SUFFIX[] = ".lock";
constexpr time_t UNSIGNED_MAX_SECONDS = 60;

using deadline_t = std::chrono::steady_clock::time_point;

bool is_stopped(stop_check* stop) {
    warm_rc_t ignored;
    return stop != nullptr && stop->ask(&ignored) != 0;
}

// Sleeps a little; false when the time is up.
bool wait_until(deadline_t deadline, stop_check* stop) {
    if (std::chrono::steady_clock::now() >= deadline || is_stopped(stop)) return false;
    ::usleep(POLL_MICROSECONDS);
    return true;
}

enum flock_result { FLOCK_TAKEN, FLOCK_HELD, FLOCK_UNSUPPORTED };

flock_result take_flock(int fd, deadline_t deadline, stop_check* stop) {
    while (os_retry([fd] { return ::flock(fd, LOCK_EX | LOCK_NB); }) != 0) {
        if (errno != EWOULDBLOCK) return FLOCK_UNSUPPORTED;
        if (!wait_until(deadline, stop)) return FLOCK_HELD;
    }
    return FLOCK_TAKEN;
}

enum holder_state { HOLDER_UNKNOWN, HOLDER_UNNAMED, HOLDER_GONE };

bool is_number(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

bool is_host(std::string_view text) {
    return !text.empty() && std::none_of(text.begin(), text.end(), [](char c) { return c == '\0'; });
}

// Tells from the first two lines of a lock file, process id and host name, what became of its holder. A process of this
// host is gone, whoever has its number now: it would have the flock as well, which the caller has. Since a holder signs
// the file right after it has created it, anything else than two whole lines was cut off by a death.
holder_state examine_holder(const std::string& text) {
    if (text == FILEMUTEX_UNINITIALIZED) return HOLDER_UNKNOWN;
    const std::string_view lines = text;
    const size_t first_end = lines.find('\n'), second_end = lines.find('\n', first_end + 1);
    if (first_end == lines.npos || second_end == lines.npos) return HOLDER_UNNAMED;
    const std::string_view host = lines.substr(first_end + 1, second_end - first_end - 1);
    if (!is_number(lines.substr(0, first_end)) || !is_host(host)) return HOLDER_UNNAMED;
    return host == os_host_name().text ? HOLDER_GONE : HOLDER_UNKNOWN;
}

// Watches a lock file that the caller, who has the flock, finds in the way.
class lock_file_watch {
  public:
    explicit lock_file_watch(std::string path) : path_(std::move(path)) {}

    // Whether nobody can hold it any more: its holder is gone, or it has been unsigned for a second while watched or,
    // should nobody have the time to watch, for a minute by the clock.
    bool is_abandoned() {
        const unique_fd fd = osfile_open_regular(path_.c_str(), O_RDONLY);
        struct stat status;
        char text[512];
        const int64_t size = fd.valid() ? st_pread(fd.get(), text, sizeof text, 0) : -1;
        if (size < 0 || os_retry([&] { return ::fstat(fd.get(), &status); }) != 0) return false;
        const holder_state state = examine_holder(std::string(text, static_cast<size_t>(size)));
        if (state != HOLDER_UNNAMED) unnamed_since_ = deadline_t::max();
        if (state != HOLDER_UNNAMED) return state == HOLDER_GONE;
        const auto now = std::chrono::steady_clock::now();
        unnamed_since_ = std::min(unnamed_since_, now);
        return now - unnamed_since_ >= std::chrono::seconds(1) ||
               std::time(nullptr) - status.st_mtime >= UNSIGNED_MAX_SECONDS;
    }

  private:
    std::string path_;
    deadline_t unnamed_since_ = deadline_t::max();
};

}  // namespace

bool tsidx_lock::take(int seconds, stop_check* stop) {
    const deadline_t deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    directory_.reset(os_retry([&] { return ::open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
    if (!directory_.valid()) return false;
    const flock_result flocked = take_flock(directory_.get(), deadline, stop);
    if (flocked == FLOCK_HELD) return false;
    lock_file_watch watch(path_ + LOCK_SUFFIX);
    for (bool broken = false;;) {
        const int result = filemutex_lock(path_.c_str());
        if (result != FILEMUTEX_HELD) return result == FILEMUTEX_OK;
        if (flocked == FLOCK_TAKEN && !broken && watch.is_abandoned()) {
            _log(0, "WARN  removing the lock of a process that is gone, path=\"%s\"\n", shown_.c_str());
            broken = true;
            if (filemutex_unlock(path_.c_str()) == FILEMUTEX_OK) continue;
        }
        if (!wait_until(deadline, stop)) return false;
    }
}

int tsidx_lock::acquire(TSIDX* tsidx, int seconds, stop_check* stop) {
    ST_ASSERT(!locked_);
    char canonical[PATH_MAX];
    tsidx_ = tsidx;
    shown_ = tsidx->path;
    errno = 0;
    if (::realpath(tsidx->path.c_str(), canonical) != nullptr) {
        path_ = canonical;
        locked_ = take(seconds, stop);
    }
    if (locked_) {
        tsidx->is_locked = true;
        return 0;
    }
    const int error = errno;
    directory_.reset();
    if (stop != nullptr) ST_TRY(stop->ask(&tsidx->last_failure));
    _log(0, "WARN  Locking tsidx path=\"%s\" failed.\n", tsidx->path.c_str());
    _set_rc_msg(&tsidx->last_failure, WARM_RC_LOCK, tsidx->path.c_str());
    tsidx->last_failure.saved_errno = error;
    return WARM_RC_LOCK;
}

void tsidx_lock::release() {
    if (!locked_) return;
    ST_ASSERT(tsidx_->is_locked && directory_.valid());
    tsidx_->is_locked = locked_ = false;
    int result = FILEMUTEX_HELD;
    for (int i = 0; i < UNLOCK_TRIES && result == FILEMUTEX_HELD; i++) result = filemutex_unlock(path_.c_str());
    if (result != FILEMUTEX_OK) _log(0, "WARN  Unlocking tsidx path=\"%s\" failed.\n", shown_.c_str());
    directory_.reset();
}

}  // namespace veldar
