// Opening files, their sizes and times, the host's name and the wall clock. The functions that ask for a file return
// the result of the system call (0, or -1 with errno) and may be called from any thread.
#pragma once

#include <cerrno>
#include <cstdint>

#include "libzero/resource.h"

namespace veldar {

// Makes a system call again for as long as signals interrupt it.
template <typename Call>
auto os_retry(Call call) {
    for (;;) {
        const auto result = call();
        if (result != -1 || errno != EINTR) return result;
    }
}

// The modification time (`which` non-zero) or the status-change time (zero) in whole seconds times 1000; 0 on failure.
[[nodiscard]] int ospath_get_time(const char* path, int which, int64_t* milliseconds);
// The file's size in bytes; on failure the output is left alone.
[[nodiscard]] int ospath_get_size(const char* path, uint64_t* size);
[[nodiscard]] int osfile_get_size(int fd, uint64_t* size);
// Opens a file that is there, with O_RDONLY or O_RDWR in `flags`, and never waits, as opening a pipe would for its
// other end. Empty with errno on failure: EISDIR for a directory, EINVAL for anything else that is no regular file.
unique_fd osfile_open_regular(const char* path, int flags);
// Creates an empty file for reading and writing (mode 0600) in the place of whatever had the name; a symbolic link is
// replaced, not followed. Empty with errno on failure.
unique_fd osfile_create_anew(const char* path);
// Makes sure that the name is taken, by an empty file unless something has it: 0, or -1 with errno.
[[nodiscard]] int ospath_mark(const char* path);
// 0 when the path exists.
[[nodiscard]] int ospath_try_stat(const char* path);
// Gives the file a second name: 0, or -1 with errno. A name that exists already but is the same file counts as made: so
// it looks when a file server made the link, its answer was lost, and the client asked again.
[[nodiscard]] int ospath_link(const char* path, const char* second_name);

// Opens the null device on those of the descriptors 0 to 2 that are closed, the wrong way round, so that reading or
// writing them fails: else the next file that is opened gets such a number, and what is meant for a terminal is written
// into it. For the start of a program.
void osfile_open_standard();
// Brings a file's bytes, or a directory's names, to the disk: 0, or -1 with errno. An interrupted flush goes on.
[[nodiscard]] int osfile_flush(int fd);

// The host's name, which has at most 64 characters; empty when the system tells none.
struct os_host_name {
    char text[65] = {};
    os_host_name();
};

struct portable_timeval {
    int64_t seconds;
    int64_t microseconds;
};
// The wall-clock time. A process without a clock cannot go on: a failure is an assertion.
void portable_timeval_now(portable_timeval* out);
// later - earlier in microseconds.
int64_t portable_timeval_usec_diff(const portable_timeval* earlier, const portable_timeval* later);

}  // namespace veldar
