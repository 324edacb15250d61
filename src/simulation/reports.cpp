// Read-only reports of the simulated actuator under stable text keys.
#include "ocp_api/orrery_actuator_virtual.hpp"

namespace ocp_api {

namespace {

float flag(bool on) { return on ? 1.0f : 0.0f; }

}  // namespace

OrreryActuatorVirtual::Report OrreryActuatorVirtual::get_info() const {
    // The three reference keys all report the one setpoint, whatever the mode.
    return Report{
        {"enable", flag(running)}, {"temp_winding", winding_temperature},
        {"T_fb", torque},          {"T_ref", setpoint},
        {"pos_fb", position},      {"pos_ref", setpoint},
        {"spd_fb", speed},         {"spd_ref", setpoint},
        {"time", sim_time},
    };
}

OrreryActuatorVirtual::Report OrreryActuatorVirtual::get_motor_state() const {
    // Torque over voltage, as the key has always reported, not a power.
    const float i_dc = bus_voltage == 0.0f ? 0.0f : torque / bus_voltage;
    return Report{
        {"m_Te", torque},       {"m_Tl", load_torque},  {"m_acc", 0.0f},       {"m_eff_elec", 1.0f},
        {"m_eff_mec", 1.0f},    {"m_i_dc", i_dc},       {"m_pos1", position},  {"m_pos2", position},
        {"m_spd1", speed},      {"m_spd2", speed},
    };
}

OrreryActuatorVirtual::Report OrreryActuatorVirtual::get_measurements() const {
    return Report{
        {"turn", 0.0f},     {"turn2", 0.0f},   {"T", torque},    {"e_pos", position},
        {"pos", position},  {"pos2", position}, {"spd", speed},  {"spd2", speed},
    };
}

OrreryActuatorVirtual::FlagReport OrreryActuatorVirtual::get_debug_flags() const { return FlagReport(limit_flags); }

OrreryActuatorVirtual::GroupedReport OrreryActuatorVirtual::get_all_parameters() const {
    const Report control{
        {"mode", static_cast<float>(static_cast<uint8_t>(mode))},
        {"setpoint", setpoint},
        {"enabled", flag(running)},
    };
    const Report limits{
        {"torque", param_or_nan(OCP_Parameters::LIMIT_TORQUE)},
        {"speed_max", param_or_nan(OCP_Parameters::LIMIT_SPEED_MAX)},
        {"speed_min", param_or_nan(OCP_Parameters::LIMIT_SPEED_MIN)},
    };
    const Report impedance{
        {"K_stiff", param_or_nan(OCP_Parameters::K_STIFF)},
        {"K_damp", param_or_nan(OCP_Parameters::K_DAMP)},
        {"T_FF", param_or_nan(OCP_Parameters::T_FF)},
    };
    const Report profile{
        {"position_max", param_or_nan(OCP_Parameters::PROFILE_POSITION_MAX)},
        {"position_min", param_or_nan(OCP_Parameters::PROFILE_POSITION_MIN)},
        {"speed_max", param_or_nan(OCP_Parameters::PROFILE_SPEED_MAX)},
        {"speed_min", param_or_nan(OCP_Parameters::PROFILE_SPEED_MIN)},
    };
    return GroupedReport{{"control", control}, {"limits", limits}, {"impedance", impedance}, {"profile", profile}};
}

}  // namespace ocp_api
