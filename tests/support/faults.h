// Failing system calls on demand: the linker leads these calls of the engine through this file (see
// tests/CMakeLists.txt).
#pragma once

#include <cstdint>
#include <string>

namespace veldar {

enum class fault_call { open, write, pwrite, fsync, link, unlink, rename, close, COUNT };

// While it lives, calls number `nth` to `nth + times - 1` (1 is the next one) of one function fail with an errno and do
// nothing; closes do close. `hits` tells how many did. One fault a function at a time.
class fault {
  public:
    fault(fault_call call, uint64_t nth, int errno_value, uint64_t times = 1);
    ~fault();
    fault(const fault&) = delete;
    fault& operator=(const fault&) = delete;

    uint64_t hits() const;

  private:
    fault_call call_;
};

// Calls of a function since the process began, failed ones included.
uint64_t fault_calls(fault_call call);

// While it lives, pauses take no time and are added up.
class no_pauses {
  public:
    no_pauses();
    ~no_pauses();
    no_pauses(const no_pauses&) = delete;
    no_pauses& operator=(const no_pauses&) = delete;

    uint64_t count() const;
    uint64_t microseconds() const;
};

}  // namespace veldar
