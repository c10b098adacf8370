#include "libzero/create-crash-dump.h"

#include <execinfo.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>

#include "libzero/assertions.h"
#include "libzero/osfile.h"

namespace veldar {

volatile sig_atomic_t crash_waiting = 0;

namespace {

constexpr int SIGNALS[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT};
constexpr const char* SIGNAL_NAMES[] = {"SIGSEGV", "SIGBUS", "SIGILL", "SIGFPE", "SIGABRT"};
static_assert(std::size(SIGNALS) == std::size(SIGNAL_NAMES));
constexpr size_t STACK_SIZE = 128 << 10;
constexpr unsigned LONGEST_SECONDS = 30;  // for the whole log
constexpr int MAX_FRAMES = 128;
constexpr size_t MAX_PROCESS_NOTES = 8;

// What a note was told; a thread's innermost note is the head of its list.
[[gnu::tls_model("initial-exec")]] constinit thread_local const crash_note* innermost_note = nullptr;

struct process_note {
    crash_note_fn write;
    const void* subject;
};

// The parts of the log, in order; a part is begun before it is run, so that one that crashes is not run again.
enum part_t { PART_HEADER, PART_FRAMES, PART_THREAD_NOTES, PART_PROCESS_NOTES, PART_NAMES, PART_MAP, PART_END };

// Everything that the handler uses. It is prepared by the installation, and one thread alone crashes.
struct crash_state {
    bool installed = false;
    struct sigaction before[std::size(SIGNALS)];
    stack_t stack_before;
    ospath_buf path_prefix;  // up to the time
    utsname system;
    const char* program = "";
    bool wait = false;

    process_note notes[MAX_PROCESS_NOTES];
    std::atomic<size_t> note_count{0};
    const char *expression = nullptr, *function = nullptr, *file = nullptr;
    int line = 0;

    std::atomic<pid_t> thread{0};  // that has crashed
    int signal = 0;
    const siginfo_t* info = nullptr;
    int log = -1;
    int next_part = PART_HEADER;
    const crash_note* next_thread_note = nullptr;
    size_t next_process_note = 0;
    void* frames[MAX_FRAMES];
    int frame_count = 0;
    char text[16 << 10];
};
crash_state state;
alignas(16) char handler_stack[STACK_SIZE];
static_assert(std::atomic<pid_t>::is_always_lock_free && std::atomic<size_t>::is_always_lock_free,
              "a handler may wait for no lock");

void write_all(const char* bytes, size_t size) {
    while (size > 0) {
        const ssize_t written = os_retry([&] { return ::write(state.log, bytes, size); });
        if (written <= 0) return;
        bytes += written;
        size -= static_cast<size_t>(written);
    }
}

// Builds a text in the state's buffer and writes what of it fitted.
template <typename Build>
void write_text(Build build) {
    string_builder out;
    string_builder_start(&out, state.text, sizeof state.text);
    build(&out);
    write_all(state.text, static_cast<size_t>(out.out - state.text));
}

void append_number(string_builder* out, const char* name, int64_t value) {
    string_builder_appendz(out, name);
    string_builder_append_decimal_i64(out, value);
}

const char* signal_name(int number) {
    for (size_t i = 0; i < std::size(SIGNALS); i++) {
        if (SIGNALS[i] == number) return SIGNAL_NAMES[i];
    }
    return "?";
}

void append_system(string_builder* out) {
    for (const char* text : {state.system.sysname, state.system.release, state.system.machine}) {
        string_builder_append1(out, ' ');
        string_builder_appendz(out, text);
    }
}

void append_assertion(string_builder* out) {
    if (state.expression == nullptr) return;
    for (const char* text : {"\nassertion ", state.expression, " in ", state.function, " at ", state.file}) {
        string_builder_appendz(out, text);
    }
    append_number(out, ":", state.line);
}

void write_header() {
    write_text([](string_builder* out) {
        string_builder_appendz(out, "crash log of ");
        string_builder_appendz(out, state.program);
        append_number(out, "\nprocess ", ::getpid());
        append_number(out, " thread ", state.thread);
        append_number(out, "\ntime ", std::time(nullptr));
        string_builder_appendz(out, "\nsystem");
        append_system(out);
        append_number(out, "\nsignal ", state.signal);
        string_builder_append1(out, ' ');
        string_builder_appendz(out, signal_name(state.signal));
        append_number(out, " code ", state.info->si_code);
        string_builder_appendz(out, " address ");
        crash_append_pointer(out, state.info->si_addr);
        append_assertion(out);
        string_builder_append1(out, '\n');
    });
}

void write_frames() {
    state.frame_count = ::backtrace(state.frames, MAX_FRAMES);
    write_text([](string_builder* out) {
        string_builder_appendz(out, "\nframes, the innermost first:\n");
        for (int i = 0; i < state.frame_count; i++) {
            crash_append_pointer(out, state.frames[i]);
            string_builder_append1(out, '\n');
        }
    });
}

// One note at a time, each of them begun before it is written.
void write_thread_note() {
    const crash_note* const note = state.next_thread_note;
    if (note == nullptr) return;
    state.next_thread_note = note->outer();
    state.next_part = PART_THREAD_NOTES;
    write_text([](string_builder* out) { string_builder_appendz(out, "\nnote of the thread:\n"); });
    write_text([note](string_builder* out) { note->write()(out, note->subject()); });
}

void write_process_note() {
    if (state.next_process_note == state.note_count) return;
    const process_note& note = state.notes[state.next_process_note++];
    state.next_part = PART_PROCESS_NOTES;
    write_text([](string_builder* out) { string_builder_appendz(out, "\nnote of the process:\n"); });
    write_text([&note](string_builder* out) { note.write(out, note.subject); });
}

void write_names() {
    write_text([](string_builder* out) { string_builder_appendz(out, "\nframes by name:\n"); });
    ::backtrace_symbols_fd(state.frames, state.frame_count, state.log);
}

void write_map() {
    write_text([](string_builder* out) { string_builder_appendz(out, "\nmemory map:\n"); });
    const int map = ::open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
    ssize_t size = 0;
    while (map >= 0 && (size = ::read(map, state.text, sizeof state.text)) > 0) {
        write_all(state.text, static_cast<size_t>(size));
    }
    if (map >= 0) ::close(map);
}

void write_parts() {
    using part_fn = void (*)();
    constexpr part_fn PARTS[] = {write_header,       write_frames, write_thread_note,
                                 write_process_note, write_names,  write_map};
    static_assert(std::size(PARTS) == PART_END);
    while (state.next_part < PART_END) PARTS[state.next_part++]();
}

// Standard error when there can be no file.
void open_log() {
    ospath_builder name;
    ospath_builder_start(&name);
    ospath_builder_appendz(&name, state.path_prefix.val);
    ospath_builder_append_decimal_u64(&name, static_cast<uint64_t>(std::time(nullptr)));
    ospath_builder_append1(&name, '-');
    ospath_builder_append_decimal_u64(&name, static_cast<uint64_t>(::getpid()));
    ospath_builder_appendz(&name, ".log");
    state.log =
        ospath_builder_finish(&name) == 0 ? ::open(name.buf.val, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600) : -1;
    if (state.log < 0) state.log = STDERR_FILENO;
}

void wait_for_debugger() {
    state.log = STDERR_FILENO;
    write_text([](string_builder* out) {
        append_number(out, "crashed; process ", ::getpid());
        string_builder_appendz(out, " waits for a debugger to set veldar::crash_waiting to 0\n");
    });
    for (crash_waiting = 1; crash_waiting != 0;) ::sleep(1);
}

void on_crash(int number, siginfo_t* info, void*) {
    const pid_t self = static_cast<pid_t>(::syscall(SYS_gettid));
    pid_t nobody = 0;
    if (state.thread.compare_exchange_strong(nobody, self)) {
        state.signal = number;
        state.info = info;
        state.next_thread_note = innermost_note;
        ::signal(SIGALRM, SIG_DFL);
        ::alarm(LONGEST_SECONDS);
        open_log();
    } else if (nobody == self) {
        write_text([number](string_builder* out) { append_number(out, "\n(this part crashed, signal ", number); });
        write_text([](string_builder* out) { string_builder_appendz(out, ")\n"); });
    } else {
        for (;;) ::pause();  // another thread's crash ends the process
    }
    write_parts();
    ::alarm(0);
    if (state.wait) wait_for_debugger();
    ::signal(state.signal, SIG_DFL);
    ::raise(state.signal);
}

// The first backtrace of a process loads a library, which no handler may do.
void warm_up() {
    void* frame[1];
    ::backtrace(frame, 1);
}

}  // namespace

int create_crash_dump_install(const char* program, const char* directory) {
    ospath_builder prefix;
    ospath_builder_start(&prefix);
    for (const char* text : {directory, "/", program, "-crash-"}) ospath_builder_appendz(&prefix, text);
    if (ospath_builder_finish(&prefix) != 0) return -1;
    create_crash_dump_remove();
    state.path_prefix = prefix.buf;
    state.program = program;
    ::uname(&state.system);
    warm_up();
    stack_t stack = {};
    stack.ss_sp = handler_stack;
    stack.ss_size = STACK_SIZE;
    ::sigaltstack(&stack, &state.stack_before);
    struct sigaction action = {};
    action.sa_sigaction = on_crash;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
    for (size_t i = 0; i < std::size(SIGNALS); i++) ::sigaction(SIGNALS[i], &action, &state.before[i]);
    state.installed = true;
    return 0;
}

int create_crash_dump_install_from_environment(const char* program) {
    const char* const home = std::getenv("VELDAR_HOME");
    if (home == nullptr || *home == '\0') return 0;
    const char* const wait = std::getenv("VELDAR_WAIT_ON_CRASH");
    state.wait = wait != nullptr && *wait != '\0';
    return create_crash_dump_install(program, home);
}

void create_crash_dump_remove() {
    if (!state.installed) return;
    for (size_t i = 0; i < std::size(SIGNALS); i++) ::sigaction(SIGNALS[i], &state.before[i], nullptr);
    ::sigaltstack(&state.stack_before, nullptr);
    state.installed = false;
}

crash_note::crash_note(crash_note_fn writer, const void* subject)
    : write_(writer), subject_(subject), outer_(innermost_note) {
    std::atomic_signal_fence(std::memory_order_release);  // whole before the handler can see it
    innermost_note = this;
}

crash_note::~crash_note() {
    ST_ASSERT(innermost_note == this);  // notes end in the thread and in the reverse of the order in which they began
    innermost_note = outer_;
    std::atomic_signal_fence(std::memory_order_release);
}

bool crash_note_of_process(crash_note_fn write, const void* subject) {
    const size_t count = state.note_count;
    if (count == MAX_PROCESS_NOTES) return false;
    state.notes[count] = {write, subject};
    state.note_count = count + 1;
    return true;
}

void crash_log_assertion(const char* expression, const char* function, const char* file, int line) noexcept {
    state.function = function;
    state.file = file;
    state.line = line;
    state.expression = expression;
}

void crash_append_hex(string_builder* out, uint64_t value) {
    string_builder_appendz(out, "0x");
    int digits = 1;
    while (digits < 16 && value >> (4 * digits) != 0) digits++;
    while (digits-- > 0) string_builder_append1(out, "0123456789abcdef"[value >> (4 * digits) & 15]);
}

}  // namespace veldar
