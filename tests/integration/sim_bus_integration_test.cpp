// The physical driver end to end over the simulated bus: OrreryActuator and
// OrreryActuatorScanner talking to emulated devices through SimBus.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <random>
#include <sstream>
#include <thread>

#include "ocp_api/orrery_actuator.hpp"
#include "ocp_api/sim_bus.hpp"
#include "ocp_api/version.hpp"
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


bool quiescent(const SimBus& bus) {
    const auto c = bus.counters();
    return c.frames_handled + c.frames_superseded + c.frames_cancelled + c.frames_expired == c.frames_received &&
           c.replies_sent == c.replies_lost + c.replies_delivered + c.replies_unclaimed;
}

TEST(SimBusIntegration, ConnectReportsModelAndFirmware) {
    SimBus bus;
    bus.add_actuator(0x21, 3, 0x0842);
    bus.add_actuator(0x22, 9, 0x1001);
    OrreryActuator a(bus, 0x21);
    OrreryActuator b(bus, 0x22);
    EXPECT_TRUE(a.connect(1.0f));
    EXPECT_TRUE(b.connect(1.0f));
    EXPECT_EQ(a.get_model_name(), "HERON_A");
    EXPECT_EQ(a.get_firmware_version(), "1.1.2");
    EXPECT_EQ(b.get_model_name(), "KESTREL_C");
    EXPECT_EQ(b.get_firmware_version(), "2.0.1");
    OrreryActuator nobody(bus, 0x40);
    EXPECT_FALSE(nobody.connect(0.1f));
}

TEST(SimBusIntegration, ScanFindsExactlyTheEmulatedDevices) {
    SimBus bus(SimBusOptions{1.0, ocp_test::SCAN_REPLY_LATENCY});
    bus.add_actuator(0x21, 3, 0x0842);
    bus.add_actuator(0x23, 6, 0x0843);
    ocp_test::expect_scan_finds_0x21_and_0x23(bus);
}

TEST(SimBusIntegration, StreamingAtOneKilohertzForOneSimulatedSecond) {
    SimBus bus;
    bus.add_actuator(0x21);
    OrreryActuator joint(bus, 0x21);
    std::atomic<int> callbacks{0};
    std::atomic<int> wrong_items{0};
    joint.set_feedback_callback([&](int, OrreryActuator::FeedbackMap items) {
        callbacks.fetch_add(1);
        if (items.size() != 2 || !items.count(Items::POS_FB_4C) || !items.count(Items::T_FB_56)) wrong_items.fetch_add(1);
    });
    joint.setFeedbackItems({Items::POS_FB_4C, Items::T_FB_56});
    joint.setFeedbackRate(1000);
    const double start = bus.sim_time();
    ASSERT_TRUE(eventually([&] { return bus.sim_time() >= start + 1.0; }));
    joint.setFeedbackRate(0);
    ASSERT_TRUE(eventually([&] { return quiescent(bus); }));
    // One reply per simulated millisecond while streaming was on. On a loaded
    // machine the worker reads the two rate frames a little late, so the
    // stream lasts at least about a second and at most as long as the
    // simulated time that passed until the bus was quiet again.
    const double streamed_at_most = (bus.sim_time() - start) * 1000.0;
    EXPECT_GE(callbacks.load(), 950);
    EXPECT_LE(callbacks.load(), streamed_at_most + 2.0);
    EXPECT_EQ(wrong_items.load(), 0);
    const auto feedback = joint.get_feedback();
    EXPECT_EQ(feedback.size(), 2u);
}

TEST(SimBusIntegration, RequestedItemsAndAllParametersWithTheirTypes) {
    SimBus bus;
    bus.add_actuator(0x21);
    OrreryActuator joint(bus, 0x21);
    const auto items = joint.getItemsBlocking({Items::VBUS_70, Items::ERRORS_90, Items::TEMP_WINDING_72}, 1.0f);
    EXPECT_EQ(items, (OrreryActuator::FeedbackMap{
                         {Items::VBUS_70, 48.0f}, {Items::ERRORS_90, 0.0f}, {Items::TEMP_WINDING_72, 25.0f}}));
    const auto all = joint.get_parameters_all();
    ASSERT_EQ(all.size(), 31u);
    EXPECT_EQ(all.at(P::DEVICE_80), 20000.0f);
    EXPECT_EQ(all.at(P::DEVICE_82), 1.0f);
    EXPECT_EQ(all.at(P::DEVICE_84), 20000.0f);
    EXPECT_EQ(all.at(P::ADDRESS), 33.0f);
    EXPECT_EQ(all.at(P::MODE), 6.0f);
    EXPECT_EQ(all.at(P::LIMIT_TORQUE), 10.0f);

    joint.set_parameters({{P::LIMIT_TORQUE, 2.5f}, {P::DEVICE_83, 7.0f}, {P::MODE, 7.9f}});
    const auto read_back = joint.get_parameters({P::LIMIT_TORQUE, P::DEVICE_83, P::MODE}, 1.0f);
    EXPECT_EQ(read_back.at(P::LIMIT_TORQUE), 2.5f);
    EXPECT_EQ(read_back.at(P::DEVICE_83), 7.0f);
    EXPECT_EQ(read_back.at(P::MODE), 7.0f) << "the host truncates the mode it reads";
}

TEST(SimBusIntegration, EachControlModeDrivesTheEmulatedPhysics) {
    SimBus bus(SimBusOptions{10.0});
    bus.add_actuator(0x21);
    OrreryActuator joint(bus, 0x21);
    auto item = [&](Items which) { return joint.getItemsBlocking({which}, 1.0f)[which]; };
    joint.start();

    joint.change_position_setpoint(1.0f);
    ASSERT_TRUE(eventually([&] { return std::abs(item(Items::POS_FB_4C) - 1.0f) < 1e-3f; }));
    EXPECT_EQ(item(Items::REF_4B), 1.0f);

    joint.change_speed_setpoint(2.0f);
    ASSERT_TRUE(eventually([&] { return item(Items::SPD_FB_45) == 2.0f; }));
    const float before = item(Items::POS_FB_4C);
    ASSERT_TRUE(eventually([&] { return item(Items::POS_FB_4C) > before + 0.5f; }));

    joint.change_torque_setpoint(1.0f);
    const float speed_then = item(Items::SPD_FB_45);
    ASSERT_TRUE(eventually([&] { return item(Items::SPD_FB_45) > speed_then + 0.2f; }));
    EXPECT_EQ(item(Items::T_FB_56), 1.0f);

    joint.change_impedance_setpoint(0.5f, 0.0f, 50.0f, 12.0f);
    ASSERT_TRUE(eventually([&] { return std::abs(item(Items::POS_FB_4C) - 0.5f) < 1e-2f; }));
    EXPECT_EQ(bus.actuator(0x21).physics()->get_mode(), OrreryActuatorVirtual::Mode::IMPEDANCE);

    joint.stop();
    ASSERT_TRUE(eventually([&] { return !bus.actuator(0x21).physics()->is_running(); }));
}

TEST(SimBusIntegration, AnAddressChangeSurvivesAPowerCycleOnlyWhenSaved) {
    SimBus bus;
    bus.add_actuator(0x21);
    {
        OrreryActuator joint(bus, 0x21);
        joint.changeAddress(0x30);
        EXPECT_EQ(joint.get_address(), 0x30);
        ASSERT_TRUE(eventually([&] { return quiescent(bus) && bus.actuator_count() == 1; }));
        EXPECT_EQ(bus.actuator(0x30).address(), 0x30) << "the device moved at once";
        bus.actuator(0x30).power_cycle();  // not saved
        EXPECT_EQ(bus.actuator(0x21).address(), 0x21);
        bus.removeCallback(0x21);  // the construction registration stays otherwise
    }
    {
        OrreryActuator joint(bus, 0x21);
        EXPECT_TRUE(joint.connect(1.0f));
        joint.changeAddress(0x30);
        joint.save_config();
        ASSERT_TRUE(eventually([&] { return quiescent(bus); }));
        bus.actuator(0x30).power_cycle();
        bus.removeCallback(0x21);
    }
    OrreryActuator moved(bus, 0x30);
    EXPECT_TRUE(moved.connect(1.0f));
    OrreryActuator old_address(bus, 0x21);
    EXPECT_FALSE(old_address.connect(0.05f));
}

TEST(SimBusIntegration, InjectedErrorReachesTheDefaultCallbackWhichStopsTheDevice) {
    SimBus bus;
    bus.add_actuator(0x21);
    ocp_test::expect_injected_error_stops_0x21(bus, bus);
}

TEST(SimBusIntegration, LossyBusNeverHangsAndAccountsForEveryLoss) {
    SimBus bus(SimBusOptions{1.0, std::chrono::microseconds(100), 0.3, 42});
    bus.add_actuator(0x21);
    OrreryActuator joint(bus, 0x21);
    StreamCapture err(std::cerr);
    std::mt19937 rng(3);
    int answered = 0, timed_out = 0;
    for (int i = 0; i < 1000; ++i) {
        switch (rng() % 4) {
            case 0: {
                const auto items = joint.getItemsBlocking({Items::VBUS_70}, 0.02f);
                (items.empty() ? timed_out : answered) += 1;
                break;
            }
            case 1:
                (joint.send_ping(0.025f) ? answered : timed_out) += 1;
                break;
            case 2: {
                const auto parameters = joint.get_parameters({P::LIMIT_TORQUE}, 0.025f);
                (parameters.empty() ? timed_out : answered) += 1;
                break;
            }
            default:
                joint.change_position_setpoint(static_cast<float>(i % 7));
                break;
        }
    }
    ASSERT_TRUE(eventually([&] { return quiescent(bus); }));
    const auto c = bus.counters();
    EXPECT_EQ(c.frames_sent, c.frames_received + c.frames_lost);
    EXPECT_EQ(c.replies_sent, c.replies_delivered + c.replies_unclaimed + c.replies_lost);
    EXPECT_GT(c.frames_lost, 200u);
    EXPECT_GT(answered, 150);
    EXPECT_GT(timed_out, 100);
    std::istringstream lines(err.text());
    for (std::string line; std::getline(lines, line);) {
        EXPECT_TRUE(line == "Timeout waiting for feedback items" || line == "Timeout waiting for parameters") << line;
    }
}

TEST(SimBusIntegration, DestroyingActuatorsAndTheBusWhileStreamingFast) {
    for (int round = 0; round < 3; ++round) {
        auto bus = std::make_unique<SimBus>();
        std::atomic<int> callbacks{0};
        std::vector<std::unique_ptr<OrreryActuator>> joints;
        for (int address = 0x21; address <= 0x23; ++address) {
            bus->add_actuator(address);
            auto joint = std::make_unique<OrreryActuator>(*bus, address);
            joint->set_feedback_callback([&](int, OrreryActuator::FeedbackMap) { callbacks.fetch_add(1); });
            joint->setFeedbackItems({Items::POS_FB_4C, Items::SPD_FB_45});
            joint->setFeedbackRate(10000);
            joints.push_back(std::move(joint));
        }
        ASSERT_TRUE(eventually([&] { return callbacks.load() > 300; }));
        if (round == 1) bus->close();  // a closed bus first, then its actuators
        if (round == 2) std::swap(joints.front(), joints.back());
        joints.clear();
        bus.reset();
    }
}

}  // namespace
