// The simulated actuator's command surface: where a physical actuator sends a
// frame, the simulated one updates its members and its parameter store.
#include <cmath>

#include "common/numeric.hpp"
#include "ocp_api/orrery_actuator_virtual.hpp"

namespace ocp_api {

namespace {

float as_float(uint8_t byte) { return static_cast<float>(byte); }

}  // namespace

void OrreryActuatorVirtual::store_if_given(OCP_Parameters id, float value) {
    if (!std::isnan(value)) parameters[id] = value;
}

void OrreryActuatorVirtual::change_mode(Mode new_mode) {
    mode = new_mode;
    parameters[OCP_Parameters::MODE] = as_float(static_cast<uint8_t>(new_mode));
}

void OrreryActuatorVirtual::change_setpoint(float new_setpoint) {
    setpoint = new_setpoint;
    parameters[OCP_Parameters::SETPOINT] = new_setpoint;
}

void OrreryActuatorVirtual::change_torque_setpoint(float torque_setpoint, float aux_0d, float aux_0e, float aux_0f,
                                                   float /*a5*/) {
    change_mode(Mode::TORQUE);
    change_setpoint(torque_setpoint);
    store_if_given(OCP_Parameters::SETPOINT_AUX_0D, aux_0d);
    store_if_given(OCP_Parameters::SETPOINT_AUX_0E, aux_0e);
    store_if_given(OCP_Parameters::SETPOINT_AUX_0F, aux_0f);
}

void OrreryActuatorVirtual::change_speed_setpoint(float speed_setpoint, float speed_ff, float aux_0e, float aux_0d,
                                                  float t_ff) {
    change_mode(Mode::SPEED);
    change_setpoint(speed_setpoint);
    store_if_given(OCP_Parameters::SPEED_FF, speed_ff);
    store_if_given(OCP_Parameters::SETPOINT_AUX_0E, aux_0e);
    store_if_given(OCP_Parameters::SETPOINT_AUX_0D, aux_0d);
    store_if_given(OCP_Parameters::T_FF, t_ff);
}

void OrreryActuatorVirtual::change_position_setpoint(float position_setpoint, float speed_ff, float aux_0e,
                                                     float aux_0d, float aux_0f, float t_ff) {
    change_mode(Mode::POSITION);
    change_setpoint(position_setpoint);
    store_if_given(OCP_Parameters::SPEED_FF, speed_ff);
    store_if_given(OCP_Parameters::SETPOINT_AUX_0E, aux_0e);
    store_if_given(OCP_Parameters::SETPOINT_AUX_0D, aux_0d);
    store_if_given(OCP_Parameters::SETPOINT_AUX_0F, aux_0f);
    store_if_given(OCP_Parameters::T_FF, t_ff);
}

void OrreryActuatorVirtual::change_impedance_setpoint(float position_setpoint, float speed_ff, float k_stiff,
                                                      float k_damp, float /*a5*/, float t_ff, float /*a7*/,
                                                      float /*a8*/) {
    change_mode(Mode::IMPEDANCE);
    change_setpoint(position_setpoint);
    store_if_given(OCP_Parameters::SPEED_FF, speed_ff);
    store_if_given(OCP_Parameters::K_STIFF, k_stiff);
    store_if_given(OCP_Parameters::K_DAMP, k_damp);
    store_if_given(OCP_Parameters::T_FF, t_ff);
}

void OrreryActuatorVirtual::set_torque_performance(TorquePerformance preset) {
    torque_performance = preset;
    parameters[OCP_Parameters::TORQUE_PERFORMANCE] = as_float(static_cast<uint8_t>(preset));
}

void OrreryActuatorVirtual::set_speed_performance(SpeedPerformance preset) {
    speed_performance = preset;
    parameters[OCP_Parameters::SPEED_PERFORMANCE] = as_float(static_cast<uint8_t>(preset));
}

void OrreryActuatorVirtual::set_can_high_speed(bool on) {
    can_high_speed = on;
    parameters[OCP_Parameters::CAN_HIGH_SPEED] = on ? 1.0f : 0.0f;
}

void OrreryActuatorVirtual::set_home_position() {
    position = 0.0f;
    update_feedback_snapshot();
}

void OrreryActuatorVirtual::set_parameters(const ParameterMap& values) {
    for (const auto& [id, value] : values) {
        parameters[id] = value;
        switch (id) {
            case OCP_Parameters::MODE:
                // The low byte of the saturated integer: 300.0 selects mode 44.
                mode = static_cast<Mode>(static_cast<uint8_t>(detail::saturating_u32(value) & 0xFFu));
                break;
            case OCP_Parameters::SETPOINT:
                setpoint = value;
                break;
            case OCP_Parameters::ADDRESS:
                // Unlike change_address, any value is taken as it comes.
                address = detail::saturating_i32(value);
                break;
            default:
                break;
        }
    }
}

OrreryActuatorVirtual::ParameterMap OrreryActuatorVirtual::get_parameters(const std::vector<OCP_Parameters>& ids,
                                                                          float /*timeout_s*/) const {
    ParameterMap answer;
    answer.max_load_factor(1.0f);
    for (const OCP_Parameters id : ids) answer[id] = param_or_nan(id);
    return answer;
}

OrreryActuatorVirtual::ParameterMap OrreryActuatorVirtual::get_parameters_all() const { return parameters; }

void OrreryActuatorVirtual::save_config() {}

void OrreryActuatorVirtual::blink(float /*seconds*/) {}

}  // namespace ocp_api
