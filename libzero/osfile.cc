#include "libzero/osfile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

#include "libzero/assertions.h"

namespace veldar {

int ospath_get_time(const char* path, int which, int64_t* milliseconds) {
    *milliseconds = 0;
    struct stat found;
    const int result = os_retry([&] { return ::stat(path, &found); });
    if (result == 0) *milliseconds = int64_t{which != 0 ? found.st_mtime : found.st_ctime} * 1000;
    return result;
}

int ospath_get_size(const char* path, uint64_t* size) {
    struct stat found;
    const int result = os_retry([&] { return ::stat(path, &found); });
    if (result == 0) *size = static_cast<uint64_t>(found.st_size);
    return result;
}

int osfile_get_size(int fd, uint64_t* size) {
    struct stat found;
    const int result = os_retry([&] { return ::fstat(fd, &found); });
    if (result == 0) *size = static_cast<uint64_t>(found.st_size);
    return result;
}

unique_fd osfile_open_regular(const char* path, int flags) {
    ST_ASSERT((flags & (O_CREAT | O_TRUNC)) == 0);  // there is no mode for a file that this call would make
    unique_fd fd(os_retry([&] { return ::open(path, flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC); }));
    if (!fd.valid()) return fd;
    struct stat found;
    int error = 0;
    if (os_retry([&] { return ::fstat(fd.get(), &found); }) != 0) {
        error = errno;
    } else if (!S_ISREG(found.st_mode)) {
        error = S_ISDIR(found.st_mode) ? EISDIR : EINVAL;
    }
    if (error == 0) return fd;
    fd.reset();
    errno = error;
    return fd;
}

unique_fd osfile_create_anew(const char* path) {
    constexpr int FLAGS = O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC;
    const auto create = [&] { return ::open(path, FLAGS, 0600); };
    unique_fd fd(os_retry(create));
    if (!fd.valid() && errno == EEXIST && ::unlink(path) == 0) fd.reset(os_retry(create));
    return fd;
}

int ospath_mark(const char* path) {
    unique_fd fd(os_retry([&] { return ::open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600); }));
    if (!fd.valid()) return errno == EEXIST ? 0 : -1;
    return fd.close_checked();
}

int ospath_try_stat(const char* path) {
    struct stat found;
    return ::stat(path, &found);
}

int ospath_link(const char* path, const char* second_name) {
    if (::link(path, second_name) == 0) return 0;
    const int error = errno;
    struct stat first, second;
    const bool made = error == EEXIST && ::stat(path, &first) == 0 && ::stat(second_name, &second) == 0 &&
                      first.st_dev == second.st_dev && first.st_ino == second.st_ino;
    errno = error;
    return made ? 0 : -1;
}

void osfile_open_standard() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; fd++) {
        if (::fcntl(fd, F_GETFD) != -1 || errno != EBADF) continue;
        // The lowest free number is this one, because those below it are open.
        static_cast<void>(::open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY));
    }
}

os_host_name::os_host_name() {
    static_assert(sizeof text == HOST_NAME_MAX + 1);
    // A name that fills the buffer may lack its NUL.
    if (::gethostname(text, sizeof text) != 0) text[0] = '\0';
    text[sizeof text - 1] = '\0';
}

int osfile_flush(int fd) {
    return os_retry([fd] { return ::fsync(fd); });
}

void portable_timeval_now(portable_timeval* out) {
    struct timeval now;
    ST_ASSERT(::gettimeofday(&now, nullptr) == 0);
    out->seconds = now.tv_sec;
    out->microseconds = now.tv_usec;
}

int64_t portable_timeval_usec_diff(const portable_timeval* earlier, const portable_timeval* later) {
    const int64_t seconds = later->seconds - earlier->seconds;
    return later->microseconds - earlier->microseconds + seconds * 1000000;
}

}  // namespace veldar
