#include "searchthing/base/timed_read.h"

#include <errno.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <iterator>

#include "libzero/osfile.h"

namespace veldar {

namespace {

uint64_t monotonic_microseconds() {
    timespec now;
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

int64_t timed_pread(int fd, void* out, size_t length, uint64_t offset, st_query_info_t* stats) {
    const uint64_t begin = monotonic_microseconds();
    const int64_t got = st_pread(fd, out, length, offset);
    stats->read_histogram[read_histogram_bucket(monotonic_microseconds() - begin)]++;
    stats->reads++;
    if (got > 0) stats->bytes += static_cast<uint64_t>(got);
    return got;
}

}  // namespace

int64_t st_pread(int fd, void* out, size_t length, uint64_t offset) {
    return os_retry([&] { return ::pread(fd, out, length, static_cast<off_t>(offset)); });
}

int64_t st_pwrite(int fd, const void* data, size_t length, uint64_t offset) {
    return os_retry([&] { return ::pwrite(fd, data, length, static_cast<off_t>(offset)); });
}

int st_file_write(int fd, const void* data, int64_t length) {
    const char* left = static_cast<const char*>(data);
    while (length > 0) {
        const ssize_t put = os_retry([&] { return ::write(fd, left, static_cast<size_t>(length)); });
        if (put < 1) return WARM_RC_WRITE;
        left += put;
        length -= put;
    }
    return 0;
}

int64_t st_timed_pread_msg(int fd, void* out, size_t length, uint64_t offset, st_query_info_t* stats, bool verbose) {
    const int64_t got =
        stats == nullptr ? st_pread(fd, out, length, offset) : timed_pread(fd, out, length, offset, stats);
    if (verbose && got != static_cast<int64_t>(length)) {
        const int error = errno;
        std::fprintf(stderr, "read failed fd=%d buf=%p sz=%lu off=%lu nr=%ld, errno=%i\n", fd, out, length, offset, got,
                     error);
        errno = error;
    }
    return got;
}

int _pread_verify(int fd, void* out, size_t length, uint64_t offset, const char* label) {
    const int64_t got = st_pread(fd, out, length, offset);
    if (got == static_cast<int64_t>(length)) return 0;
    const int error = errno;
    std::fprintf(stderr, "read failed[%s] fd=%d buf=%p sz=%lu off=%lu nr=%lu\n", label, fd, out, length, offset,
                 static_cast<uint64_t>(got));
    errno = error;
    return read_status(got);
}

uint32_t read_histogram_bucket(uint64_t microseconds) {
    constexpr uint32_t LAST = std::size(st_query_info_t{}.read_histogram) - 1;
    uint32_t bucket = 0;
    for (; microseconds >= 8 && bucket < LAST; microseconds /= 8) bucket++;
    return bucket;
}

}  // namespace veldar
