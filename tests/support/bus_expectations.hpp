// Checks shared by every transport's integration tests, whatever carries the
// frames between the driver and the emulated devices.
#pragma once

#include <chrono>
#include <iostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ocp_api/ocp.hpp"
#include "ocp_api/orrery_actuator.hpp"
#include "ocp_api/version.hpp"
#include "support/eventually.hpp"
#include "support/stream_capture.hpp"

namespace ocp_test {

// How late the devices of a scan test answer. The scanner does not count a
// reply that arrives before it has cleared its flag after send(), so a device
// quicker than a preempted scanning thread goes unseen; 20 ms leaves as much
// room on each side of the reply within the 50 ms answer period.
constexpr std::chrono::microseconds SCAN_REPLY_LATENCY{20000};

// On a bus where emulated devices answer at 0x21 (HERON_A, 1.1.2) and 0x23
// (HERON_C, 1.1.3), the adapter at address 0 is found and a scan of
// 0x1E..0x25 prints and returns exactly those two.
inline void expect_scan_finds_0x21_and_0x23(ocp_api::OCP& bus) {
    StreamCapture out(std::cout);
    StreamCapture err(std::cerr);
    std::vector<int> found;
    std::string adapter_model, adapter_firmware;
    {
        ocp_api::OrreryActuatorScanner scanner(bus);
        EXPECT_TRUE(scanner.is_connected());
        adapter_model = scanner.get_model_name();
        adapter_firmware = scanner.get_firmware_version();
        found = scanner.scan(0x1E, 0x25);
    }
    EXPECT_EQ(adapter_model, "CAN_ADAPTER");
    EXPECT_EQ(adapter_firmware, ocp_api::VERSION_TEXT);
    EXPECT_EQ(found, (std::vector<int>{0x21, 0x23}));
    EXPECT_EQ(out.text(),
              "Device found: address 0x21 (33)\tmodel HERON_A\tfirmware 1.1.2\n"
              "Device found: address 0x23 (35)\tmodel HERON_C\tfirmware 1.1.3\n");
    EXPECT_EQ(err.text(), "");
}

// On a bus where `devices` (a SimBus or a CanDeviceHost) hosts a device at
// 0x21, an error injected there reaches the driver's default error callback,
// which prints its two lines and stops the device; the device then reports
// the error word in its ERRORS_90 item.
template <class DeviceHost>
void expect_injected_error_stops_0x21(ocp_api::OCP& bus, DeviceHost& devices) {
    using Items = ocp_api::OrreryActuator::OCP_Items;
    ocp_api::OrreryActuator joint(bus, 0x21);
    joint.start();
    ASSERT_TRUE(eventually([&] { return devices.actuator(0x21).physics()->is_running(); }));
    StreamCapture err(std::cerr);
    devices.actuator(0x21).inject_errors(1u << 16);
    ASSERT_TRUE(eventually([&] { return !devices.actuator(0x21).physics()->is_running(); }));
    // The ping's answer comes after the error callback has returned.
    ASSERT_TRUE(joint.send_ping(5.0f));
    EXPECT_EQ(err.text(),
              "Actuator 0x21 Error code: 16 - Current maximum\n"
              "Actuator 0x21 Stopping (override error_callback to change)\n");
    EXPECT_EQ(joint.getItemsBlocking({Items::ERRORS_90}, 1.0f).at(Items::ERRORS_90), 65536.0f);
}

}  // namespace ocp_test
