// The python-can bridge: any python-can Bus as a CanLink, under the library's
// own CAN mapping and segmentation (CanBus on the host side, CanDeviceHost for
// emulated devices). Every adapter python-can supports can drive actuators.
#include <pybind11/stl.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include "bindings.hpp"
#include "ocp_api/can_bus.hpp"
#include "ocp_api/can_device_host.hpp"
#include "ocp_api/emulated_actuator.hpp"

namespace ocp_api::python {
namespace {

// How long one bus.recv() may block: wake() is noticed within this, since a
// python-can receive cannot be interrupted from another thread.
constexpr std::chrono::milliseconds RECEIVE_SLICE{2};

// A CanLink over a python-can Bus. Each call into python-can takes the GIL;
// nothing else does.
class PythonCanLink : public CanLink {
public:
    PythonCanLink(py::object bus, bool fd)
        : bus_(share_object(std::move(bus))),
          message_type_(share_object(py::module_::import("can").attr("Message"))),
          operation_error_(share_object(py::module_::import("can").attr("CanOperationError"))),
          fd_(fd) {}

    bool fd() const override { return fd_; }

    SendResult send_frame(const CanFrame& frame) override {
        if (interpreter_finalizing()) return SendResult::failed;
        py::gil_scoped_acquire gil;
        try {
            bus_->attr("send")(to_message(frame));
            return SendResult::sent;
        } catch (py::error_already_set& error) {
            // python-can reports a full transmit queue and a bus that is gone
            // alike; a short retry covers the first, the second fails after it.
            const bool retry = error.matches(*operation_error_);
            return retry ? SendResult::busy : SendResult::failed;
        }
    }

    CanLinkEvent receive(std::chrono::nanoseconds timeout) override {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        for (;;) {
            if (woken_.exchange(false)) return {};
            const auto left = deadline - std::chrono::steady_clock::now();
            if (left <= std::chrono::nanoseconds(0) || interpreter_finalizing()) return {};
            const auto slice = std::min<std::chrono::nanoseconds>(left, RECEIVE_SLICE);
            if (auto event = receive_once(slice)) return *event;
        }
    }

    void wake() override { woken_.store(true); }

private:
    py::object to_message(const CanFrame& frame) const {
        py::dict fields;
        fields["arbitration_id"] = frame.id;
        fields["is_extended_id"] = frame.extended;
        fields["is_fd"] = frame.fd;
        fields["bitrate_switch"] = frame.brs;
        fields["data"] = py::bytes(reinterpret_cast<const char*>(frame.data.data()), frame.len);
        return (*message_type_)(**fields);
    }

    // One bounded bus.recv(): an event to return, or nothing yet.
    std::optional<CanLinkEvent> receive_once(std::chrono::nanoseconds slice) {
        py::gil_scoped_acquire gil;
        if (was_down_) {
            // The bus failed earlier; a receive that works again says it is back.
            if (!recv(std::chrono::nanoseconds(0))) return pause(slice);
            was_down_ = false;
            return state_event(CanLinkState::active);
        }
        const auto message = recv(slice);
        if (!message) {
            // The bus failed (shut down, adapter gone): say so once, then
            // keep polling slowly in case it comes back.
            was_down_ = true;
            return state_event(CanLinkState::down);
        }
        if (message->is_none()) return std::nullopt;
        try {
            return frame_event(*message);
        } catch (const std::exception&) {
            return std::nullopt;  // a message that is no CAN frame: not ours
        }
    }

    // bus.recv(timeout): the message or None, or nothing when it raised.
    std::optional<py::object> recv(std::chrono::nanoseconds timeout) const {
        try {
            return bus_->attr("recv")(std::chrono::duration<double>(timeout).count());
        } catch (py::error_already_set&) {
            return std::nullopt;
        }
    }

    static std::optional<CanLinkEvent> pause(std::chrono::nanoseconds slice) {
        py::gil_scoped_release release;
        std::this_thread::sleep_for(slice);
        return std::nullopt;
    }

    static std::optional<CanLinkEvent> frame_event(const py::object& message) {
        if (message.attr("is_error_frame").cast<bool>() || message.attr("is_remote_frame").cast<bool>()) {
            return std::nullopt;
        }
        // bytearray in python-can's messages; bytes(...) takes any bytes-like
        const auto bytes = py::reinterpret_steal<py::object>(PyObject_Bytes(message.attr("data").ptr()));
        if (!bytes) throw py::error_already_set();
        const std::string data = py::reinterpret_borrow<py::bytes>(bytes);
        if (data.size() > CanFrame::MAX_DATA) return std::nullopt;
        CanLinkEvent event;
        event.type = CanLinkEvent::Type::frame;
        event.frame.id = message.attr("arbitration_id").cast<uint32_t>();
        event.frame.extended = message.attr("is_extended_id").cast<bool>();
        event.frame.fd = message.attr("is_fd").cast<bool>();
        event.frame.brs = message.attr("bitrate_switch").cast<bool>();
        event.frame.len = static_cast<uint8_t>(data.size());
        std::copy(data.begin(), data.end(), event.frame.data.begin());
        return event;
    }

    static CanLinkEvent state_event(CanLinkState state) {
        CanLinkEvent event;
        event.type = CanLinkEvent::Type::state;
        event.state = state;
        return event;
    }

    const SharedObject bus_;
    const SharedObject message_type_;
    const SharedObject operation_error_;
    const bool fd_;
    std::atomic<bool> woken_{false};
    bool was_down_ = false;  // only the receive thread reads and writes it
};

CanBusOptions host_options(bool fd) {
    CanBusOptions options;
    options.isotp.fd = fd;
    return options;
}

CanDeviceHostOptions device_options(bool fd, double time_scale) {
    CanDeviceHostOptions options;
    options.isotp.fd = fd;
    options.time_scale = time_scale;
    return options;
}

// The OCP transport over a python-can Bus; closed at interpreter exit.
class PythonCanTransport : public CanBus {
public:
    PythonCanTransport(py::object bus, bool fd)
        : CanBus(std::make_unique<PythonCanLink>(std::move(bus), fd), host_options(fd)) {
        track_transport(this, [this] { close(); });
    }
    ~PythonCanTransport() override { untrack_transport(this); }
    PythonCanTransport(const PythonCanTransport&) = delete;
    PythonCanTransport& operator=(const PythonCanTransport&) = delete;
};

// Emulated actuators answering on a python-can Bus; closed at interpreter exit.
class PythonCanDeviceHost : public CanDeviceHost {
public:
    PythonCanDeviceHost(py::object bus, bool fd, double time_scale)
        : CanDeviceHost(std::make_unique<PythonCanLink>(std::move(bus), fd), device_options(fd, time_scale)) {
        track_transport(this, [this] { close(); });
    }
    ~PythonCanDeviceHost() override { untrack_transport(this); }
    PythonCanDeviceHost(const PythonCanDeviceHost&) = delete;
    PythonCanDeviceHost& operator=(const PythonCanDeviceHost&) = delete;
};

}  // namespace

void bind_python_can(py::module_& module) {
    using release_gil = py::call_guard<py::gil_scoped_release>;

    py::class_<CanBusCounters>(module, "CanBusCounters", "What a CAN transport has carried so far.")
        .def_readonly("frames_in", &CanBusCounters::frames_in)
        .def_readonly("frames_out", &CanBusCounters::frames_out)
        .def_readonly("messages_in", &CanBusCounters::messages_in)
        .def_readonly("messages_out", &CanBusCounters::messages_out)
        .def_readonly("foreign_frames", &CanBusCounters::foreign_frames)
        .def_readonly("segmentation_errors", &CanBusCounters::segmentation_errors)
        .def_readonly("timeouts", &CanBusCounters::timeouts)
        .def_readonly("drops", &CanBusCounters::drops)
        .def_readonly("link_errors", &CanBusCounters::link_errors)
        .def_readonly("replies_unclaimed", &CanBusCounters::replies_unclaimed)
        .def_readonly("restarts", &CanBusCounters::restarts);

    py::class_<PythonCanTransport, OCP, Holder<PythonCanTransport>>(module, "PythonCanTransport", R"doc(
Actuators through any python-can ``Bus``: the library's CAN identifiers and
segmentation over the frames python-can sends and receives.

``fd=True`` sends CAN-FD frames (the bus must carry them). A receive thread
owned by the transport calls ``bus.recv`` in slices of a few milliseconds and
``bus.send`` for every frame, each with the GIL; callbacks run on that thread.
The transport keeps ``bus`` alive and never shuts it down: close the transport
(or drop it and its actuators) before ``bus.shutdown()``.)doc")
        .def(py::init([](py::object bus, bool fd) { return Holder<PythonCanTransport>(new PythonCanTransport(bus, fd)); }),
             py::arg("bus"), py::arg("fd") = false)
        .def("counters", &PythonCanTransport::counters, release_gil())
        .def_property_readonly("fd", &PythonCanTransport::fd);

    py::class_<CanDeviceHostCounters>(module, "CanDeviceHostCounters", "What a device host has carried so far.")
        .def_readonly("frames_in", &CanDeviceHostCounters::frames_in)
        .def_readonly("frames_out", &CanDeviceHostCounters::frames_out)
        .def_readonly("commands_in", &CanDeviceHostCounters::commands_in)
        .def_readonly("replies_out", &CanDeviceHostCounters::replies_out)
        .def_readonly("foreign_frames", &CanDeviceHostCounters::foreign_frames)
        .def_readonly("segmentation_errors", &CanDeviceHostCounters::segmentation_errors)
        .def_readonly("timeouts", &CanDeviceHostCounters::timeouts)
        .def_readonly("drops", &CanDeviceHostCounters::drops)
        .def_readonly("link_errors", &CanDeviceHostCounters::link_errors);

    py::class_<PythonCanDeviceHost, Holder<PythonCanDeviceHost>>(module, "PythonCanDeviceHost", R"doc(
Emulated actuators answering on a python-can ``Bus``, exactly as devices on a
real bus would (same identifiers, same segmentation): for trying host code on
an adapter or a python-can ``virtual`` channel without actuators.

Its thread runs the devices' physics in step with the wall clock times
``time_scale``.)doc")
        .def(py::init([](py::object bus, bool fd, double time_scale) {
                 return Holder<PythonCanDeviceHost>(new PythonCanDeviceHost(bus, fd, time_scale));
             }),
             py::arg("bus"), py::arg("fd") = false, py::arg("time_scale") = 1.0)
        .def("add_actuator", &PythonCanDeviceHost::add_actuator, py::arg("address"), py::arg("model_code") = 3,
             py::arg("firmware_word") = 0x0842, py::return_value_policy::reference_internal, release_gil(),
             "Adds an emulated actuator; ValueError for a bad or taken address.")
        .def("remove_actuator", &PythonCanDeviceHost::remove_actuator, py::arg("address"), release_gil(),
             "Removes the device at ``address``; earlier references to it must not be used.")
        .def("actuator", &PythonCanDeviceHost::actuator, py::arg("address"),
             py::return_value_policy::reference_internal, release_gil(),
             "The emulated actuator now at ``address``; IndexError when there is none.")
        .def("actuator_count", &PythonCanDeviceHost::actuator_count, release_gil())
        .def("counters", &PythonCanDeviceHost::counters, release_gil())
        .def("close", &PythonCanDeviceHost::close, release_gil(),
             "Stops the host's thread; the devices stay and answer nothing.")
        .def("__enter__", [](const py::object& self) { return self; })
        .def(
            "__exit__",
            [](PythonCanDeviceHost& self, const py::object&, const py::object&, const py::object&) {
                self.close();
                return false;
            },
            py::call_guard<py::gil_scoped_release>());
}

}  // namespace ocp_api::python
