#include "emulation/emulated_device.hpp"

#include <algorithm>
#include <climits>
#include <cmath>

#include "common/numeric.hpp"
#include "emulation/adapter.hpp"

namespace ocp_api::detail {

namespace {

using P = OCP_Parameters;
using wire::Command;

// A device clearing its configuration resets and stays silent this long.
constexpr int64_t RESET_SILENCE_STEPS = 500;  // 50 ms of simulated time

bool is_known_parameter(uint8_t code) {
    return std::any_of(OrreryActuatorVirtual::ALL_PARAMETERS.begin(), OrreryActuatorVirtual::ALL_PARAMETERS.end(),
                       [code](P p) { return static_cast<uint8_t>(p) == code; });
}

std::size_t setpoint_floats(Command command) {
    switch (command) {
        case Command::SET_SETPOINT: return wire::SETPOINT_FLOATS;
        case Command::SET_SETPOINT_EXT: return wire::SETPOINT_EXT_FLOATS;
        case Command::SET_TORQUE_SETPOINT: return wire::TORQUE_SETPOINT_FLOATS;
        case Command::SET_SPEED_SETPOINT: return wire::SPEED_SETPOINT_FLOATS;
        case Command::SET_POSITION_SETPOINT: return wire::POSITION_SETPOINT_FLOATS;
        case Command::SET_IMPEDANCE_SETPOINT: return wire::IMPEDANCE_SETPOINT_FLOATS;
        case Command::SET_SPEED_SETPOINT_INTERNAL: return wire::SPEED_SETPOINT_INTERNAL_FLOATS;
        case Command::SET_POSITION_SETPOINT_INTERNAL: return wire::POSITION_SETPOINT_INTERNAL_FLOATS;
        default: return 0;
    }
}

std::vector<float> read_floats(const wire::Frame& frame) {
    std::vector<float> values;
    for (std::size_t offset = 1; offset + sizeof(float) <= frame.size(); offset += sizeof(float))
        values.push_back(wire::read_f32(&frame[offset]));
    return values;
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
            wire::append_u8(bytes, static_cast<uint8_t>(item));
            wire::append_u32(bytes, error_word());
        } else {
            wire::append_item_record(bytes, code_of(item), physics_.item_value(item));
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
            if (frame.size() >= 2) physics_.change_mode(static_cast<Mode>(frame[1]));
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
            if (frame.size() >= 2) physics_.set_torque_performance(static_cast<TorquePerformance>(frame[1]));
            break;
        case Command::SET_SPEED_PERFORMANCE:
            if (frame.size() >= 2) physics_.set_speed_performance(static_cast<SpeedPerformance>(frame[1]));
            break;
        case Command::SET_HOME_POSITION: physics_.set_home_position(); break;
        case Command::SAVE_CONFIG: saved_ = physics_.get_parameters_all(); break;
        case Command::CLEAR_CONFIG: on_clear_config(now); break;
        case Command::ENTER_BOOTLOADER:
            physics_.stop();
            stop_streaming();
            bootloader_ = true;
            break;
        case Command::PING: reply(out, ping_reply(model_code_, firmware_word_), wire::REPLY_STREAMED, now); break;
        case Command::BLINK: ++blinks_; break;
        default: break;  // a device ignores what it does not know
    }
    if (enforce_limits_) report_limits(now, out);
}

void EmulatedDevice::on_setpoint(Command command, const wire::Frame& frame) {
    if (frame.size() != 1 + sizeof(float) * setpoint_floats(command)) return;  // malformed: ignored
    std::vector<float> a = read_floats(frame);
    if (enforce_limits_) clamp_references(command, a);
    switch (command) {
        case Command::SET_SETPOINT:
        case Command::SET_SETPOINT_EXT:  // the two extra values are carried, not modelled
            physics_.change_setpoint(a[0]);
            break;
        case Command::SET_TORQUE_SETPOINT: physics_.change_torque_setpoint(a[0], a[1], a[2], a[3], a[4]); break;
        case Command::SET_SPEED_SETPOINT: physics_.change_speed_setpoint(a[0], a[1], a[2], a[3], a[4]); break;
        case Command::SET_POSITION_SETPOINT:
            physics_.change_position_setpoint(a[0], a[1], a[2], a[3], a[4], a[5]);
            break;
        case Command::SET_IMPEDANCE_SETPOINT:
            physics_.change_impedance_setpoint(a[0], a[1], a[2], a[3], a[4], a[5], a[6], a[7]);
            break;
        case Command::SET_SPEED_SETPOINT_INTERNAL: physics_.change_speed_setpoint(a[0], a[1], a[2], a[3]); break;
        case Command::SET_POSITION_SETPOINT_INTERNAL:
            physics_.change_position_setpoint(a[0], a[1], a[2], a[3], a[4], a[5]);
            break;
        default: break;
    }
}

void EmulatedDevice::clamp_references(Command command, std::vector<float>& a) {
    switch (command) {
        case Command::SET_SETPOINT:
        case Command::SET_SETPOINT_EXT: a[0] = limits_.setpoint_reference(a[0], physics_); break;
        case Command::SET_TORQUE_SETPOINT: a[0] = limits_.torque_reference(a[0], physics_); break;
        case Command::SET_SPEED_SETPOINT:
        case Command::SET_SPEED_SETPOINT_INTERNAL: a[0] = limits_.speed_reference(a[0], physics_); break;
        case Command::SET_POSITION_SETPOINT:
        case Command::SET_POSITION_SETPOINT_INTERNAL:
        case Command::SET_IMPEDANCE_SETPOINT: a[0] = limits_.position_reference(a[0], physics_); break;
        default: break;
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
    std::vector<uint8_t> bytes{static_cast<uint8_t>(wire::RecordCode::ERROR_FLAGS)};
    wire::append_u32(bytes, error_word());
    reply(out, std::move(bytes), wire::REPLY_STREAMED, now);
}

void EmulatedDevice::set_enforce_limits(bool on) {
    enforce_limits_ = on;
    if (!on) {
        limits_.clear();
        reported_limit_bits_ = 0;
    }
}

void EmulatedDevice::on_set_feedback_rate(const wire::Frame& frame) {
    if (frame.size() < 1 + sizeof(uint32_t)) return;
    const uint32_t period = wire::read_u32(&frame[1]);
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
    stream_items_.clear();
    for (std::size_t i = 1; i < frame.size(); ++i) {
        if (wire::is_item_code(frame[i])) stream_items_.push_back(static_cast<OCP_Items>(frame[i]));
    }
}

void EmulatedDevice::on_get_items(const wire::Frame& frame, int64_t now, Replies& out) {
    std::vector<OCP_Items> items;
    for (std::size_t i = 1; i < frame.size(); ++i) {
        if (wire::is_item_code(frame[i])) items.push_back(static_cast<OCP_Items>(frame[i]));
    }
    reply(out, item_records(items), wire::REPLY_REQUESTED, now);
}

void EmulatedDevice::on_set_parameters(const wire::Frame& frame) {
    for (std::size_t p = 1; p + wire::RECORD_SIZE <= frame.size(); p += wire::RECORD_SIZE) {
        const uint8_t code = frame[p];
        if (!is_known_parameter(code)) continue;
        const float value = wire::read_f32(&frame[p + 1]);
        const auto id = static_cast<P>(code);
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
    std::vector<uint8_t> bytes{static_cast<uint8_t>(wire::RecordCode::PARAMETERS)};
    for (std::size_t i = 1; i < frame.size(); ++i) {
        if (!is_known_parameter(frame[i])) continue;
        const auto id = static_cast<P>(frame[i]);
        wire::append_typed_parameter_record(bytes, code_of(id), physics_.param_or_nan(id));
    }
    reply(out, std::move(bytes), wire::REPLY_STREAMED, now);
}

void EmulatedDevice::on_clear_config(int64_t now) {
    saved_ = factory_parameters(factory_address_);
    restart_with(saved_, factory_address_);
    resetting_until_ = now + RESET_SILENCE_STEPS;
}

void EmulatedDevice::inject_errors(uint32_t error_word, int64_t now, Replies& out) {
    error_word_ = error_word;
    if (!answering(now)) return;
    std::vector<uint8_t> bytes{static_cast<uint8_t>(wire::RecordCode::ERROR_FLAGS)};
    wire::append_u32(bytes, error_word);
    reply(out, std::move(bytes), wire::REPLY_STREAMED, now);
}

void EmulatedDevice::power_cycle() {
    const float saved_address = saved_.count(P::ADDRESS) ? saved_.at(P::ADDRESS) : static_cast<float>(factory_address_);
    int address = saturating_i32(saved_address);
    if (!wire::is_valid_device_address(address)) address = factory_address_;
    restart_with(saved_, address);
    resetting_until_ = 0;
}

}  // namespace ocp_api::detail
