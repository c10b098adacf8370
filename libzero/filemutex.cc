#include "libzero/filemutex.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "libzero/assertions.h"
#include "libzero/osfile.h"
#include "libzero/ospath-builder.h"
#include "libzero/resource.h"

namespace veldar {

namespace {

constexpr char LOCK_SUFFIX[] = ".lock";
constexpr size_t HOST_NAME_MAX_LENGTH = sizeof os_host_name::text - 1;
constexpr time_t LINK_PATIENCE_SECONDS = 5;
constexpr int BREAK_STALE_LOCK_SECONDS = 10;

buffer<char> owned_text;
const char* lockfile_text = FILEMUTEX_UNINITIALIZED;

enum fs_class { FS_UNSUPPORTED = 0, FS_LOCAL = 1, FS_NFS = 2 };

bool optimistic() {
    const char* value = std::getenv("OPTIMISTIC_ABOUT_FILE_LOCKING");
    if (value == nullptr) return false;
    const std::string_view text = value;
    return text == "1" || text == "t" || text == "true" || text == "yes";
}

fs_class class_of(const char* path) {
    struct statfs fs = {};
    static_cast<void>(::statfs(path, &fs));  // a failure leaves the type of no file system
    switch (static_cast<uint32_t>(fs.f_type)) {
        case 0xEF53:      // ext2, ext3, ext4
        case 0x52654973:  // ReiserFS
        case 0xA501FCF5:  // VxFS
        case 0x565A4653:
        case 0x58465342:  // XFS
        case 0x9123683E:  // Btrfs
        case 0x2FC12FC1:  // ZFS
            return FS_LOCAL;
        case 0x6969:
            return FS_NFS;
        default:
            return FS_UNSUPPORTED;
    }
}

bool lock_name(ospath_builder* name, const char* path) {
    return ospath_builder_concat_two_paths(name, path, LOCK_SUFFIX) == 0;
}

// Whether the text reaches the file is not checked: it tells people who holds a lock, the file's existence is the lock.
void write_lock_text(int fd) {
    if (os_retry([&] { return ::write(fd, lockfile_text, std::strlen(lockfile_text)); }) < 0) return;
}

int lock_by_exclusive_create(const char* lock) {
    const unique_fd fd(os_retry([&] { return ::open(lock, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644); }));
    if (!fd.valid()) return errno == EEXIST ? FILEMUTEX_HELD : FILEMUTEX_ERROR;
    write_lock_text(fd.get());
    return FILEMUTEX_OK;
}

// P.host-pid.temp-number, where the number is an address on the caller's stack: unique among the threads of a process.
bool temporary_name(ospath_builder* name, const char* path, const os_host_name& host, uintptr_t number) {
    ospath_builder_start(name);
    ospath_builder_appendz(name, path);
    ospath_builder_append1(name, '.');
    for (const char* c = host.text; *c != '\0'; c++) {
        const bool plain = (*c >= '0' && *c <= '9') || (*c >= 'A' && *c <= 'Z') || (*c >= 'a' && *c <= 'z');
        ospath_builder_append1(name, plain ? *c : '-');
    }
    ospath_builder_append1(name, '-');
    ospath_builder_append_decimal_u64(name, static_cast<uint64_t>(::getpid()));
    ospath_builder_appendz(name, ".temp-");
    ospath_builder_append_decimal_u64(name, number);
    return ospath_builder_finish(name) == 0;
}

bool directory_usable(const char* path) {
    const char* slash = std::strrchr(path, '/');
    ospath_builder directory;
    ospath_builder_start(&directory);
    if (slash == nullptr) {
        ospath_builder_append1(&directory, '.');
    } else {
        ospath_builder_appendn(&directory, path, slash == path ? 1 : static_cast<size_t>(slash - path));
    }
    return ospath_builder_finish(&directory) == 0 && ::access(directory.buf.val, R_OK | W_OK) == 0;
}

// Creates the temporary file with the lock text in it; false leaves nothing behind.
bool create_temporary(const char* name, struct stat* created) {
    if (::unlink(name) != 0 && errno != ENOENT) return false;
    unique_fd fd(os_retry([&] { return ::open(name, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644); }));
    if (!fd.valid()) return false;
    write_lock_text(fd.get());
    fd.reset();
    if (::stat(name, created) == 0) return true;
    ::unlink(name);
    return false;
}

bool link_cannot_succeed(int error) {
    switch (error) {
        case EIO:
        case ENOMEM:
        case EFAULT:
        case EXDEV:
        case ENOSPC:
        case EROFS:
        case EMLINK:
        case ENAMETOOLONG:
        case ELOOP:
        case EOPNOTSUPP:
            return true;
        default:
            return false;
    }
}

// Links until the lock is ours, is seen to be another's for 5 seconds, or cannot be had. Over NFS the answer to a link
// that did succeed may get lost, so the inode decides, never the result of the call.
int link_to_lock(const char* temporary, const char* lock, ino_t inode) {
    const time_t deadline = std::time(nullptr) + LINK_PATIENCE_SECONDS;
    while (true) {
        const int link_error = ::link(temporary, lock) == 0 ? 0 : errno;
        struct stat found;
        if (::stat(lock, &found) == 0) {
            if (found.st_ino == inode) return FILEMUTEX_OK;
        } else if (errno != ENOENT && errno != ENOMEM) {
            std::fprintf(stderr, "received unexpected ERRNO %i for stat()\n", errno);
            return FILEMUTEX_ERROR;
        } else if (link_cannot_succeed(link_error)) {
            return FILEMUTEX_ERROR;
        }
        if (std::time(nullptr) >= deadline) return FILEMUTEX_HELD;
        ::usleep(50 * 1000);
    }
}

// Whether the file was last changed before the given time; -1 when it cannot be examined.
int is_older(const char* name, time_t before) {
    struct stat found;
    if (::stat(name, &found) != 0) return -1;
    return found.st_ctime < before ? 1 : 0;
}

int remove_if_still_older(const char* path, const char* lock, time_t before) {
    const int older = is_older(lock, before);
    if (older <= 0) return older;
    switch (filemutex_unlock(path)) {
        case FILEMUTEX_OK:
            return FILEMUTEX_OK;
        case FILEMUTEX_HELD:
            return FILEMUTEX_ERROR;
        default:
            return FILEMUTEX_STUCK;
    }
}

}  // namespace

void filemutex_init_contents(const char* tag) {
    const os_host_name host;
    buffer<char> text;
    const size_t size = std::strlen(tag) + HOST_NAME_MAX_LENGTH + 23;
    if (host.text[0] == '\0' || !text.alloc(size)) {
        lockfile_text = FILEMUTEX_UNINITIALIZED;
        owned_text.reset();
        return;
    }
    string_builder b;
    string_builder_start(&b, text.data(), size);
    string_builder_append_decimal_u64(&b, static_cast<uint64_t>(::getpid()));
    string_builder_append1(&b, '\n');
    string_builder_appendz(&b, host.text);
    string_builder_append1(&b, '\n');
    string_builder_appendz(&b, tag);
    // The room holds 20 digits, the longest host name, the tag, two newlines and the NUL.
    ST_ASSERT(string_builder_finish(&b) == 0);
    owned_text = std::move(text);
    lockfile_text = owned_text.data();
}

bool filemutex_path_supported(const char* path) {
    return optimistic() || class_of(path) != FS_UNSUPPORTED;
}

int filemutex_lock(const char* path) {
    ST_ASSERT(lockfile_text != nullptr);
    const fs_class fs = optimistic() ? FS_LOCAL : class_of(path);
    if (fs == FS_UNSUPPORTED) return FILEMUTEX_ERROR;
    if (fs == FS_NFS) return filemutex_lock_by_link(path);
    ospath_builder lock;
    return lock_name(&lock, path) ? lock_by_exclusive_create(lock.buf.val) : FILEMUTEX_ERROR;
}

int filemutex_lock_by_link(const char* path) {
    const os_host_name host;
    if (host.text[0] == '\0') return FILEMUTEX_ERROR;
    ospath_builder lock, temporary;
    if (!lock_name(&lock, path)) return FILEMUTEX_ERROR;
    if (::access(lock.buf.val, F_OK) == 0) return FILEMUTEX_HELD;
    const uintptr_t number = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
    if (!temporary_name(&temporary, path, host, number)) return FILEMUTEX_ERROR;
    struct stat created;
    if (!directory_usable(path) || !create_temporary(temporary.buf.val, &created)) return FILEMUTEX_ERROR;
    const int result = link_to_lock(temporary.buf.val, lock.buf.val, created.st_ino);
    ::unlink(temporary.buf.val);
    return result;
}

int filemutex_is_locked(const char* path) {
    ospath_builder lock;
    if (!lock_name(&lock, path)) return 0;
    struct stat found;
    if (::stat(lock.buf.val, &found) == 0) return 1;
    return errno == ENOENT ? 0 : FILEMUTEX_ERROR;
}

int filemutex_unlock(const char* path) {
    ospath_builder lock;
    if (!lock_name(&lock, path)) return FILEMUTEX_ERROR;
    if (::unlink(lock.buf.val) == 0) return FILEMUTEX_OK;
    const int error = errno;
    ST_ASSERT(error != EFAULT && error != ENOTDIR && error != ENAMETOOLONG);
    switch (error) {
        case EPERM:
        case EIO:
        case EACCES:
        case EBUSY:
        case EISDIR:
        case EROFS:
        case ELOOP:
            return FILEMUTEX_ERROR;
        case ENOMEM:
            return FILEMUTEX_HELD;
        default:
            return FILEMUTEX_OK;
    }
}

int filemutex_lock_with_timeout(const char* path, int seconds) {
    const time_t deadline = std::time(nullptr) + seconds;
    while (true) {
        const int result = filemutex_lock(path);
        if (result == FILEMUTEX_OK || result == FILEMUTEX_ERROR) return result;
        ST_ASSERT(result == FILEMUTEX_HELD);  // only a lock that somebody holds is worth waiting for
        if (std::time(nullptr) >= deadline) return result;
        ::usleep(10 * 1000);
    }
}

int filemutex_unlock_forced(const char* path, time_t before) {
    ospath_builder lock, lock_of_lock;
    if (!lock_name(&lock, path) || !lock_name(&lock_of_lock, lock.buf.val)) return FILEMUTEX_STUCK;
    if (is_older(lock.buf.val, before) != 1) return FILEMUTEX_ERROR;
    if (filemutex_lock_forced(lock.buf.val, BREAK_STALE_LOCK_SECONDS) != FILEMUTEX_OK) return FILEMUTEX_ERROR;
    const int result = remove_if_still_older(path, lock.buf.val, before);
    static_cast<void>(filemutex_unlock(lock.buf.val));  // one that stays is broken as the next stale one
    return result;
}

int filemutex_lock_forced(const char* path, int seconds) {
    while (true) {
        const time_t now = std::time(nullptr);
        const int locked = filemutex_lock_with_timeout(path, seconds);
        if (locked == FILEMUTEX_OK || locked == FILEMUTEX_ERROR) return locked;
        const int removed = filemutex_unlock_forced(path, now);
        static_assert(FILEMUTEX_STUCK < FILEMUTEX_ERROR && FILEMUTEX_ERROR < FILEMUTEX_OK);
        if (removed < FILEMUTEX_ERROR) return removed;
    }
}

int filemutex_test_capability(const char* directory) {
    ospath_builder name;
    if (*directory == '\0' || ospath_builder_concat_two_paths(&name, directory, "/test.XXXXXX") != 0) return 2;
    struct stat found;
    if (::stat(directory, &found) != 0) return 3;
    if (!S_ISDIR(found.st_mode)) return 5;
    ::umask(::umask(0) | 066);
    unique_fd fd(::mkostemp(name.buf.val, O_CLOEXEC));
    if (!fd.valid()) return 7;
    if (filemutex_lock(name.buf.val) < 0) return 9;
    fd.reset();
    static_cast<void>(filemutex_unlock(name.buf.val));  // what was to be shown is shown
    ::unlink(name.buf.val);
    return 0;
}

}  // namespace veldar
