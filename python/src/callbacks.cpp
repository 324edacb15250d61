#include "callbacks.hpp"

namespace ocp_api::python {

bool interpreter_finalizing() {
#if PY_VERSION_HEX >= 0x030D0000
    return !Py_IsInitialized() || Py_IsFinalizing();
#else
    return !Py_IsInitialized() || _Py_IsFinalizing();
#endif
}

SharedObject share_object(py::object object) {
    return SharedObject(new py::object(std::move(object)), [](const py::object* held) {
        auto* owned = const_cast<py::object*>(held);
        if (interpreter_finalizing()) {
            owned->release();  // too late to touch the object; the process is ending
            delete owned;
            return;
        }
        py::gil_scoped_acquire gil;
        delete owned;
    });
}

void report_unraisable(py::error_already_set& error, const char* where) {
    error.discard_as_unraisable(where);
}

void report_unraisable(const std::exception& error, const char* where) {
    PyErr_SetString(PyExc_RuntimeError, error.what());
    PyErr_WriteUnraisable(py::str(where).ptr());
}

}  // namespace ocp_api::python
