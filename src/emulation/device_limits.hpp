// The limits a device's firmware enforces, apart from the physics: references
// clamped to LIMIT_TORQUE, LIMIT_SPEED_MIN..MAX and LIMIT_POSITION_MIN..MAX,
// feedback watched against the same limits, and limits that contradict each
// other refused. Each condition holds its bit of the error word while it
// lasts; the bits come from the error table by their descriptions.
#pragma once

#include <cstdint>

#include "ocp_api/orrery_actuator_virtual.hpp"

namespace ocp_api::detail {

class DeviceLimits {
public:
    // Every bit this class may set.
    static uint32_t all_bits();
    static uint32_t invalid_limits_bit();

    // Each returns the reference the device acts on and updates the
    // reference bits.
    float torque_reference(float torque, const OrreryActuatorVirtual& physics);
    float speed_reference(float speed, const OrreryActuatorVirtual& physics);
    float position_reference(float position, const OrreryActuatorVirtual& physics);
    // The main setpoint of SET_SETPOINT: clamped by the limit of the mode.
    float setpoint_reference(float setpoint, const OrreryActuatorVirtual& physics);

    // Position and speed feedback against the limits.
    void check_feedback(const OrreryActuatorVirtual& physics);
    // True (and the bit set) when a minimum exceeds its maximum or the torque
    // limit is negative; the device must then not run.
    bool check_limits_valid(const OrreryActuatorVirtual& physics);

    uint32_t bits() const { return bits_; }
    void clear() {
        bits_ = 0;
        speed_reference_clamped_ = speed_feedback_over_ = false;
    }

private:
    void set(uint32_t mask, bool on) { bits_ = on ? (bits_ | mask) : (bits_ & ~mask); }
    void update_speed_bit();
    uint32_t bits_ = 0;
    // One bit for both: a speed reference clamped, or speed feedback beyond a limit.
    bool speed_reference_clamped_ = false;
    bool speed_feedback_over_ = false;
};

}  // namespace ocp_api::detail
