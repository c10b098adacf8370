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

// A call that fails does nothing but set errno.
#define FAULTY(name, result_t, parameters, arguments)                            \
    result_t __real_##name parameters;                                           \
    result_t __wrap_##name parameters {                                          \
        return fails(fault_call::name) ? result_t{-1} : __real_##name arguments; \
    }

extern "C" {

FAULTY(write, ssize_t, (int fd, const void* data, size_t size), (fd, data, size))
FAULTY(pwrite, ssize_t, (int fd, const void* data, size_t size, off_t offset), (fd, data, size, offset))
FAULTY(fsync, int, (int fd), (fd))
FAULTY(link, int, (const char* from, const char* to), (from, to))
FAULTY(unlink, int, (const char* path), (path))
FAULTY(rename, int, (const char* from, const char* to), (from, to))

int __real_open(const char* path, int flags, ...);
int __real_close(int fd);
int __real_usleep(useconds_t pause);

int __wrap_open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return fails(fault_call::open) ? -1 : __real_open(path, flags, mode);
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
