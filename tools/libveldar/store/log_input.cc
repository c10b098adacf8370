#include "tools/libveldar/store/log_input.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <xxhash.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tools/libveldar/store/disk_file.h"
#include "tools/libveldar/store/observer.h"

namespace veldar::tool {

namespace {

constexpr uint64_t NOWHERE = ~uint64_t{0};

// What the file or pipe holds, at its present place; `position` is that place in a file.
int64_t read_stored(log_input* input, uint64_t position, char* out, size_t size, std::string* error) {
    if (input->packed != nullptr) return packed_read(input->packed.get(), out, size, error);
    size = static_cast<size_t>(std::min<uint64_t>(size, input->stored_end - std::min(position, input->stored_end)));
    const int64_t got =
        input->pipe ? disk_read_pipe(input->fd.get(), out, size) : disk_read_at(input->fd.get(), out, size, position);
    if (got < 0) *error = std::strerror(errno);
    return got;
}

int64_t read_wide(log_input* input, char* out, size_t size, std::string* error) {
    constexpr size_t PIECE = 65536;
    wide_text* const text = input->wide.get();
    while (text->given == text->decoded.size()) {
        const size_t had = text->undecoded.size();
        text->undecoded.resize(had + PIECE);
        const int64_t got = read_stored(input, text->in_offset + had, text->undecoded.data() + had, PIECE, error);
        text->undecoded.resize(had + static_cast<size_t>(std::max<int64_t>(got, 0)));
        if (got <= 0) return got;
        wide_text_decode(text);
    }
    size = std::min(size, text->decoded.size() - text->given);
    std::memcpy(out, text->decoded.data() + text->given, size);
    text->given += size;
    text->out_offset += size;
    return static_cast<int64_t>(size);
}

int64_t read_source(log_input* input, char* out, size_t size, std::string* error) {
    return input->wide != nullptr ? read_wide(input, out, size, error)
                                  : read_stored(input, input->offset, out, size, error);
}

// Fills the head as far as the input has it. What was read is kept for reading; a failure waits behind it.
void fill_head(log_input* input) {
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

// The head as it is stored tells the encoding.
void read_head(log_input* input) {
    fill_head(input);
    if (!input->pipe && input->packed == nullptr) {
        input->first_size = input->head.size();
        input->first_hash = XXH64(input->head.data(), input->head.size(), 0);
    }
    const text_encoding_t encoding = text_encoding_of(input->head);
    if (encoding != TEXT_UTF16_LITTLE && encoding != TEXT_UTF16_BIG) return;
    input->wide = std::make_unique<wide_text>();
    input->wide->big = encoding == TEXT_UTF16_BIG;
    input->wide->undecoded.swap(input->ahead);
    wide_text_decode(input->wide.get());
    input->ahead.clear();
    input->failed.clear();
    fill_head(input);
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

// Why what a path names cannot be read as a log; empty when it can.
std::string refused_kind(const std::string& path, mode_t mode) {
    if (S_ISDIR(mode)) return "a directory; its files are loaded with " + input_name("recursive");
    if (S_ISREG(mode) || is_inherited(path)) return {};
    return S_ISFIFO(mode) ? "a FIFO; pipes are read from standard input, as \"- < FIFO\"" : "a device, and no file";
}

// The first bytes decide what it is; those of a pipe are kept.
bool sniff(log_input* input, std::string* error) {
    char magic[PACKED_MAGIC_MAX];
    size_t have = 0;
    while (have < sizeof magic) {
        const int64_t got = read_stored(input, have, magic + have, sizeof magic - have, error);
        if (got < 0) return false;
        if (got == 0) break;
        have += static_cast<size_t>(got);
    }
    const std::string_view first(magic, have), taken = input->pipe ? first : std::string_view();
    const packed_format_t format = packed_format_of(first);
    if (format == PACKED_NONE) {
        input->ahead = taken;
        return true;
    }
    auto packed = std::make_unique<packed_stream>();
    if (!packed_open(packed.get(), format, input->fd.get(), !input->pipe, taken, error)) return false;
    input->packed = std::move(packed);
    return true;
}

bool seek_stored(log_input* input, uint64_t position, std::string* error) {
    return input->packed == nullptr || packed_seek(input->packed.get(), position, error);
}

bool seek_wide(log_input* input, uint64_t offset, std::string* error) {
    wide_text* const text = input->wide.get();
    wide_text_restart(text, offset);
    if (!seek_stored(input, text->in_offset, error)) return false;
    char skipped[4096];
    while (text->out_offset < offset) {
        const size_t size = static_cast<size_t>(std::min<uint64_t>(offset - text->out_offset, sizeof skipped));
        const int64_t got = read_wide(input, skipped, size, error);
        if (got == 0) *error = "the file holds only " + std::to_string(text->out_offset) + " bytes of UTF-8";
        if (got <= 0) return false;
    }
    return true;
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
    if (const std::string why = refused_kind(path, st.st_mode); !why.empty()) {
        *error = why;
        return false;
    }
    input->pipe = path == "-" || !S_ISREG(st.st_mode);
    input->device = st.st_dev;
    input->inode = st.st_ino;
    input->size = static_cast<uint64_t>(st.st_size);
    input->modified_ns =
        static_cast<uint64_t>(st.st_mtim.tv_sec) * 1000000000u + static_cast<uint64_t>(st.st_mtim.tv_nsec);
    if (!sniff(input, error)) return false;
    read_head(input);
    if (input->head.empty() && !input->failed.empty()) {
        *error = input->failed;
        return false;
    }
    return true;
}

bool log_input_is_uncut(const log_input& input, std::string* error) {
    if (input.first_size == 0) return true;
    std::string first(input.first_size, '\0');
    const int64_t got = disk_read_at(input.fd.get(), first.data(), first.size(), 0);
    if (got < 0) *error = std::strerror(errno);
    return got == static_cast<int64_t>(first.size()) && XXH64(first.data(), first.size(), 0) == input.first_hash;
}

bool log_input_is_young(const log_input& input) {
    constexpr uint64_t SETTLED_NS = 5'000'000'000;
    timespec now;
    ::clock_gettime(CLOCK_REALTIME, &now);
    const uint64_t now_ns = static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec);
    return now_ns < input.modified_ns + SETTLED_NS;
}

bool log_input_leave_last_line(log_input* input, std::string* error) {
    constexpr uint64_t PIECE = 65536;
    const size_t unit = input->wide != nullptr ? 2 : 1;
    const uint64_t size = input->size / unit * unit;
    std::string bytes;
    uint64_t end = 0;
    for (uint64_t from = size; from > 0 && end == 0;) {
        const uint64_t piece = std::min(from, PIECE);
        from -= piece;
        bytes.resize(static_cast<size_t>(piece));
        const int64_t got = disk_read_at(input->fd.get(), bytes.data(), bytes.size(), from);
        if (got != static_cast<int64_t>(piece)) {
            *error = std::string("its end cannot be read: ") + (got < 0 ? std::strerror(errno) : "it was cut");
            return false;
        }
        for (size_t at = bytes.size(); at >= unit && end == 0; at -= unit) {
            const bool wide_end = unit == 1 || bytes[input->wide->big ? at - 2 : at - 1] == '\0';
            const char c = bytes[unit == 1 || input->wide->big ? at - 1 : at - 2];
            if (c == '\n' && wide_end) end = from + at;
        }
    }
    const uint64_t offset = input->offset;
    input->stored_end = end;
    if (input->wide == nullptr && offset + input->ahead.size() > end) {
        input->ahead.resize(static_cast<size_t>(end - std::min(end, offset)));
    }
    if (input->wide == nullptr || end == input->size) return end < input->size;
    // The head that has been read may hold more.
    input->ahead.clear();
    input->offset = NOWHERE;
    std::string passed;  // when the last line was begun by an earlier load
    if (log_input_seek(input, offset, &passed)) return true;
    input->stored_end = input->size;
    static_cast<void>(log_input_seek(input, offset, error));
    return false;
}

uint64_t log_input_stored_offset(const log_input& input) {
    if (input.packed != nullptr) return input.packed->in.offset;
    return input.wide != nullptr ? input.wide->in_offset : input.offset;
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
    input->ahead.clear();
    input->failed.clear();
    input->offset = NOWHERE;  // unless this succeeds
    if (!(input->wide != nullptr ? seek_wide(input, offset, error) : seek_stored(input, offset, error))) return false;
    input->offset = offset;
    return true;
}

}  // namespace veldar::tool
