#include "tests/support/faults.h"

#include <dirent.h>
#include <execinfo.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>
#include <xxhash.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

#include "searchthing/base/warm_rc.h"
#include "tests/support/call_record.h"
#include "tests/support/clock_behind.h"
#include "tests/support/file_log_hooks.h"

namespace veldar {

namespace {

// Raised by any thread; copied while there is one.
struct tally : std::atomic<uint64_t> {
    tally(uint64_t value = 0) : atomic(value) {}
    tally(const tally& other) : atomic(other.load()) {}
    tally& operator=(const tally& other) {
        store(other.load());
        return *this;
    }
};

struct plan {
    tally calls = 0;
    uint64_t first = 0, last = 0;  // numbers of the calls that fail; none while last is 0
    int errno_value = 0;
    tally hits = 0;
};
std::array<plan, static_cast<size_t>(fault_call::COUNT)> plans;

plan& plan_of(fault_call call) {
    return plans[static_cast<size_t>(call)];
}

bool fails(fault_call call) {
    plan& p = plan_of(call);
    const uint64_t number = ++p.calls;
    if (p.last == 0 || number < p.first || number > p.last) return false;
    p.hits++;
    errno = p.errno_value;
    return true;
}

// What fault_step has been told to do, and what it has counted.
struct {
    bool armed = false;
    fault_action action = fault_action::fail;
    uint64_t first = 0, last = 0;
    int errno_value = 0;
    tally calls = 0, allocations = 0;
    tally struck = 0;  // a bit a function
    bool flips = false;
    std::function<void()> interruption = nullptr;

    bool hits(uint64_t number) const { return number >= first && number <= last; }
} step;

struct {
    bool on = false;
    uint64_t stop_at = 0;
    int status = 0;  // of the first failure
    tally work = 0, questions = 0;
} watched;

void watch_call(fault_call call) {
    using enum fault_call;
    const fault_call ends[] = {close, unlink, stat, access, flock, kill};
    if (watched.status != 0 && std::find(std::begin(ends), std::end(ends), call) == std::end(ends)) watched.work++;
}
// Not what is no failure where it is met: the end of a query, a term that is nowhere, a list too long for a narrow entry.
void watch_failure(int status) {
    const bool answers =
        status == 0 || status == WARM_RC_QUERY_END || status == WARM_RC_NOT_FOUND || status == WARM_RC_DOES_NOT_FIT;
    if (watched.on && watched.status == 0 && !answers) watched.status = status;
}

bool flushes_skipped = false;
std::string host_name;

// Where calls came from. Nothing is allocated, as allocations are among them.
struct {
    std::mutex mutex = {};
    std::array<uint64_t, 1 << 14> seen = {};  // hashes of stacks; 0 is a free place
    std::array<uint64_t, 1 << 12> numbers = {}, stacks = {};
    size_t count = 0;

    void note(uint64_t number) {
        void* frames[24];
        const int depth = ::backtrace(frames, std::size(frames));
        const uint64_t hash = XXH64(frames, static_cast<size_t>(depth) * sizeof frames[0], 0) | 1;
        const std::lock_guard guard(mutex);
        size_t at = hash % seen.size();
        while (seen[at] != 0 && seen[at] != hash) at = (at + 1) % seen.size();
        if (seen[at] == hash || count == numbers.size()) return;
        seen[at] = hash;
        stacks[count] = hash;
        numbers[count++] = number;
    }
    void begin() {
        void* frames[1];
        ::backtrace(frames, 1);  // the first use allocates
        seen = {};
        count = 0;
    }
} places;

void note_place(fault_action action, uint64_t number) {
    const bool is_allocation = step.action == fault_action::allocation;
    if (step.first == ~uint64_t{0} && is_allocation == (action == fault_action::allocation)) places.note(number);
}

bool step_hits_call(fault_call call) {
    if (!step.armed) return false;
    const uint64_t number = ++step.calls;
    note_place(fault_action::fail, number);
    if (!step.hits(number) || step.action == fault_action::allocation) return false;
    step.struck |= uint64_t{1} << static_cast<int>(call);
    return true;
}

bool allocation_fails() {
    if (!step.armed) return false;
    const uint64_t number = ++step.allocations;
    note_place(fault_action::allocation, number);
    const bool fails = step.hits(number) && step.action == fault_action::allocation;
    if (fails) errno = ENOMEM;
    return fails;
}

// Makes one call through both plans.
template <typename Result, typename Real>
Result through(fault_call call, Result failure, Real real) {
    const bool hit = step_hits_call(call);
    watch_call(call);
    if (hit && step.action == fault_action::kill_before) ::raise(SIGKILL);
    if (hit && step.action == fault_action::interrupt) {
        const fault_truce truce;
        const int saved_errno = errno;
        step.interruption();
        errno = saved_errno;
    }
    if (fails(call)) return failure;
    if (hit && step.action == fault_action::fail) {
        errno = step.errno_value;
        return failure;
    }
    step.flips = hit && step.action == fault_action::flip;
    const Result result = real(hit && step.action == fault_action::shorten);
    if (hit && step.action == fault_action::kill_after) ::raise(SIGKILL);
    return result;
}

struct {
    bool on = false;
    std::vector<std::string> calls = {};
} record;

std::string shown_name(const std::string& path) {
    const std::string name = path.substr(path.rfind('/') + 1);
    const size_t dot = name.find('.');
    return (std::isdigit(name[0]) != 0 || name[0] == '-') && dot != name.npos ? name.substr(dot) : name;
}
std::string shown_name(int fd) {
    char path[4096];
    const ssize_t size = ::readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path, sizeof path);
    return shown_name(std::string(path, size < 0 ? 0 : static_cast<size_t>(size)));
}

void note(const std::string& call) {
    for (const char* unrelated : {".lock", "veldar-need", "veldar-autogen"}) {
        if (call.find(unrelated) != call.npos) return;
    }
    if (record.calls.empty() || record.calls.back() != call || !call.starts_with("write")) record.calls.push_back(call);
}

// Notes a call that has succeeded.
template <typename Result, typename... Names>
Result noted(Result result, const char* call, Names... names) {
    if (!record.on || result < 0) return result;
    const int saved_errno = errno;
    std::string text = call;
    ((text += " " + shown_name(names)), ...);
    note(text);
    errno = saved_errno;
    return result;
}

std::string path_of(int fd) {
    char path[4096];
    const ssize_t size = ::readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path, sizeof path);
    return {path, size < 0 ? 0 : static_cast<size_t>(size)};
}

// A writable mapping of a file, which a flush writes.
struct mapping {
    const char* at = nullptr;
    size_t size = 0;
    uint64_t inode = 0;
};
std::vector<mapping> mappings;

// Logs what has been done, when that is asked for: with `fd`, its inode too.
void log_call(file_op op, int fd = -1) {
    if (!file_log_is_on()) return;
    const int saved_errno = errno;
    struct stat status = {};
    if (fd >= 0 && ::fstat(fd, &status) == 0) op.inode = status.st_ino;
    if (op.kind == file_op::SYNC && S_ISDIR(status.st_mode)) {
        op.kind = file_op::SYNC_NAMES;
        op.path = path_of(fd);
    }
    file_log_add(std::move(op));
    errno = saved_errno;
}
void log_write(int fd, const void* data, ssize_t done, off_t offset) {
    if (done <= 0 || !file_log_is_on()) return;
    log_call({.kind = file_op::DATA,
              .offset = static_cast<uint64_t>(offset),
              .bytes = std::string(static_cast<const char*>(data), static_cast<size_t>(done))},
             fd);
}
void log_sync(int result, int fd) {
    if (result == 0) log_call({.kind = file_op::SYNC}, fd);
}
void log_flush(const void* at) {
    for (const mapping& one : mappings) {
        if (one.at != at || !file_log_is_on()) continue;
        file_log_add({.kind = file_op::DATA, .inode = one.inode, .bytes = std::string(one.at, one.size)});
        file_log_add({.kind = file_op::SYNC, .inode = one.inode});
        return;
    }
}

const void* maybe_flipped(const void* data, size_t size, std::string* copy) {
    if (!step.flips || size == 0) return data;
    const fault_truce own;
    copy->assign(static_cast<const char*>(data), size);
    char* const byte = &(*copy)[size * static_cast<size_t>(step.errno_value) / 1000];
    *byte = static_cast<char>(*byte ^ 1 << step.errno_value % 8);
    return copy->data();
}
size_t maybe_half(size_t size, bool shortened) {
    return shortened && size > 1 ? size / 2 : size;
}

struct {
    bool skipped = false;
    uint64_t microseconds = 0;
} pauses;
time_t clock_ahead_s = 0;
struct {
    std::function<int()> before = nullptr;
    int64_t ms = 0;
} waits;

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

fault_step::fault_step(fault_action action, uint64_t nth, int errno_value, uint64_t times) {
    if (nth == ~uint64_t{0}) places.begin();
    step = {.armed = true, .action = action, .first = nth, .last = nth + times - 1, .errno_value = errno_value};
}
fault_step::fault_step(uint64_t nth, const std::function<void()>& interruption, uint64_t times) {
    step = {.armed = true,
            .action = fault_action::interrupt,
            .first = nth,
            .last = nth + times - 1,
            .interruption = interruption};
}
fault_step::~fault_step() {
    step = {};
}
uint64_t fault_step::calls() const {
    return step.calls;
}
uint64_t fault_step::allocations() const {
    return step.allocations;
}
std::vector<uint64_t> fault_step::firsts() const {
    const fault_truce own;
    return {places.numbers.begin(), places.numbers.begin() + static_cast<std::ptrdiff_t>(places.count)};
}
std::vector<uint64_t> fault_step::stacks() const {
    const fault_truce own;
    return {places.stacks.begin(), places.stacks.begin() + static_cast<std::ptrdiff_t>(places.count)};
}
bool fault_step::struck(fault_call call) const {
    return (step.struck >> static_cast<int>(call) & 1) != 0;
}
bool fault_step::struck_where_signals_do() const {
    using enum fault_call;
    const fault_call calls[] = {open, write, pwrite, fsync, pread, stat, ftruncate, flock};
    const fault_call others[] = {link, unlink, rename, close};
    const auto is_struck = [this](fault_call call) { return struck(call); };
    return std::any_of(std::begin(calls), std::end(calls), is_struck) &&
           std::none_of(std::begin(others), std::end(others), is_struck);
}

fault_truce::fault_truce() : armed_(step.armed) {
    step.armed = false;
}
fault_truce::~fault_truce() {
    step.armed = armed_;
}

failure_watch::failure_watch(uint64_t stop_at) {
    watched = {.on = true, .stop_at = stop_at};
}
failure_watch::~failure_watch() {
    watched = {};
}
bool failure_watch::asked(void*) {
    if (watched.status != 0) watched.work++;
    return ++watched.questions == watched.stop_at;
}
uint64_t failure_watch::questions() const {
    return watched.questions;
}
bool failure_watch::ended_with(int64_t status) const {
    return watched.work == 0 && (watched.status == 0 || status < 0);
}

no_flushes::no_flushes() {
    flushes_skipped = true;
}
no_flushes::~no_flushes() {
    flushes_skipped = false;
}

fake_host::fake_host(std::string name) {
    host_name = std::move(name);
}
fake_host::~fake_host() {
    host_name.clear();
}

call_record::call_record() {
    record = {.on = true};
}
call_record::~call_record() {
    record = {};
}
std::vector<std::string> call_record::take() {
    return std::exchange(record.calls, {});
}

no_pauses::no_pauses() {
    pauses = {.skipped = true};
}
no_pauses::~no_pauses() {
    pauses = {};
}
clock_ahead::clock_ahead() {
    clock_ahead_s = 3600;
}
clock_ahead::~clock_ahead() {
    clock_ahead_s = 0;
}
clock_behind::clock_behind() {
    clock_ahead_s = -3600;
}
clock_behind::~clock_behind() {
    clock_ahead_s = 0;
}
uint64_t no_pauses::microseconds() const {
    return pauses.microseconds;
}
simulated_waits::simulated_waits(const std::function<int()>& before) {
    waits = {.before = before};
}
simulated_waits::~simulated_waits() {
    waits = {};
}
uint64_t simulated_waits::milliseconds() const {
    return static_cast<uint64_t>(waits.ms);
}

}  // namespace veldar

using veldar::allocation_fails;
using veldar::fault_call;
using veldar::file_op;
using veldar::flushes_skipped;
using veldar::log_call;
using veldar::log_flush;
using veldar::log_sync;
using veldar::log_write;
using veldar::maybe_flipped;
using veldar::maybe_half;
using veldar::noted;
using veldar::through;
using void_ptr = void*;
using dir_ptr = DIR*;
using dirent_ptr = dirent*;

extern "C" {

int __real_open(const char* path, int flags, ...);
ssize_t __real_write(int fd, const void* data, size_t size);
ssize_t __real_pwrite(int fd, const void* data, size_t size, off_t offset);
ssize_t __real_pread(int fd, void* data, size_t size, off_t offset);
int __real_close(int fd);
int __real_kill(pid_t process, int signal);
int __real_gethostname(char* name, size_t size);
int __real_usleep(useconds_t pause);
void* __real__Znwm(size_t size);
void* __real__ZnwmRKSt9nothrow_t(size_t size, const std::nothrow_t& tag);
void* __real_calloc(size_t count, size_t size);
char* __real_strdup(const char* text);

int __wrap_open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    const bool is_new = (flags & O_CREAT) != 0 && veldar::file_log_is_on() && ::faccessat(AT_FDCWD, path, F_OK, 0) != 0;
    const int fd = through(fault_call::open, -1, [&](bool) { return __real_open(path, flags, mode); });
    if (fd >= 0 && is_new) log_call({.kind = file_op::CREATE, .path = path}, fd);
    if (fd >= 0 && (flags & O_TRUNC) != 0) log_call({.kind = file_op::SIZE}, fd);
    return (flags & O_CREAT) != 0 ? noted(fd, "create", path) : fd;
}
ssize_t __wrap_write(int fd, const void* data, size_t size) {
    const ssize_t done = through(fault_call::write, ssize_t{-1},
                                 [&](bool half) { return __real_write(fd, data, maybe_half(size, half)); });
    if (veldar::file_log_is_on()) log_write(fd, data, done, ::lseek(fd, 0, SEEK_CUR) - done);
    return noted(done, "write", fd);
}
ssize_t __wrap_pwrite(int fd, const void* data, size_t size, off_t offset) {
    const ssize_t done = through(fault_call::pwrite, ssize_t{-1}, [&](bool half) {
        std::string copy;
        return __real_pwrite(fd, maybe_flipped(data, size, &copy), maybe_half(size, half), offset);
    });
    log_write(fd, data, done, offset);
    return noted(done, "write", fd);
}
ssize_t __wrap_pread(int fd, void* data, size_t size, off_t offset) {
    return through(fault_call::pread, ssize_t{-1},
                   [&](bool half) { return __real_pread(fd, data, maybe_half(size, half), offset); });
}
int __wrap_close(int fd) {
    bool closed = false;
    const int result = through(fault_call::close, -1, [&](bool) {
        closed = true;
        return __real_close(fd);
    });
    const int saved_errno = errno;
    if (!closed) __real_close(fd);
    errno = saved_errno;
    return result;
}

// A call that happens as it stands or fails.
#define WRAP(call, result, failure, name, parameters, ...)                                                   \
    result __real_##name parameters;                                                                         \
    result __wrap_##name parameters {                                                                        \
        return through(fault_call::call, result(failure), [&](bool) { return __real_##name(__VA_ARGS__); }); \
    }
// One that is noted when it succeeds.
#define WRAP_NAMES(name, logged_as, first, second, parameters, ...)            \
    int __real_##name parameters;                                              \
    int __wrap_##name parameters {                                             \
        const auto real = [&](bool) { return __real_##name(__VA_ARGS__); };    \
        const int result = through(fault_call::name, -1, real);                \
        if (result == 0 && veldar::file_log_is_on())                           \
            log_call(file_op{.kind = logged_as, .path = first, .to = second}); \
        return noted(result, #name, __VA_ARGS__);                              \
    }
WRAP_NAMES(link, file_op::LINK, from, to, (const char* from, const char* to), from, to)
WRAP_NAMES(unlink, file_op::UNLINK, path, "", (const char* path), path)
WRAP_NAMES(rename, file_op::RENAME, from, to, (const char* from, const char* to), from, to)
WRAP(stat, int, -1, fstat, (int fd, struct stat* out), fd, out)
WRAP(stat, int, -1, stat, (const char* path, struct stat* out), path, out)
WRAP(stat, int, -1, lstat, (const char* path, struct stat* out), path, out)
WRAP(stat, int, -1, statfs, (const char* path, struct statfs* out), path, out)
WRAP(open, int, -1, inotify_init1, (int flags), flags)
WRAP(open, int, -1, inotify_add_watch, (int fd, const char* path, uint32_t events), fd, path, events)
WRAP(open, int, -1, mkdir, (const char* path, mode_t mode), path, mode)
WRAP(open, int, -1, getentropy, (void* out, size_t size), out, size)
WRAP(access, int, -1, access, (const char* path, int mode), path, mode)
void* __real_mmap(void* at, size_t size, int protection, int flags, int fd, off_t offset);
void* __wrap_mmap(void* at, size_t size, int protection, int flags, int fd, off_t offset) {
    void* const mapped = through(fault_call::map, void_ptr(MAP_FAILED),
                                 [&](bool) { return __real_mmap(at, size, protection, flags, fd, offset); });
    if (mapped != MAP_FAILED && veldar::file_log_is_on() && fd >= 0) {
        struct stat status = {};
        ::fstat(fd, &status);
        std::erase_if(veldar::mappings, [mapped](const auto& one) { return one.at == mapped; });
        veldar::mappings.push_back({static_cast<const char*>(mapped), size, status.st_ino});
    }
    return mapped;
}
WRAP(opendir, dir_ptr, nullptr, opendir, (const char* path), path)
WRAP(readdir, dirent_ptr, nullptr, readdir, (DIR * directory), directory)
int __real_ftruncate(int fd, off_t size);
int __wrap_ftruncate(int fd, off_t size) {
    const int result = through(fault_call::ftruncate, -1, [&](bool) { return __real_ftruncate(fd, size); });
    if (result == 0) log_call({.kind = file_op::SIZE, .offset = static_cast<uint64_t>(size)}, fd);
    return result;
}
WRAP(flock, int, -1, flock, (int fd, int operation), fd, operation)

// One that no_flushes keeps from happening.
#define WRAP_FLUSH(call, name, parameters, note, ...)                                             \
    int __real_##name parameters;                                                                 \
    int __wrap_##name parameters {                                                                \
        const auto real = [&](bool) { return flushes_skipped ? 0 : __real_##name(__VA_ARGS__); }; \
        const int result = through(fault_call::call, -1, real);                                   \
        return note;                                                                              \
    }
WRAP_FLUSH(fsync, fsync, (int fd), (log_sync(result, fd), noted(result, "sync", fd)), fd)
WRAP_FLUSH(fsync, fdatasync, (int fd), (log_sync(result, fd), noted(result, "sync", fd)), fd)
WRAP_FLUSH(msync, msync, (void* at, size_t size, int flags),
           (result == 0 ? log_flush(at) : void(), noted(result, "mark")), at, size, flags)

// No file call: fault_step leaves it alone.
int __wrap_kill(pid_t process, int signal) {
    return veldar::fails(fault_call::kill) ? -1 : __real_kill(process, signal);
}
int __wrap_gethostname(char* name, size_t size) {
    if (veldar::host_name.empty()) return __real_gethostname(name, size);
    std::strncpy(name, veldar::host_name.c_str(), size);
    if (veldar::host_name.size() < size) return 0;
    errno = ENAMETOOLONG;
    return -1;
}
int __real_clock_gettime(clockid_t clock, struct timespec* now);
int __wrap_clock_gettime(clockid_t clock, struct timespec* now) {
    const int result = __real_clock_gettime(clock, now);
    if (result == 0 && clock == CLOCK_REALTIME) now->tv_sec += veldar::clock_ahead_s + veldar::waits.ms / 1000;
    return result;
}
// A time point is a number of nanoseconds.
int64_t __real__ZNSt6chrono3_V212steady_clock3nowEv();
int64_t __wrap__ZNSt6chrono3_V212steady_clock3nowEv() {
    return __real__ZNSt6chrono3_V212steady_clock3nowEv() + veldar::waits.ms * 1'000'000;
}
int __real_poll(pollfd* what, nfds_t count, int ms);
int __wrap_poll(pollfd* what, nfds_t count, int ms) {
    if (veldar::waits.before == nullptr) return __real_poll(what, count, ms);
    const veldar::fault_truce own;
    if ((errno = veldar::waits.before()) != 0) return -1;
    const int ready = __real_poll(what, count, 0);
    veldar::waits.ms += ready == 0 ? ms : 1;
    return ready;
}
// Passes with the pauses that are skipped.
time_t __real_time(time_t* out);
time_t __wrap_time(time_t* out) {
    const time_t now = __real_time(out) + static_cast<time_t>(veldar::pauses.microseconds / 1'000'000);
    if (out != nullptr) *out = now;
    return now;
}
int __wrap_usleep(useconds_t pause) {
    if (!veldar::pauses.skipped) return __real_usleep(pause);
    veldar::pauses.microseconds += pause;
    return 0;
}
// The setters of a record.
#define WRAP_SETTER(name, parameters, ...) \
    int __real_##name parameters;          \
    int __wrap_##name parameters {         \
        veldar::watch_failure(status);     \
        return __real_##name(__VA_ARGS__); \
    }
WRAP_SETTER(_ZN6veldar7_set_rcEPNS_9warm_rc_tEi, (void* rc, int status), rc, status)
WRAP_SETTER(_ZN6veldar17_set_rc_and_errnoEPNS_9warm_rc_tEii, (void* rc, int status, int why), rc, status, why)
WRAP_SETTER(_ZN6veldar15_set_rc_verboseEPNS_9warm_rc_tEijPKc,
            (void* rc, int status, uint32_t detail, const char* message), rc, status, detail, message)
WRAP_SETTER(_ZN6veldar11_set_rc_msgEPNS_9warm_rc_tEiPKc, (void* rc, int status, const char* message), rc, status,
            message)
void* __wrap__Znwm(size_t size) {
    if (allocation_fails()) throw std::bad_alloc();
    return __real__Znwm(size);
}
void* __wrap__ZnwmRKSt9nothrow_t(size_t size, const std::nothrow_t& tag) {
    return allocation_fails() ? nullptr : __real__ZnwmRKSt9nothrow_t(size, tag);
}
void* __wrap_calloc(size_t count, size_t size) {
    return allocation_fails() ? nullptr : __real_calloc(count, size);
}
char* __wrap_strdup(const char* text) {
    return allocation_fails() ? nullptr : __real_strdup(text);
}

}  // extern "C"
