// SocketCanBus and open_bus: the library's own transports by name.
#include <pybind11/stl.h>

#include <system_error>

#include "bindings.hpp"
#include "ocp_api/bus_factory.hpp"
#include "ocp_api/socketcan_bus.hpp"

namespace ocp_api::python {
namespace {

// Registers a transport with a receive thread so it is closed at exit; the
// holder's deleter takes it off the list again.
template <class Transport>
Holder<Transport> tracked(std::unique_ptr<Transport> transport) {
    Transport* raw = transport.release();
    track_transport(raw, [raw] { raw->close(); });
    return Holder<Transport>(raw);
}

}  // namespace

void bind_socketcan(py::module_& module) {
    // An interface that is missing, down or not CAN is an OSError with its errno.
    py::register_exception_translator([](std::exception_ptr thrown) {
        try {
            if (thrown) std::rethrow_exception(thrown);
        } catch (const std::system_error& error) {
            const py::object os_error = py::reinterpret_borrow<py::object>(PyExc_OSError)(
                error.code().value(), error.what());
            PyErr_SetObject(PyExc_OSError, os_error.ptr());
        }
    });

    py::class_<SocketCanBus, OCP, Holder<SocketCanBus>>(module, "SocketCanBus", R"doc(
The transport on a Linux SocketCAN interface (CAN mapping with segmentation,
one receive thread; the adapter at address 0 is the transport itself).

Bring the interface up first, e.g. ``ip link set can0 up type can bitrate
1000000``. Raises OSError naming the interface when it is missing, down, not a
CAN interface or cannot carry CAN-FD when ``fd`` is asked; ValueError for an
invalid ``fd_data_length``.)doc")
        .def(py::init([](const std::string& interface, bool fd, int fd_data_length) {
                 SocketCanBusOptions options;
                 options.fd = fd;
                 if (fd_data_length < 0 || fd_data_length > 64) throw py::value_error("fd_data_length must be 8..64");
                 options.fd_data_length = static_cast<uint8_t>(fd_data_length);
                 return tracked(std::make_unique<SocketCanBus>(interface, options));
             }),
             py::arg("interface"), py::arg("fd") = false, py::arg("fd_data_length") = 64,
             py::call_guard<py::gil_scoped_release>())
        .def_property_readonly("interface_name", &SocketCanBus::interface_name)
        .def("counters", &SocketCanBus::counters, py::call_guard<py::gil_scoped_release>())
        .def_property_readonly("fd", &SocketCanBus::fd);

    module.def(
        "open_bus", [](const std::string& bus) { return tracked(open_bus(bus)); }, py::arg("bus"),
        py::call_guard<py::gil_scoped_release>(), R"doc(
Opens the bus ``bus`` names: "sim" (emulated actuators at 0x21, 0x22, 0x23),
"sim:0x21,0x40", "socketcan:can0", "socketcan:can0,fd", "socketcan:can0,fd,dlen=16".
ValueError for an unknown scheme or a malformed argument; OSError when the
interface cannot be opened.)doc");

    module.def(
        "bus_schemes",
        [] {
            std::vector<std::tuple<std::string, std::string, std::string>> schemes;
            for (const auto& scheme : bus_schemes()) schemes.emplace_back(scheme.name, scheme.usage, scheme.description);
            return schemes;
        },
        "Every scheme open_bus() knows, as (name, usage, description).");
}

}  // namespace ocp_api::python
