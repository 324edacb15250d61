// SimBus, its options and counters, and the controls of its emulated actuators.
#include <pybind11/chrono.h>
#include <pybind11/stl.h>

#include "bindings.hpp"
#include "ocp_api/emulated_actuator.hpp"
#include "ocp_api/sim_bus.hpp"

namespace ocp_api::python {
namespace {

// A SimBus that is closed at interpreter exit if it is still alive then.
class TrackedSimBus : public SimBus {
public:
    explicit TrackedSimBus(SimBusOptions options) : SimBus(options) {
        track_transport(this, [this] { close(); });
    }
    ~TrackedSimBus() override { untrack_transport(this); }
    TrackedSimBus(const TrackedSimBus&) = delete;
    TrackedSimBus& operator=(const TrackedSimBus&) = delete;
};

// Reads or changes an emulated actuator's physics under the bus's lock.
template <class Result>
auto read_physics(Result (OrreryActuatorVirtual::*getter)() const) {
    return [getter](EmulatedActuator& device) { return ((*device.physics()).*getter)(); };
}

template <class Argument>
auto change_physics(void (OrreryActuatorVirtual::*setter)(Argument)) {
    return [setter](EmulatedActuator& device, Argument value) { ((*device.physics()).*setter)(value); };
}

}  // namespace

void bind_sim_bus(py::module_& module) {
    py::class_<SimBusOptions>(module, "SimBusOptions", "Timing, loss and seed of a SimBus.")
        .def(py::init([](double time_scale, std::chrono::microseconds reply_latency, double loss_rate,
                         uint32_t seed) {
                 return SimBusOptions{time_scale, reply_latency, loss_rate, seed};
             }),
             py::arg("time_scale") = 1.0, py::arg("reply_latency") = std::chrono::microseconds(200),
             py::arg("loss_rate") = 0.0, py::arg("seed") = 1u)
        .def_readwrite("time_scale", &SimBusOptions::time_scale, "Simulated seconds per wall second.")
        .def_readwrite("reply_latency", &SimBusOptions::reply_latency,
                       "Between a frame and its reply (a timedelta; float seconds are accepted).")
        .def_readwrite("loss_rate", &SimBusOptions::loss_rate, "Chance that any one frame or reply is lost.")
        .def_readwrite("seed", &SimBusOptions::seed, "Of the loss draw, for reproducible runs.");

    py::class_<SimBusCounters>(module, "SimBusCounters", "What a SimBus has carried so far.")
        .def_readonly("frames_sent", &SimBusCounters::frames_sent)
        .def_readonly("frames_received", &SimBusCounters::frames_received)
        .def_readonly("frames_lost", &SimBusCounters::frames_lost)
        .def_readonly("frames_handled", &SimBusCounters::frames_handled)
        .def_readonly("replies_sent", &SimBusCounters::replies_sent)
        .def_readonly("replies_delivered", &SimBusCounters::replies_delivered)
        .def_readonly("replies_unclaimed", &SimBusCounters::replies_unclaimed)
        .def_readonly("replies_lost", &SimBusCounters::replies_lost)
        .def_readonly("worker_wakes", &SimBusCounters::worker_wakes);

    // Every control takes the hosting bus's lock, under which a bus may send
    // (and a python-can link needs the GIL to send): none holds the GIL.
    using release_gil = py::call_guard<py::gil_scoped_release>;
    py::class_<EmulatedActuator>(module, "EmulatedActuator", R"doc(
The emulated device behind one address of a bus. Every method is thread-safe;
the physics accessors hold the bus's lock for the one call.)doc")
        .def("address", &EmulatedActuator::address, release_gil())
        .def("model_code", &EmulatedActuator::model_code, release_gil())
        .def("firmware_word", &EmulatedActuator::firmware_word, release_gil())
        .def("inject_errors", &EmulatedActuator::inject_errors, release_gil(), py::arg("error_word"),
             "Sends an error report now and reports the word in ERRORS_90 until replaced (0 clears).")
        .def("power_cycle", &EmulatedActuator::power_cycle, release_gil(),
             "Restarts the device with its saved configuration.")
        .def("in_bootloader", &EmulatedActuator::in_bootloader, release_gil())
        .def("blink_count", &EmulatedActuator::blink_count, release_gil())
        .def("set_silent", &EmulatedActuator::set_silent, release_gil(), py::arg("silent"),
             "A silent device ignores every frame and sends nothing, as if unplugged.")
        .def("is_silent", &EmulatedActuator::is_silent, release_gil())
        .def("change_load", change_physics(&OrreryActuatorVirtual::change_load), release_gil(), py::arg("load"),
             "Applies a load torque to the shaft.")
        .def("set_bus_voltage", change_physics(&OrreryActuatorVirtual::set_bus_voltage), release_gil(), py::arg("volts"))
        .def("get_bus_voltage", read_physics(&OrreryActuatorVirtual::get_bus_voltage), release_gil())
        .def("get_position", read_physics(&OrreryActuatorVirtual::get_position), release_gil())
        .def("get_speed", read_physics(&OrreryActuatorVirtual::get_speed), release_gil())
        .def("get_torque", read_physics(&OrreryActuatorVirtual::get_torque), release_gil())
        .def("get_load", read_physics(&OrreryActuatorVirtual::get_load), release_gil())
        .def("get_setpoint", read_physics(&OrreryActuatorVirtual::get_setpoint), release_gil())
        .def("get_mode", read_physics(&OrreryActuatorVirtual::get_mode), release_gil())
        .def("is_running", read_physics(&OrreryActuatorVirtual::is_running), release_gil());

    py::class_<SimBus, OCP, Holder<SimBus>>(module, "SimBus", R"doc(
A simulated CAN bus with emulated actuators: a transport that needs no adapter.

Its worker thread advances every device's physics with the wall clock (times
``options.time_scale``) and is the receive thread: callbacks run there. An
emulated adapter answers pings at address 0. Closed at interpreter exit.)doc")
        .def(py::init([](const SimBusOptions& options) { return Holder<SimBus>(new TrackedSimBus(options)); }),
             py::arg("options") = SimBusOptions{})
        .def("add_actuator", &SimBus::add_actuator, py::arg("address"), py::arg("model_code") = 3,
             py::arg("firmware_word") = 0x0842, py::return_value_policy::reference_internal, release_gil(),
             "Adds an emulated actuator; ValueError for an address outside 0x10..0x3FFE or\n"
             "one already taken. Model code 3 and firmware word 0x0842 by default.")
        .def("actuator", &SimBus::actuator, py::arg("address"), py::return_value_policy::reference_internal, release_gil(),
             "The emulated actuator now at ``address``; IndexError when there is none.")
        .def("actuator_count", &SimBus::actuator_count, release_gil())
        .def("counters", &SimBus::counters, release_gil())
        .def("sim_time", &SimBus::sim_time, release_gil(), "Simulated seconds since the bus started.")
        .def_property_readonly("options", &SimBus::options);
}

}  // namespace ocp_api::python
