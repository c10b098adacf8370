// The crash log: what a process writes down when a fatal signal ends it.
//
// Nothing of it happens unless the program asks. Then SIGSEGV, SIGBUS, SIGILL, SIGFPE and SIGABRT (a failed assertion
// too) make a file
//
//   <directory>/<program>-crash-<seconds since the epoch>-<process id>.log
//
// with the signal and its address, the frames of the stack, the notes of the thread and of the process, the frames'
// names as far as the program exports them, and the memory map, from which the others follow. Afterwards the signal
// takes its usual course, with a core file where the system makes one. A part that crashes itself, as a note on damaged
// memory may, is said to have done so and passed over.
//
// The handler calls only what POSIX lets handlers call, but for the frames' names, which come behind all that matters;
// an alarm ends the process should they hang.
#pragma once

#include <cstdint>

#include "libzero/ospath-builder.h"

namespace veldar {

// Installs the handlers, on a stack of their own for this thread, so that its overflow is logged too. Other threads
// that crash are logged from their own stacks. 0, or -1 for a path that is too long or when memory is short, and then
// nothing has changed. Not while other threads run.
[[nodiscard]] int create_crash_dump_install(const char* program, const char* directory);
// The same with the directory in the environment variable VELDAR_HOME; 0 and nothing without it. With
// VELDAR_WAIT_ON_CRASH set (and not empty) a process that has crashed waits for a debugger, which sets
// veldar::crash_waiting to 0.
[[nodiscard]] int create_crash_dump_install_from_environment(const char* program);
// Puts back the handlers that were there before.
void create_crash_dump_remove();

// Writes what is to be known of a subject, in whole lines. Called in a signal handler: no allocation, no locks, no
// exceptions. What does not fit 16 KiB is left out.
using crash_note_fn = void (*)(string_builder* out, const void* subject) noexcept;

// A note of this thread for as long as it lives, which is a block: the latest comes first in the log.
class crash_note {
  public:
    crash_note(crash_note_fn writer, const void* subject);
    ~crash_note();
    crash_note(const crash_note&) = delete;
    crash_note& operator=(const crash_note&) = delete;

    crash_note_fn write() const { return write_; }
    const void* subject() const { return subject_; }
    const crash_note* outer() const { return outer_; }

  private:
    crash_note_fn write_;
    const void* subject_;
    const crash_note* outer_;
};

// A note of the process, for the rest of its life; at most 8, false when there are as many.
bool crash_note_of_process(crash_note_fn write, const void* subject);

// The assertion that is about to abort the process. The texts are literals.
void crash_log_assertion(const char* expression, const char* function, const char* file, int line) noexcept;

// "0x" and the digits, for notes.
void crash_append_hex(string_builder* out, uint64_t value);
inline void crash_append_pointer(string_builder* out, const void* pointer) {
    crash_append_hex(out, reinterpret_cast<uintptr_t>(pointer));
}

}  // namespace veldar
