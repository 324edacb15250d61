// Control modes, setpoints and performance presets.
#include "ocp_api/orrery_actuator.hpp"

namespace ocp_api {

void OrreryActuator::ensure_mode(Mode mode) {
    if (mode_.load() != mode) change_mode(mode);
}

void OrreryActuator::change_mode(Mode mode) {
    mode_.store(mode);
    send(codec::SetMode{code_of(mode)});
}

void OrreryActuator::change_setpoint(float a, float b, float c) {
    // NaN compares unequal to 0, so a NaN in b or c selects the long form.
    if (b == 0.0f && c == 0.0f) {
        send(codec::SetSetpoint{a});
    } else {
        send(codec::SetSetpointExt{a, b, c});
    }
}

void OrreryActuator::change_torque_setpoint(float torque, float aux_0d, float aux_0e, float aux_0f, float a5) {
    ensure_mode(Mode::TORQUE);
    send(codec::SetTorqueSetpoint{torque, aux_0d, aux_0e, aux_0f, a5});
}

void OrreryActuator::change_speed_setpoint(float speed, float speed_ff, float aux_0e, float aux_0d, float t_ff) {
    ensure_mode(Mode::SPEED);
    send(codec::SetSpeedSetpoint{speed, speed_ff, aux_0e, aux_0d, t_ff});
}

void OrreryActuator::change_position_setpoint(float position, float speed_ff, float aux_0e, float aux_0d,
                                              float aux_0f, float t_ff) {
    ensure_mode(Mode::POSITION);
    send(codec::SetPositionSetpoint{position, speed_ff, aux_0e, aux_0d, aux_0f, t_ff});
}

void OrreryActuator::change_impedance_setpoint(float position, float speed_ff, float k_stiff, float k_damp,
                                               float a5, float t_ff, float a7, float a8) {
    ensure_mode(Mode::IMPEDANCE);
    send(codec::SetImpedanceSetpoint{position, speed_ff, k_stiff, k_damp, a5, t_ff, a7, a8});
}

void OrreryActuator::internal_change_speed_setpoint(float a1, float a2, float a3, float a4) {
    ensure_mode(Mode::SPEED);
    send(codec::SetSpeedSetpointInternal{a1, a2, a3, a4});
}

void OrreryActuator::internal_change_position_setpoint(float a1, float a2, float a3, float a4, float a5, float a6,
                                                       float a7, float a8, float a9) {
    ensure_mode(Mode::POSITION);
    send(codec::SetPositionSetpointInternal{a1, a2, a3, a4, a5, a6, a7, a8, a9});
}

void OrreryActuator::set_torque_performance(TorquePerformance preset) {
    send(codec::SetTorquePerformance{code_of(preset)});
}

void OrreryActuator::set_speed_performance(SpeedPerformance preset) {
    send(codec::SetSpeedPerformance{code_of(preset)});
}

}  // namespace ocp_api
