// The timed virtual channel under the real transports, across layers: CanBus
// reacting to bus faults, the planner's figures against the bus time the
// channel measures for the same traffic, emulated limits reaching the host's
// error callback, and a control loop on an overloaded bus.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "ocp_api/bus_planner.hpp"
#include "ocp_api/can_bus.hpp"
#include "ocp_api/can_device_host.hpp"
#include "ocp_api/orrery_actuator.hpp"
#include "ocp_api/sim_bus.hpp"
#include "ocp_api/virtual_can.hpp"

namespace {

using namespace ocp_api;
using namespace std::chrono_literals;
using Items = OrreryActuator::OCP_Items;

// Waits for `done` with a generous bound; true when it came.
template <typename Predicate>
bool eventually(Predicate done, std::chrono::seconds bound = 20s) {
    const auto until = std::chrono::steady_clock::now() + bound;
    while (!done()) {
        if (std::chrono::steady_clock::now() > until) return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

VirtualCanOptions timed(uint32_t nominal, uint32_t data = 0) {
    VirtualCanOptions options;
    options.timing = CanBitRates{nominal, data};
    return options;
}

TEST(CanTimingIntegration, CanBusReportsErrorStatesBusOffAndRecovery) {
    VirtualCanOptions options = timed(1000000);
    options.bit_error_rate = 1.0;
    VirtualCanChannel channel(options);
    CanBus bus(channel.open());
    auto device = channel.open();
    std::mutex mutex;
    std::vector<CanLinkState> states;
    bus.set_state_callback([&](CanLinkState state) {
        std::lock_guard<std::mutex> lock(mutex);
        states.push_back(state);
    });
    ASSERT_TRUE(bus.send(0x21, {0x40}));
    ASSERT_TRUE(eventually([&] {
        std::lock_guard<std::mutex> lock(mutex);
        return states.size() >= 3;
    }));
    channel.set_bit_error_rate(0.0);
    // Bus-off ends by itself after 128 x 11 recessive bits.
    ASSERT_TRUE(eventually([&] {
        std::lock_guard<std::mutex> lock(mutex);
        return states.size() >= 4;
    }));
    {
        std::lock_guard<std::mutex> lock(mutex);
        EXPECT_EQ(states, (std::vector<CanLinkState>{CanLinkState::error_warning, CanLinkState::error_passive,
                                                     CanLinkState::bus_off, CanLinkState::active}));
    }
    const CanBusCounters counters = bus.counters();
    EXPECT_EQ(counters.link_errors, 3u);
    EXPECT_EQ(counters.restarts, 1u);
    EXPECT_EQ(channel.bus_stats().error_frames, 32u);
    // Traffic resumes.
    ASSERT_TRUE(bus.send(0x21, {0x40}));
    CanLinkEvent event;
    do {
        event = device->receive(20s);
    } while (event.type == CanLinkEvent::Type::state);
    ASSERT_EQ(event.type, CanLinkEvent::Type::frame);
    EXPECT_EQ(event.frame.id, 0x00D00021u);
}

TEST(CanTimingIntegration, BabblingNodeShowsUpAsForeignFramesAndStarvesCommands) {
    VirtualCanChannel channel(timed(1000000));
    CanBus bus(channel.open());
    CanDeviceHost host(channel.open());
    host.add_actuator(0x21);
    CanFrame babble;
    babble.id = 0x001;
    babble.extended = false;
    babble.len = 8;
    channel.start_babbling(babble);
    ASSERT_TRUE(bus.send(0x21, {0x40}));
    ASSERT_TRUE(eventually([&] { return bus.counters().foreign_frames >= 100; }));
    EXPECT_EQ(host.counters().commands_in, 0u);  // the ping never wins the bus
    channel.stop_babbling();
    ASSERT_TRUE(eventually([&] { return host.counters().commands_in == 1; }));
}

// One control period through the real host transport and device host: the
// position command (segmented, with the device's flow control) and one
// streamed reply of 4 items (likewise), measured on the channel.
TEST(CanTimingIntegration, PlannerMatchesTheBusTimeMeasuredForOnePeriod) {
    VirtualCanChannel channel(timed(1000000));
    CanBus bus(channel.open());
    CanDeviceHost host(channel.open());
    host.add_actuator(0x21);
    OrreryActuator actuator(bus, 0x21);

    actuator.change_position_setpoint(1.25f, 0.5f);  // the mode change goes first
    ASSERT_TRUE(eventually([&] { return host.counters().commands_in == 2; }));
    const auto before_command = channel.bus_stats().busy;
    actuator.change_position_setpoint(1.25f, 0.5f);
    ASSERT_TRUE(eventually([&] { return host.counters().commands_in == 3; }));
    const auto command_time = channel.bus_stats().busy - before_command;

    // Each streamed reply's frames have all gone by when its callback runs.
    std::mutex mutex;
    std::vector<std::chrono::nanoseconds> busy_at_reply;
    actuator.set_feedback_callback([&](int, const OrreryActuator::FeedbackMap&) {
        const auto busy = channel.bus_stats().busy;
        std::lock_guard<std::mutex> lock(mutex);
        busy_at_reply.push_back(busy);
    });
    actuator.setFeedbackItems({Items::POS_FB_4C, Items::SPD_FB_45, Items::T_FB_49, Items::ERRORS_90});
    actuator.setFeedbackRate(10);
    ASSERT_TRUE(eventually([&] {
        std::lock_guard<std::mutex> lock(mutex);
        return busy_at_reply.size() >= 2;
    }));
    actuator.setFeedbackRate(0);
    std::chrono::nanoseconds reply_time;
    {
        std::lock_guard<std::mutex> lock(mutex);
        reply_time = busy_at_reply[1] - busy_at_reply[0];
    }
    const double measured_us = static_cast<double>((command_time + reply_time).count()) / 1000.0;

    BusPlanRequest request;
    request.rates = CanBitRates{1000000, 0};
    const BusPlan plan = plan_bus(request);
    EXPECT_GE(measured_us, plan.actuator_us_nominal);
    EXPECT_LE(measured_us, plan.actuator_us_worst);
    EXPECT_NEAR(measured_us, plan.actuator_us_expected, 0.02 * plan.actuator_us_expected)
        << "measured " << measured_us << " us, planned " << plan.actuator_us_expected << " us";
    RecordProperty("measured_us", std::to_string(measured_us));
}

TEST(CanTimingIntegration, DeviceLimitsReachTheHostsErrorCallback) {
    SimBus bus;
    bus.add_actuator(0x21);
    OrreryActuator actuator(bus, 0x21);
    std::mutex mutex;
    std::vector<OrreryActuator::ErrorMap> reports;
    actuator.set_error_callback([&](int, OrreryActuator::ErrorMap errors) {
        std::lock_guard<std::mutex> lock(mutex);
        reports.push_back(std::move(errors));
    });
    actuator.change_torque_setpoint(25.0f);  // the factory torque limit is 10
    ASSERT_TRUE(eventually([&] {
        std::lock_guard<std::mutex> lock(mutex);
        return !reports.empty();
    }));
    {
        std::lock_guard<std::mutex> lock(mutex);
        EXPECT_EQ(reports[0], (OrreryActuator::ErrorMap{{6, "Torque reference maximum"}}));
    }
    actuator.set_parameters({{OrreryActuator::OCP_Parameters::LIMIT_POSITION_MIN, 500.0f}});
    ASSERT_TRUE(eventually([&] {
        std::lock_guard<std::mutex> lock(mutex);
        return reports.size() >= 2;
    }));
    {
        std::lock_guard<std::mutex> lock(mutex);
        EXPECT_EQ(reports[1].count(17), 1u);
        EXPECT_EQ(reports[1].at(17), "Invalid limits");
    }
    EXPECT_FALSE(bus.actuator(0x21).physics()->is_running());
}

TEST(CanTimingIntegration, LimitsOffOnTheBusLetEverySetpointThrough) {
    SimBusOptions options;
    options.enforce_limits = false;
    SimBus bus(options);
    bus.add_actuator(0x21);
    EXPECT_FALSE(bus.actuator(0x21).enforces_limits());
    OrreryActuator actuator(bus, 0x21);
    std::atomic<int> reports{0};
    actuator.set_error_callback([&](int, OrreryActuator::ErrorMap) { ++reports; });
    actuator.change_torque_setpoint(25.0f);
    ASSERT_TRUE(eventually([&] { return bus.actuator(0x21).physics()->get_setpoint() == 25.0f; }));
    EXPECT_EQ(bus.actuator(0x21).error_word(), 0u);
    EXPECT_EQ(reports.load(), 0);
}

// A control loop of plain actuators over CanBus: each period every actuator
// gets a position command whose value is the period's number, and streams the
// reference it acts on back once per period. The feedback's age is how many
// periods behind the number the host sees is. The adapter queue is deep, so
// nothing is dropped and a backlog shows as age. The loop runs at 125 Hz on
// buses 8 times slower than usual: the same ratio of bus time to period as
// 1 kHz at 1 Mbit/s, with time for the threads to react on a busy machine
// (and under ThreadSanitizer).
struct LoopRun {
    std::vector<int> ages;  // of the first actuator, one per period once feedback came
    double load = 0;
};

constexpr int LOOP_HZ = 125;

LoopRun run_position_loop(const VirtualCanOptions& channel_options, bool fd, int actuators, int periods) {
    VirtualCanChannel channel(channel_options);
    CanBusOptions bus_options;
    bus_options.isotp.fd = fd;
    CanDeviceHostOptions host_options;
    host_options.isotp.fd = fd;
    CanBus bus(channel.open(fd), bus_options);
    CanDeviceHost host(channel.open(fd), host_options);
    std::vector<std::unique_ptr<OrreryActuator>> joints;
    std::vector<std::unique_ptr<std::atomic<int>>> echoed;
    for (int i = 0; i < actuators; ++i) {
        host.add_actuator(0x21 + i);
        joints.push_back(std::make_unique<OrreryActuator>(bus, 0x21 + i));
        echoed.push_back(std::make_unique<std::atomic<int>>(-1));
        std::atomic<int>& seen = *echoed.back();
        joints.back()->set_feedback_callback([&seen](int, const OrreryActuator::FeedbackMap& feedback) {
            const auto found = feedback.find(Items::REF_4B);
            if (found != feedback.end()) seen.store(static_cast<int>(std::lround(found->second * 1000.0f)));
        });
        joints.back()->change_position_setpoint(0.0f);
        joints.back()->setFeedbackItems({Items::REF_4B, Items::POS_FB_4C, Items::SPD_FB_45, Items::T_FB_49});
        joints.back()->setFeedbackRate(LOOP_HZ);
    }
    EXPECT_TRUE(eventually([&] { return echoed[0]->load() == 0; }));
    const auto start_busy = channel.bus_stats();
    LoopRun run;
    auto next = std::chrono::steady_clock::now();
    for (int k = 1; k <= periods; ++k) {
        for (auto& joint : joints) joint->change_position_setpoint(static_cast<float>(k) / 1000.0f);
        run.ages.push_back(k - echoed[0]->load());
        next += std::chrono::microseconds(1000000 / LOOP_HZ);
        std::this_thread::sleep_until(next);
    }
    const auto end_busy = channel.bus_stats();
    run.load = static_cast<double>((end_busy.busy - start_busy.busy).count()) /
               static_cast<double>((end_busy.elapsed - start_busy.elapsed).count());
    for (auto& joint : joints) joint->setFeedbackRate(0);
    joints.clear();
    bus.close();
    host.close();
    return run;
}

int median(std::vector<int> values) {
    std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
    return values[values.size() / 2];
}

TEST(CanTimingIntegration, ControlLoopOnAnOverloadedBusShowsFeedbackAgeGrowing) {
    constexpr int PERIODS = 300;
    constexpr int WINDOW = 50;
    // Three actuators with position commands and 4 items on classic CAN: the
    // planner says 3.8 periods of bus time per period.
    VirtualCanOptions overloaded = timed(125000);
    overloaded.tx_queue_limit = 1u << 20;
    BusPlanRequest request;
    request.rates = CanBitRates{125000, 0};
    request.rate_hz = LOOP_HZ;
    request.actuators = 3;
    ASSERT_GT(plan_bus(request).load_nominal, 3.0);
    const LoopRun slow = run_position_loop(overloaded, false, 3, PERIODS);
    ASSERT_EQ(slow.ages.size(), static_cast<std::size_t>(PERIODS));
    const int early = median(std::vector<int>(slow.ages.begin(), slow.ages.begin() + WINDOW));
    const int late = median(std::vector<int>(slow.ages.end() - WINDOW, slow.ages.end()));
    // The bus rests only while a node takes its time to answer a first frame.
    EXPECT_GT(slow.load, 0.85);
    EXPECT_GT(late, early + 50) << "early " << early << ", late " << late;

    // The same loop on CAN-FD with a data phase 5 times faster, which the
    // planner says fits.
    VirtualCanOptions roomy = timed(125000, 625000);
    roomy.tx_queue_limit = 1u << 20;
    request.fd = true;
    request.rates.data = 625000;
    ASSERT_LT(plan_bus(request).load_worst, 1.0);
    const LoopRun fast = run_position_loop(roomy, true, 3, PERIODS);
    const int fast_late = median(std::vector<int>(fast.ages.end() - WINDOW, fast.ages.end()));
    EXPECT_LT(fast.load, 0.9);
    // Bounded by how quickly the host and the devices react, not by the bus
    // (1 period on an idle machine).
    EXPECT_LT(fast_late * 10, late) << "late " << fast_late;
    RecordProperty("overloaded_age_early", early);
    RecordProperty("overloaded_age_late", late);
    RecordProperty("fitting_age_late", fast_late);
}

}  // namespace
