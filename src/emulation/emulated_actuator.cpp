// The thread-safe face of one emulated device: every control takes the
// hosting bus's device lock, so the bus's thread never steps the device
// meanwhile.
#include "ocp_api/emulated_actuator.hpp"

#include "emulation/emulated_device.hpp"

namespace ocp_api {

EmulatedActuator::EmulatedActuator(detail::EmulatedDeviceOwner& owner, std::unique_ptr<detail::EmulatedDevice> device)
    : owner_(owner), device_(std::move(device)) {}

EmulatedActuator::~EmulatedActuator() = default;

// A device's model code and firmware word never change: no lock needed.
uint16_t EmulatedActuator::model_code() const { return device_->model_code(); }
uint16_t EmulatedActuator::firmware_word() const { return device_->firmware_word(); }

int EmulatedActuator::address() const {
    std::lock_guard<std::mutex> lock(owner_.device_mutex());
    return device_->address();
}

EmulatedActuator::PhysicsAccess EmulatedActuator::physics() {
    return PhysicsAccess(std::unique_lock<std::mutex>(owner_.device_mutex()), device_->physics());
}

void EmulatedActuator::inject_errors(uint32_t error_word) {
    std::lock_guard<std::mutex> lock(owner_.device_mutex());
    detail::DeviceReplies replies;
    device_->inject_errors(error_word, owner_.device_step(), replies);
    owner_.emit_replies(replies);
}

void EmulatedActuator::power_cycle() {
    std::lock_guard<std::mutex> lock(owner_.device_mutex());
    device_->power_cycle();
}

bool EmulatedActuator::in_bootloader() const {
    std::lock_guard<std::mutex> lock(owner_.device_mutex());
    return device_->in_bootloader();
}

int EmulatedActuator::blink_count() const {
    std::lock_guard<std::mutex> lock(owner_.device_mutex());
    return device_->blink_count();
}

void EmulatedActuator::set_enforce_limits(bool on) {
    std::lock_guard<std::mutex> lock(owner_.device_mutex());
    device_->set_enforce_limits(on);
}

bool EmulatedActuator::enforces_limits() const {
    std::lock_guard<std::mutex> lock(owner_.device_mutex());
    return device_->enforces_limits();
}

uint32_t EmulatedActuator::error_word() const {
    std::lock_guard<std::mutex> lock(owner_.device_mutex());
    return device_->error_word();
}

void EmulatedActuator::set_silent(bool silent) {
    std::lock_guard<std::mutex> lock(owner_.device_mutex());
    device_->set_silent(silent);
}

bool EmulatedActuator::is_silent() const {
    std::lock_guard<std::mutex> lock(owner_.device_mutex());
    return device_->is_silent();
}

}  // namespace ocp_api
