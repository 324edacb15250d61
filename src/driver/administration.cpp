// Device administration: bus address, CAN speed, bootloader, home, blink.
#include "ocp_api/orrery_actuator.hpp"

#include "common/diagnostics.hpp"
#include "common/timing.hpp"

namespace ocp_api {

void OrreryActuator::changeAddress(int new_address) {
    const int current = address_.load();
    if (new_address == current) {
        detail::ErrorLine() << "New address is the same as current: " << new_address;
        return;
    }
    if (!wire::is_valid_device_address(new_address)) {
        detail::ErrorLine() << "Invalid address " << new_address << ". Must be 0x10..0x3FFE";
        return;
    }
    // Goes to the old address; the receive callback stays registered under the
    // construction address (a new actuator at the new address receives replies).
    set_parameters({{OCP_Parameters::ADDRESS, static_cast<float>(new_address)}});
    address_.store(new_address);
}

void OrreryActuator::set_can_high_speed(bool on) {
    can_high_speed_.store(on);
    set_parameters({{OCP_Parameters::CAN_HIGH_SPEED, on ? 1.0f : 0.0f}});
}

void OrreryActuator::enter_bootloader() {
    send(codec::EnterBootloader{});
    detail::sleep_resuming(detail::DEVICE_RESET_PAUSE);
}

void OrreryActuator::set_home_position() { send(codec::SetHomePosition{}); }

void OrreryActuator::blink() { send(codec::Blink{}); }

}  // namespace ocp_api
