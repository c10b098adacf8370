// How the module calls libveldar: without the GIL, one thread at a time on a handle, and with whatever Python raises
// meanwhile (a signal's handler, a progress function, a logger) ending the call.
#pragma once

#include <pybind11/pybind11.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tools/libveldar/face/veldar.h"

namespace veldar::python {

namespace py = pybind11;

// A text of the library; bytes that are no UTF-8 become surrogates (PEP 383).
py::str text_from(const char* data, size_t size);
py::str text_from(const std::string& text);

// Raises veldar.Error or what else stands for the calling thread's last error.
[[noreturn]] void raise_last_error();
[[noreturn]] void raise_usage(const char* message);
// Raises it unless the call succeeded; VELDAR_INCOMPLETE is a warning.
void require(veldar_status status);
// From here on this thread's calls keep what they lack instead of warning; and an end to it, with what was kept.
void keep_lacks();
py::list kept_lacks();

// A store or a writer of the library, with who uses it.
struct handle {
    handle() = default;
    handle(const handle&) = delete;
    handle& operator=(const handle&) = delete;
    ~handle();

    veldar_store* store = nullptr;
    veldar_writer* writer = nullptr;

    std::mutex mutex;  // of what follows up to `orphans`; held for moments, never while Python or a question runs
    std::condition_variable freed;
    bool is_busy = false;
    std::thread::id user;
    std::vector<veldar_events*> orphans;  // of which Python let go while the handle was busy

    // Of the call under way; used with the GIL.
    PyObject* progress = nullptr;
    std::unique_ptr<py::error_already_set> raised;
};

// Tells logging and `progress`, asks for signals. The context is a handle.
veldar_observer observer_of(handle* of);

// Closes events as soon as nobody uses the handle.
void close_events(handle* on, veldar_events* events);

// Waits for its turn on a handle, with the GIL held before and after.
class turn {
  public:
    explicit turn(handle* on);
    ~turn();
    turn(const turn&) = delete;
    turn& operator=(const turn&) = delete;

  private:
    handle* on_;
};

// A call is under way: the interpreter's end waits for it, and ends it soon. None begins when that has begun.
class under_way {
  public:
    under_way();
    ~under_way();
    under_way(const under_way&) = delete;
    under_way& operator=(const under_way&) = delete;
};
// Ends what other threads have under way, and waits for them; with the GIL held. For the interpreter's end, after which
// no thread of its may come back to it.
void end_calls();

// The status of `work()`, which calls the library.
template <typename F>
veldar_status call(handle* on, const py::object& progress, F work) {
    const under_way counted;
    const turn mine(on);
    on->progress = progress.is_none() ? nullptr : progress.ptr();
    veldar_status status = VELDAR_OK;
    {
        const py::gil_scoped_release released;
        status = work();
    }
    on->progress = nullptr;
    if (on->raised != nullptr) {
        const std::unique_ptr<py::error_already_set> raised = std::move(on->raised);
        throw py::error_already_set(*raised);
    }
    return status;
}
template <typename F>
veldar_status call(handle* on, F work) {
    return call(on, py::none(), work);
}

}  // namespace veldar::python
