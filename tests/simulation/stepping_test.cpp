#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "ocp_api/orrery_actuator_virtual.hpp"
#include "support/failing_allocation.hpp"

namespace {

using ocp_api::OrreryActuatorVirtual;
using Mode = OrreryActuatorVirtual::Mode;
using P = OrreryActuatorVirtual::OCP_Parameters;
using Items = OrreryActuatorVirtual::OCP_Items;
using FeedbackMap = OrreryActuatorVirtual::FeedbackMap;

TEST(VirtualStepping, StoppedActuatorOnlyAdvancesTime) {
    OrreryActuatorVirtual actuator(0x21);
    actuator.change_setpoint(1.0f);
    actuator.step(std::nullopt, 10000);
    EXPECT_EQ(actuator.get_position(), 0.0f);
    EXPECT_EQ(actuator.get_speed(), 0.0f);
    EXPECT_EQ(actuator.get_torque(), 0.0f);
    EXPECT_EQ(actuator.get_sim_time(9), 1.0000535f);
    EXPECT_EQ(actuator.get_sim_time(3), 1.0f);
    EXPECT_EQ(actuator.get_step_count(), 10000u);
}

TEST(VirtualStepping, PositionLawOneStep) {
    OrreryActuatorVirtual actuator(0x21);
    actuator.start();
    actuator.change_setpoint(1.0f);
    actuator.step();
    EXPECT_EQ(actuator.get_speed(), 20.0f);
    EXPECT_EQ(actuator.get_torque(), 2.0f);
    // One float step of 20 * 0.1 ms: 0.002 to within one ulp.
    EXPECT_EQ(actuator.get_position(), 20.0f * 0.0001f);
    EXPECT_FLOAT_EQ(actuator.get_position(), 0.002f);
}

TEST(VirtualStepping, SpeedLawOneStepWithLoad) {
    OrreryActuatorVirtual actuator(0x21);
    actuator.start();
    actuator.change_mode(Mode::SPEED);
    actuator.change_setpoint(5.0f);
    actuator.step(0.5f, 1);
    EXPECT_EQ(actuator.get_speed(), 5.0f);
    EXPECT_EQ(actuator.get_position(), 5.0f * 0.0001f);
    EXPECT_FLOAT_EQ(actuator.get_position(), 0.0005f);
    EXPECT_EQ(actuator.get_torque(), -0.5f);
}

TEST(VirtualStepping, SpeedLawTorqueIsNanForAnInfiniteSetpoint) {
    OrreryActuatorVirtual actuator(0x21);
    actuator.start();
    actuator.change_mode(Mode::SPEED);
    actuator.change_setpoint(std::numeric_limits<float>::infinity());
    actuator.step();
    EXPECT_TRUE(std::isnan(actuator.get_torque()));
}

TEST(VirtualStepping, TorqueLawOneStep) {
    OrreryActuatorVirtual actuator(0x21);
    actuator.start();
    actuator.change_mode(Mode::TORQUE);
    actuator.change_setpoint(1.0f);
    actuator.step();
    EXPECT_EQ(actuator.get_torque(), 1.0f);
    EXPECT_EQ(actuator.get_speed(), 0.0001f);
    EXPECT_EQ(actuator.get_position(), 0.0001f * 0.0001f);
    EXPECT_FLOAT_EQ(actuator.get_position(), 0.00000001f);
}

TEST(VirtualStepping, ImpedanceUsesDefaultGainsWhenNoneAreStored) {
    OrreryActuatorVirtual actuator(0x21);
    actuator.start();
    actuator.change_mode(Mode::IMPEDANCE);
    actuator.change_setpoint(1.0f);
    actuator.step();  // torque = 1.0 * (1 - 0) - 0.1 * 0 - 0
    EXPECT_EQ(actuator.get_torque(), 1.0f);
    EXPECT_EQ(actuator.get_speed(), 0.0001f);
    actuator.step();  // torque = 1.0 * (1 - 1e-8) - 0.1 * 1e-4
    const float position = 0.00000001f;
    const float speed = 0.0001f;
    EXPECT_EQ(actuator.get_torque(), 1.0f * (1.0f - position) - 0.1f * speed - 0.0f);
}

TEST(VirtualStepping, ImpedanceReadsStoredGainsAtTheNextStep) {
    OrreryActuatorVirtual actuator(0x21);
    actuator.start();
    actuator.change_impedance_setpoint(1.0f, NAN, 4.0f, 0.5f);
    actuator.step();
    EXPECT_EQ(actuator.get_torque(), 4.0f);
    actuator.set_parameters({{P::K_STIFF, 8.0f}});
    const float position = actuator.get_position();
    const float speed = actuator.get_speed();
    actuator.step();
    EXPECT_EQ(actuator.get_torque(), 8.0f * (1.0f - position) - 0.5f * speed - 0.0f);
}

TEST(VirtualStepping, OtherModesHold) {
    OrreryActuatorVirtual actuator(0x21);
    actuator.start();
    actuator.change_mode(static_cast<Mode>(3));
    actuator.change_setpoint(1.0f);
    actuator.step(std::nullopt, 100);
    EXPECT_EQ(actuator.get_position(), 0.0f);
    EXPECT_EQ(actuator.get_step_count(), 100u);
}

TEST(VirtualStepping, LoadStaysForLaterSteps) {
    OrreryActuatorVirtual actuator(0x21);
    actuator.step(2.5f, 1);
    EXPECT_EQ(actuator.get_load(), 2.5f);
    actuator.step();
    EXPECT_EQ(actuator.get_load(), 2.5f);
    actuator.change_load(-1.0f);
    EXPECT_EQ(actuator.get_load(), -1.0f);
}

TEST(VirtualStepping, NonPositiveStepCountsAsOne) {
    OrreryActuatorVirtual actuator(0x21);
    actuator.step(std::nullopt, 0);
    actuator.step(std::nullopt, -5);
    EXPECT_EQ(actuator.get_step_count(), 2u);
    actuator.start_steps(7);
    EXPECT_EQ(actuator.get_step_count(), 9u);
}

TEST(VirtualStepping, ManyStepsEqualOneAtATime) {
    OrreryActuatorVirtual bulk(0x21);
    OrreryActuatorVirtual single(0x21);
    for (auto* actuator : {&bulk, &single}) {
        actuator->start();
        actuator->change_impedance_setpoint(1.0f, NAN, 3.0f, 0.2f);
    }
    bulk.step(0.1f, 500);
    for (int i = 0; i < 500; ++i) single.step(0.1f, 1);
    EXPECT_EQ(bulk.get_position(), single.get_position());
    EXPECT_EQ(bulk.get_speed(), single.get_speed());
    EXPECT_EQ(bulk.get_torque(), single.get_torque());
    EXPECT_EQ(bulk.get_sim_time(20), single.get_sim_time(20));
}

TEST(VirtualStepping, PositionConvergesToTheSetpoint) {
    OrreryActuatorVirtual actuator(0x21);
    actuator.start();
    actuator.change_position_setpoint(1.0f);
    actuator.step(std::nullopt, 10000);  // 20 time constants
    // In single precision the lag stalls once speed * dt falls below half an
    // ulp of the position, about 1.5e-5 short of the setpoint.
    EXPECT_NEAR(actuator.get_position(), 1.0f, 1e-4f);
}

TEST(VirtualFeedback, DecimationFromRate) {
    OrreryActuatorVirtual actuator(0x21);
    const std::pair<int, int> cases[] = {{1, 10000}, {7, 1429}, {300, 33}, {1000, 10}, {3000, 3},
                                         {10000, 1}, {20000, 1}, {0, 0},   {-5, 0}};
    for (const auto& [hz, decimation] : cases) {
        actuator.set_feedback_rate(hz);
        EXPECT_EQ(actuator.get_feedback_decimation(), decimation) << hz << " Hz";
    }
    actuator.set_feedback_rate(OrreryActuatorVirtual::Rates::RATE_1KHZ);
    EXPECT_EQ(actuator.get_feedback_decimation(), 10);
}

TEST(VirtualFeedback, CallbackAtMostOncePerStepCall) {
    OrreryActuatorVirtual actuator(0x21);
    std::vector<int> at_steps;
    actuator.set_feedback_callback([&](int address, FeedbackMap items) {
        EXPECT_EQ(address, 0x21);
        EXPECT_EQ(items.size(), 3u);
        at_steps.push_back(static_cast<int>(actuator.get_step_count()));
    });
    actuator.set_feedback_rate(1000);
    for (int i = 0; i < 10; ++i) actuator.step(std::nullopt, 1);
    EXPECT_EQ(at_steps, (std::vector<int>{10}));
    actuator.step(std::nullopt, 25);
    EXPECT_EQ(at_steps, (std::vector<int>{10, 35}));
}

TEST(VirtualFeedback, NoCallbackWithoutRateOrCallback) {
    OrreryActuatorVirtual actuator(0x21);
    int calls = 0;
    actuator.set_feedback_callback([&](int, FeedbackMap) { ++calls; });
    actuator.step(std::nullopt, 100);
    EXPECT_EQ(calls, 0);
    actuator.set_feedback_rate(10000);
    actuator.set_feedback_callback(nullptr);
    actuator.step(std::nullopt, 100);
    EXPECT_EQ(calls, 0);
}

TEST(VirtualFeedback, ANewRateCanFireAtTheNextStep) {
    OrreryActuatorVirtual actuator(0x21);
    int calls = 0;
    actuator.set_feedback_callback([&](int, FeedbackMap) { ++calls; });
    actuator.step(std::nullopt, 50);
    actuator.set_feedback_rate(1000);  // 50 steps already since step 0
    actuator.step();
    EXPECT_EQ(calls, 1);
}

TEST(VirtualFeedback, ItemsBlockingAnswersNanForItemsNotStreamed) {
    OrreryActuatorVirtual actuator(0x21);
    actuator.start();
    actuator.change_mode(Mode::SPEED);
    actuator.change_setpoint(3.0f);
    actuator.step();
    const FeedbackMap answer = actuator.get_items_blocking({Items::SPD_FB_45, Items::VBUS_70}, 0.0f);
    ASSERT_EQ(answer.size(), 2u);
    EXPECT_EQ(answer.at(Items::SPD_FB_45), 3.0f);
    EXPECT_TRUE(std::isnan(answer.at(Items::VBUS_70)));
}

TEST(VirtualFeedback, SnapshotChangesOnlyOnStepOrRefresh) {
    OrreryActuatorVirtual actuator(0x21);
    actuator.set_feedback_items({Items::REF_4B});
    actuator.change_setpoint(2.0f);
    EXPECT_EQ(actuator.get_feedback().at(Items::REF_4B), 0.0f);
    actuator.step();
    EXPECT_EQ(actuator.get_feedback().at(Items::REF_4B), 2.0f);
    actuator.change_setpoint(3.0f);
    actuator.update_feedback_snapshot();
    EXPECT_EQ(actuator.get_feedback().at(Items::REF_4B), 3.0f);
}

TEST(VirtualFeedback, EmptyItemListEmptiesTheSnapshot) {
    OrreryActuatorVirtual actuator(0x21);
    actuator.set_feedback_items({});
    EXPECT_TRUE(actuator.get_feedback().empty());
    EXPECT_TRUE(actuator.step().empty());
    EXPECT_TRUE(actuator.step(std::nullopt, 10).empty());
}

TEST(VirtualFeedback, SnapshotTableForEveryItem) {
    OrreryActuatorVirtual actuator(0x21);
    std::vector<Items> all(OrreryActuatorVirtual::ALL_ITEMS.begin(), OrreryActuatorVirtual::ALL_ITEMS.end());
    all.push_back(static_cast<Items>(0x4E));  // not an item: still answered with 0
    actuator.set_feedback_items(all);
    actuator.start();
    actuator.change_mode(Mode::TORQUE);
    actuator.change_setpoint(2.0f);
    const FeedbackMap snapshot = actuator.step(0.5f, 1);
    const float torque = 1.5f;
    const float speed = torque * 0.0001f;
    const float position = speed * 0.0001f;
    EXPECT_EQ(snapshot.size(), 49u);
    for (const Items item : {Items::POS_FB_41, Items::POS_FB_43, Items::POS_FB_4C, Items::POS_FB_73})
        EXPECT_EQ(snapshot.at(item), position);
    EXPECT_EQ(snapshot.at(Items::SPD_FB_45), speed);
    EXPECT_EQ(snapshot.at(Items::T_FB_49), torque);
    EXPECT_EQ(snapshot.at(Items::T_FB_56), torque);
    for (const Items item : {Items::REF_4B, Items::REF_4D, Items::REF_55}) EXPECT_EQ(snapshot.at(item), 2.0f);
    EXPECT_EQ(snapshot.at(Items::POWER_MEC_5A), torque * speed);
    EXPECT_EQ(snapshot.at(Items::POWER_5D), torque * speed);
    EXPECT_EQ(snapshot.at(Items::I_DC_5B), torque * speed / 48.0f);
    EXPECT_EQ(snapshot.at(Items::VBUS_70), 48.0f);
    EXPECT_EQ(snapshot.at(Items::TEMP_AUX_71), 25.0f);
    EXPECT_EQ(snapshot.at(Items::TEMP_WINDING_72), 25.0f);
    EXPECT_EQ(snapshot.at(Items::ERRORS_90), 0.0f);
    EXPECT_EQ(snapshot.at(Items::ITEM_42), 0.0f);
    EXPECT_EQ(snapshot.at(Items::ITEM_9A), 0.0f);
    EXPECT_EQ(snapshot.at(static_cast<Items>(0x4E)), 0.0f);
    actuator.set_bus_voltage(0.0f);
    EXPECT_EQ(actuator.step().at(Items::I_DC_5B), 0.0f);
}

TEST(VirtualFeedback, DuplicateItemsGiveOneEntry) {
    OrreryActuatorVirtual actuator(0x21);
    actuator.set_feedback_items({Items::VBUS_70, Items::VBUS_70});
    EXPECT_EQ(actuator.get_feedback().size(), 1u);
}

// The snapshot map as a step leaves it: cleared and refilled in item order,
// from a map that began with the default bucket count and a maximum load
// factor of 1.0 and went through the same history. Its iteration order is
// what the host sees in get_feedback, step's result and the callback.
std::vector<Items> order_of(const FeedbackMap& map) {
    std::vector<Items> order;
    for (const auto& entry : map) order.push_back(entry.first);
    return order;
}

FeedbackMap refilled(FeedbackMap map, const std::vector<Items>& items) {
    map.clear();
    for (const Items item : items) map[item] = 0.0f;
    return map;
}

std::vector<Items> first_items(std::size_t count) {
    return std::vector<Items>(OrreryActuatorVirtual::ALL_ITEMS.begin(),
                              OrreryActuatorVirtual::ALL_ITEMS.begin() + static_cast<std::ptrdiff_t>(count));
}

TEST(VirtualFeedback, SnapshotAfterAStepIteratesAsAClearedAndRefilledMap) {
    const std::vector<Items> defaults{Items::POS_FB_4C, Items::SPD_FB_45, Items::T_FB_56};
    for (std::size_t count : {3u, 10u, 22u, 48u}) {
        SCOPED_TRACE(count);
        const std::vector<Items> items = first_items(count);
        FeedbackMap reference;
        reference.max_load_factor(1.0f);
        reference = refilled(std::move(reference), defaults);  // construction
        reference = refilled(std::move(reference), items);     // set_feedback_items
        reference = refilled(std::move(reference), items);     // the step

        OrreryActuatorVirtual actuator(0x21);
        actuator.set_feedback_items(items);
        FeedbackMap seen_by_callback;
        actuator.set_feedback_callback([&](int, FeedbackMap map) { seen_by_callback = std::move(map); });
        actuator.set_feedback_rate(10000);
        const FeedbackMap returned = actuator.step(std::nullopt, 1);
        EXPECT_EQ(order_of(actuator.get_feedback()), order_of(reference));
        EXPECT_EQ(order_of(returned), order_of(reference));
        EXPECT_EQ(order_of(seen_by_callback), order_of(reference));
        EXPECT_EQ(actuator.get_feedback().bucket_count(), reference.bucket_count());
    }
}

TEST(VirtualFeedback, SnapshotOrderStaysThatOfARefilledMapOverManySteps) {
    const std::vector<Items> items = first_items(22);
    OrreryActuatorVirtual actuator(0x21);
    FeedbackMap reference;
    reference.max_load_factor(1.0f);
    reference = refilled(std::move(reference), {Items::POS_FB_4C, Items::SPD_FB_45, Items::T_FB_56});
    actuator.set_feedback_items(items);
    reference = refilled(std::move(reference), items);
    for (int i = 0; i < 5; ++i) {
        actuator.step(std::nullopt, 1);
        reference = refilled(std::move(reference), items);
        EXPECT_EQ(order_of(actuator.get_feedback()), order_of(reference));
    }
}

TEST(VirtualFeedback, StartStepsAllocatesNothingOnceTheItemsHaveSettled) {
    OrreryActuatorVirtual actuator(0x21);
    actuator.set_feedback_items(first_items(22));
    actuator.start();
    actuator.start_steps(1);
    ocp_test::FailingAllocation short_of_memory;
    EXPECT_NO_THROW(actuator.start_steps(10));
}

TEST(VirtualLiveness, FlagsFollowConnectStartStopDisconnect) {
    OrreryActuatorVirtual actuator(0x21);
    EXPECT_FALSE(actuator.send_ping(1.0f));
    EXPECT_TRUE(actuator.connect(0.0f));
    EXPECT_TRUE(actuator.send_ping(0.0f));
    actuator.disconnect();
    actuator.start();
    EXPECT_TRUE(actuator.is_connected()) << "start needs no connect";
    EXPECT_TRUE(actuator.is_running());
    actuator.stop();
    EXPECT_TRUE(actuator.is_connected());
    EXPECT_FALSE(actuator.is_running());
    actuator.disconnect();
    EXPECT_FALSE(actuator.is_connected());
}

TEST(VirtualLiveness, SimTimeRounding) {
    OrreryActuatorVirtual actuator(0x21);
    actuator.step(std::nullopt, 12345);
    const float raw = actuator.get_sim_time(60);  // scale overflows: unrounded
    EXPECT_EQ(actuator.get_sim_time(-60), raw);
    EXPECT_EQ(actuator.get_sim_time(0), 1.0f);
    EXPECT_EQ(actuator.get_sim_time(1), 1.2f);
    EXPECT_EQ(actuator.get_sim_time(2), std::round(raw * 100.0f) / 100.0f);
    EXPECT_EQ(actuator.get_sim_time(-1), 0.0f);
    actuator.step(std::nullopt, 100000);  // ~11.2 s
    EXPECT_EQ(actuator.get_sim_time(-1), 10.0f);
    EXPECT_EQ(actuator.get_sim_rate_hz(), 10000.0f);
}

TEST(VirtualLiveness, LowFrequencyOperationsAreIgnored) {
    OrreryActuatorVirtual actuator(0x21);
    bool called = false;
    actuator.set_low_freq_feedback_callback([&](FeedbackMap) { called = true; });
    actuator.set_low_freq_feedback_items({Items::VBUS_70});
    actuator.set_low_freq_feedback_rate(100);
    actuator.set_low_freq_feedback_rate(OrreryActuatorVirtual::Rates::RATE_100HZ);
    actuator.step(std::nullopt, 1000);
    EXPECT_FALSE(called);
    EXPECT_EQ(actuator.get_feedback().size(), 3u);
    EXPECT_EQ(actuator.get_feedback_decimation(), 0);
}

}  // namespace
