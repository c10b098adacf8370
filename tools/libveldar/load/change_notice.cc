#include "tools/libveldar/load/change_notice.h"

#include <poll.h>
#include <sys/inotify.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>

#include "tools/libveldar/store/disk_file.h"
#include "tools/libveldar/store/failure.h"

namespace veldar::tool {

namespace {

constexpr uint32_t NAMES = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF;
constexpr uint32_t WRITES = IN_MODIFY | IN_CLOSE_WRITE;

// Whether others may write there whom inotify does not know of: network file systems and those of other processes.
bool is_remote(const std::string& directory) {
    constexpr uint32_t REMOTE[] = {
        0x6969,     0xFF534D42, 0xFE534D42, 0x517B,    0x65735546,
        0x01021997, 0x00C36400, 0x5346414F, 0x73757245};  // nfs, cifs, smb2, smb, fuse, 9p, ceph, afs, coda
    struct statfs system;
    if (::statfs(directory.c_str(), &system) != 0) return true;
    return std::find(std::begin(REMOTE), std::end(REMOTE), static_cast<uint32_t>(system.f_type)) != std::end(REMOTE);
}

void drain(int fd) {
    char events[16384];
    while (::read(fd, events, sizeof events) > 0) {
    }
}

}  // namespace

void change_notice_set(change_notice* notice, const std::set<std::string>& directories) {
    // What is watched already keeps its watch, and one of a directory that is gone has gone with it.
    if (!notice->names.valid()) notice->names.reset(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (!notice->writes.valid()) notice->writes.reset(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    notice->is_complete = std::all_of(directories.begin(), directories.end(), [notice](const std::string& directory) {
        return !is_remote(directory) && ::inotify_add_watch(notice->names.get(), directory.c_str(), NAMES) >= 0 &&
               ::inotify_add_watch(notice->writes.get(), directory.c_str(), WRITES) >= 0;
    });
}

bool change_notice_wait(change_notice* notice, bool writes_count, std::chrono::milliseconds time) {
    pollfd waits[] = {{work_interrupt_descriptor(), POLLIN, 0},
                      {notice->names.get(), POLLIN, 0},
                      {writes_count ? notice->writes.get() : -1, POLLIN, 0}};
    const auto ms = static_cast<int>(std::clamp<int64_t>(time.count(), 0, 3'600'000));
    if (::poll(waits, std::size(waits), ms) < 0 && errno != EINTR) fail_io("cannot wait for changes", {}, errno);
    const bool names = (waits[1].revents & POLLIN) != 0;
    if (names) drain(notice->names.get());
    // One that is not waited for is emptied by the wait behind the next look at the files.
    if ((waits[2].revents & POLLIN) != 0) drain(notice->writes.get());
    return names || !notice->is_complete;
}

}  // namespace veldar::tool
