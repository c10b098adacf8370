// File sizes and times, and the wall clock.
#pragma once

#include <cstdint>

namespace veldar {

int ospath_get_time(const char* path, int which, int64_t* milliseconds);
int ospath_get_size(const char* path, uint64_t* size);
int osfile_get_size(int fd, uint64_t* size);
int ospath_try_stat(const char* path);

struct portable_timeval {
    int64_t seconds;
    int64_t microseconds;
};
void portable_timeval_now(portable_timeval* out);
int64_t portable_timeval_usec_diff(const portable_timeval* earlier, const portable_timeval* later);

}  // namespace veldar
