// OrreryActuatorVirtual: the simulated actuator. It runs on the calling thread
// only, so its callbacks run inside step() with the GIL already held.
#include <pybind11/stl.h>

#include <optional>
#include <string>
#include <vector>

#include "bindings.hpp"
#include "enumerations.hpp"

namespace ocp_api::python {
namespace {

using Virtual = OrreryActuatorVirtual;
using Items = Virtual::OCP_Items;
using Parameters = Virtual::OCP_Parameters;
using Rates = Virtual::Rates;
using Mode = Virtual::Mode;
constexpr float NaN = Virtual::NaN;

Virtual::FeedbackCallback wrap_feedback_callback(py::object callable) {
    if (callable.is_none()) return nullptr;
    auto shared = share_object(std::move(callable));
    return [shared](int address, Virtual::FeedbackMap items) {
        with_gil_reporting_errors("ocp_api.OrreryActuatorVirtual feedback callback",
                                  [&] { (*shared)(address, to_dict(items)); });
    };
}

Virtual::ErrorCallback wrap_error_callback(py::object callable) {
    if (callable.is_none()) return nullptr;
    auto shared = share_object(std::move(callable));
    return [shared](int address, Virtual::ErrorMap errors) {
        call_reporting_errors(shared, "ocp_api.OrreryActuatorVirtual error callback", address, std::move(errors));
    };
}

}  // namespace

void define_virtual_actuator(VirtualClass& cls) {
    cls.def(py::init<int>(), py::arg("address"),
            "A simulated actuator at ``address`` (0x10..0x3FFE; ValueError otherwise).")
        .def_property_readonly_static(
            "NaN", [](const py::object&) { return NaN; }, "The value of absent quantities.")
        .def_static("is_valid_actuator_address", &Virtual::is_valid_actuator_address, py::arg("address"))
        .def("has_errors", &Virtual::has_errors)
        .def("param_or_nan", &Virtual::param_or_nan, py::arg("id"),
             "The stored parameter, or NaN when it was never set.")

        // --- stepping and feedback ---------------------------------------------
        .def(
            "step",
            [](Virtual& self, std::optional<float> load, int steps) { return to_dict(self.step(load, steps)); },
            py::arg("load") = py::none(), py::arg("steps") = 1,
            "Advances max(steps, 1) steps of 0.1 ms under ``load`` (kept for later steps when\n"
            "given); calls the feedback callback at most once. Returns the feedback dict.")
        .def("start_steps", &Virtual::start_steps, py::arg("steps"))
        .def("update_feedback_snapshot", &Virtual::update_feedback_snapshot)
        .def("item_value", &Virtual::item_value, py::arg("item"), "The value the model gives ``item`` now.")
        .def(
            "get_feedback", [](const Virtual& self) { return to_dict(self.get_feedback()); },
            "The latest feedback snapshot, a dict of ``OCP_Items`` to float.")
        .def(
            "get_items_blocking",
            [](Virtual& self, const std::vector<Items>& items, float timeout_s) {
                return to_dict(self.get_items_blocking(items, timeout_s));
            },
            py::arg("items"), py::arg("timeout_s") = 1.0f,
            "Refreshes the snapshot and answers at once; items not among the feedback items are NaN.")
        .def("set_feedback_items", &Virtual::set_feedback_items, py::arg("items"))
        .def("set_feedback_rate", py::overload_cast<Rates>(&Virtual::set_feedback_rate), py::arg("rate"))
        .def("set_feedback_rate", py::overload_cast<int>(&Virtual::set_feedback_rate), py::arg("rate_hz"))
        .def(
            "set_feedback_callback",
            [](Virtual& self, py::object callback) { self.set_feedback_callback(wrap_feedback_callback(callback)); },
            py::arg("callback").none(true),
            "Calls ``callback(address, items)`` from inside step() at the feedback rate.\n"
            "An exception in it goes to ``sys.unraisablehook``. None removes it.")
        .def(
            "set_error_callback",
            [](Virtual& self, py::object callback) { self.set_error_callback(wrap_error_callback(callback)); },
            py::arg("callback").none(true))
        .def(
            "set_low_freq_feedback_callback", [](Virtual&, const py::object&) {}, py::arg("callback").none(true),
            "Does nothing, as on the physical actuator.")
        .def("set_low_freq_feedback_items", &Virtual::set_low_freq_feedback_items, py::arg("items"))
        .def("set_low_freq_feedback_rate", py::overload_cast<Rates>(&Virtual::set_low_freq_feedback_rate),
             py::arg("rate"))
        .def("set_low_freq_feedback_rate", py::overload_cast<int>(&Virtual::set_low_freq_feedback_rate),
             py::arg("rate_hz"))

        // --- liveness -------------------------------------------------------------
        .def("connect", &Virtual::connect, py::arg("timeout_s") = 1.0f)
        .def("send_ping", &Virtual::send_ping, py::arg("timeout_s") = 1.0f)
        .def("start", &Virtual::start)
        .def("stop", &Virtual::stop)
        .def("disconnect", &Virtual::disconnect)
        .def("change_load", &Virtual::change_load, py::arg("load"))
        .def("get_sim_time", &Virtual::get_sim_time, py::arg("digits") = 4,
             "Simulated seconds, rounded to ``digits`` decimals.")
        .def("get_sim_rate_hz", &Virtual::get_sim_rate_hz)

        // --- command surface ---------------------------------------------------------
        .def("change_mode", &Virtual::change_mode, py::arg("mode"))
        .def(
            "change_mode", [](Virtual& self, int mode) { self.change_mode(static_cast<Mode>(mode)); },
            py::arg("mode"))
        .def("change_setpoint", &Virtual::change_setpoint, py::arg("new_setpoint"))
        .def("change_torque_setpoint", &Virtual::change_torque_setpoint, py::arg("torque_setpoint"),
             py::arg("aux_0d") = NaN, py::arg("aux_0e") = NaN, py::arg("aux_0f") = NaN, py::arg("a5") = NaN)
        .def("change_speed_setpoint", &Virtual::change_speed_setpoint, py::arg("speed_setpoint"),
             py::arg("speed_ff") = NaN, py::arg("aux_0e") = NaN, py::arg("aux_0d") = NaN, py::arg("t_ff") = NaN)
        .def("change_position_setpoint", &Virtual::change_position_setpoint, py::arg("position_setpoint"),
             py::arg("speed_ff") = NaN, py::arg("aux_0e") = NaN, py::arg("aux_0d") = NaN, py::arg("aux_0f") = NaN,
             py::arg("t_ff") = NaN)
        .def("change_impedance_setpoint", &Virtual::change_impedance_setpoint, py::arg("position_setpoint"),
             py::arg("speed_ff") = NaN, py::arg("k_stiff") = NaN, py::arg("k_damp") = NaN, py::arg("a5") = NaN,
             py::arg("t_ff") = NaN, py::arg("a7") = NaN, py::arg("a8") = NaN)
        .def("set_torque_performance", &Virtual::set_torque_performance, py::arg("preset"))
        .def("set_speed_performance", &Virtual::set_speed_performance, py::arg("preset"))
        .def("set_can_high_speed", &Virtual::set_can_high_speed, py::arg("on"))
        .def("set_home_position", &Virtual::set_home_position)
        .def("change_address", &Virtual::change_address, py::arg("new_address"),
             "Moves to ``new_address``; ValueError when it is out of range.")
        .def("set_parameters", &Virtual::set_parameters, py::arg("values"))
        .def(
            "get_parameters",
            [](const Virtual& self, const std::vector<Parameters>& ids, float timeout_s) {
                return to_dict(self.get_parameters(ids, timeout_s));
            },
            py::arg("ids"), py::arg("timeout_s") = 1.0f)
        .def(
            "get_parameters_all", [](const Virtual& self) { return to_dict(self.get_parameters_all()); })
        .def("save_config", &Virtual::save_config)
        .def("blink", &Virtual::blink, py::arg("seconds") = 1.0f)

        // --- model catalogue -------------------------------------------------------
        .def_static("discover_available_actuators", &Virtual::discover_available_actuators, py::arg("directory"),
                    "Model names found in ``directory``.")
        .def("set_actuator", &Virtual::set_actuator, py::arg("model_name"), py::arg("model_path"),
             py::arg("model_aux_path"))
        .def("set_actuator_from_paths", &Virtual::set_actuator_from_paths, py::arg("model_path"),
             py::arg("model_paths_extra"))

        // --- introspection reports ---------------------------------------------------
        .def("get_info", &Virtual::get_info)
        .def("get_motor_state", &Virtual::get_motor_state)
        .def("get_measurements", &Virtual::get_measurements)
        .def("get_debug_flags", &Virtual::get_debug_flags)
        .def("get_all_parameters", &Virtual::get_all_parameters)

        // --- accessors ---------------------------------------------------------------
        .def("get_address", &Virtual::get_address)
        .def("get_model_name", &Virtual::get_model_name)
        .def("get_firmware_version", &Virtual::get_firmware_version)
        .def("get_model_path", &Virtual::get_model_path)
        .def("get_model_aux_path", &Virtual::get_model_aux_path)
        .def("get_model_paths_extra", &Virtual::get_model_paths_extra)
        .def("is_connected", &Virtual::is_connected)
        .def("is_running", &Virtual::is_running)
        .def("get_mode", &Virtual::get_mode)
        .def("get_can_high_speed", &Virtual::get_can_high_speed)
        .def("get_torque_performance", &Virtual::get_torque_performance)
        .def("get_speed_performance", &Virtual::get_speed_performance)
        .def("get_setpoint", &Virtual::get_setpoint)
        .def("get_position", &Virtual::get_position)
        .def("get_speed", &Virtual::get_speed)
        .def("get_torque", &Virtual::get_torque)
        .def("get_load", &Virtual::get_load)
        .def("get_step_count", &Virtual::get_step_count)
        .def("get_feedback_decimation", &Virtual::get_feedback_decimation)
        .def("get_bus_voltage", &Virtual::get_bus_voltage)
        .def("set_bus_voltage", &Virtual::set_bus_voltage, py::arg("volts"))
        .def_property_readonly("address", &Virtual::get_address)
        .def_property_readonly("model_name", &Virtual::get_model_name)
        .def_property_readonly("firmware_version", &Virtual::get_firmware_version)
        .def_property_readonly("model_path", &Virtual::get_model_path)
        .def_property_readonly("model_aux_path", &Virtual::get_model_aux_path)
        .def_property_readonly("model_paths_extra", &Virtual::get_model_paths_extra)
        .def_property_readonly("connected", &Virtual::is_connected)
        .def_property_readonly("running", &Virtual::is_running)
        .def_property_readonly("mode", &Virtual::get_mode)
        .def_property_readonly("can_high_speed", &Virtual::get_can_high_speed)
        .def_property_readonly("torque_performance", &Virtual::get_torque_performance)
        .def_property_readonly("speed_performance", &Virtual::get_speed_performance)
        .def_property_readonly("setpoint", &Virtual::get_setpoint)
        .def_property_readonly("position", &Virtual::get_position)
        .def_property_readonly("speed", &Virtual::get_speed)
        .def_property_readonly("torque", &Virtual::get_torque)
        .def_property_readonly("load", &Virtual::get_load)
        .def_property_readonly("step_count", &Virtual::get_step_count)
        .def_property_readonly("feedback_decimation", &Virtual::get_feedback_decimation)
        .def_property_readonly("bus_voltage", &Virtual::get_bus_voltage);
}

}  // namespace ocp_api::python
