// Who hears what the library says while it works, sees how far it is, and may end the work early.
//
// A face sets an observer for the thread that calls it; threads that the work begins ask it only whether to end. Without
// one nothing is heard and the work goes on to its end, unless the process has been interrupted (disk_file.h).
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace veldar::tool {

enum notice_t {
    NOTICE_TROUBLE,  // what kept the work from being complete, or what is worth knowing of it
    NOTICE_SUMMARY,  // what was done
};

struct work_progress {
    enum kind_t { LOADING, MERGING };
    kind_t kind = LOADING;
    uint64_t done = 0;    // bytes
    uint64_t total = 0;   // bytes; 0: unknown
    uint64_t events = 0;  // loaded so far
    double seconds = 0;   // since the beginning
};

// Each may be null, and none may throw. All but `stops` are called by the thread that set the observer.
struct observer {
    void* context = nullptr;
    void (*say)(void* context, notice_t kind, const std::string& message) = nullptr;
    void (*show)(void* context, const work_progress& progress) = nullptr;  // at most ten times a second
    void (*shown_all)(void* context) = nullptr;                            // what `show` has shown is over
    bool (*stops)(void* context) = nullptr;                                // asked often, by any thread of the work
    bool has_options = false;                                              // inputs are options of a command line
};

// The observer of this thread; null: there is none. It is borrowed.
const observer* observer_current();
// For threads that the work begins: all that this one's observer is asked there.
observer observer_of_threads();
// Sets it for a time, and what was set before again.
class observer_scope {
  public:
    explicit observer_scope(const observer* now);
    ~observer_scope();
    observer_scope(const observer_scope&) = delete;
    observer_scope& operator=(const observer_scope&) = delete;

  private:
    const observer* before_;
};

void say_trouble(const std::string& message);
void say_summary(const std::string& message);
// What this thread's observer calls an input, for messages; given by the name of the option: "--time-format" on a command
// line, else "time_format", which is its name in veldar.h.
std::string input_name(std::string_view option);
// Whether the work is to end: by the observer, or because the process was interrupted.
bool work_stops();

}  // namespace veldar::tool
