// Merges a slice of these bytes with itself. Whatever the bytes are, the merge is refused and leaves no file, or makes
// a slice that reads whole.
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz/slice_walk.h"
#include "searchthing/merge/warmslice_merge.h"
#include "searchthing/slice/warmslice.h"

using namespace veldar;

namespace {

constexpr uint32_t MOST = 1 << 16;  // values, or postings: a few bytes can stand for billions of both

bool small_enough(const uint8_t* data, size_t size) {
    st_warm_slice_body header;
    if (size < sizeof header) return false;
    std::memcpy(static_cast<void*>(&header), data, sizeof header);
    return header.num_values.get() <= MOST && header.num_postings.get() <= MOST && header.num_dimsets.get() <= MOST;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (!small_enough(data, size)) return 0;
    unique_fd fd(::memfd_create("slice", MFD_CLOEXEC));
    if (::write(fd.get(), data, size) != static_cast<ssize_t>(size)) std::abort();
    const std::string source = "/proc/self/fd/" + std::to_string(fd.get());
    const std::array<const char*, 2> paths = {source.c_str(), source.c_str()};
    warm_merge_options_t options;
    st_tsidx_write_opts_init_write_level(&options.write_options, 1 + data[size - 1] % 4);
    warm_rc_t rc;
    warm_merge_t* merge = st_warm_slice_merge_open(paths, &options, &rc);
    if (merge == nullptr) return 0;
    const std::string target = "/dev/shm/veldar-merge-fuzz-" + std::to_string(::getpid());
    const int status = st_warm_slice_merge_write(merge, target.c_str(), false, &rc);
    if (status != 0 && ::access(target.c_str(), F_OK) == 0) std::abort();
    if (status == 0) {
        if (st_warm_slice_merge_carry_deletes(merge, target.c_str(), &rc) != 0) std::abort();
        WARM* warm = st_warm_slice_open_rdonly(target.c_str(), &rc);
        if (warm == nullptr) std::abort();
        walk_slice(warm);
        if (st_warm_slice_close(warm) != 0) std::abort();
        ::unlink(target.c_str());
    }
    st_warm_slice_merge_close(merge);
    return 0;
}
