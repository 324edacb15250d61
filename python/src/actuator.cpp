// OrreryActuator and OrreryActuatorScanner.
//
// Every call that reaches the transport or takes the actuator's lock runs
// without the GIL: a transport may hold its own lock while it needs the GIL (a
// python-can link sends under its bus's lock), the receive thread may release
// a replaced Python callback (which takes the GIL) under the actuator's lock,
// and it takes the GIL to run callbacks, so a thread must never wait for one
// of those locks while holding the GIL. Calls
// that wait for the device release it for the same reason and so that other
// Python threads run meanwhile. Only the conversions to Python run with it.
#include <pybind11/stl.h>

#include <string>
#include <vector>

#include "bindings.hpp"
#include "enumerations.hpp"
#include "ocp_api/bus_scan.hpp"

namespace ocp_api::python {
namespace {

using Actuator = OrreryActuator;
using Items = Actuator::OCP_Items;
using Parameters = Actuator::OCP_Parameters;
using Rates = Actuator::Rates;
using Mode = Actuator::Mode;
using release_gil = py::call_guard<py::gil_scoped_release>;

std::vector<uint8_t> bytes_of(const py::bytes& data) {
    const std::string text = data;
    return std::vector<uint8_t>(text.begin(), text.end());
}

Actuator::FeedbackCallback wrap_feedback_callback(py::object callable) {
    if (callable.is_none()) return nullptr;
    auto shared = share_object(std::move(callable));
    return [shared](int address, Actuator::FeedbackMap items) {
        with_gil_reporting_errors("ocp_api.OrreryActuator feedback callback",
                                  [&] { (*shared)(address, to_dict(items)); });
    };
}

Actuator::ErrorCallback wrap_error_callback(py::object callable) {
    if (callable.is_none()) return nullptr;
    auto shared = share_object(std::move(callable));
    return [shared](int address, Actuator::ErrorMap errors) {
        call_reporting_errors(shared, "ocp_api.OrreryActuator error callback", address, std::move(errors));
    };
}

// <OrreryActuator address=0x21 model='HERON_A' firmware='1.1.2' connected mode=POSITION>
std::string describe(const py::object& self, const Actuator& actuator) {
    const auto [address, model, firmware, connected, mode] = without_gil([&] {
        return std::make_tuple(actuator.get_address(), actuator.get_model_name(), actuator.get_firmware_version(),
                               actuator.is_connected(), actuator.get_mode());
    });
    const std::string type = py::str(py::type::of(self).attr("__name__"));
    const std::string mode_name = py::str(py::cast(mode).attr("name"));
    char head[32];
    std::snprintf(head, sizeof head, "address=0x%02x", address);
    return "<" + type + " " + head + " model=" + std::string(py::repr(py::str(model))) + " firmware=" +
           std::string(py::repr(py::str(firmware))) + (connected ? " connected" : " not connected") +
           " mode=" + mode_name + ">";
}

}  // namespace

void define_actuator(py::module_& module, ActuatorClass& cls) {
    cls.def(py::init<OCP&, int>(), py::arg("transport"), py::arg("address"), py::keep_alive<1, 2>(), release_gil(),
            "Registers the receive callback for ``address`` on ``transport``; sends nothing.\n"
            "The transport stays alive at least as long as the actuator.")
        .def_property_readonly_static(
            "MODELS_NAMES", [](const py::object&) { return Actuator::MODELS_NAMES; },
            "Model names indexed by the model code of a ping reply.")

        // --- lifecycle ----------------------------------------------------------
        .def("send_ping", &Actuator::send_ping, py::arg("timeout_s") = 1.0f, release_gil(),
             "Pings the device; True when it answered within ``timeout_s`` seconds.\n"
             "Other Python threads run while it waits.")
        .def("connect", &Actuator::connect, py::arg("timeout_s") = 1.0f, release_gil(),
             "Pings the device and records whether it answered within ``timeout_s``\n"
             "seconds (see ``is_connected``). Other Python threads run while it waits.")
        .def("start", &Actuator::start, release_gil(), "Sends START.")
        .def("stop", &Actuator::stop, release_gil(), "Sends STOP.")
        .def("disconnect", &Actuator::disconnect, release_gil(),
             "Sends STOP and removes the receive callback: no reply reaches this actuator any more.")
        .def(
            "set_feedback_callback",
            [](Actuator& self, py::object callback) {
                auto wrapped = wrap_feedback_callback(std::move(callback));
                without_gil([&] { self.set_feedback_callback(std::move(wrapped)); });
            },
            py::arg("callback").none(true),
            "Calls ``callback(address, items)`` on the transport's receive thread for every\n"
            "streamed reply; ``items`` is a dict of ``OCP_Items`` to float. None removes it.\n"
            "An exception in the callback goes to ``sys.unraisablehook``; streaming goes on.")
        .def(
            "set_error_callback",
            [](Actuator& self, py::object callback) {
                auto wrapped = wrap_error_callback(std::move(callback));
                without_gil([&] { self.set_error_callback(std::move(wrapped)); });
            },
            py::arg("callback").none(true),
            "Calls ``callback(address, errors)`` for an error report; ``errors`` maps the\n"
            "error bit number to its description. Replaces the default, which prints and\n"
            "stops on severe errors. None removes it.")
        .def(
            "set_low_freq_feedback_callback", [](Actuator&, const py::object&) {}, py::arg("callback").none(true),
            "Does nothing: the device has no low-frequency channel.")
        .def("set_low_freq_feedback_items", &Actuator::set_low_freq_feedback_items, py::arg("items"),
             "Does nothing: the device has no low-frequency channel.")
        .def("set_low_freq_feedback_rate", py::overload_cast<Rates>(&Actuator::set_low_freq_feedback_rate),
             py::arg("rate"), "Does nothing: the device has no low-frequency channel.")
        .def("set_low_freq_feedback_rate", py::overload_cast<int>(&Actuator::set_low_freq_feedback_rate),
             py::arg("rate_hz"))
        .def(
            "send_ocp_common",
            [](Actuator& self, const py::bytes& frame) {
                auto bytes = bytes_of(frame);
                without_gil([&] { self.send_ocp_common(bytes); });
            },
            py::arg("frame"), "Sends a raw command frame (bytes) to the current address.")
        .def(
            "can_callback",
            [](Actuator& self, int source, const py::bytes& data, int kind) {
                auto bytes = bytes_of(data);
                without_gil([&] { self.can_callback(source, std::move(bytes), kind); });
            },
            py::arg("source"), py::arg("data"), py::arg("kind") = 0,
            "Walks one reply buffer as if the transport had delivered it.")

        // --- feedback streaming ------------------------------------------------
        .def("setFeedbackItems", &Actuator::setFeedbackItems, release_gil(), py::arg("items"),
             "Chooses the items the device streams (a list of ``OCP_Items``).")
        .def("setFeedbackRate", py::overload_cast<Rates>(&Actuator::setFeedbackRate), py::arg("rate"), release_gil(),
             "Sets the streaming rate: a ``Rates`` member or an int in Hz (0 stops streaming).")
        .def("setFeedbackRate", py::overload_cast<int>(&Actuator::setFeedbackRate), py::arg("hz"), release_gil())
        .def(
            "get_feedback",
            [](const Actuator& self) { return to_dict(without_gil([&] { return self.get_feedback(); })); },
            "The latest streamed items, a dict of ``OCP_Items`` to float.")
        .def(
            "getItemsBlocking",
            [](Actuator& self, const std::vector<Items>& items, float timeout_s) {
                auto answer = without_gil([&] { return self.getItemsBlocking(items, timeout_s); });
                return to_dict(answer);
            },
            py::arg("items"), py::arg("timeout_s") = 1.0f,
            "Asks for ``items`` once and waits up to ``timeout_s`` seconds for the answer.\n"
            "Returns a dict of ``OCP_Items`` to float; on a time-out an empty dict, with\n"
            "\"Timeout waiting for feedback items\" on standard error.")

        // --- control modes and setpoints ----------------------------------------
        .def("change_mode", &Actuator::change_mode, release_gil(), py::arg("mode"), "Sends the mode command and records the mode.")
        .def(
            "change_mode", [](Actuator& self, int mode) { self.change_mode(static_cast<Mode>(mode)); },
            py::arg("mode"), release_gil())
        .def("change_setpoint", &Actuator::change_setpoint, release_gil(), py::arg("a"), py::arg("b") = 0.0f, py::arg("c") = 0.0f,
             "Sends a setpoint in the current mode: the short form when ``b`` and ``c`` are 0.")
        .def("change_torque_setpoint", &Actuator::change_torque_setpoint, release_gil(), py::arg("torque"),
             py::arg("aux_0d") = UNCHANGED, py::arg("aux_0e") = UNCHANGED, py::arg("aux_0f") = UNCHANGED,
             py::arg("a5") = UNCHANGED,
             "Switches to TORQUE mode if needed, then sends the setpoint. NaN leaves a value unchanged.")
        .def("change_speed_setpoint", &Actuator::change_speed_setpoint, release_gil(), py::arg("speed"),
             py::arg("speed_ff") = UNCHANGED, py::arg("aux_0e") = UNCHANGED, py::arg("aux_0d") = UNCHANGED,
             py::arg("t_ff") = UNCHANGED,
             "Switches to SPEED mode if needed, then sends the setpoint. NaN leaves a value unchanged.")
        .def("change_position_setpoint", &Actuator::change_position_setpoint, release_gil(), py::arg("position"),
             py::arg("speed_ff") = UNCHANGED, py::arg("aux_0e") = UNCHANGED, py::arg("aux_0d") = UNCHANGED,
             py::arg("aux_0f") = UNCHANGED, py::arg("t_ff") = UNCHANGED,
             "Switches to POSITION mode if needed, then sends the setpoint. NaN leaves a value unchanged.")
        .def("change_impedance_setpoint", &Actuator::change_impedance_setpoint, release_gil(), py::arg("position"),
             py::arg("speed_ff") = UNCHANGED, py::arg("k_stiff") = UNCHANGED, py::arg("k_damp") = UNCHANGED,
             py::arg("a5") = UNCHANGED, py::arg("t_ff") = UNCHANGED, py::arg("a7") = UNCHANGED,
             py::arg("a8") = UNCHANGED,
             "Switches to IMPEDANCE mode if needed, then sends the setpoint. NaN leaves a value unchanged.")
        .def("internal_change_speed_setpoint", &Actuator::internal_change_speed_setpoint, release_gil(), py::arg("a1"),
             py::arg("a2") = UNCHANGED, py::arg("a3") = UNCHANGED, py::arg("a4") = UNCHANGED,
             "Sends the speed setpoint frame as given, without a mode switch.")
        .def("internal_change_position_setpoint", &Actuator::internal_change_position_setpoint, release_gil(), py::arg("a1"),
             py::arg("a2") = UNCHANGED, py::arg("a3") = UNCHANGED, py::arg("a4") = UNCHANGED,
             py::arg("a5") = UNCHANGED, py::arg("a6") = UNCHANGED, py::arg("a7") = UNCHANGED,
             py::arg("a8") = UNCHANGED, py::arg("a9") = UNCHANGED,
             "Sends the position setpoint frame as given, without a mode switch.")
        .def("set_torque_performance", &Actuator::set_torque_performance, release_gil(), py::arg("preset"))
        .def("set_speed_performance", &Actuator::set_speed_performance, release_gil(), py::arg("preset"))

        // --- parameters and configuration storage ------------------------------
        .def("set_parameters", &Actuator::set_parameters, release_gil(), py::arg("values"),
             "Writes parameters: a dict of ``OCP_Parameters`` to float.")
        .def(
            "get_parameters",
            [](Actuator& self, const std::vector<Parameters>& ids, float timeout_s) {
                auto answer = without_gil([&] { return self.get_parameters(ids, timeout_s); });
                return to_dict(answer);
            },
            py::arg("ids"), py::arg("timeout_s") = 1.0f,
            "Reads parameters, waiting up to ``timeout_s`` seconds. Returns a dict of\n"
            "``OCP_Parameters`` to float; on a time-out an empty dict, with \"Timeout\n"
            "waiting for parameters\" on standard error.")
        .def(
            "get_parameters_all",
            [](Actuator& self) {
                auto answer = without_gil([&] { return self.get_parameters_all(); });
                return to_dict(answer);
            },
            "Reads every parameter in batches; a batch that times out ends the read with what came so far.")
        .def(
            "parse_parameters",
            [](Actuator& self, const py::bytes& data, int offset) {
                auto bytes = bytes_of(data);
                without_gil([&] { self.parse_parameters(bytes, offset); });
            },
            py::arg("data"), py::arg("offset"), "Decodes a parameters record starting at ``offset``.")
        .def("restore_factory_parameters", &Actuator::restore_factory_parameters, py::arg("wait_s") = 1.0f,
             release_gil(), "Restores the factory parameters, then waits ``wait_s`` seconds.")
        .def("save_config", &Actuator::save_config, release_gil(), "Stores the current parameters on the device.")
        .def("clear_config", &Actuator::clear_config, release_gil(),
             "Clears the stored configuration; the device resets (waits 100 ms).")

        // --- errors and firmware version ----------------------------------------
        .def("parse_errors", &Actuator::parse_errors, release_gil(), py::arg("error_word"),
             "Decodes an error word and calls the error callback with the set bits.")
        .def("default_error_callback", &Actuator::default_error_callback, release_gil(), py::arg("address"), py::arg("errors"),
             "Prints the errors and stops the actuator on severe ones.")
        .def_static("parse_firmware_version", &Actuator::parse_firmware_version, py::arg("word"),
                    "The firmware version text of a ping reply's firmware word.")

        // --- device administration ----------------------------------------------
        .def("changeAddress", &Actuator::changeAddress, py::arg("new_address"), release_gil(),
             "Moves the device to ``new_address`` and follows it there.")
        .def("set_can_high_speed", &Actuator::set_can_high_speed, release_gil(), py::arg("on"))
        .def("enter_bootloader", &Actuator::enter_bootloader, release_gil(),
             "Makes the device enter its boot loader (waits 100 ms).")
        .def("set_home_position", &Actuator::set_home_position, release_gil())
        .def("blink", &Actuator::blink, release_gil())

        // --- accessors ---------------------------------------------------------
        .def("get_address", &Actuator::get_address, release_gil())
        .def("get_model_name", &Actuator::get_model_name, release_gil())
        .def("get_firmware_version", &Actuator::get_firmware_version, release_gil())
        .def("is_connected", &Actuator::is_connected, release_gil())
        .def("get_mode", &Actuator::get_mode, release_gil())
        .def("get_can_high_speed", &Actuator::get_can_high_speed, release_gil())
        .def_property_readonly("address", py::cpp_function(&Actuator::get_address, release_gil()), "The current bus address.")
        .def_property_readonly("model_name", py::cpp_function(&Actuator::get_model_name, release_gil()), "From the last ping reply; \"\" before.")
        .def_property_readonly("firmware_version", py::cpp_function(&Actuator::get_firmware_version, release_gil()),
                               "From the last ping reply; \"x.x.x\" before.")
        .def_property_readonly("connected", py::cpp_function(&Actuator::is_connected, release_gil()), "Whether the last connect() was answered.")
        .def_property_readonly("mode", py::cpp_function(&Actuator::get_mode, release_gil()), "The mode last sent.")
        .def_property_readonly("can_high_speed", py::cpp_function(&Actuator::get_can_high_speed, release_gil()))

        // --- Python protocols --------------------------------------------------
        .def("__repr__", [](const py::object& self) { return describe(self, self.cast<const Actuator&>()); })
        .def("__enter__", [](const py::object& self) { return self; })
        .def(
            "__exit__",
            [](Actuator& self, const py::object&, const py::object&, const py::object&) {
                without_gil([&] { self.disconnect(); });
                return false;
            },
            "Leaves the actuator stopped and disconnected (``disconnect()``), whatever ended the block.");

    py::class_<OrreryActuatorScanner, OrreryActuator, Holder<OrreryActuatorScanner>>(module, "OrreryActuatorScanner",
                                                                                    R"doc(
Finds actuators on the bus. Bound to address 0, where the CAN adapter must
answer; scan() pings each address of a range and lists those that answer.)doc")
        .def(py::init<OCP&>(), py::arg("ocp"), py::keep_alive<1, 2>(), release_gil(),
             "Pings the adapter at address 0 (up to 1 s); closes the transport when\n"
             "another device answers there.")
        .def("scan", &OrreryActuatorScanner::scan, py::arg("first_address"), py::arg("last_address"),
             release_gil(),
             "Pings every address from ``first_address`` to ``last_address`` and returns\n"
             "those that answered; prints \"Device found: ...\" for each. Other Python\n"
             "threads run meanwhile.");

    py::class_<FoundDevice>(module, "FoundDevice", "A device that answered a ping during scan_bus().")
        .def_readonly("address", &FoundDevice::address)
        .def_readonly("model_code", &FoundDevice::model_code)
        .def_readonly("model", &FoundDevice::model, "The model name; \"\" for an unknown code.")
        .def_readonly("firmware_word", &FoundDevice::firmware_word)
        .def_readonly("firmware", &FoundDevice::firmware, "\"major.minor.patch\"")
        .def("__repr__", [](const FoundDevice& device) {
            char head[48];
            std::snprintf(head, sizeof head, "<FoundDevice address=0x%02x", device.address);
            return std::string(head) + " model=" + std::string(py::repr(py::str(device.model))) +
                   " firmware=" + std::string(py::repr(py::str(device.firmware))) + ">";
        });

    module.def(
        "scan_bus",
        [](OCP& bus, int first_address, int last_address, int attempts, double answer_period_s) {
            BusScanOptions options;
            options.attempts = attempts;
            options.answer_period = std::chrono::milliseconds(static_cast<long>(answer_period_s * 1000.0));
            return scan_bus(bus, first_address, last_address, options);
        },
        py::arg("bus"), py::arg("first_address"), py::arg("last_address"), py::arg("attempts") = 1,
        py::arg("answer_period_s") = 0.05, release_gil(), R"doc(
Pings every address of ``first_address..last_address`` with a window of pings in
flight and returns the ``FoundDevice`` of each that answered, by address. Prints
nothing; ValueError for a negative address or fewer than 1 attempt.)doc");
}

}  // namespace ocp_api::python
