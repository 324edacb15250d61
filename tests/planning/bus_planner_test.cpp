// The capacity planner's figures for the worked example and the
// README's cases, from the real frames of one control period.
#include "ocp_api/bus_planner.hpp"

#include <gtest/gtest.h>

#include <cstdio>

namespace {

using namespace ocp_api;

BusPlanRequest classic(uint32_t bitrate, PlannedCommand command = PlannedCommand::position, int items = 4) {
    BusPlanRequest request;
    request.rates = CanBitRates{bitrate, 0};
    request.command = command;
    request.items = items;
    return request;
}

BusPlanRequest fd(uint32_t nominal, uint32_t data, PlannedCommand command = PlannedCommand::position, int items = 4) {
    BusPlanRequest request = classic(nominal, command, items);
    request.fd = true;
    request.rates.data = data;
    return request;
}

TEST(BusPlanner, PositionCommandAndFourItemsOnClassicCanAt1Mbit) {
    // 25 command bytes: first frame (6) and three consecutive frames, with the
    // device's flow control; 20 reply bytes: first frame and two consecutive
    // frames, with the host's flow control. Nine 8-byte frames with extended
    // identifiers: 131 bits each without stuff bits, 160 with the most.
    const BusPlan plan = plan_bus(classic(1000000));
    ASSERT_EQ(plan.frames.size(), 9u);
    EXPECT_EQ(plan.frames_per_period, 9);
    EXPECT_DOUBLE_EQ(plan.period_us_nominal, 9 * 131.0);
    EXPECT_DOUBLE_EQ(plan.period_us_worst, 9 * 160.0);
    EXPECT_DOUBLE_EQ(plan.load_worst, 1.44);
    EXPECT_EQ(plan.max_actuators, 0);  // not even one at 1 kHz
    for (const CanFrame& frame : plan.frames) EXPECT_EQ(frame.len, 8);
    // The command goes first, then its flow control from the device.
    EXPECT_EQ(plan.frames[0].id, 0x00D00021u);
    EXPECT_EQ(plan.frames[0].data[0], 0x10);
    EXPECT_EQ(plan.frames[0].data[1], 25);
    EXPECT_EQ(plan.frames[1].id, 0x00D04021u);
    EXPECT_EQ(plan.frames[1].data[0], 0x30);
    BusPlanRequest at500 = classic(1000000);
    at500.rate_hz = 500;
    EXPECT_EQ(plan_bus(at500).max_actuators, 1);
}

TEST(BusPlanner, PositionCommandAndFourItemsOnCanFdAt1And5Mbit) {
    // Both fit single frames (27 bytes in a 32-byte frame, 22 in a 24-byte
    // one), with the bit-rate switch. Worst case: 36 arbitration bits with 9
    // stuff bits and 13 trailer bits at 1 Mbit/s; the rest at 5 Mbit/s.
    const BusPlan plan = plan_bus(fd(1000000, 5000000));
    ASSERT_EQ(plan.frames.size(), 2u);
    EXPECT_EQ(plan.frames[0].len, 32);
    EXPECT_EQ(plan.frames[1].len, 24);
    EXPECT_TRUE(plan.frames[0].brs);
    // Command: 58 us nominal-rate bits; 261 data-phase bits, 65 stuff bits and
    // the 32-bit CRC-21 field at 0.2 us. Reply: 58 us; 197 + 49 + 32 bits.
    EXPECT_NEAR(plan.period_us_worst, (58 + 358 * 0.2) + (58 + 278 * 0.2), 1e-9);  // 243.2 us
    EXPECT_EQ(plan.max_actuators, 4);                                              // at 1 kHz
    BusPlanRequest eight = fd(1000000, 5000000);
    eight.actuators = 8;
    const BusPlan overloaded = plan_bus(eight);
    EXPECT_EQ(overloaded.frames_per_period, 16);
    EXPECT_GT(overloaded.load_worst, 1.9);
}

TEST(BusPlanner, SetpointCommandIsOneFrame) {
    const BusPlan plan = plan_bus(classic(1000000, PlannedCommand::setpoint, 0));
    ASSERT_EQ(plan.frames.size(), 1u);
    EXPECT_EQ(plan.frames[0].data[0], 0x05);  // single frame of 5 bytes
    EXPECT_DOUBLE_EQ(plan.period_us_worst, 160.0);
    EXPECT_EQ(plan.max_actuators, 6);
}

TEST(BusPlanner, CommandNamesAndRanges) {
    PlannedCommand command{};
    EXPECT_TRUE(planned_command_from_name("impedance", command));
    EXPECT_EQ(command, PlannedCommand::impedance);
    EXPECT_STREQ(planned_command_name(PlannedCommand::torque), "torque");
    EXPECT_FALSE(planned_command_from_name("fast", command));
    BusPlanRequest bad = classic(1000000);
    bad.items = 49;
    EXPECT_THROW(plan_bus(bad), std::invalid_argument);
    bad = classic(1000000);
    bad.actuators = 0;
    EXPECT_THROW(plan_bus(bad), std::invalid_argument);
    bad = classic(1000000);
    bad.rates.data = 5000000;  // a data rate on classic CAN
    EXPECT_THROW(plan_bus(bad), std::invalid_argument);
    bad = classic(1000000);
    bad.rate_hz = 0;
    EXPECT_THROW(plan_bus(bad), std::invalid_argument);
}

}  // namespace
