// The physical driver end to end over CAN: OrreryActuator and
// OrreryActuatorScanner on a CanBus, emulated devices on another endpoint of
// the same virtual channel, on classic CAN and on CAN-FD.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "ocp_api/can_bus.hpp"
#include "ocp_api/can_device_host.hpp"
#include "ocp_api/orrery_actuator.hpp"
#include "ocp_api/version.hpp"
#include "ocp_api/virtual_can.hpp"
#include "support/eventually.hpp"
#include "support/bus_expectations.hpp"
#include "support/stream_capture.hpp"

namespace {

using namespace ocp_api;
using namespace std::chrono_literals;
using ocp_test::eventually;
using ocp_test::StreamCapture;
using Items = OrreryActuator::OCP_Items;
using P = OrreryActuator::OCP_Parameters;

// A host bus and a device host on one channel, classic or CAN-FD.
class CanBusIntegration : public ::testing::TestWithParam<bool> {
protected:
    static can::IsoTpOptions segmentation(bool fd) {
        can::IsoTpOptions options;
        options.fd = fd;
        return options;
    }
    bool fd() const { return GetParam(); }

    VirtualCanChannel channel;
    CanDeviceHost devices{channel.open(fd()), CanDeviceHostOptions{segmentation(fd())}};
    CanBus bus{channel.open(fd()), CanBusOptions{segmentation(fd())}};
};

TEST_P(CanBusIntegration, ConnectReportsModelAndFirmware) {
    devices.add_actuator(0x21, 3, 0x0842);
    OrreryActuator joint(bus, 0x21);
    EXPECT_TRUE(joint.connect(1.0f));
    EXPECT_EQ(joint.get_model_name(), "HERON_A");
    EXPECT_EQ(joint.get_firmware_version(), "1.1.2");
    OrreryActuator nobody(bus, 0x40);
    EXPECT_FALSE(nobody.connect(0.1f));
}

TEST_P(CanBusIntegration, ScanFindsExactlyTheEmulatedDevices) {
    CanDeviceHostOptions options{segmentation(fd())};
    options.reply_latency = ocp_test::SCAN_REPLY_LATENCY;
    CanDeviceHost slow_devices(channel.open(fd()), options);
    slow_devices.add_actuator(0x21, 3, 0x0842);
    slow_devices.add_actuator(0x23, 6, 0x0843);
    ocp_test::expect_scan_finds_0x21_and_0x23(bus);
}

TEST_P(CanBusIntegration, StreamingAtOneKilohertzForOneSecond) {
    devices.add_actuator(0x21);
    OrreryActuator joint(bus, 0x21);
    std::atomic<int> rows{0};
    std::atomic<int> wrong_items{0};
    joint.set_feedback_callback([&](int, OrreryActuator::FeedbackMap items) {
        rows.fetch_add(1);
        if (items.size() != 2 || !items.count(Items::POS_FB_4C) || !items.count(Items::T_FB_56)) wrong_items.fetch_add(1);
    });
    joint.setFeedbackItems({Items::POS_FB_4C, Items::T_FB_56});
    joint.setFeedbackRate(1000);
    ASSERT_TRUE(eventually([&] { return rows.load() > 0; }));
    // Count the rows of one measured second of wall time.
    const int first = rows.load();
    const auto start = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(1s);
    const int last = rows.load();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    joint.setFeedbackRate(0);
    EXPECT_NEAR(last - first, 1000.0 * seconds, 200.0);
    EXPECT_EQ(wrong_items.load(), 0);
}

TEST_P(CanBusIntegration, RequestedItemsAndAllParametersInSegmentedReplies) {
    devices.add_actuator(0x21);
    OrreryActuator joint(bus, 0x21);
    const auto items = joint.getItemsBlocking({Items::VBUS_70, Items::ERRORS_90, Items::TEMP_WINDING_72}, 1.0f);
    EXPECT_EQ(items, (OrreryActuator::FeedbackMap{
                         {Items::VBUS_70, 48.0f}, {Items::ERRORS_90, 0.0f}, {Items::TEMP_WINDING_72, 25.0f}}));
    const auto before = bus.counters();
    const auto all = joint.get_parameters_all();
    ASSERT_EQ(all.size(), 31u);
    EXPECT_EQ(all.at(P::DEVICE_80), 20000.0f);
    EXPECT_EQ(all.at(P::ADDRESS), 33.0f);
    EXPECT_EQ(all.at(P::MODE), 6.0f);
    EXPECT_EQ(all.at(P::LIMIT_TORQUE), 10.0f);
    const auto after = bus.counters();
    const uint64_t replies = after.messages_in - before.messages_in;
    const uint64_t frames = after.frames_in - before.frames_in;
    EXPECT_EQ(replies, 4u) << "31 parameters come in replies of 9, 9, 9 and 4";
    if (!fd()) {
        EXPECT_GT(frames, replies * 2) << "classic CAN carries the parameter replies in several frames each";
    }

    joint.set_parameters({{P::LIMIT_TORQUE, 2.5f}, {P::DEVICE_83, 7.0f}});
    const auto read_back = joint.get_parameters({P::LIMIT_TORQUE, P::DEVICE_83}, 1.0f);
    EXPECT_EQ(read_back.at(P::LIMIT_TORQUE), 2.5f);
    EXPECT_EQ(read_back.at(P::DEVICE_83), 7.0f);
}

TEST_P(CanBusIntegration, InjectedErrorReachesTheDefaultCallbackWhichStopsTheDevice) {
    devices.add_actuator(0x21);
    ocp_test::expect_injected_error_stops_0x21(bus, devices);
}

TEST_P(CanBusIntegration, AnAddressChangeSurvivesAPowerCycleOnlyWhenSaved) {
    devices.add_actuator(0x21);
    {
        OrreryActuator joint(bus, 0x21);
        EXPECT_TRUE(joint.connect(1.0f));
        joint.changeAddress(0x30);
        joint.save_config();
        OrreryActuator moved(bus, 0x30);
        ASSERT_TRUE(moved.connect(1.0f));
        devices.actuator(0x30).power_cycle();
        bus.removeCallback(0x21);
    }
    OrreryActuator moved(bus, 0x30);
    EXPECT_TRUE(moved.connect(1.0f));
    OrreryActuator old_address(bus, 0x21);
    EXPECT_FALSE(old_address.connect(0.05f));


    // A change that is not saved is gone after the next power cycle.
    moved.changeAddress(0x31);
    {
        OrreryActuator unsaved(bus, 0x31);
        ASSERT_TRUE(unsaved.connect(1.0f));
        devices.actuator(0x31).power_cycle();
        EXPECT_FALSE(unsaved.connect(0.05f));
    }
    OrreryActuator saved_address(bus, 0x30);
    EXPECT_TRUE(saved_address.connect(1.0f));
}

INSTANTIATE_TEST_SUITE_P(ClassicAndFd, CanBusIntegration, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& info) { return info.param ? "Fd" : "Classic"; });

}  // namespace
