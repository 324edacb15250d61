// The bus scanner: checks the adapter at address 0, then pings a range.
#include <chrono>
#include <iostream>
#include <sstream>

#include "common/diagnostics.hpp"
#include "common/timing.hpp"
#include "ocp_api/orrery_actuator.hpp"

namespace ocp_api {

namespace {

constexpr float ADAPTER_TIMEOUT_S = 1.0f;
constexpr float PROBE_ANSWER_PERIOD_S = 0.05f;
constexpr std::chrono::nanoseconds PROBE_POLL_PERIOD = std::chrono::milliseconds(1);
constexpr const char* ADAPTER_MODEL_NAME = "CAN_ADAPTER";

}  // namespace

OrreryActuatorScanner::OrreryActuatorScanner(OCP& ocp) : OrreryActuator(ocp, wire::ADAPTER_ADDRESS) {
    if (!connect(ADAPTER_TIMEOUT_S)) {
        detail::ErrorLine() << "CAN adapter not responding";
        return;
    }
    const std::string model = get_model_name();
    if (model.find(ADAPTER_MODEL_NAME) == std::string::npos) {
        detail::ErrorLine() << "Device is not a CAN adapter, it's a " << model;
        // The connected flag stays set; only the transport is closed.
        transport_.close();
    }
}

std::vector<int> OrreryActuatorScanner::scan(int first_address, int last_address) {
    if (!is_connected()) {
        detail::ErrorLine() << "CAN adapter is not connected";
        return {};
    }
    std::vector<int> found;
    for (int address = first_address; address <= last_address; ++address) {
        transport_.setCallback(address, [this](int source, std::vector<uint8_t> bytes, int kind) {
            can_callback(source, std::move(bytes), kind);
        });
        transport_.send(address, codec::Ping{}.encode());
        // The flag is cleared after the send and the time stamp: a reply
        // handled in that gap is not counted.
        const auto start = std::chrono::steady_clock::now();
        ping_answered_.store(false, std::memory_order_release);
        bool answered = false;
        while (detail::seconds_since(start) < PROBE_ANSWER_PERIOD_S) {
            if (ping_answered_.load(std::memory_order_acquire)) {
                answered = true;
                break;
            }
            detail::sleep_resuming(PROBE_POLL_PERIOD);
        }
        if (answered) {
            std::ostringstream line;
            line << "Device found: address 0x" << std::hex << address << std::dec << " (" << address << ")\tmodel "
                 << get_model_name() << "\tfirmware " << get_firmware_version();
            detail::write_line(std::cout, line.str(), detail::AfterLine::DECIMAL);
            found.push_back(address);
        }
        if (address >= 0) transport_.removeCallback(address);
        if (address == last_address) break;  // last_address may be INT_MAX
    }
    return found;
}

}  // namespace ocp_api
