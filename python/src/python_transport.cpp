// The OCP transport interface from Python: C++ transports (SimBus, ...) are
// usable from Python, and Python classes deriving from OCP drive actuators.
#include <pybind11/functional.h>
#include <pybind11/stl.h>

#include <memory>
#include <mutex>
#include <map>
#include <string>
#include <vector>

#include "bindings.hpp"
#include "callbacks.hpp"
#include "ocp_api/callback_registry.hpp"

namespace ocp_api::python {
namespace {

std::vector<uint8_t> bytes_of(const py::handle& data) {
    // bytes, bytearray, memoryview or a sequence of ints, as bytes() takes them
    const auto as_bytes = py::reinterpret_steal<py::object>(PyObject_Bytes(data.ptr()));
    if (!as_bytes) throw py::error_already_set();
    char* buffer = nullptr;
    Py_ssize_t length = 0;
    PyBytes_AsStringAndSize(as_bytes.ptr(), &buffer, &length);
    return std::vector<uint8_t>(buffer, buffer + length);
}

py::bytes to_bytes(const std::vector<uint8_t>& bytes) {
    return py::bytes(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

// What a Python transport receives in setCallback(): calling it delivers one
// reply buffer to the actuator registered for the address. The GIL is released
// during the delivery, so the actuator's own callbacks may take it on any thread.
class ReceiveCallback {
public:
    ReceiveCallback(std::shared_ptr<CallbackRegistry> registry, int address)
        : registry_(std::move(registry)), address_(address) {}

    bool operator()(int address, const py::handle& data, int kind) const {
        auto bytes = bytes_of(data);
        py::gil_scoped_release release;
        return registry_->dispatch(address, std::move(bytes), kind);
    }

    int address() const { return address_; }

private:
    std::shared_ptr<CallbackRegistry> registry_;
    int address_;
};

// A transport written in Python. Its methods are looked up on the Python
// object; the callbacks it is given go through a registry here, so the promise
// that a removed callback is never called again holds whatever the Python
// code does with the callable it kept.
class PythonTransport : public OCP {
public:
    bool send(int address, const std::vector<uint8_t>& frame) override {
        if (interpreter_finalizing()) return false;
        py::gil_scoped_acquire gil;
        try {
            const py::function method = override_of("send");
            return method && py::bool_(method(address, to_bytes(frame)));
        } catch (py::error_already_set& error) {
            report_unraisable(error, "ocp_api.OCP.send");
        }
        return false;
    }

    void setCallback(int address, ReceiveCallback callback) override {
        registry_->set(address, std::move(callback));
        if (interpreter_finalizing()) return;
        py::gil_scoped_acquire gil;
        call_python("setCallback", address, py::cast(python::ReceiveCallback(registry_, address)));
    }

    void removeCallback(int address) override {
        without_gil([&] { registry_->remove(address); });
        call_python("removeCallback", address);
    }

    void close() override { call_python("close"); }

private:
    py::function override_of(const char* name) const {
        py::function method = py::get_override(static_cast<const OCP*>(this), name);
        if (!method) {
            PyErr_SetString(PyExc_NotImplementedError,
                            (std::string("OCP subclass does not implement ") + name + "()").c_str());
            throw py::error_already_set();
        }
        return method;
    }

    // Calls the Python method `name`; takes the GIL when the caller does not hold it.
    template <class... Args>
    void call_python(const char* name, Args&&... args) const {
        const std::string where = std::string("ocp_api.OCP.") + name;
        with_gil_reporting_errors(where.c_str(), [&] { override_of(name)(std::forward<Args>(args)...); });
    }

    const std::shared_ptr<CallbackRegistry> registry_ = std::make_shared<CallbackRegistry>();
};

// A Python callable registered on a C++ transport: called with (address,
// bytes, kind) on the transport's receive thread.
OCP::ReceiveCallback wrap_receive_callback(py::object callable) {
    if (callable.is_none()) return nullptr;
    auto shared = share_object(std::move(callable));
    return [shared](int address, std::vector<uint8_t> bytes, int kind) {
        with_gil_reporting_errors("ocp_api receive callback", [&] { (*shared)(address, to_bytes(bytes), kind); });
    };
}

std::mutex live_transports_mutex;
std::map<const void*, std::function<void()>> live_transports;

void close_live_transports() {
    py::gil_scoped_release release;
    std::lock_guard<std::mutex> lock(live_transports_mutex);
    for (const auto& entry : live_transports) entry.second();
}

}  // namespace

void track_transport(const void* key, std::function<void()> close) {
    std::lock_guard<std::mutex> lock(live_transports_mutex);
    live_transports[key] = std::move(close);
}

void untrack_transport(const void* key) {
    std::lock_guard<std::mutex> lock(live_transports_mutex);
    live_transports.erase(key);
}

void bind_transport(py::module_& module) {
    py::class_<python::ReceiveCallback>(module, "ReceiveCallback", R"doc(
Delivers reply buffers to the actuator registered for an address.

A transport written in Python receives one in ``setCallback(address, callback)``
and calls ``callback(address, data, kind)`` for every reply buffer from that
address: ``data`` is bytes-like, ``kind`` is 0 for streamed feedback and
non-zero for the answer to a one-shot item request. Returns whether a callback
was registered for the address. Safe from any thread; after
``removeCallback(address)`` calls do nothing.)doc")
        .def("__call__", &python::ReceiveCallback::operator(), py::arg("address"), py::arg("data"),
             py::arg("kind") = 0)
        .def_property_readonly("address", &python::ReceiveCallback::address,
                               "The address this callback was registered for.");

    py::class_<OCP, PythonTransport, Holder<OCP>>(module, "OCP", R"doc(
The transport to the CAN bus that actuators send through.

Derive from it in Python to bring your own adapter: implement
``send(address, frame) -> bool`` (``frame`` is bytes), ``setCallback(address,
callback)``, ``removeCallback(address)`` and ``close()``, and call
``super().__init__()``. Call the stored callback as ``callback(address, data,
kind)`` from your receive thread. An actuator keeps its transport alive while
it lives. Exceptions raised by these methods are reported through
``sys.unraisablehook``; a failed ``send`` counts as not sent.)doc")
        .def(py::init<>())
        .def(
            "send",
            [](OCP& self, int address, const py::handle& frame) {
                auto bytes = bytes_of(frame);
                return without_gil([&] { return self.send(address, bytes); });
            },
            py::arg("address"), py::arg("frame"),
            "Hands ``frame`` (bytes-like) to the bus for the device at ``address``; True when handed over.")
        .def(
            "setCallback",
            [](OCP& self, int address, py::object callback) {
                auto wrapped = wrap_receive_callback(std::move(callback));
                without_gil([&] { self.setCallback(address, std::move(wrapped)); });
            },
            py::arg("address"), py::arg("callback"),
            "Registers ``callback(address, data: bytes, kind: int)`` for replies from ``address``;\n"
            "it runs on the transport's receive thread. Replaces an earlier one.")
        .def(
            "removeCallback", [](OCP& self, int address) { without_gil([&] { self.removeCallback(address); }); },
            py::arg("address"),
            "Removes the callback of ``address``; once this returns it is never called again.")
        .def(
            "close", [](OCP& self) { without_gil([&] { self.close(); }); }, "Closes the transport.")
        .def("__enter__", [](const py::object& self) { return self; })
        .def(
            "__exit__",
            [](OCP& self, const py::object&, const py::object&, const py::object&) {
                without_gil([&] { self.close(); });
                return false;
            },
            "Closes the transport at the end of a ``with`` block.");

    module.def("_close_live_transports", &close_live_transports,
               "Closes every transport with a receive thread; run at interpreter exit.");
    py::module_::import("atexit").attr("register")(module.attr("_close_live_transports"));
}

}  // namespace ocp_api::python
