// Emulated actuators on a CAN link: the device side of the CAN mapping. The
// same device logic as the simulated bus (physics, every command, parameters
// with save and clear, power cycle, boot loader, errors) answers any host on
// the link, segmented exactly as a real device would.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "ocp_api/can_link.hpp"
#include "ocp_api/emulated_actuator.hpp"
#include "ocp_api/isotp_options.hpp"

namespace ocp_api {

struct CanDeviceHostOptions {
    can::IsoTpOptions isotp;                      // `isotp.fd` needs a link that carries CAN-FD
    double time_scale = 1.0;                      // simulated seconds per wall second, 1e-6..1000
    std::chrono::microseconds busy_retry{2000};   // how long one frame is retried on a busy adapter
    // Between a whole command and the device's answer, 0..1 s. Real firmware
    // takes a little while; a device answering faster than the host can look
    // (the scanner starts its answer period only after its ping is sent) would
    // be missed, so the default models a quick device rather than none.
    std::chrono::microseconds reply_latency{200};
    // Devices added enforce their limits as firmware does (see EmulatedActuator).
    bool enforce_limits = true;
};

struct CanDeviceHostCounters {
    uint64_t frames_in = 0;            // every frame the link delivered
    uint64_t frames_out = 0;           // frames the link accepted
    uint64_t commands_in = 0;          // whole commands handed to a device
    uint64_t replies_out = 0;          // replies queued for sending
    uint64_t foreign_frames = 0;       // not commands to a device of this host
    uint64_t segmentation_errors = 0;
    uint64_t timeouts = 0;
    uint64_t drops = 0;                // frames or messages given up
    uint64_t link_errors = 0;          // sends the link refused
};

// Owns one thread that pulls the link, runs the devices' physics in step with
// the wall clock (times time_scale), and sends their replies and streamed
// feedback. Every method is thread-safe.
class CanDeviceHost {
public:
    // Called on the host's thread with each whole command a device received.
    using CommandObserver = std::function<void(int address, const std::vector<uint8_t>& command)>;

    // Throws std::invalid_argument for a null link, invalid options, or CAN-FD
    // asked of a link that does not carry it.
    explicit CanDeviceHost(std::unique_ptr<CanLink> link, CanDeviceHostOptions options = {});
    virtual ~CanDeviceHost();
    CanDeviceHost(const CanDeviceHost&) = delete;
    CanDeviceHost& operator=(const CanDeviceHost&) = delete;

    // Adds a device; throws std::invalid_argument for an address outside
    // 0x10..0x3FFE or one a device already answers to.
    EmulatedActuator& add_actuator(int address, uint16_t model_code = 3, uint16_t firmware_word = 0x0842);
    // Removes the device now at `address` (references to it become invalid);
    // throws std::out_of_range when there is none.
    void remove_actuator(int address);
    // The device now at `address`; throws std::out_of_range when there is none.
    EmulatedActuator& actuator(int address);
    std::size_t actuator_count() const;

    void set_command_observer(CommandObserver observer);
    CanDeviceHostCounters counters() const;
    // Stops the thread; the devices stay and answer nothing. Safe to call more than once.
    void close();

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace ocp_api
