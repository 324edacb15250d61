// The identifier enumerations, nested in the actuator classes as in C++.
#include "enumerations.hpp"

#include <string>

#include "bindings.hpp"
#include "ocp_api/orrery_actuator.hpp"

namespace ocp_api::python {
namespace {

// `Enum["NAME"]` looks a member up by name, as for Python's own enumerations;
// KeyError names what was not found.
template <class Enum>
py::enum_<Enum>& by_name(py::enum_<Enum>& enumeration) {
    enumeration.def_static(
        "__class_getitem__",
        [](const std::string& name) -> py::object {
            const py::dict members = py::type::of<Enum>().attr("__members__");
            if (!members.contains(name)) {
                throw py::key_error(name + " is not a member of " +
                                    py::str(py::type::of<Enum>().attr("__qualname__")).cast<std::string>());
            }
            return members[py::str(name)];
        },
        py::arg("name"), "The member called ``name``; KeyError when there is none.");
    return enumeration;
}

template <class Class>
void bind_enumerations_in(py::handle scope) {
    using Items = typename Class::OCP_Items;
    using Parameters = typename Class::OCP_Parameters;
    using Rates = typename Class::Rates;
    using Mode = typename Class::Mode;
    using TorquePerformance = typename Class::TorquePerformance;
    using SpeedPerformance = typename Class::SpeedPerformance;

    py::enum_<Items> items(scope, "OCP_Items", "Feedback item codes; the value is the record code in a reply.");
    for (const Items item : Class::ALL_ITEMS) items.value(std::string(item_name(item)).c_str(), item);
    remember_members<Items>(items);
    by_name(items);

    py::enum_<Parameters> parameters(scope, "OCP_Parameters",
                                     "Parameter identifiers; the value is the identifier byte of a parameter record.");
    for (const Parameters parameter : Class::ALL_PARAMETERS) {
        parameters.value(std::string(parameter_name(parameter)).c_str(), parameter);
    }
    remember_members<Parameters>(parameters);
    by_name(parameters);

    py::enum_<Rates> rates(scope, "Rates", "Feedback rates in Hz. Methods taking a rate also take any int up to 10000.");
    rates
        .value("RATE_OFF", Rates::RATE_OFF)
        .value("RATE_1HZ", Rates::RATE_1HZ)
        .value("RATE_10HZ", Rates::RATE_10HZ)
        .value("RATE_50HZ", Rates::RATE_50HZ)
        .value("RATE_100HZ", Rates::RATE_100HZ)
        .value("RATE_200HZ", Rates::RATE_200HZ)
        .value("RATE_500HZ", Rates::RATE_500HZ)
        .value("RATE_1KHZ", Rates::RATE_1KHZ)
        .value("RATE_2KHZ", Rates::RATE_2KHZ)
        .value("RATE_5KHZ", Rates::RATE_5KHZ)
        .value("RATE_10KHZ", Rates::RATE_10KHZ);
    by_name(rates);

    py::enum_<Mode> mode(scope, "Mode", "Control modes; the value is the byte of the mode command.");
    mode
        .value("TORQUE", Mode::TORQUE)
        .value("SPEED", Mode::SPEED)
        .value("POSITION", Mode::POSITION)
        .value("IMPEDANCE", Mode::IMPEDANCE);
    by_name(mode);

    py::enum_<TorquePerformance> torque(scope, "TorquePerformance", "Torque performance presets.");
    torque
        .value("PRESET_0", TorquePerformance::PRESET_0)
        .value("PRESET_1", TorquePerformance::PRESET_1)
        .value("PRESET_2", TorquePerformance::PRESET_2)
        .value("PRESET_3", TorquePerformance::PRESET_3);
    by_name(torque);

    py::enum_<SpeedPerformance> speed(scope, "SpeedPerformance", "Speed performance presets.");
    speed
        .value("PRESET_0", SpeedPerformance::PRESET_0)
        .value("PRESET_1", SpeedPerformance::PRESET_1)
        .value("PRESET_2", SpeedPerformance::PRESET_2)
        .value("PRESET_3", SpeedPerformance::PRESET_3);
    by_name(speed);
}

}  // namespace

void bind_enumerations(ActuatorClass& actuator, VirtualClass& simulated) {
    // Distinct C++ types with the same members: each class gets its own.
    bind_enumerations_in<OrreryActuator>(actuator);
    bind_enumerations_in<OrreryActuatorVirtual>(simulated);
}

}  // namespace ocp_api::python
