// Copies the fixed part of a slice into a mini slice.
#include <fcntl.h>

#include <algorithm>
#include <array>

#include "libzero/assertions.h"
#include "libzero/osfile.h"
#include "searchthing/base/timed_read.h"
#include "searchthing/slice/warmslice.h"

namespace veldar {

namespace {

constexpr size_t PIECE = 1 << 16;

int copy_range(int from, int to, uint64_t begin, uint64_t end) {
    std::array<uint8_t, PIECE> piece;
    for (uint64_t at = begin; at < end;) {
        const size_t size = static_cast<size_t>(std::min<uint64_t>(piece.size(), end - at));
        ST_TRY(_pread_verify(from, piece.data(), size, at, "mini slice"));
        if (st_pwrite(to, piece.data(), size, at) != static_cast<int64_t>(size)) return WARM_RC_WRITE;
        at += size;
    }
    return 0;
}

}  // namespace

int st_warm_slice_create_mini(const char* path, int out_fd) {
    ST_ASSERT(path != nullptr);
    if (out_fd < 0 || *path == '\0') return WARM_RC_INVALID_ARGUMENT;
    const unique_fd fd = osfile_open_regular(path, O_RDONLY);
    if (!fd.valid()) return WARM_RC_OPEN;
    uint64_t file_size = 0;
    if (osfile_get_size(fd.get(), &file_size) != 0) return WARM_RC_FILE_SIZE;
    if (file_size == 0) return WARM_RC_EMPTY_FILE;
    warm_rc_t rc;
    st_warm_slice_body header;
    ST_TRY(warm_header_read(fd.get(), &header, &rc));
    const uint64_t header_size = warm_header_size_on_disk(&header);
    if (!tsval_counts_agree(&header)) return WARM_RC_FAILED;
    const uint64_t end = _offset_pl_offs(&header);
    if (end > file_size || end <= header_size) return WARM_RC_FAILED;
    ST_TRY(warm_header_write(out_fd, &header, &rc));
    return copy_range(fd.get(), out_fd, header_size, end);
}

}  // namespace veldar
