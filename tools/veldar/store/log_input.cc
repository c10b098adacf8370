#include "tools/veldar/store/log_input.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tools/veldar/store/tool_file.h"

namespace veldar::tool {

namespace {

int64_t read_plain(log_input* input, char* out, size_t size, std::string* error) {
    const int64_t got = input->pipe ? tool_read_pipe(input->fd.get(), out, size)
                                    : tool_read_at(input->fd.get(), out, size, input->offset);
    if (got < 0) *error = std::strerror(errno);
    return got;
}

int64_t read_source(log_input* input, char* out, size_t size, std::string* error) {
    return input->gz != nullptr ? gz_read(input->gz.get(), out, size, error) : read_plain(input, out, size, error);
}

// Fills the head as far as the input has it. What a pipe gave is kept for reading; a failure waits behind it.
void read_head(log_input* input) {
    input->head.resize(LOG_HEAD_MAX);
    size_t have = input->ahead.size();
    std::memcpy(input->head.data(), input->ahead.data(), have);
    while (have < LOG_HEAD_MAX) {
        input->offset = have;
        const int64_t got = read_source(input, input->head.data() + have, LOG_HEAD_MAX - have, &input->failed);
        if (got <= 0) break;
        have += static_cast<size_t>(got);
    }
    input->head.resize(have);
    input->offset = 0;
    input->ahead = input->head;
}

// Whether the path names what was open before this process began: only such a pipe has someone who writes it.
bool is_inherited(const std::string& path) {
    return path == "-" || path == "/dev/stdin" || path.starts_with("/dev/fd/") || path.starts_with("/proc/self/fd/");
}

// A FIFO is opened without waiting for a writer, and refused.
int open_path(const std::string& path) {
    if (path == "-") return ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0);
    return ::open(path.c_str(), O_RDONLY | O_CLOEXEC | (is_inherited(path) ? 0 : O_NONBLOCK | O_NOCTTY));
}

// Why what a path names cannot be read as a log; null when it can.
const char* refused_kind(const std::string& path, mode_t mode) {
    if (S_ISDIR(mode)) return std::strerror(EISDIR);
    if (S_ISREG(mode) || is_inherited(path)) return nullptr;
    return S_ISFIFO(mode) ? "a FIFO; pipes are read from standard input, as \"- < FIFO\"" : "a device, and no file";
}

bool open_gzip(log_input* input, std::string* error) {
    input->gz = std::make_unique<gz_stream>();
    return gz_open(input->gz.get(), input->fd.get(), !input->pipe, error);
}

// A pipe's first two bytes decide what it is; a gzip stream gets them back as its first input.
bool sniff_pipe(log_input* input, std::string* error) {
    char magic[2];
    size_t have = 0;
    while (have < sizeof magic) {
        const int64_t got = tool_read_pipe(input->fd.get(), magic + have, sizeof magic - have);
        if (got < 0) *error = std::strerror(errno);
        if (got < 0) return false;
        if (got == 0) break;
        have += static_cast<size_t>(got);
    }
    if (have < 2 || std::memcmp(magic, "\x1f\x8b", 2) != 0) {
        input->ahead.assign(magic, have);
        return true;
    }
    if (!open_gzip(input, error)) return false;
    std::memcpy(input->gz->in.data(), magic, 2);
    input->gz->z.next_in = input->gz->in.data();
    input->gz->z.avail_in = 2;
    input->gz->in_offset = 2;
    return true;
}

bool sniff_file(log_input* input, std::string* error) {
    char magic[2];
    const int64_t got = tool_read_at(input->fd.get(), magic, sizeof magic, 0);
    if (got < 0) {
        *error = std::strerror(errno);
        return false;
    }
    return got < 2 || std::memcmp(magic, "\x1f\x8b", 2) != 0 || open_gzip(input, error);
}

}  // namespace

bool log_input_open(log_input* input, const std::string& path, std::string* error) {
    input->path = path;
    input->fd.reset(open_path(path));
    struct stat st;
    if (!input->fd.valid() || ::fstat(input->fd.get(), &st) != 0) {
        *error = std::strerror(errno);
        return false;
    }
    if (const char* const why = refused_kind(path, st.st_mode); why != nullptr) {
        *error = why;
        return false;
    }
    input->pipe = path == "-" || !S_ISREG(st.st_mode);
    input->device = st.st_dev;
    input->inode = st.st_ino;
    input->size = static_cast<uint64_t>(st.st_size);
    input->modified_ns =
        static_cast<uint64_t>(st.st_mtim.tv_sec) * 1000000000u + static_cast<uint64_t>(st.st_mtim.tv_nsec);
    if (!(input->pipe ? sniff_pipe(input, error) : sniff_file(input, error))) return false;
    read_head(input);
    if (input->head.empty() && !input->failed.empty()) {
        *error = input->failed;
        return false;
    }
    return true;
}

int64_t log_input_read(log_input* input, char* out, size_t size, std::string* error) {
    if (!input->ahead.empty()) {
        size = std::min(size, input->ahead.size());
        std::memcpy(out, input->ahead.data(), size);
        input->ahead.erase(0, size);
        input->offset += size;
        return static_cast<int64_t>(size);
    }
    if (!input->failed.empty()) {
        *error = input->failed;
        return -1;
    }
    const int64_t got = read_source(input, out, size, error);
    if (got > 0) input->offset += static_cast<uint64_t>(got);
    return got;
}

bool log_input_seek(log_input* input, uint64_t offset, std::string* error) {
    if (offset == input->offset) return true;
    const uint64_t skip = offset - input->offset;
    if (offset > input->offset && skip < input->ahead.size()) {
        input->ahead.erase(0, static_cast<size_t>(skip));
        input->offset = offset;
        return true;
    }
    if (input->pipe) {
        *error = "a pipe cannot be read from byte " + std::to_string(offset);
        return false;
    }
    if (input->gz != nullptr && !gz_seek(input->gz.get(), offset, error)) return false;
    input->ahead.clear();
    input->failed.clear();
    input->offset = offset;
    return true;
}

}  // namespace veldar::tool
