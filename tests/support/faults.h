// Failing system calls on demand: the linker leads these calls of the engine through this file (see
// tests/CMakeLists.txt).
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace veldar {

enum class fault_call {
    open,
    write,
    pwrite,
    fsync,
    link,
    unlink,
    rename,
    close,
    pread,
    stat,
    map,
    msync,
    opendir,
    readdir,
    ftruncate,
    flock,
    access,
    kill,
    COUNT
};

class uncopied {
  public:
    uncopied() = default;
    uncopied(const uncopied&) = delete;
    uncopied& operator=(const uncopied&) = delete;
};

// While it lives, calls number `nth` to `nth + times - 1` (1 is the next one) of one function fail with an errno and do
// nothing; closes do close. `hits` tells how many did. One fault a function at a time.
class fault : uncopied {
  public:
    fault(fault_call call, uint64_t nth, int errno_value, uint64_t times = 1);
    ~fault();

    uint64_t hits() const;

  private:
    fault_call call_;
};

// Calls of a function since the process began, failed ones included.
uint64_t fault_calls(fault_call call);

// While it lives, something happens at calls number `nth` to `nth + times - 1` of all the functions above together, or
// of all allocations by new, calloc and strdup in the engine (not inside of the C and C++ libraries).
enum class fault_action {
    fail,     // with the errno; new throws, the others return null
    shorten,  // reads and writes move half of what was asked for; other calls work
    flip,     // a bit of what is written comes out wrong, as many thousandths behind its beginning as the errno says
    kill_before,  // SIGKILL to this process
    kill_after,
    allocation,
    interrupt,  // something else is done first, which is neither counted nor struck
};
class fault_step : uncopied {
  public:
    fault_step(fault_action action, uint64_t nth, int errno_value = 0, uint64_t times = 1);
    // Interrupts call number `nth` and those behind it.
    fault_step(uint64_t nth, const std::function<void()>& interruption, uint64_t times = 1);
    ~fault_step();

    // Calls, or allocations, since it was made.
    uint64_t calls() const;
    uint64_t allocations() const;
    // Of one that only counts, with a number of all ones: the numbers of those calls, or allocations, that came from
    // where none before came from, all callers taken together.
    std::vector<uint64_t> firsts() const;
    // A number for the callers of each of these.
    std::vector<uint64_t> stacks() const;
    // Whether it has struck a call of this function.
    bool struck(fault_call call) const;
    // Or one of those that a signal can interrupt, and none that it cannot.
    bool struck_where_signals_do() const;
};
// While it lives, fault_step neither counts nor strikes: for a test's own work in between.
class fault_truce : uncopied {
  public:
    fault_truce();
    ~fault_truce();

  private:
    bool armed_;
};

// While it lives, the first failure that is recorded (_set_rc and its kin) is remembered, and the work behind it counts:
// reads, writes and openings, and questions whether to stop. For one act of one thread.
class failure_watch : uncopied {
  public:
    // Question number `stop_at` is answered with yes, and no other; 0: none.
    explicit failure_watch(uint64_t stop_at = 0);
    ~failure_watch();

    static bool asked(void* context);  // a warm_stop_fn, whatever its context
    uint64_t questions() const;
    // Of the act's result, negative for a failure: whether it tells of the failure, and nothing was done behind that.
    bool ended_with(int64_t status) const;
};

// While it lives, fsync and msync do nothing: only the death of a system needs them.
class no_flushes : uncopied {
  public:
    no_flushes();
    ~no_flushes();
};

// While it lives, the host has another name.
class fake_host : uncopied {
  public:
    explicit fake_host(std::string name);
    ~fake_host();
};

// While it lives, pauses take no time and are added up; the seconds of time() pass with them.
class no_pauses : uncopied {
  public:
    no_pauses();
    ~no_pauses();

    uint64_t microseconds() const;
};

// While it lives, polls take no time, and after each both clocks are ahead by what it might have taken. Before each comes
// `before`, which is uncounted like a truce and tells with which errno the poll fails, or 0.
class simulated_waits : uncopied {
  public:
    explicit simulated_waits(const std::function<int()>& before);
    ~simulated_waits();

    uint64_t milliseconds() const;  // that it is ahead
};

// While it lives, the wall clock is an hour ahead, so that every stamp of a file is an old one.
class clock_ahead : uncopied {
  public:
    clock_ahead();
    ~clock_ahead();
};

}  // namespace veldar
