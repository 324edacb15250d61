#include "emulation/device_roster.hpp"

#include <algorithm>
#include <sstream>
#include <stdexcept>
#include <string>

#include "ocp_api/wire.hpp"

namespace ocp_api::detail {

namespace {

std::string hex_address(int address) {
    std::ostringstream text;
    text << "0x" << std::hex << address;
    return text.str();
}

std::out_of_range no_device_at(int address) {
    return std::out_of_range("No emulated actuator at " + hex_address(address));
}

}  // namespace

DeviceRoster::DeviceRoster(Clock::time_point epoch, double time_scale) : clock_(epoch, time_scale) {}

EmulatedActuator& DeviceRoster::add(EmulatedDeviceOwner& owner, int address, uint16_t model_code,
                                    uint16_t firmware_word, const char* medium, bool enforce_limits) {
    if (!wire::is_valid_device_address(address))
        throw std::invalid_argument("Invalid address " + hex_address(address) + " for an emulated actuator: must be "
                                    "0x10..0x3ffe");
    if (device(address) != nullptr)
        throw std::invalid_argument("Address " + hex_address(address) + " is already taken on " + medium);
    auto logic = std::make_unique<EmulatedDevice>(address, model_code, firmware_word, steps_done_);
    logic->set_enforce_limits(enforce_limits);
    devices_.push_back(std::unique_ptr<EmulatedActuator>(new EmulatedActuator(owner, std::move(logic))));
    return *devices_.back();
}

void DeviceRoster::remove(int address) {
    const auto found = std::find_if(devices_.begin(), devices_.end(),
                                    [address](const auto& device) { return device->device_->address() == address; });
    if (found == devices_.end()) throw no_device_at(address);
    devices_.erase(found);
}

EmulatedActuator& DeviceRoster::actuator(int address) const {
    for (const auto& device : devices_) {
        if (device->device_->address() == address) return *device;
    }
    throw no_device_at(address);
}

EmulatedDevice* DeviceRoster::device(int address) const {
    for (const auto& device : devices_) {
        if (device->device_->address() == address) return device->device_.get();
    }
    return nullptr;
}

bool DeviceRoster::advance(Clock::time_point now, EmulatedDevice::Replies& streamed) {
    const int64_t present = clock_.step_at(now);
    const int64_t target = std::min(present, steps_done_ + MAX_STEPS_PER_PASS);
    if (target > steps_done_) {
        for (const auto& device : devices_) device->device_->advance_to(target, streamed);
        steps_done_ = target;
    }
    return steps_done_ < present;
}

std::optional<DeviceRoster::Clock::time_point> DeviceRoster::next_stream_time() const {
    int64_t next_tick = EmulatedDevice::NEVER;
    for (const auto& device : devices_) next_tick = std::min(next_tick, device->device_->next_stream_step());
    if (next_tick == EmulatedDevice::NEVER) return std::nullopt;
    return clock_.time_of_step(next_tick);
}

}  // namespace ocp_api::detail
