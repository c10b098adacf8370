// Positioned reads and writes and the status of a transfer that came out short. Only these retry EINTR; a short
// transfer is reported, never continued (st_file_write alone loops).
#pragma once

#include <cstddef>
#include <cstdint>

#include "searchthing/base/query_info.h"
#include "searchthing/base/warm_rc.h"

namespace veldar {

// pread(2) and pwrite(2) that retry EINTR and nothing else: the count, or -1 with errno set.
[[nodiscard]] int64_t st_pread(int fd, void* out, size_t length, uint64_t offset);
[[nodiscard]] int64_t st_pwrite(int fd, const void* data, size_t length, uint64_t offset);

// The status of a read that missed bytes, by its count: WARM_RC_READ it failed, WARM_RC_END_OF_FILE nothing came,
// WARM_RC_SHORT_READ some came.
[[nodiscard]] inline int read_status(int64_t got) {
    return got < 0 ? WARM_RC_READ : got == 0 ? WARM_RC_END_OF_FILE : WARM_RC_SHORT_READ;
}

// Writes everything at the file position, as often as it takes: 0 (also for a length below 1) or WARM_RC_WRITE with
// errno set.
[[nodiscard]] int st_file_write(int fd, const void* data, int64_t length);

// st_pread that accounts into `stats` when it is not null: read count, bytes, and the duration's bucket of the
// histogram. With `verbose` set, a count other than `length` prints a line to standard error; errno is kept.
[[nodiscard]] int64_t st_timed_pread_msg(int fd, void* out, size_t length, uint64_t offset, st_query_info_t* stats,
                                         bool verbose);

// One read that must come whole: 0, or the status of the read after a line with the label on standard error; errno is
// kept.
[[nodiscard]] int _pread_verify(int fd, void* out, size_t length, uint64_t offset, const char* label);

// The bucket of a duration in st_query_info_t::read_histogram: b holds 8^b to 8^(b+1) - 1 microseconds, the first
// begins at 0 and the last is open.
uint32_t read_histogram_bucket(uint64_t microseconds);

}  // namespace veldar
