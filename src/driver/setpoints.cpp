// Control modes, setpoints and performance presets.
#include "ocp_api/orrery_actuator.hpp"

namespace ocp_api {

void OrreryActuator::send_floats(wire::Command command, std::initializer_list<float> values) {
    wire::Frame frame = wire::make_frame(command, sizeof(float) * values.size());
    for (const float value : values) append_float(frame, value);
    send_ocp_common(frame);
}

void OrreryActuator::send_byte(wire::Command command, uint8_t value) {
    wire::Frame frame = wire::make_frame(command, 1);
    wire::append_u8(frame, value);
    send_ocp_common(frame);
}

void OrreryActuator::ensure_mode(Mode mode) {
    if (mode_.load() != mode) change_mode(mode);
}

void OrreryActuator::change_mode(Mode mode) {
    mode_.store(mode);
    send_byte(wire::Command::SET_MODE, static_cast<uint8_t>(mode));
}

void OrreryActuator::change_setpoint(float a, float b, float c) {
    // NaN compares unequal to 0, so a NaN in b or c selects the long form.
    if (b == 0.0f && c == 0.0f) {
        send_floats(wire::Command::SET_SETPOINT, {a});
    } else {
        send_floats(wire::Command::SET_SETPOINT_EXT, {a, b, c});
    }
}

void OrreryActuator::change_torque_setpoint(float torque, float aux_0d, float aux_0e, float aux_0f, float a5) {
    ensure_mode(Mode::TORQUE);
    send_floats(wire::Command::SET_TORQUE_SETPOINT, {torque, aux_0d, aux_0e, aux_0f, a5});
}

void OrreryActuator::change_speed_setpoint(float speed, float speed_ff, float aux_0e, float aux_0d, float t_ff) {
    ensure_mode(Mode::SPEED);
    send_floats(wire::Command::SET_SPEED_SETPOINT, {speed, speed_ff, aux_0e, aux_0d, t_ff});
}

void OrreryActuator::change_position_setpoint(float position, float speed_ff, float aux_0e, float aux_0d,
                                              float aux_0f, float t_ff) {
    ensure_mode(Mode::POSITION);
    send_floats(wire::Command::SET_POSITION_SETPOINT, {position, speed_ff, aux_0e, aux_0d, aux_0f, t_ff});
}

void OrreryActuator::change_impedance_setpoint(float position, float speed_ff, float k_stiff, float k_damp,
                                               float a5, float t_ff, float a7, float a8) {
    ensure_mode(Mode::IMPEDANCE);
    send_floats(wire::Command::SET_IMPEDANCE_SETPOINT, {position, speed_ff, k_stiff, k_damp, a5, t_ff, a7, a8});
}

void OrreryActuator::internal_change_speed_setpoint(float a1, float a2, float a3, float a4) {
    ensure_mode(Mode::SPEED);
    send_floats(wire::Command::SET_SPEED_SETPOINT_INTERNAL, {a1, a2, a3, a4});
}

void OrreryActuator::internal_change_position_setpoint(float a1, float a2, float a3, float a4, float a5, float a6,
                                                       float a7, float a8, float a9) {
    ensure_mode(Mode::POSITION);
    send_floats(wire::Command::SET_POSITION_SETPOINT_INTERNAL, {a1, a2, a3, a4, a5, a6, a7, a8, a9});
}

void OrreryActuator::set_torque_performance(TorquePerformance preset) {
    send_byte(wire::Command::SET_TORQUE_PERFORMANCE, static_cast<uint8_t>(preset));
}

void OrreryActuator::set_speed_performance(SpeedPerformance preset) {
    send_byte(wire::Command::SET_SPEED_PERFORMANCE, static_cast<uint8_t>(preset));
}

}  // namespace ocp_api
