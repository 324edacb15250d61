// The pipelined scan against the simulated bus: the whole address range, and
// a bus that loses frames.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <vector>

#include "ocp_api/bus_scan.hpp"
#include "ocp_api/sim_bus.hpp"
#include "ocp_api/wire.hpp"

namespace {

using namespace ocp_api;

std::vector<int> addresses_of(const std::vector<FoundDevice>& devices) {
    std::vector<int> addresses;
    for (const auto& device : devices) addresses.push_back(device.address);
    return addresses;
}

// Both ends of the range, neighbours, and addresses spread over it.
const std::vector<int> SPREAD = {0x10, 0x11, 0x12, 0x21, 0xff, 0x100, 0x7ff, 0x800, 0x1234,
                                 0x2000, 0x2aaa, 0x3000, 0x3ffd, 0x3ffe};

TEST(BusScanIntegration, FindsExactlyTheDevicesOfTheWholeRange) {
    SimBus bus;
    for (const int address : SPREAD) bus.add_actuator(address, 6, 0x1001);
    const auto found = scan_bus(bus, wire::MIN_DEVICE_ADDRESS, wire::MAX_DEVICE_ADDRESS);
    EXPECT_EQ(addresses_of(found), SPREAD);
    for (const auto& device : found) {
        EXPECT_EQ(device.model, "HERON_C");
        EXPECT_EQ(device.firmware, "2.0.1");
    }
    EXPECT_EQ(bus.counters().frames_sent, static_cast<uint64_t>(wire::MAX_DEVICE_ADDRESS - wire::MIN_DEVICE_ADDRESS + 1));
}

TEST(BusScanIntegration, DevicesAnsweringLateInTheirPeriodAreFound) {
    SimBusOptions late;
    late.reply_latency = std::chrono::milliseconds(30);
    SimBus bus(late);
    const std::vector<int> devices = {0x10, 0x40, 0x41, 0x200};
    for (const int address : devices) bus.add_actuator(address);
    BusScanOptions options;
    options.answer_period = std::chrono::milliseconds(150);
    EXPECT_EQ(addresses_of(scan_bus(bus, 0x10, 0x3ff, options)), devices);
}

TEST(BusScanIntegration, ALossyBusNeedsMoreAttemptsAndNeverInventsDevices) {
    SimBusOptions lossy;
    lossy.loss_rate = 0.3;
    lossy.seed = 7;
    SimBus bus(lossy);
    const std::vector<int> devices = {0x10, 0x11, 0x30, 0x31, 0x55, 0x80, 0xa0, 0x100, 0x1a0, 0x20f};
    for (const int address : devices) bus.add_actuator(address);

    // One pass: a device is missed when its ping or its answer is lost
    // (probability 0.51 here), so some are missing and none is made up.
    const auto one_pass = addresses_of(scan_bus(bus, 0x10, 0x20f));
    EXPECT_LT(one_pass.size(), devices.size());
    for (const int address : one_pass) EXPECT_NE(std::find(devices.begin(), devices.end(), address), devices.end());

    // Twenty passes: each device is missed with probability 0.51^20, about 1e-6.
    BusScanOptions retrying;
    retrying.attempts = 20;
    EXPECT_EQ(addresses_of(scan_bus(bus, 0x10, 0x20f, retrying)), devices);
}

}  // namespace
