// The group against a recording transport and a clock the test moves: every
// reply is delivered on the test's thread, so statuses, ages and frames are exact.
#include "ocp_api/actuator_group.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <memory>

#include "support/device_replies.hpp"
#include "support/failing_allocation.hpp"
#include "support/recording_transport.hpp"
#include "support/stream_capture.hpp"

namespace {

using namespace std::chrono_literals;
using ocp_api::ActuatorGroup;
using ocp_api::ActuatorGroupOptions;
using ocp_api::FeedbackStatus;
using ocp_api::GroupSetup;
using ocp_api::GroupSnapshot;
using ocp_test::Bytes;
using ocp_test::f32;
using ocp_test::operator+;
using ocp_test::RecordingTransport;
using ocp_test::u32;
using Item = ocp_api::OrreryActuator::OCP_Items;
using Mode = ocp_api::OrreryActuator::Mode;

// Time in nanoseconds since an arbitrary origin; only the test moves it.
struct TestClock {
    std::shared_ptr<std::atomic<int64_t>> ns = std::make_shared<std::atomic<int64_t>>(1'000'000'000);
    void advance(std::chrono::nanoseconds d) { ns->fetch_add(d.count()); }
    ocp_api::GroupClock::time_point now() const {
        return ocp_api::GroupClock::time_point(std::chrono::nanoseconds(ns->load()));
    }
    std::function<ocp_api::GroupClock::time_point()> function() const {
        auto shared = ns;
        return [shared] { return ocp_api::GroupClock::time_point(std::chrono::nanoseconds(shared->load())); };
    }
};

Bytes item(Item code, float value) { return Bytes{static_cast<uint8_t>(code)} + f32(value); }
Bytes item_word(Item code, uint32_t word) { return Bytes{static_cast<uint8_t>(code)} + u32(word); }

class GroupTest : public ::testing::Test {
protected:
    GroupTest() {
        ActuatorGroupOptions options;
        options.stale_after = 10ms;
        options.silent_after = 100ms;
        options.ping_interval = 50ms;
        options.clock = clock.function();
        group = std::make_unique<ActuatorGroup>(options);
        group->add(bus, 0x21);
        group->add(bus, 0x22);
    }
    void set_up(Mode mode = Mode::IMPEDANCE) {
        group->set_up(GroupSetup{{Item::POS_FB_4C, Item::SPD_FB_45, Item::ERRORS_90}, 1000, mode});
        bus.clear_records();
    }
    std::vector<Bytes> frames_to(int address) const {
        std::vector<Bytes> frames;
        for (const auto& sent : bus.sent())
            if (sent.address == address) frames.push_back(sent.frame);
        return frames;
    }

    TestClock clock;
    RecordingTransport bus;
    std::unique_ptr<ActuatorGroup> group;
    GroupSnapshot snapshot;
};

TEST_F(GroupTest, SetUpStopsThenSendsItemsRateAndModeToEveryActuator) {
    group->set_up(GroupSetup{{Item::POS_FB_4C, Item::SPD_FB_45}, 500, Mode::POSITION});
    const std::vector<Bytes> expected{{0x02}, {0x07, 0x4C, 0x45}, {0x06, 0x14, 0x00, 0x00, 0x00}, {0x03, 0x07}};
    EXPECT_EQ(frames_to(0x21), expected);
    EXPECT_EQ(frames_to(0x22), expected);
}

TEST_F(GroupTest, SetUpRefusesRatesOutsideTheRangeAndUnnamedModes) {
    EXPECT_THROW(group->set_up(GroupSetup{{Item::POS_FB_4C}, 0, Mode::SPEED}), std::invalid_argument);
    EXPECT_THROW(group->set_up(GroupSetup{{Item::POS_FB_4C}, 10001, Mode::SPEED}), std::invalid_argument);
    EXPECT_THROW(group->set_up(GroupSetup{{Item::POS_FB_4C}, 100, static_cast<Mode>(2)}), std::invalid_argument);
    EXPECT_TRUE(bus.sent().empty());
}

TEST_F(GroupTest, RefusesTheSameAddressOnTheSameBusTwiceAlsoAcrossGroups) {
    try {
        group->add(bus, 0x21);
        FAIL() << "no exception";
    } catch (const std::invalid_argument& error) {
        EXPECT_STREQ(error.what(), "actuator 0x21 is already in a group on this bus; one driver per address");
    }
    RecordingTransport second_bus;  // outlives the group, as a bus must
    ActuatorGroup other;
    EXPECT_THROW(other.add(bus, 0x22), std::invalid_argument);
    EXPECT_EQ(other.add(second_bus, 0x21), 0u);  // another bus: another device
    EXPECT_THROW(other.add(bus, 0x05), std::invalid_argument);
    EXPECT_EQ(group->size(), 2u);
}

TEST_F(GroupTest, AnAddressIsFreeAgainOnceItsGroupIsGone) {
    group.reset();
    ActuatorGroup next;
    EXPECT_EQ(next.add(bus, 0x21), 0u);
}

TEST_F(GroupTest, SnapshotStatusesAndAgesFollowArrivalsExactly) {
    set_up();
    group->take_snapshot(snapshot);
    ASSERT_EQ(snapshot.actuators.size(), 2u);
    EXPECT_EQ(snapshot.number, 1u);
    EXPECT_EQ(snapshot.actuators[0].status, FeedbackStatus::missing);  // nothing yet
    EXPECT_EQ(snapshot.actuators[0].sequence, 0u);
    EXPECT_TRUE(std::isnan(snapshot.actuators[0].value(Item::POS_FB_4C)));

    const auto arrival = clock.now();
    ASSERT_TRUE(bus.deliver(0x21, item(Item::POS_FB_4C, 1.25f) + item(Item::SPD_FB_45, -2.0f)));
    clock.advance(1ms);
    group->take_snapshot(snapshot);
    const auto& a = snapshot.actuators[0];
    EXPECT_EQ(a.status, FeedbackStatus::fresh);
    EXPECT_EQ(a.sequence, 1u);
    EXPECT_EQ(a.arrived, arrival);
    EXPECT_EQ(a.age, 1ms);
    EXPECT_EQ(a.value(Item::POS_FB_4C), 1.25f);
    EXPECT_EQ(a.value(Item::SPD_FB_45), -2.0f);
    EXPECT_EQ(snapshot.actuators[1].status, FeedbackStatus::missing);

    clock.advance(9ms);  // age 10 ms: still within stale_after
    group->take_snapshot(snapshot);
    EXPECT_EQ(snapshot.actuators[0].status, FeedbackStatus::stale);
    EXPECT_EQ(snapshot.actuators[0].age, 10ms);

    clock.advance(1ns);
    group->take_snapshot(snapshot);
    EXPECT_EQ(snapshot.actuators[0].status, FeedbackStatus::missing);
    EXPECT_EQ(snapshot.actuators[0].value(Item::POS_FB_4C), 1.25f);  // the last value is still shown

    ASSERT_TRUE(bus.deliver(0x21, item(Item::POS_FB_4C, 2.0f)));
    group->take_snapshot(snapshot);
    EXPECT_EQ(snapshot.actuators[0].status, FeedbackStatus::fresh);
    EXPECT_EQ(snapshot.actuators[0].sequence, 2u);
    EXPECT_EQ(snapshot.actuators[0].age, 0ns);
    EXPECT_EQ(snapshot.actuators[0].value(Item::SPD_FB_45), -2.0f);  // not in this reply: kept

    const auto statistics = group->statistics().actuators[0];
    EXPECT_EQ(statistics.fresh, 2u);
    EXPECT_EQ(statistics.stale, 1u);
    EXPECT_EQ(statistics.missing, 2u);
    EXPECT_EQ(statistics.feedback_age.count(), 4u);
    EXPECT_EQ(statistics.feedback_age.max(), 10ms + 1ns);
    EXPECT_EQ(group->statistics().actuators[1].missing, 5u);
}

TEST_F(GroupTest, AnswersToOneShotRequestsAreNotStreamedFeedback) {
    set_up();
    ASSERT_TRUE(bus.deliver(0x21, item(Item::POS_FB_4C, 3.0f), ocp_api::wire::REPLY_REQUESTED));
    group->take_snapshot(snapshot);
    EXPECT_EQ(snapshot.actuators[0].status, FeedbackStatus::missing);
    EXPECT_EQ(snapshot.actuators[0].sequence, 0u);
}

TEST_F(GroupTest, IntegerItemsAreAvailableExactly) {
    set_up();
    ASSERT_TRUE(bus.deliver(0x21, item_word(Item::ERRORS_90, 0x89ABCDEFu)));
    group->take_snapshot(snapshot);
    EXPECT_EQ(snapshot.actuators[0].word(Item::ERRORS_90), 0x89ABCDEFu);
    EXPECT_EQ(snapshot.actuators[0].value(Item::ERRORS_90), static_cast<float>(0x89ABCDEFu));
    EXPECT_NE(static_cast<uint32_t>(snapshot.actuators[0].value(Item::ERRORS_90)), 0x89ABCDEFu);
    EXPECT_THROW(snapshot.actuators[0].value(Item::T_FB_56), std::out_of_range);
}

TEST_F(GroupTest, AnErrorRecordIsKeptDecodedWithItsTimeAndASevereOneMeansStopped) {
    set_up();
    group->start_all();
    clock.advance(5ms);
    const auto when = clock.now();
    ocp_test::StreamCapture err(std::cerr);  // the driver's own report of the error
    ASSERT_TRUE(bus.deliver(0x21, ocp_test::error_reply(0x00010001u)));
    group->take_snapshot(snapshot);
    const auto& fault = snapshot.actuators[0].fault;
    EXPECT_TRUE(fault.present);
    EXPECT_TRUE(fault.severe);
    EXPECT_EQ(fault.error_word, 0x00010001u);
    EXPECT_EQ(fault.when, when);
    EXPECT_EQ(fault.descriptions(), (std::vector<std::string>{"Overtemperature", "Current maximum"}));
    EXPECT_FALSE(snapshot.actuators[0].running);
    EXPECT_TRUE(snapshot.actuators[1].running);
    EXPECT_FALSE(snapshot.actuators[1].fault.present);
    EXPECT_EQ(group->statistics().actuators[0].faults, 1u);
    // The driver's default reaction reports the error and stops the device.
    EXPECT_NE(err.text().find("Actuator 0x21 Error code: 16 - Current maximum"), std::string::npos) << err.text();
    EXPECT_EQ(frames_to(0x21).back(), (Bytes{0x02}));
}

TEST_F(GroupTest, UnnamedErrorBitsAreDescribedByNumber) {
    ocp_api::FaultRecord fault;
    fault.error_word = (1u << 1) | (1u << 12);
    EXPECT_EQ(fault.descriptions(), (std::vector<std::string>{"Unknown error bit 1", "Control overrun"}));
}

TEST_F(GroupTest, OnlyTheMainSetpointGoesInTheFiveByteFrame) {
    set_up(Mode::IMPEDANCE);
    ASSERT_TRUE(group->set_setpoint(0, 1.5f));
    EXPECT_EQ(group->send_setpoints(), 1u);
    EXPECT_EQ(frames_to(0x21), (std::vector<Bytes>{Bytes{0x04} + f32(1.5f)}));
    EXPECT_TRUE(frames_to(0x22).empty());
}

TEST_F(GroupTest, ChangedExtrasSendTheFullCommandOnceThenTheShortFrameAgain) {
    set_up(Mode::IMPEDANCE);
    auto extras = ActuatorGroup::unchanged_extras();
    extras[1] = 40.0f;  // K_STIFF
    extras[2] = 2.0f;   // K_DAMP
    ASSERT_TRUE(group->set_setpoint(0, 0.5f, extras));
    group->send_setpoints();
    ASSERT_TRUE(group->set_setpoint(0, 0.75f, extras));
    group->send_setpoints();
    ASSERT_TRUE(group->set_setpoint(0, 1.0f));  // the extras in force stay
    group->send_setpoints();
    const float nan = ocp_api::UNCHANGED;
    const Bytes full = Bytes{0x14} + f32(0.5f) + f32(nan) + f32(40.0f) + f32(2.0f) + f32(nan) + f32(nan) + f32(nan) +
                       f32(nan);
    const auto frames = frames_to(0x21);
    ASSERT_EQ(frames.size(), 3u);
    EXPECT_EQ(frames[0], full);
    EXPECT_EQ(frames[0].size(), 33u);
    EXPECT_EQ(frames[1], Bytes{0x04} + f32(0.75f));
    EXPECT_EQ(frames[2], Bytes{0x04} + f32(1.0f));
    const auto statistics = group->statistics().actuators[0];
    EXPECT_EQ(statistics.setpoints_full, 1u);
    EXPECT_EQ(statistics.setpoints_short, 2u);
}

TEST_F(GroupTest, TheFullCommandHasTheModesLength) {
    set_up(Mode::TORQUE);
    auto extras = ActuatorGroup::unchanged_extras();
    extras[0] = 1.0f;
    ASSERT_TRUE(group->set_setpoint(1, 0.25f, extras));
    group->send_setpoints();
    const float nan = ocp_api::UNCHANGED;
    EXPECT_EQ(frames_to(0x22), (std::vector<Bytes>{Bytes{0x11} + f32(0.25f) + f32(1.0f) + f32(nan) + f32(nan) + f32(nan)}));
}

TEST_F(GroupTest, NonFiniteSetpointsAreRefusedCountedAndThePreviousOneKept) {
    set_up(Mode::POSITION);
    ASSERT_TRUE(group->set_setpoint(0, 1.0f));
    EXPECT_FALSE(group->set_setpoint(0, std::nanf("")));
    EXPECT_FALSE(group->set_setpoint(0, INFINITY));
    auto extras = ActuatorGroup::unchanged_extras();
    extras[0] = -INFINITY;
    EXPECT_FALSE(group->set_setpoint(0, 2.0f, extras));
    group->send_setpoints();
    EXPECT_EQ(frames_to(0x21), (std::vector<Bytes>{Bytes{0x04} + f32(1.0f)}));
    EXPECT_EQ(group->statistics().actuators[0].setpoints_refused, 3u);
    EXPECT_EQ(group->statistics().actuators[0].setpoints_superseded, 0u);
}

TEST_F(GroupTest, ASetpointReplacedBeforeItWasSentIsCountedSuperseded) {
    set_up(Mode::SPEED);
    ASSERT_TRUE(group->set_setpoint(0, 1.0f));
    ASSERT_TRUE(group->set_setpoint(0, 2.0f));
    EXPECT_EQ(group->send_setpoints(), 1u);
    EXPECT_EQ(group->send_setpoints(), 0u);  // nothing new
    EXPECT_EQ(frames_to(0x21), (std::vector<Bytes>{Bytes{0x04} + f32(2.0f)}));
    EXPECT_EQ(group->statistics().actuators[0].setpoints_superseded, 1u);
}

TEST_F(GroupTest, ASilentDeviceIsPingedAndSetUpAgainLeftStoppedWhenItAnswers) {
    set_up(Mode::SPEED);
    group->start_all();
    ASSERT_TRUE(bus.deliver(0x21, item(Item::POS_FB_4C, 1.0f)));
    ASSERT_TRUE(bus.deliver(0x22, item(Item::POS_FB_4C, 1.0f)));
    bus.clear_records();
    clock.advance(100ms);
    group->maintain();  // exactly silent_after: still answering
    EXPECT_TRUE(bus.sent().empty());
    ASSERT_TRUE(bus.deliver(0x22, item(Item::POS_FB_4C, 1.0f)));  // 0x22 keeps streaming
    clock.advance(1ms);
    group->maintain();
    EXPECT_EQ(frames_to(0x21), (std::vector<Bytes>{{0x40}}));
    EXPECT_TRUE(frames_to(0x22).empty());
    group->take_snapshot(snapshot);
    EXPECT_FALSE(snapshot.actuators[0].answering);
    EXPECT_TRUE(snapshot.actuators[1].answering);

    clock.advance(49ms);
    group->maintain();  // before ping_interval: no second ping
    EXPECT_EQ(frames_to(0x21).size(), 1u);
    clock.advance(1ms);
    group->maintain();
    EXPECT_EQ(frames_to(0x21), (std::vector<Bytes>{{0x40}, {0x40}}));
    ASSERT_TRUE(group->set_setpoint(0, 3.0f));
    EXPECT_EQ(group->send_setpoints(), 0u);  // nobody listens to it

    bus.clear_records();
    ASSERT_TRUE(bus.deliver(0x21, ocp_test::ping_reply(3, 0x0842)));
    group->maintain();
    EXPECT_EQ(frames_to(0x21),
              (std::vector<Bytes>{{0x02}, {0x07, 0x4C, 0x45, 0x90}, {0x06, 0x0A, 0x00, 0x00, 0x00}, {0x03, 0x06}}));
    group->take_snapshot(snapshot);
    EXPECT_TRUE(snapshot.actuators[0].answering);
    EXPECT_FALSE(snapshot.actuators[0].running);  // never started by the group itself
    EXPECT_TRUE(snapshot.actuators[1].running);
    const auto statistics = group->statistics().actuators[0];
    EXPECT_EQ(statistics.restarts, 1u);
    EXPECT_EQ(statistics.pings, 2u);
}

TEST_F(GroupTest, AStreamThatComesBackByItselfIsNotSetUpAgain) {
    set_up(Mode::SPEED);
    clock.advance(101ms);
    group->maintain();
    EXPECT_EQ(frames_to(0x21), (std::vector<Bytes>{{0x40}}));
    ASSERT_TRUE(bus.deliver(0x21, item(Item::POS_FB_4C, 1.0f)));
    bus.clear_records();
    group->maintain();
    EXPECT_TRUE(frames_to(0x21).empty());
    EXPECT_EQ(group->statistics().actuators[0].restarts, 0u);
}

TEST_F(GroupTest, StopAllSendsOneStopEachAndDestructionStopsEveryActuator) {
    set_up();
    group->start_all();
    EXPECT_EQ(frames_to(0x21), (std::vector<Bytes>{{0x01}}));
    bus.clear_records();
    group->stop_all();
    EXPECT_EQ(frames_to(0x21), (std::vector<Bytes>{{0x02}}));
    EXPECT_EQ(frames_to(0x22), (std::vector<Bytes>{{0x02}}));
    bus.clear_records();
    group.reset();
    EXPECT_FALSE(frames_to(0x21).empty());
    for (const auto& frame : frames_to(0x21)) EXPECT_EQ(frame, Bytes{0x02});
    for (const auto& frame : frames_to(0x22)) EXPECT_EQ(frame, Bytes{0x02});
    EXPECT_FALSE(bus.has_callback(0x21));
}

TEST_F(GroupTest, FeedbackMissingBeyondTheBoundIsReportedForRunningActuators) {
    ActuatorGroupOptions options;
    options.stale_after = 10ms;
    options.stop_when_missing_for = 30ms;
    options.clock = clock.function();
    RecordingTransport other_bus;
    ActuatorGroup watched(options);
    watched.add(other_bus, 0x30);
    watched.set_up(GroupSetup{{Item::POS_FB_4C}, 1000, Mode::SPEED});
    clock.advance(40ms);
    watched.take_snapshot(snapshot);
    EXPECT_FALSE(watched.feedback_lost());  // stopped: nothing to protect
    watched.start_all();
    ASSERT_TRUE(other_bus.deliver(0x30, item(Item::POS_FB_4C, 1.0f)));
    clock.advance(29ms);
    watched.take_snapshot(snapshot);
    EXPECT_FALSE(watched.feedback_lost());
    clock.advance(1ms);
    watched.take_snapshot(snapshot);
    EXPECT_TRUE(watched.feedback_lost());
}

TEST_F(GroupTest, ResetStatisticsClearsTheCountsAndKeepsTheAddresses) {
    set_up();
    group->take_snapshot(snapshot);
    group->reset_statistics();
    const auto statistics = group->statistics();
    ASSERT_EQ(statistics.actuators.size(), 2u);
    EXPECT_EQ(statistics.actuators[1].address, 0x22);
    EXPECT_EQ(statistics.actuators[1].missing, 0u);
    EXPECT_EQ(statistics.buses.size(), 1u);
    EXPECT_FALSE(statistics.buses[0].link.has_value());  // a transport without a link state
}

// A bus that takes frames without keeping them: whatever allocates in the
// test below is the group's own doing.
class CountingBus : public ocp_api::OCP {
public:
    bool send(int, const std::vector<uint8_t>& frame) override {
        bytes += frame.size();
        ++frames;
        return true;
    }
    void setCallback(int address, ReceiveCallback callback) override { registry.set(address, std::move(callback)); }
    void removeCallback(int address) override { registry.remove(address); }
    void close() override {}
    ocp_api::CallbackRegistry registry;
    std::size_t frames = 0;
    std::size_t bytes = 0;
};

TEST(GroupPeriod, ASteadyStatePeriodAllocatesNothing) {
    CountingBus bus;
    ActuatorGroup group;
    for (int address = 0x21; address < 0x21 + 8; ++address) group.add(bus, address);
    group.set_up(GroupSetup{{Item::POS_FB_4C, Item::SPD_FB_45}, 1000, Mode::IMPEDANCE});
    group.start_all();
    for (int address = 0x21; address < 0x21 + 8; ++address)
        ASSERT_TRUE(bus.registry.dispatch(address, item(Item::POS_FB_4C, 1.0f), 0));
    GroupSnapshot snapshot;
    group.take_snapshot(snapshot);  // the snapshot's storage is made here, once
    auto extras = ActuatorGroup::unchanged_extras();
    const std::size_t frames_before = bus.frames;
    {
        ocp_test::FailingAllocation no_heap;
        for (int period = 0; period < 3; ++period) {
            group.take_snapshot(snapshot);
            for (std::size_t i = 0; i < group.size(); ++i) {
                extras[1] = static_cast<float>(period);  // changing gains: the full command
                group.set_setpoint(i, snapshot.actuators[i].values[0], extras);
                group.set_setpoint(i, 0.5f);  // superseded, then the short frame next period
            }
            group.send_setpoints();
            group.maintain();
        }
        group.stop_all();
    }
    EXPECT_EQ(bus.frames - frames_before, 3u * 8u + 8u);
    EXPECT_EQ(group.statistics().actuators[7].setpoints_superseded, 3u);
}

TEST(GroupOptions, NonPositiveDurationsAreRefusedByName) {
    ActuatorGroupOptions options;
    options.stale_after = 0ms;
    try {
        ActuatorGroup group(options);
        FAIL() << "no exception";
    } catch (const std::invalid_argument& error) {
        EXPECT_STREQ(error.what(), "ActuatorGroupOptions::stale_after must be positive");
    }
}

}  // namespace
