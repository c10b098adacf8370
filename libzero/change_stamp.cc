#include "libzero/change_stamp.h"

#include <sys/stat.h>
#include <sys/vfs.h>

#include <ctime>

namespace veldar {

namespace {

constexpr int64_t SECOND = 1000000000;
// ext2 and ext3 with small inodes keep whole seconds.
constexpr int64_t COARSEST_TICK = 2 * SECOND;

int64_t nanoseconds(const timespec& time) {
    return time.tv_sec * SECOND + time.tv_nsec;
}

change_stamp stamp_of(const struct stat& file) {
    return {file.st_dev, file.st_ino, nanoseconds(file.st_mtim), nanoseconds(file.st_ctim)};
}

bool is_trusted(const struct statfs& fs) {
    switch (static_cast<uint32_t>(fs.f_type)) {
        case 0xEF53:      // ext2, ext3, ext4
        case 0x58465342:  // XFS
        case 0x9123683E:  // Btrfs
        case 0x2FC12FC1:  // ZFS
        case 0xF2F52010:  // F2FS
        case 0x01021994:  // tmpfs
        case 0x794C7630:  // overlay
            return true;
        default:
            return false;
    }
}

// A stamp from the future is that of another clock.
bool is_old(const change_stamp& stamp) {
    timespec now;
    return ::clock_gettime(CLOCK_REALTIME, &now) == 0 && stamp.changed_ns < nanoseconds(now) - COARSEST_TICK;
}

}  // namespace

bool change_stamp_of(int fd, change_stamp* stamp) {
    struct stat file;
    if (::fstat(fd, &file) != 0) return false;
    *stamp = stamp_of(file);
    return true;
}

bool change_stamp_of(const char* path, change_stamp* stamp) {
    struct stat file;
    if (::stat(path, &file) != 0) return false;
    *stamp = stamp_of(file);
    return true;
}

bool change_stamp_lasts(int fd, const change_stamp& stamp) {
    struct statfs fs;
    return is_old(stamp) && ::fstatfs(fd, &fs) == 0 && is_trusted(fs);
}

bool change_stamp_lasts(const char* path, const change_stamp& stamp) {
    struct statfs fs;
    return is_old(stamp) && ::statfs(path, &fs) == 0 && is_trusted(fs);
}

int change_stamp_renew(int fd) {
    return ::futimens(fd, nullptr);
}

}  // namespace veldar
