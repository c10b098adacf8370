#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <string_view>
#include <utility>

#include "libzero/filemutex.h"
#include "searchthing/log.h"
#include "searchthing/tsidx_internal.h"
#include "searchthing/tsidx_lock_internal.h"

namespace veldar {

namespace {

constexpr useconds_t POLL_MICROSECONDS = 10000;
constexpr int UNLOCK_TRIES = 10;
constexpr char LOCK_SUFFIX[] = ".lock";

using deadline_t = std::chrono::steady_clock::time_point;

// Sleeps a little; false when the time is up.
bool wait_until(deadline_t deadline) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    ::usleep(POLL_MICROSECONDS);
    return true;
}

enum flock_result { FLOCK_TAKEN, FLOCK_HELD, FLOCK_UNSUPPORTED };

flock_result take_flock(int fd, deadline_t deadline) {
    while (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        if (errno == EINTR) continue;
        if (errno != EWOULDBLOCK) return FLOCK_UNSUPPORTED;
        if (!wait_until(deadline)) return FLOCK_HELD;
    }
    return FLOCK_TAKEN;
}

enum holder_state { HOLDER_UNKNOWN, HOLDER_UNNAMED, HOLDER_GONE };

// Tells from the first two lines of a lock file, process id and host name, whether its holder was a process of this
// host that is gone. Our own process counts as gone: it would hold the flock as well, which the caller has.
holder_state examine_holder(const std::string& lock_file) {
    const unique_fd fd(::open(lock_file.c_str(), O_RDONLY | O_CLOEXEC));
    char text[512];
    const ssize_t size = fd.valid() ? ::read(fd.get(), text, sizeof text) : -1;
    if (size <= 0) return size == 0 ? HOLDER_UNNAMED : HOLDER_UNKNOWN;
    const std::string_view lines(text, static_cast<size_t>(size));
    const size_t first_end = lines.find('\n'), second_end = lines.find('\n', first_end + 1);
    if (first_end == lines.npos || second_end == lines.npos) return HOLDER_UNKNOWN;
    pid_t process = 0;
    const std::from_chars_result number = std::from_chars(text, text + first_end, process, 10);
    char own_host[HOST_NAME_MAX + 1] = {};
    if (number.ec != std::errc() || number.ptr != text + first_end || process <= 0) return HOLDER_UNKNOWN;
    if (::gethostname(own_host, HOST_NAME_MAX) != 0) return HOLDER_UNKNOWN;
    if (lines.substr(first_end + 1, second_end - first_end - 1) != own_host) return HOLDER_UNKNOWN;
    const bool gone = process == ::getpid() || (::kill(process, 0) != 0 && errno == ESRCH);
    return gone ? HOLDER_GONE : HOLDER_UNKNOWN;
}

// Watches a lock file that the caller, who has the flock, finds in the way.
class lock_file_watch {
  public:
    explicit lock_file_watch(std::string path) : path_(std::move(path)) {}

    // Whether nobody can hold it any more. A holder signs the file right after it has created it, so that one which
    // stays unsigned for a second was left by a process that died in between.
    bool is_abandoned() {
        const holder_state state = examine_holder(path_);
        const auto now = std::chrono::steady_clock::now();
        if (state != HOLDER_UNNAMED) unnamed_since_ = deadline_t::max();
        if (state == HOLDER_UNNAMED) unnamed_since_ = std::min(unnamed_since_, now);
        return state == HOLDER_GONE || (state == HOLDER_UNNAMED && now - unnamed_since_ >= std::chrono::seconds(1));
    }

  private:
    std::string path_;
    deadline_t unnamed_since_ = deadline_t::max();
};

}  // namespace

bool tsidx_lock::take(int seconds) {
    const deadline_t deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    directory_.reset(::open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory_.valid()) return false;
    const flock_result flocked = take_flock(directory_.get(), deadline);
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
        if (!wait_until(deadline)) return false;
    }
}

int tsidx_lock::acquire(TSIDX* tsidx, int seconds) {
    char canonical[PATH_MAX];
    shown_ = tsidx->path;
    errno = 0;
    if (::realpath(tsidx->path.c_str(), canonical) != nullptr) {
        path_ = canonical;
        locked_ = take(seconds);
    }
    if (locked_) return 0;
    const int error = errno;
    directory_.reset();
    _log(0, "WARN  Locking tsidx path=\"%s\" failed.\n", tsidx->path.c_str());
    _set_rc_msg(&tsidx->last_failure, WARM_RC_LOCK, tsidx->path.c_str());
    tsidx->last_failure.saved_errno = error;
    return WARM_RC_LOCK;
}

void tsidx_lock::release() {
    if (!locked_) return;
    locked_ = false;
    int result = FILEMUTEX_HELD;
    for (int i = 0; i < UNLOCK_TRIES && result == FILEMUTEX_HELD; i++) result = filemutex_unlock(path_.c_str());
    if (result != FILEMUTEX_OK) _log(0, "WARN  Unlocking tsidx path=\"%s\" failed.\n", shown_.c_str());
    directory_.reset();
}

}  // namespace veldar
