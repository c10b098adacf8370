#include "libzero/resource.h"

#include <sys/mman.h>
#include <unistd.h>

#include "libzero/assertions.h"

namespace veldar {

void unique_fd::reset(int fd) {
    ST_ASSERT(fd < 0 || fd != fd_);  // the owner would go on with a descriptor that it has closed
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
}

int unique_fd::close_checked() {
    const int fd = release();
    return fd < 0 ? 0 : ::close(fd);
}

bool file_map::map(int fd, size_t size, bool writable) {
    reset();
    const int protection = writable ? PROT_READ | PROT_WRITE : PROT_READ;
    void* address = ::mmap(nullptr, size, protection, MAP_SHARED, fd, 0);
    if (address == MAP_FAILED) return false;
    data_ = address;
    size_ = size;
    writable_ = writable;
    return true;
}

int file_map::sync() {
    return data_ == nullptr || !writable_ ? 0 : ::msync(data_, size_, MS_SYNC);
}

int file_map::unmap() {
    if (data_ == nullptr) return 0;
    ST_ASSERT(size_ > 0);  // no mapping is empty: one without its size would stay mapped
    return ::munmap(std::exchange(data_, nullptr), std::exchange(size_, 0));
}

}  // namespace veldar
