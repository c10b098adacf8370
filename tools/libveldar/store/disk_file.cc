#include "tools/libveldar/store/disk_file.h"

#include <fcntl.h>
#include <ftw.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "searchthing/directory/tsidx_list.h"
#include "tools/libveldar/store/failure.h"
#include "tools/libveldar/store/troubles.h"

namespace veldar::tool {

volatile std::sig_atomic_t work_interrupted = 0;

namespace {

volatile std::sig_atomic_t interrupt_fd = -1;

void interrupt(int) {
    const int error = errno;
    constexpr uint64_t ONE = 1;
    work_interrupted = 1;
    if (interrupt_fd >= 0) static_cast<void>(!::write(interrupt_fd, &ONE, sizeof ONE));
    errno = error;
}

}  // namespace

void work_catch_interrupts() {
    struct sigaction action = {};
    action.sa_handler = interrupt;
    for (const int signal : {SIGINT, SIGTERM, SIGALRM}) ::sigaction(signal, &action, nullptr);
    struct sigaction hangup = {};
    const bool is_ignored = ::sigaction(SIGHUP, nullptr, &hangup) == 0 && hangup.sa_handler == SIG_IGN;
    if (!is_ignored) ::sigaction(SIGHUP, &action, nullptr);
}

int work_interrupt_descriptor() {
    if (interrupt_fd < 0) interrupt_fd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (interrupt_fd < 0) fail_io("cannot wait for signals", {}, errno);
    return interrupt_fd;
}

int64_t disk_read_pipe(int fd, char* out, size_t size) {
    for (;;) {
        if (work_stops()) return 0;
        const ssize_t got = ::read(fd, out, size);
        if (got >= 0 || errno != EINTR) return got;
    }
}

unique_fd disk_open(const std::string& path, int flags) {
    const bool writes = (flags & O_ACCMODE) != O_RDONLY;
    unique_fd fd(::open(path.c_str(), flags | (writes ? O_NOFOLLOW : 0) | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0600));
    struct stat status;
    if (!fd.valid()) return fd;
    if (::fstat(fd.get(), &status) != 0) return unique_fd();
    if (S_ISREG(status.st_mode)) return fd;
    fd.reset();
    errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    return fd;
}

bool disk_read_file(const std::string& path, std::string* content) {
    const unique_fd fd = disk_open(path, O_RDONLY);
    if (!fd.valid()) return false;
    content->clear();
    constexpr size_t PIECE = size_t{1} << 18;
    for (;;) {
        const size_t had = content->size();
        content->resize(had + PIECE);
        const int64_t got = disk_read_at(fd.get(), content->data() + had, PIECE, had);
        content->resize(had + (got > 0 ? static_cast<size_t>(got) : 0));
        if (got <= 0) return got == 0;
    }
}

bool disk_read_input(const std::string& path, std::string* content) {
    unique_fd opened;
    if (path != "-") opened.reset(::open(path.c_str(), O_RDONLY | O_NOCTTY | O_CLOEXEC));
    if (path != "-" && !opened.valid()) return false;
    content->clear();
    char piece[1 << 16];
    int64_t size;
    while ((size = disk_read_pipe(path == "-" ? STDIN_FILENO : opened.get(), piece, sizeof piece)) > 0) {
        content->append(piece, static_cast<size_t>(size));
    }
    return size == 0;
}

bool disk_exists(const std::string& path) {
    struct stat st;
    if (::stat(path.c_str(), &st) == 0) return true;
    if (errno != ENOENT && errno != ENOTDIR) fail_io("cannot read", path, errno);
    return false;
}

std::vector<std::string> disk_list_directory(const std::string& path) {
    std::vector<std::string> names;
    warm_rc_t rc;
    if (tsidx_read_names(path.c_str(), &names, &rc) != 0) fail_io("cannot read", path, rc.saved_errno);
    return names;
}

bool disk_write_at(int fd, std::string_view bytes, uint64_t offset) {
    while (!bytes.empty()) {
        const ssize_t wrote = ::pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(offset));
        if (wrote < 0 && errno == EINTR) continue;
        if (wrote < 0) return false;
        bytes.remove_prefix(static_cast<size_t>(wrote));
        offset += static_cast<uint64_t>(wrote);
    }
    return true;
}

int64_t disk_read_at(int fd, char* out, size_t size, uint64_t offset) {
    size_t have = 0;
    while (have < size) {
        const ssize_t got = ::pread(fd, out + have, size - have, static_cast<off_t>(offset + have));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return -1;
        if (got == 0) break;
        have += static_cast<size_t>(got);
    }
    return static_cast<int64_t>(have);
}

bool disk_sync_directory(const std::string& path) {
    const unique_fd fd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return fd.valid() && ::fsync(fd.get()) == 0;
}

void disk_make_directory(const std::string& path) {
    if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) fail_io("cannot make", path, errno);
}

// std::filesystem::remove_all ends the process when memory is short.
void disk_remove_tree(const std::string& path) noexcept {
    const auto remove = [](const char* name, const struct stat*, int, FTW*) { return ::remove(name), 0; };
    static_cast<void>(::nftw(path.c_str(), remove, 16, FTW_DEPTH | FTW_PHYS));
}

void disk_sync_name(const std::string& directory) {
    const std::string parent = directory + "/..";
    if (!disk_sync_directory(parent)) fail_io("cannot sync", parent, errno);
}

bool disk_replace_file(const std::string& path, std::string_view content, bool durable) {
    const std::string part = path + ".part";
    unique_fd fd = disk_open(part, O_WRONLY | O_CREAT | O_TRUNC);
    if (!fd.valid()) return false;
    const bool written = disk_write_at(fd.get(), content, 0) && (!durable || ::fsync(fd.get()) == 0) &&
                         fd.close_checked() == 0 && std::rename(part.c_str(), path.c_str()) == 0;
    if (!written) {
        const int why = errno;
        ::unlink(part.c_str());
        errno = why;
        return false;
    }
    const size_t slash = path.rfind('/');
    return !durable || disk_sync_directory(slash == std::string::npos ? "." : path.substr(0, slash + 1));
}

unique_fd disk_lock(const std::string& path, const std::string& directory) {
    unique_fd lock = disk_open(path, O_RDWR | O_CREAT);
    if (!lock.valid()) fail_io("cannot open", path, errno);
    if (::flock(lock.get(), LOCK_EX | LOCK_NB) == 0) return lock;
    say_trouble("waiting for another load into " + directory);
    while (::flock(lock.get(), LOCK_EX) != 0) {
        if (errno != EINTR) fail_io("cannot lock", path, errno);
        if (work_stops()) throw failure_t{OUTCOME_INTERRUPTED, "interrupted, nothing was loaded"};
    }
    return lock;
}

std::string line_file_open(line_file* file, const std::string& path, bool durable) {
    file->path = path;
    file->durable = durable;
    file->fd = disk_open(path, O_RDWR | O_CREAT);
    std::string content;
    if (!file->fd.valid() || !disk_read_file(path, &content)) fail_io("cannot open", path, errno);
    file->size = content.rfind('\n') + 1;
    if (file->size < content.size() && ::ftruncate(file->fd.get(), static_cast<off_t>(file->size)) != 0) {
        fail_io("cannot shorten", path, errno);
    }
    content.resize(file->size);
    return content;
}

void line_file_add(line_file* file, std::string_view line) {
    if (!disk_write_at(file->fd.get(), line, file->size)) fail_io("cannot write", file->path, errno);
    if (file->durable && ::fdatasync(file->fd.get()) != 0) fail_io("cannot sync", file->path, errno);
    file->size += line.size();
}

}  // namespace veldar::tool
