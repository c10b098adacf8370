#include "tools/python/handle.h"

#include <atomic>
#include <chrono>
#include <new>
#include <stdexcept>

namespace veldar::python {

namespace {

constexpr std::chrono::milliseconds SIGNALS_EVERY{50};

std::atomic<bool> is_ending = false;
uint64_t calls = 0;  // under way; used with the GIL
thread_local std::unique_ptr<std::vector<std::string>> kept;

py::object python_name(const char* module, const char* name) {
    return py::module_::import(module).attr(name);
}

// Runs what calls Python from inside the library. What it raises waits for the end of the call, which comes soon.
template <typename F>
void ask_python(handle* of, F ask) noexcept {
    if (is_ending) return;
    const py::gil_scoped_acquire held;
    if (of->raised != nullptr) return;
    try {
        ask();
    } catch (py::error_already_set& error) {
        of->raised = std::make_unique<py::error_already_set>(error);
    } catch (const std::exception& error) {
        PyErr_SetString(PyExc_RuntimeError, error.what());
        of->raised = std::make_unique<py::error_already_set>();
    }
}

void tell(void* context, veldar_message_kind kind, const char* text) {
    ask_python(static_cast<handle*>(context), [&] {
        const py::object logger = python_name("logging", "getLogger")("veldar");
        logger.attr(kind == VELDAR_TROUBLE ? "warning" : "info")("%s", text_from(text));
    });
}

void show(void* context, const veldar_progress* now) {
    auto* const of = static_cast<handle*>(context);
    if (of->progress == nullptr) return;
    ask_python(of, [&] {
        py::handle(of->progress)(python_name("veldar._records", "Progress")(now->is_merge != 0, now->done, now->total,
                                                                            now->events, now->seconds));
    });
}

int stops(void* context) {
    auto* const of = static_cast<handle*>(context);
    ask_python(of, [] {
        if (PyErr_CheckSignals() != 0) throw py::error_already_set();
    });
    if (is_ending) return 1;
    const py::gil_scoped_acquire held;
    return of->raised != nullptr ? 1 : 0;
}

const char* class_of(veldar_status status) {
    switch (status) {
        case VELDAR_USAGE:
            return "UsageError";
        case VELDAR_INCOMPLETE:
            return "IncompleteWarning";
        case VELDAR_DAMAGED:
            return "DamagedError";
        case VELDAR_IO:
            return "StorageError";
        default:
            return "Error";
    }
}

// The Python object that has what the record says.
py::object object_of(const veldar_error& error) {
    const py::object line = error.line == 0 ? py::object(py::none()) : py::int_(error.line);
    const py::object offset = error.offset == UINT64_MAX ? py::object(py::none()) : py::int_(error.offset);
    return python_name("veldar._records", class_of(error.status))(text_from(error.message),
                                                                  static_cast<int>(error.status), text_from(error.file),
                                                                  line, offset, text_from(error.next_step));
}

[[noreturn]] void raise(const veldar_error& error) {
    const py::object made = object_of(error);
    PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(made.ptr())), made.ptr());
    throw py::error_already_set();
}

}  // namespace

py::str text_from(const char* data, size_t size) {
    auto text =
        py::reinterpret_steal<py::str>(PyUnicode_DecodeUTF8(data, static_cast<Py_ssize_t>(size), "surrogateescape"));
    if (!text) throw py::error_already_set();
    return text;
}

py::str text_from(const std::string& text) {
    return text_from(text.data(), text.size());
}

void raise_last_error() {
    const veldar_error& error = *veldar_last_error();
    if (error.status == VELDAR_NO_MEMORY) throw std::bad_alloc();
    if (error.status == VELDAR_INTERRUPTED) {
        PyErr_SetNone(PyExc_KeyboardInterrupt);
        throw py::error_already_set();
    }
    raise(error);
}

void raise_usage(const char* message) {
    raise({sizeof(veldar_error), VELDAR_USAGE, message, "", 0, UINT64_MAX, ""});
}

void require(veldar_status status) {
    if (status <= VELDAR_END) return;
    if (status != VELDAR_INCOMPLETE) raise_last_error();
    if (kept != nullptr) return kept->push_back(veldar_last_error()->message);
    // Above the package's own function stands the caller.
    python_name("warnings", "warn")(object_of(*veldar_last_error()), py::arg("stacklevel") = 2);
}

void keep_lacks() {
    kept = std::make_unique<std::vector<std::string>>();
}

py::list kept_lacks() {
    const std::unique_ptr<std::vector<std::string>> lacks = std::move(kept);
    py::list texts;
    for (size_t i = 0; lacks != nullptr && i < lacks->size(); i++) texts.append(text_from((*lacks)[i]));
    return texts;
}

handle::~handle() {
    veldar_close(store);
    if (writer != nullptr) static_cast<void>(veldar_writer_close(writer));
}

veldar_observer observer_of(handle* of) {
    return {.size = sizeof(veldar_observer), .context = of, .message = tell, .progress = show, .stop = stops};
}

void close_events(handle* on, veldar_events* events) {
    const std::lock_guard lock(on->mutex);
    if (!on->is_busy) return veldar_events_close(events);
    try {
        on->orphans.push_back(events);
    } catch (const std::bad_alloc&) {  // memory is short: what they hold stays held
    }
}

under_way::under_way() {
    if (is_ending) throw std::runtime_error("the interpreter is ending");
    calls++;
}

under_way::~under_way() {
    calls--;
}

void end_calls() {
    is_ending = true;
    while (calls > 0) {
        const py::gil_scoped_release released;
        std::this_thread::sleep_for(SIGNALS_EVERY / 10);
    }
}

turn::turn(handle* on) : on_(on) {
    const std::thread::id me = std::this_thread::get_id();
    for (;;) {
        bool is_mine = false;
        {
            const std::lock_guard lock(on->mutex);
            is_mine = on->is_busy && on->user == me;
            if (!on->is_busy) {
                on->is_busy = true;
                on->user = me;
                return;
            }
        }
        if (is_mine) raise_usage("a store cannot be used by what it calls while it works: a progress, a log handler");
        {
            const py::gil_scoped_release released;
            std::unique_lock lock(on->mutex);
            on->freed.wait_for(lock, SIGNALS_EVERY, [&] { return !on->is_busy; });
        }
        if (PyErr_CheckSignals() != 0) throw py::error_already_set();
    }
}

turn::~turn() {
    std::unique_lock lock(on_->mutex);
    while (!on_->orphans.empty()) {
        veldar_events_close(on_->orphans.back());
        on_->orphans.pop_back();
    }
    on_->is_busy = false;
    on_->freed.notify_one();
}

}  // namespace veldar::python
