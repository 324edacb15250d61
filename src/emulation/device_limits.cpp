#include "emulation/device_limits.hpp"

#include <cmath>
#include <stdexcept>
#include <string_view>

#include "ocp_api/identifier_tables.hpp"
#include "ocp_api/wire.hpp"

namespace ocp_api::detail {

namespace {

using P = OrreryActuatorVirtual::OCP_Parameters;
using Mode = OrreryActuatorVirtual::Mode;

// The bit of the error table with this description; a description that is
// not in the table does not compile.
constexpr uint32_t error_mask(std::string_view description) {
    for (const ErrorBitInfo& entry : tables::ERROR_BITS) {
        if (entry.description == description) return 1u << entry.bit;
    }
    throw std::logic_error("no such error bit");
}

constexpr uint32_t POSITION_REFERENCE_MAX = error_mask("Position reference maximum");
constexpr uint32_t POSITION_REFERENCE_MIN = error_mask("Position reference minimum");
constexpr uint32_t SPEED_FEEDBACK_MAX = error_mask("Speed feedback maximum");
constexpr uint32_t TORQUE_REFERENCE_MAX = error_mask("Torque reference maximum");
constexpr uint32_t POSITION_FEEDBACK_MAX = error_mask("Position feedback maximum");
constexpr uint32_t POSITION_FEEDBACK_MIN = error_mask("Position feedback minimum");
constexpr uint32_t INVALID_LIMITS = error_mask("Invalid limits");

// A limit that was never set (NaN) limits nothing.
bool above(float value, float limit) { return !std::isnan(limit) && value > limit; }
bool below(float value, float limit) { return !std::isnan(limit) && value < limit; }

}  // namespace

uint32_t DeviceLimits::all_bits() {
    return POSITION_REFERENCE_MAX | POSITION_REFERENCE_MIN | SPEED_FEEDBACK_MAX | TORQUE_REFERENCE_MAX |
           POSITION_FEEDBACK_MAX | POSITION_FEEDBACK_MIN | INVALID_LIMITS;
}

uint32_t DeviceLimits::invalid_limits_bit() { return INVALID_LIMITS; }

float DeviceLimits::torque_reference(float torque, const OrreryActuatorVirtual& physics) {
    const float limit = std::fabs(physics.param_or_nan(P::LIMIT_TORQUE));
    const bool over = above(std::fabs(torque), limit);
    set(TORQUE_REFERENCE_MAX, over);
    return over ? std::copysign(limit, torque) : torque;
}

float DeviceLimits::speed_reference(float speed, const OrreryActuatorVirtual& physics) {
    const float high = physics.param_or_nan(P::LIMIT_SPEED_MAX);
    const float low = physics.param_or_nan(P::LIMIT_SPEED_MIN);
    const bool over = above(speed, high);
    const bool under = below(speed, low);
    speed_reference_clamped_ = over || under;
    update_speed_bit();
    return over ? high : under ? low : speed;
}

float DeviceLimits::position_reference(float position, const OrreryActuatorVirtual& physics) {
    const float high = physics.param_or_nan(P::LIMIT_POSITION_MAX);
    const float low = physics.param_or_nan(P::LIMIT_POSITION_MIN);
    const bool over = above(position, high);
    const bool under = below(position, low);
    set(POSITION_REFERENCE_MAX, over);
    set(POSITION_REFERENCE_MIN, under);
    return over ? high : under ? low : position;
}

float DeviceLimits::setpoint_reference(float setpoint, const OrreryActuatorVirtual& physics) {
    switch (physics.get_mode()) {
        case Mode::TORQUE: return torque_reference(setpoint, physics);
        case Mode::SPEED: return speed_reference(setpoint, physics);
        case Mode::POSITION:
        case Mode::IMPEDANCE: return position_reference(setpoint, physics);
        default: return setpoint;
    }
}

void DeviceLimits::check_feedback(const OrreryActuatorVirtual& physics) {
    const float position = physics.get_position();
    set(POSITION_FEEDBACK_MAX, above(position, physics.param_or_nan(P::LIMIT_POSITION_MAX)));
    set(POSITION_FEEDBACK_MIN, below(position, physics.param_or_nan(P::LIMIT_POSITION_MIN)));
    const float speed = physics.get_speed();
    speed_feedback_over_ =
        above(speed, physics.param_or_nan(P::LIMIT_SPEED_MAX)) || below(speed, physics.param_or_nan(P::LIMIT_SPEED_MIN));
    update_speed_bit();
}

void DeviceLimits::update_speed_bit() { set(SPEED_FEEDBACK_MAX, speed_reference_clamped_ || speed_feedback_over_); }

bool DeviceLimits::check_limits_valid(const OrreryActuatorVirtual& physics) {
    const bool invalid = above(physics.param_or_nan(P::LIMIT_POSITION_MIN), physics.param_or_nan(P::LIMIT_POSITION_MAX)) ||
                         above(physics.param_or_nan(P::LIMIT_SPEED_MIN), physics.param_or_nan(P::LIMIT_SPEED_MAX)) ||
                         below(physics.param_or_nan(P::LIMIT_TORQUE), 0.0f);
    set(INVALID_LIMITS, invalid);
    return !invalid;
}

}  // namespace ocp_api::detail
