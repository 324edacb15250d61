// The emulated devices of one bus and the simulated time they are at: what
// the simulated bus and a CAN device host have in common. Not thread-safe:
// its owner guards it with the lock it also hands to the devices' controls.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "emulation/device_clock.hpp"
#include "emulation/emulated_device.hpp"
#include "ocp_api/emulated_actuator.hpp"

namespace ocp_api::detail {

class DeviceRoster {
public:
    using Clock = DeviceClock::Clock;

    // The most simulated time one advance() steps through (0.1 s). A host that
    // falls further behind the wall clock catches up over several passes and
    // can let other threads have its lock in between, instead of stepping for
    // seconds at a stretch.
    static constexpr int64_t MAX_STEPS_PER_PASS = 1000;

    DeviceRoster(Clock::time_point epoch, double time_scale);
    DeviceRoster(const DeviceRoster&) = delete;
    DeviceRoster& operator=(const DeviceRoster&) = delete;

    // Adds a device whose controls go through `owner`. Throws
    // std::invalid_argument for an address outside 0x10..0x3FFE or one a
    // device already answers to; `medium` ends that message ("the simulated bus").
    EmulatedActuator& add(EmulatedDeviceOwner& owner, int address, uint16_t model_code, uint16_t firmware_word,
                          const char* medium, bool enforce_limits = true);
    // Both throw std::out_of_range when no device answers to `address`.
    void remove(int address);
    EmulatedActuator& actuator(int address) const;
    // The device logic answering to `address` now, or nullptr.
    EmulatedDevice* device(int address) const;
    std::size_t size() const { return devices_.size(); }

    const DeviceClock& clock() const { return clock_; }
    int64_t steps_done() const { return steps_done_; }
    // Steps every device toward the step due at `now`, by at most
    // MAX_STEPS_PER_PASS, appending what they stream to `streamed` (each reply
    // names its step). Returns true while still behind the clock.
    bool advance(Clock::time_point now, EmulatedDevice::Replies& streamed);
    // When the next streamed reply is due, if any device streams.
    std::optional<Clock::time_point> next_stream_time() const;

private:
    const DeviceClock clock_;
    std::vector<std::unique_ptr<EmulatedActuator>> devices_;
    int64_t steps_done_ = 0;
};

}  // namespace ocp_api::detail
