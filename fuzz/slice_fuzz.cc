// Opens a file of these bytes as a slice, read-only and read-write, and walks all of it. Under libFuzzer run it with
// -close_fd_mask=2: the engine reports failed reads on standard error.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "fuzz/slice_walk.h"
#include "searchthing/slice/warmslice.h"

using namespace veldar;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    warm_rc_t rc;
    unique_fd fd(::memfd_create("slice", MFD_CLOEXEC));
    if (::write(fd.get(), data, size) != static_cast<ssize_t>(size)) std::abort();
    const std::string path = "/proc/self/fd/" + std::to_string(fd.get());
    WARM* writable = st_warm_slice_open_rdwr(path.c_str(), &rc);
    if (writable != nullptr) {
        walk_slice(writable);
        if (st_warm_slice_values(writable) > 0) static_cast<void>(warm_slice_set_deleted(writable, 0, &rc));
        if (st_warm_slice_close(writable) != 0) std::abort();
    }
    WARM* warm = st_warm_slice_open_rdonly_from_fd(fd.get(), nullptr, &rc);
    if (warm == nullptr) return 0;
    static_cast<void>(fd.release());
    walk_slice(warm);
    if (st_warm_slice_close(warm) != 0) std::abort();
    return 0;
}
