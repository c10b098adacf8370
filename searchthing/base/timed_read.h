// Positioned reads and writes and the status of a transfer that came out short. Only these retry EINTR; a short
// transfer is reported, never continued (st_file_write alone loops).
#pragma once

#include <cstddef>
#include <cstdint>

#include "searchthing/base/query_info.h"
#include "searchthing/base/warm_rc.h"

namespace veldar {

// pread(2) and pwrite(2) that retry EINTR and nothing else: the count, or -1 with errno set.
int64_t st_pread(int fd, void* out, size_t length, uint64_t offset);
int64_t st_pwrite(int fd, const void* data, size_t length, uint64_t offset);

// What the count of a read that missed bytes means: -8 it failed, -49 nothing came, -48 some came.
inline int read_status(int64_t got) {
    return got < 0 ? WARM_RC_READ : got == 0 ? WARM_RC_END_OF_FILE : WARM_RC_SHORT_READ;
}

// Writes everything at the file position, as often as it takes: 0 (also for a length below 1) or -9 with errno set.
int st_file_write(int fd, const void* data, int64_t length);

// st_pread that accounts into `stats` when it is not null: read count, bytes, and the duration's bucket of the
// histogram. With `verbose` set, a count other than `length` prints a line to standard error; errno is kept.
int64_t st_timed_pread_msg(int fd, void* out, size_t length, uint64_t offset, st_query_info_t* stats, bool verbose);

// One read that must come whole: 0, or -8, -48, -49 after a line with the label on standard error; errno is kept.
int _pread_verify(int fd, void* out, size_t length, uint64_t offset, const char* label);

// The bucket of a duration in st_query_info_t::read_histogram: b holds 8^b to 8^(b+1) - 1 microseconds, the first
// begins at 0 and the last is open.
uint32_t read_histogram_bucket(uint64_t microseconds);

}  // namespace veldar
