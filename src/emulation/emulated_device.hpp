// The behaviour of one emulated actuator: it reads command frames and answers
// with reply records exactly as a device on the bus would, using the shared
// wire helpers, and moves by the simulated actuator's physics. Pure logic: no
// locks, no threads, no clock. The bus tells it the simulated step it is at.
#pragma once

#include <cstdint>
#include <limits>
#include <vector>

#include "emulation/device_limits.hpp"
#include "ocp_api/orrery_actuator_virtual.hpp"
#include "ocp_api/wire.hpp"

namespace ocp_api::detail {

// An emulated device moves by the simulated actuator's physics, so it speaks
// in that class's identifiers.
using OCP_Items = OrreryActuatorVirtual::OCP_Items;
using OCP_Parameters = OrreryActuatorVirtual::OCP_Parameters;
using Mode = OrreryActuatorVirtual::Mode;
using TorquePerformance = OrreryActuatorVirtual::TorquePerformance;
using SpeedPerformance = OrreryActuatorVirtual::SpeedPerformance;

// One reply buffer a device produced, and the simulated step it belongs to.
struct DeviceReply {
    int address;
    std::vector<uint8_t> bytes;
    int kind;
    int64_t step;
};

class EmulatedDevice {
public:
    using Replies = std::vector<DeviceReply>;
    static constexpr int64_t NEVER = std::numeric_limits<int64_t>::max();

    EmulatedDevice(int address, uint16_t model_code, uint16_t firmware_word, int64_t now_step);

    int address() const { return physics_.get_address(); }
    uint16_t model_code() const { return model_code_; }
    uint16_t firmware_word() const { return firmware_word_; }
    OrreryActuatorVirtual& physics() { return physics_; }

    // Acts on one frame addressed to this device at simulated step `now`.
    void handle_frame(const wire::Frame& frame, int64_t now, Replies& out);
    // Steps the physics up to `target`, streaming feedback on its period.
    void advance_to(int64_t target, Replies& out);
    // The next step at which the device streams, or NEVER.
    int64_t next_stream_step() const;

    void inject_errors(uint32_t error_word, int64_t now, Replies& out);
    void power_cycle();
    // Firmware limits (on by default): references clamped, conditions
    // reported in the error word and by an error record.
    void set_enforce_limits(bool on);
    bool enforces_limits() const { return enforce_limits_; }
    uint32_t error_word() const { return error_word_ | limits_.bits(); }
    bool in_bootloader() const { return bootloader_; }
    int blink_count() const { return blinks_; }
    void set_silent(bool silent) { silent_ = silent; }
    bool is_silent() const { return silent_; }
    bool answering(int64_t now) const { return !silent_ && !bootloader_ && now >= resetting_until_; }

private:
    void restart_with(const OrreryActuatorVirtual::ParameterMap& parameters, int address);
    void stop_streaming();
    void reply(Replies& out, std::vector<uint8_t> bytes, int kind, int64_t step) const;
    std::vector<uint8_t> item_records(const std::vector<OCP_Items>& items) const;

    // Command handlers, one per command of the wire format.
    void on_set_parameters(const wire::Frame& frame);
    void on_get_parameters(const wire::Frame& frame, int64_t now, Replies& out);
    void on_set_feedback_rate(const wire::Frame& frame);
    void on_set_feedback_items(const wire::Frame& frame);
    void on_get_items(const wire::Frame& frame, int64_t now, Replies& out);
    void on_clear_config(int64_t now);
    void on_setpoint(wire::Command command, const wire::Frame& frame);
    // The main reference of a setpoint command, within the device's limits.
    float clamp_reference(wire::Command command, float value);
    void on_start();
    void check_limits_after_parameters();
    // Sends an error record when a limit condition newly arose.
    void report_limits(int64_t now, Replies& out);

    const uint16_t model_code_;
    const uint16_t firmware_word_;
    const int factory_address_;
    OrreryActuatorVirtual physics_;
    OrreryActuatorVirtual::ParameterMap saved_;  // the non-volatile configuration
    int64_t steps_done_;
    std::vector<OCP_Items> stream_items_;
    uint32_t stream_period_ = 0;  // in steps of 100 us, as on the wire
    int64_t next_stream_step_ = NEVER;
    uint32_t error_word_ = 0;  // injected errors
    DeviceLimits limits_;
    bool enforce_limits_ = true;
    uint32_t reported_limit_bits_ = 0;
    bool silent_ = false;
    bool bootloader_ = false;
    int64_t resetting_until_ = 0;
    int blinks_ = 0;
};

// Parameter values of a device fresh from the factory at `address`.
OrreryActuatorVirtual::ParameterMap factory_parameters(int address);

}  // namespace ocp_api::detail
