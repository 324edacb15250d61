// Python callables called from C++ threads: the GIL, exceptions and lifetime.
#pragma once

#include <pybind11/pybind11.h>

#include <memory>
#include <utility>

namespace ocp_api::python {

namespace py = pybind11;

// True once the interpreter is shutting down: no thread may take the GIL then.
bool interpreter_finalizing();

// A Python object that may be released on any thread: the last owner takes
// the GIL to drop the reference (or leaks it when the interpreter is already
// gone, since nothing can be released then).
using SharedObject = std::shared_ptr<const py::object>;
SharedObject share_object(py::object object);

// Reports the Python exception now set through sys.unraisablehook, as Python
// does for exceptions it cannot raise to anyone (the receive thread has no
// caller to raise to). `where` says which callback failed.
void report_unraisable(py::error_already_set& error, const char* where);
void report_unraisable(const std::exception& error, const char* where);

// Runs `body` from any thread with the GIL taken, and reports an exception
// instead of letting it reach the caller's thread (a transport's receive
// thread has nobody to raise to). Does nothing once the interpreter is
// shutting down.
template <class Body>
void with_gil_reporting_errors(const char* where, Body&& body) {
    if (interpreter_finalizing()) return;
    py::gil_scoped_acquire gil;
    try {
        body();
    } catch (py::error_already_set& error) {
        report_unraisable(error, where);
    } catch (const std::exception& error) {
        report_unraisable(error, where);
    }
}

// Calls `callable(args...)` the same way.
template <class... Args>
void call_reporting_errors(const SharedObject& callable, const char* where, Args&&... args) {
    with_gil_reporting_errors(where, [&] { (*callable)(std::forward<Args>(args)...); });
}

// Runs `body` with the GIL released when this thread holds it, so C++ code
// that waits for another thread never waits on a thread that wants the GIL.
template <class Body>
decltype(auto) without_gil(Body&& body) {
    if (PyGILState_Check()) {
        py::gil_scoped_release release;
        return body();
    }
    return body();
}

// Takes an object off the list of those closed at interpreter exit.
void untrack_transport(const void* key);

// Holder deleter for objects whose destructor waits for other threads (the
// receive thread of a transport, a callback in flight): the GIL is released
// while they are destroyed, and they leave the list of objects closed at exit.
struct DeleteWithoutGil {
    template <class T>
    void operator()(T* object) const {
        untrack_transport(object);
        without_gil([object] { delete object; });
    }
};

template <class T>
using Holder = std::unique_ptr<T, DeleteWithoutGil>;

}  // namespace ocp_api::python
