#include "emulation/emulated_device.hpp"

#include <algorithm>
#include <climits>
#include <cmath>
#include <optional>

#include "common/numeric.hpp"
#include "ocp_api/codec.hpp"
#include "ocp_api/identifier_tables.hpp"
#include "emulation/adapter.hpp"

namespace ocp_api::detail {

namespace {

using P = OCP_Parameters;
using wire::Command;

// A device clearing its configuration resets and stays silent this long.
constexpr int64_t RESET_SILENCE_STEPS = 500;  // 50 ms of simulated time

bool is_known_parameter(uint8_t code) { return find_parameter(code) != nullptr; }

// A command as the device reads it: what is cut short is ignored, as are
// setpoints of the wrong length.
template <class Command>
std::optional<Command> complete(const wire::Frame& frame) {
    auto decoded = Command::decode(frame);
    if (!decoded.complete()) return std::nullopt;
    return std::move(decoded.value);
}

template <class Setpoint>
std::optional<Setpoint> exact(const wire::Frame& frame) {
    auto decoded = Setpoint::decode(frame);
    if (!decoded.ok()) return std::nullopt;
    return decoded.value;
}

std::vector<OCP_Items> items_among(const std::vector<uint8_t>& codes) {
    std::vector<OCP_Items> items;
    for (const uint8_t code : codes) {
        if (wire::is_item_code(code)) items.push_back(static_cast<OCP_Items>(code));
    }
    return items;
}

}  // namespace

OrreryActuatorVirtual::ParameterMap factory_parameters(int address) {
    return {
        {P::K_DAMP, 0.1f},
        {P::K_STIFF, 1.0f},
        {P::T_FF, 0.0f},
        {P::LIMIT_TORQUE, 10.0f},
        {P::LIMIT_POSITION_MAX, 100.0f},
        {P::LIMIT_POSITION_MIN, -100.0f},
        {P::LIMIT_SPEED_MAX, 50.0f},
        {P::LIMIT_SPEED_MIN, -50.0f},
        {P::PROFILE_POSITION_MAX, 100.0f},
        {P::PROFILE_POSITION_MIN, -100.0f},
        {P::PROFILE_SPEED_MAX, 20.0f},
        {P::PROFILE_SPEED_MIN, -20.0f},
        {P::SETPOINT_AUX_0D, 0.0f},
        {P::SETPOINT_AUX_0E, 0.0f},
        {P::SETPOINT_AUX_0F, 0.0f},
        // The host assumes speed mode after a factory restore; so does the device.
        {P::MODE, static_cast<float>(static_cast<uint8_t>(Mode::SPEED))},
        {P::SETPOINT, 0.0f},
        {P::TORQUE_PERFORMANCE, 2.0f},
        {P::SPEED_PERFORMANCE, 2.0f},
        {P::TUNING_42, 1.0f},
        {P::TUNING_43, 0.5f},
        {P::TUNING_44, 0.05f},
        {P::SPEED_FF, 0.0f},
        {P::TUNING_46, 1.0f},
        {P::TUNING_47, 0.0f},
        {P::DEVICE_80, 20000.0f},
        {P::ADDRESS, static_cast<float>(address)},
        {P::DEVICE_82, 1.0f},
        {P::DEVICE_83, 0.0f},
        {P::DEVICE_84, 20000.0f},
        {P::CAN_HIGH_SPEED, 0.0f},
    };
}

EmulatedDevice::EmulatedDevice(int address, uint16_t model_code, uint16_t firmware_word, int64_t now_step)
    : model_code_(model_code),
      firmware_word_(firmware_word),
      factory_address_(address),
      physics_(address),
      saved_(factory_parameters(address)),
      steps_done_(now_step) {
    restart_with(saved_, address);
}

void EmulatedDevice::restart_with(const OrreryActuatorVirtual::ParameterMap& parameters, int address) {
    physics_ = OrreryActuatorVirtual(address);
    // The device computes item values itself; the physics keeps no snapshot.
    physics_.set_feedback_items({});
    physics_.set_parameters(parameters);
    physics_.change_address(address);
    stop_streaming();
    error_word_ = 0;
    limits_.clear();
    reported_limit_bits_ = 0;
    bootloader_ = false;
}

void EmulatedDevice::stop_streaming() {
    stream_period_ = 0;
    next_stream_step_ = NEVER;
}

void EmulatedDevice::reply(Replies& out, std::vector<uint8_t> bytes, int kind, int64_t step) const {
    out.push_back({address(), std::move(bytes), kind, step});
}

std::vector<uint8_t> EmulatedDevice::item_records(const std::vector<OCP_Items>& items) const {
    std::vector<uint8_t> bytes;
    bytes.reserve(items.size() * wire::RECORD_SIZE);
    for (const OCP_Items item : items) {
        if (item == OCP_Items::ERRORS_90) {
            // The error word goes out as it is, not through a float.
            codec::ItemRecord{code_of(item), error_word()}.encode_into(bytes);
        } else {
            codec::ItemRecord::of(code_of(item), physics_.item_value(item)).encode_into(bytes);
        }
    }
    return bytes;
}

int64_t EmulatedDevice::next_stream_step() const { return next_stream_step_; }

void EmulatedDevice::advance_to(int64_t target, Replies& out) {
    while (steps_done_ < target) {
        const int64_t stop = std::min({target, next_stream_step_, steps_done_ + INT_MAX});
        physics_.start_steps(static_cast<int>(stop - steps_done_));
        steps_done_ = stop;
        if (enforce_limits_) {
            limits_.check_feedback(physics_);
            report_limits(steps_done_, out);
        }
        if (steps_done_ == next_stream_step_) {
            if (answering(steps_done_)) reply(out, item_records(stream_items_), wire::REPLY_STREAMED, steps_done_);
            next_stream_step_ += stream_period_;
        }
    }
}

void EmulatedDevice::handle_frame(const wire::Frame& frame, int64_t now, Replies& out) {
    if (frame.empty() || !answering(now)) return;
    const auto command = static_cast<Command>(frame[0]);
    switch (command) {
        case Command::START: on_start(); break;
        case Command::STOP: physics_.stop(); break;
        case Command::SET_MODE:
            if (const auto command = complete<codec::SetMode>(frame)) physics_.change_mode(static_cast<Mode>(command->mode));
            break;
        case Command::SET_SETPOINT:
        case Command::SET_SETPOINT_EXT:
        case Command::SET_TORQUE_SETPOINT:
        case Command::SET_SPEED_SETPOINT:
        case Command::SET_POSITION_SETPOINT:
        case Command::SET_IMPEDANCE_SETPOINT:
        case Command::SET_SPEED_SETPOINT_INTERNAL:
        case Command::SET_POSITION_SETPOINT_INTERNAL:
            on_setpoint(command, frame);
            break;
        case Command::SET_FEEDBACK_RATE: on_set_feedback_rate(frame); break;
        case Command::SET_FEEDBACK_ITEMS: on_set_feedback_items(frame); break;
        case Command::GET_ITEMS: on_get_items(frame, now, out); break;
        case Command::SET_PARAMETERS:
            on_set_parameters(frame);
            check_limits_after_parameters();
            break;
        case Command::GET_PARAMETERS: on_get_parameters(frame, now, out); break;
        case Command::SET_TORQUE_PERFORMANCE:
            if (const auto command = complete<codec::SetTorquePerformance>(frame))
                physics_.set_torque_performance(static_cast<TorquePerformance>(command->preset));
            break;
        case Command::SET_SPEED_PERFORMANCE:
            if (const auto command = complete<codec::SetSpeedPerformance>(frame))
                physics_.set_speed_performance(static_cast<SpeedPerformance>(command->preset));
            break;
        case Command::SET_HOME_POSITION: physics_.set_home_position(); break;
        case Command::SAVE_CONFIG: saved_ = physics_.get_parameters_all(); break;
        case Command::CLEAR_CONFIG: on_clear_config(now); break;
        case Command::ENTER_BOOTLOADER:
            physics_.stop();
            stop_streaming();
            bootloader_ = true;
            break;
        case Command::PING:
            reply(out, codec::PingReply{model_code_, firmware_word_}.encode(), wire::REPLY_STREAMED, now);
            break;
        case Command::BLINK: ++blinks_; break;
        default: break;  // a device ignores what it does not know
    }
    if (enforce_limits_) report_limits(now, out);
}

void EmulatedDevice::on_setpoint(Command command, const wire::Frame& frame) {
    // A setpoint of the wrong length is malformed and ignored. With limits
    // on, the main reference is clamped as firmware would.
    const auto reference = [&](float value) { return enforce_limits_ ? clamp_reference(command, value) : value; };
    switch (command) {
        case Command::SET_SETPOINT:
            if (const auto c = exact<codec::SetSetpoint>(frame)) physics_.change_setpoint(reference(c->setpoint));
            break;
        case Command::SET_SETPOINT_EXT:  // the two extra values are carried, not modelled
            if (const auto c = exact<codec::SetSetpointExt>(frame)) physics_.change_setpoint(reference(c->a));
            break;
        case Command::SET_TORQUE_SETPOINT:
            if (const auto c = exact<codec::SetTorqueSetpoint>(frame))
                physics_.change_torque_setpoint(reference(c->torque), c->aux_0d, c->aux_0e, c->aux_0f, c->a5);
            break;
        case Command::SET_SPEED_SETPOINT:
            if (const auto c = exact<codec::SetSpeedSetpoint>(frame))
                physics_.change_speed_setpoint(reference(c->speed), c->speed_ff, c->aux_0e, c->aux_0d, c->t_ff);
            break;
        case Command::SET_POSITION_SETPOINT:
            if (const auto c = exact<codec::SetPositionSetpoint>(frame))
                physics_.change_position_setpoint(reference(c->position), c->speed_ff, c->aux_0e, c->aux_0d, c->aux_0f, c->t_ff);
            break;
        case Command::SET_IMPEDANCE_SETPOINT:
            if (const auto c = exact<codec::SetImpedanceSetpoint>(frame))
                physics_.change_impedance_setpoint(reference(c->position), c->speed_ff, c->k_stiff, c->k_damp, c->a5, c->t_ff,
                                                   c->a7, c->a8);
            break;
        case Command::SET_SPEED_SETPOINT_INTERNAL:
            if (const auto c = exact<codec::SetSpeedSetpointInternal>(frame))
                physics_.change_speed_setpoint(reference(c->a1), c->a2, c->a3, c->a4);
            break;
        case Command::SET_POSITION_SETPOINT_INTERNAL:
            if (const auto c = exact<codec::SetPositionSetpointInternal>(frame))
                physics_.change_position_setpoint(reference(c->a1), c->a2, c->a3, c->a4, c->a5, c->a6);
            break;
        default: break;
    }
}

float EmulatedDevice::clamp_reference(Command command, float value) {
    switch (command) {
        case Command::SET_SETPOINT:
        case Command::SET_SETPOINT_EXT: return limits_.setpoint_reference(value, physics_);
        case Command::SET_TORQUE_SETPOINT: return limits_.torque_reference(value, physics_);
        case Command::SET_SPEED_SETPOINT:
        case Command::SET_SPEED_SETPOINT_INTERNAL: return limits_.speed_reference(value, physics_);
        case Command::SET_POSITION_SETPOINT:
        case Command::SET_POSITION_SETPOINT_INTERNAL:
        case Command::SET_IMPEDANCE_SETPOINT: return limits_.position_reference(value, physics_);
        default: return value;
    }
}

void EmulatedDevice::on_start() {
    // Firmware does not run with limits that contradict each other.
    if (enforce_limits_ && !limits_.check_limits_valid(physics_)) return;
    physics_.start();
}

void EmulatedDevice::check_limits_after_parameters() {
    if (enforce_limits_ && !limits_.check_limits_valid(physics_)) physics_.stop();
}

void EmulatedDevice::report_limits(int64_t now, Replies& out) {
    const uint32_t bits = limits_.bits();
    const bool new_condition = (bits & ~reported_limit_bits_) != 0;
    reported_limit_bits_ = bits;
    if (!new_condition || !answering(now)) return;
    reply(out, codec::ErrorFlags{error_word()}.encode(), wire::REPLY_STREAMED, now);
}

void EmulatedDevice::set_enforce_limits(bool on) {
    enforce_limits_ = on;
    if (!on) {
        limits_.clear();
        reported_limit_bits_ = 0;
    }
}

void EmulatedDevice::on_set_feedback_rate(const wire::Frame& frame) {
    const auto command = complete<codec::SetFeedbackRate>(frame);
    if (!command) return;
    const uint32_t period = command->period;
    if (period == 0) {
        stop_streaming();
        return;
    }
    stream_period_ = period;
    // Ticks fall on multiples of the period of the shared simulated clock, so
    // devices streaming at one rate answer together and the bus wakes once
    // for all of them.
    next_stream_step_ = (steps_done_ / period + 1) * static_cast<int64_t>(period);
}

void EmulatedDevice::on_set_feedback_items(const wire::Frame& frame) {
    stream_items_ = items_among(codec::SetFeedbackItems::decode(frame).value.items);
}

void EmulatedDevice::on_get_items(const wire::Frame& frame, int64_t now, Replies& out) {
    reply(out, item_records(items_among(codec::GetItems::decode(frame).value.items)), wire::REPLY_REQUESTED, now);
}

void EmulatedDevice::on_set_parameters(const wire::Frame& frame) {
    for (const codec::ParameterSetting& entry : codec::SetParameters::decode(frame).value.entries) {
        if (!is_known_parameter(entry.code)) continue;
        const float value = entry.value;
        const auto id = static_cast<P>(entry.code);
        if (id == P::ADDRESS) {
            // The device answers from its new address at once; an address out
            // of range is refused.
            const float rounded = std::trunc(value);
            if (rounded >= wire::MIN_DEVICE_ADDRESS && rounded <= wire::MAX_DEVICE_ADDRESS)
                physics_.change_address(static_cast<int>(rounded));
            continue;
        }
        physics_.set_parameters({{id, value}});
    }
}

void EmulatedDevice::on_get_parameters(const wire::Frame& frame, int64_t now, Replies& out) {
    codec::ParametersRecord record;
    for (const uint8_t code : codec::GetParameters::decode(frame).value.codes) {
        if (!is_known_parameter(code)) continue;
        record.entries.push_back(codec::ParameterEntry::of(code, physics_.param_or_nan(static_cast<P>(code))));
    }
    reply(out, record.encode(), wire::REPLY_STREAMED, now);
}

void EmulatedDevice::on_clear_config(int64_t now) {
    saved_ = factory_parameters(factory_address_);
    restart_with(saved_, factory_address_);
    resetting_until_ = now + RESET_SILENCE_STEPS;
}

void EmulatedDevice::inject_errors(uint32_t error_word, int64_t now, Replies& out) {
    error_word_ = error_word;
    if (!answering(now)) return;
    reply(out, codec::ErrorFlags{error_word}.encode(), wire::REPLY_STREAMED, now);
}

void EmulatedDevice::power_cycle() {
    const float saved_address = saved_.count(P::ADDRESS) ? saved_.at(P::ADDRESS) : static_cast<float>(factory_address_);
    int address = saturating_i32(saved_address);
    if (!wire::is_valid_device_address(address)) address = factory_address_;
    restart_with(saved_, address);
    resetting_until_ = 0;
}

}  // namespace ocp_api::detail
