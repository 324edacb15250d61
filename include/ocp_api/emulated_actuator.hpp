// The controls of one emulated actuator, whichever bus hosts it: the simulated
// bus (SimBus) or a CAN link (CanDeviceHost).
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "ocp_api/orrery_actuator_virtual.hpp"

namespace ocp_api {

namespace detail {
class DeviceRoster;
class EmulatedDevice;
struct DeviceReply;
using DeviceReplies = std::vector<DeviceReply>;

// What a device's controls need from the bus hosting it.
class EmulatedDeviceOwner {
public:
    virtual ~EmulatedDeviceOwner() = default;
    // Guards the device; the owner's thread holds it while stepping.
    virtual std::mutex& device_mutex() = 0;
    // The simulated step the devices are at; called with device_mutex() held.
    virtual int64_t device_step() const = 0;
    // Sends replies a control produced now; called with device_mutex() held.
    virtual void emit_replies(DeviceReplies& replies) = 0;

protected:
    EmulatedDeviceOwner() = default;
    EmulatedDeviceOwner(const EmulatedDeviceOwner&) = default;
    EmulatedDeviceOwner& operator=(const EmulatedDeviceOwner&) = default;
};
}  // namespace detail

// The device behind one address of a bus. Every method is thread-safe.
class EmulatedActuator {
public:
    // Access to the device's physics while holding the bus's lock: the bus
    // does not step it meanwhile. Keep it short and do not call the bus from
    // inside: bus.actuator(0x21).physics()->change_load(0.5f);
    class PhysicsAccess {
    public:
        OrreryActuatorVirtual* operator->() const { return &physics_; }
        OrreryActuatorVirtual& operator*() const { return physics_; }

    private:
        friend class EmulatedActuator;
        PhysicsAccess(std::unique_lock<std::mutex> lock, OrreryActuatorVirtual& physics)
            : lock_(std::move(lock)), physics_(physics) {}
        std::unique_lock<std::mutex> lock_;
        OrreryActuatorVirtual& physics_;
    };

    ~EmulatedActuator();
    EmulatedActuator(const EmulatedActuator&) = delete;
    EmulatedActuator& operator=(const EmulatedActuator&) = delete;

    int address() const;
    uint16_t model_code() const;
    uint16_t firmware_word() const;
    PhysicsAccess physics();
    // Sends an ERROR_FLAGS record now and reports the word in item ERRORS_90
    // until it is replaced (inject_errors(0) clears it) or the device restarts.
    void inject_errors(uint32_t error_word);
    // Restarts the device with its saved configuration: unsaved parameter and
    // address changes are lost, the boot loader is left, streaming is off.
    void power_cycle();
    bool in_bootloader() const;
    int blink_count() const;
    // Limits as firmware enforces them, on unless the bus's options say
    // otherwise: torque references clamped to LIMIT_TORQUE, speed references
    // to LIMIT_SPEED_MIN..MAX, position references to LIMIT_POSITION_MIN..MAX;
    // each condition holds its bit of the error word ("Torque reference
    // maximum", "Speed feedback maximum", "Position reference maximum" and
    // "minimum", "Position feedback maximum" and "minimum") while it lasts,
    // and an ERROR_FLAGS record goes out when one arises. Limits where a
    // minimum exceeds its maximum (or a negative torque limit) raise "Invalid
    // limits" and stop the device, which then refuses to start. The physics
    // itself (OrreryActuatorVirtual) clamps nothing.
    void set_enforce_limits(bool on);
    bool enforces_limits() const;
    // The error word the device reports: injected errors and limit conditions.
    uint32_t error_word() const;
    // A silent device ignores every frame and sends nothing, as if unplugged.
    void set_silent(bool silent);
    bool is_silent() const;

private:
    friend class detail::DeviceRoster;
    EmulatedActuator(detail::EmulatedDeviceOwner& owner, std::unique_ptr<detail::EmulatedDevice> device);

    detail::EmulatedDeviceOwner& owner_;
    const std::unique_ptr<detail::EmulatedDevice> device_;
};

}  // namespace ocp_api
