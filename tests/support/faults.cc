#include "tests/support/faults.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdarg>

namespace veldar {

namespace {

struct plan {
    uint64_t calls = 0;
    uint64_t first = 0, last = 0;  // numbers of the calls that fail; none while last is 0
    int errno_value = 0;
    uint64_t hits = 0;
};
std::array<plan, static_cast<size_t>(fault_call::COUNT)> plans;

plan& plan_of(fault_call call) {
    return plans[static_cast<size_t>(call)];
}

bool fails(fault_call call) {
    plan& p = plan_of(call);
    p.calls++;
    if (p.last == 0 || p.calls < p.first || p.calls > p.last) return false;
    p.hits++;
    errno = p.errno_value;
    return true;
}

struct {
    bool skipped = false;
    uint64_t count = 0, microseconds = 0;
} pauses;

}  // namespace

fault::fault(fault_call call, uint64_t nth, int errno_value, uint64_t times) : call_(call) {
    plan& p = plan_of(call);
    p = {.calls = p.calls,
         .first = p.calls + nth,
         .last = p.calls + nth + times - 1,
         .errno_value = errno_value,
         .hits = 0};
}

fault::~fault() {
    plan_of(call_) = {.calls = plan_of(call_).calls};
}

uint64_t fault::hits() const {
    return plan_of(call_).hits;
}

uint64_t fault_calls(fault_call call) {
    return plan_of(call).calls;
}

no_pauses::no_pauses() {
    pauses = {.skipped = true};
}
no_pauses::~no_pauses() {
    pauses = {};
}
uint64_t no_pauses::count() const {
    return pauses.count;
}
uint64_t no_pauses::microseconds() const {
    return pauses.microseconds;
}

}  // namespace veldar

using veldar::fails;
using veldar::fault_call;

extern "C" {

int __real_open(const char* path, int flags, ...);
ssize_t __real_write(int fd, const void* data, size_t size);
ssize_t __real_pwrite(int fd, const void* data, size_t size, off_t offset);
int __real_fsync(int fd);
int __real_link(const char* from, const char* to);
int __real_unlink(const char* path);
int __real_rename(const char* from, const char* to);
int __real_close(int fd);
int __real_usleep(useconds_t pause);

int __wrap_open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return fails(fault_call::open) ? -1 : __real_open(path, flags, mode);
}
ssize_t __wrap_write(int fd, const void* data, size_t size) {
    return fails(fault_call::write) ? -1 : __real_write(fd, data, size);
}
ssize_t __wrap_pwrite(int fd, const void* data, size_t size, off_t offset) {
    return fails(fault_call::pwrite) ? -1 : __real_pwrite(fd, data, size, offset);
}
int __wrap_fsync(int fd) {
    return fails(fault_call::fsync) ? -1 : __real_fsync(fd);
}
int __wrap_link(const char* from, const char* to) {
    return fails(fault_call::link) ? -1 : __real_link(from, to);
}
int __wrap_unlink(const char* path) {
    return fails(fault_call::unlink) ? -1 : __real_unlink(path);
}
int __wrap_rename(const char* from, const char* to) {
    return fails(fault_call::rename) ? -1 : __real_rename(from, to);
}
int __wrap_close(int fd) {
    const bool failed = fails(fault_call::close);
    const int saved_errno = errno;
    const int result = __real_close(fd);
    if (!failed) return result;
    errno = saved_errno;
    return -1;
}
int __wrap_usleep(useconds_t pause) {
    if (!veldar::pauses.skipped) return __real_usleep(pause);
    veldar::pauses.count++;
    veldar::pauses.microseconds += pause;
    return 0;
}

}  // extern "C"
