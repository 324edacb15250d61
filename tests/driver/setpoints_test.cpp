#include <gtest/gtest.h>

#include <cmath>

#include "ocp_api/orrery_actuator.hpp"
#include "support/recording_transport.hpp"

namespace {

using namespace ocp_api;
using namespace ocp_test;
using Mode = OrreryActuator::Mode;

class Setpoints : public ::testing::Test {
protected:
    RecordingTransport transport;
    OrreryActuator actuator{transport, 0x21};
};

TEST_F(Setpoints, ShortAndLongSetpointForms) {
    actuator.change_setpoint(1.5f, 0.0f, 0.0f);
    actuator.change_setpoint(1.5f, 0.0f, 2.0f);
    actuator.change_setpoint(1.5f);
    const auto frames = transport.frames();
    ASSERT_EQ(frames.size(), 3u);
    EXPECT_EQ(frames[0], Bytes{0x04} + f32(1.5f));
    EXPECT_EQ(frames[0].size(), 5u);
    EXPECT_EQ(frames[1], Bytes{0x10} + f32(1.5f) + f32(0.0f) + f32(2.0f));
    EXPECT_EQ(frames[1].size(), 13u);
    EXPECT_EQ(frames[2], Bytes{0x04} + f32(1.5f));
}

TEST_F(Setpoints, NanInAnExtraArgumentSelectsTheLongForm) {
    actuator.change_setpoint(1.0f, NAN, 0.0f);
    ASSERT_EQ(transport.frames().size(), 1u);
    EXPECT_EQ(transport.frames()[0][0], 0x10);
    EXPECT_EQ(transport.frames()[0].size(), 13u);
}

TEST_F(Setpoints, ChangeModeAlwaysSendsAndCaches) {
    actuator.change_mode(Mode::SPEED);
    actuator.change_mode(Mode::POSITION);
    actuator.change_mode(static_cast<Mode>(2));
    EXPECT_EQ(transport.frames(), (std::vector<Bytes>{{0x03, 0x06}, {0x03, 0x07}, {0x03, 0x02}}));
    EXPECT_EQ(actuator.get_mode(), static_cast<Mode>(2));
}

TEST_F(Setpoints, FirstSpeedSetpointNeedsNoModeSwitch) {
    actuator.change_speed_setpoint(3.0f, 1.0f, 2.0f, 4.0f, 5.0f);
    EXPECT_EQ(transport.frames(),
              (std::vector<Bytes>{Bytes{0x12} + f32(3.0f) + f32(1.0f) + f32(2.0f) + f32(4.0f) + f32(5.0f)}));
}

TEST_F(Setpoints, FirstPositionSetpointSwitchesModeOnce) {
    actuator.change_position_setpoint(1.0f, 2.0f, 3.0f, 4.0f, 5.0f, 6.0f);
    actuator.change_position_setpoint(1.0f, 2.0f, 3.0f, 4.0f, 5.0f, 6.0f);
    const Bytes setpoint = Bytes{0x13} + f32(1.0f) + f32(2.0f) + f32(3.0f) + f32(4.0f) + f32(5.0f) + f32(6.0f);
    EXPECT_EQ(transport.frames(), (std::vector<Bytes>{{0x03, 0x07}, setpoint, setpoint}));
    EXPECT_EQ(actuator.get_mode(), Mode::POSITION);
}

TEST_F(Setpoints, TorqueAfterSpeedSendsModeThenSetpoint) {
    actuator.change_speed_setpoint(1.0f);
    transport.clear_records();
    actuator.change_torque_setpoint(0.5f, 1.0f, 2.0f, 3.0f, 4.0f);
    actuator.change_torque_setpoint(0.5f, 1.0f, 2.0f, 3.0f, 4.0f);
    const Bytes setpoint = Bytes{0x11} + f32(0.5f) + f32(1.0f) + f32(2.0f) + f32(3.0f) + f32(4.0f);
    EXPECT_EQ(transport.frames(), (std::vector<Bytes>{{0x03, 0x05}, setpoint, setpoint}));
}

TEST_F(Setpoints, ImpedanceSetpointCarriesEightFloats) {
    actuator.change_impedance_setpoint(0.5f, 0.0f, 4.0f, 0.2f, 9.0f, 1.5f, 9.0f, 9.0f);
    const auto frames = transport.frames();
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(frames[0], (Bytes{0x03, 0x08}));
    EXPECT_EQ(frames[1], Bytes{0x14} + f32(0.5f) + f32(0.0f) + f32(4.0f) + f32(0.2f) + f32(9.0f) + f32(1.5f) +
                             f32(9.0f) + f32(9.0f));
    EXPECT_EQ(frames[1].size(), 33u);
}

TEST_F(Setpoints, OmittedArgumentsTravelAsNan) {
    actuator.change_speed_setpoint(2.0f);
    const Bytes frame = transport.frames().at(0);
    ASSERT_EQ(frame.size(), 21u);
    EXPECT_EQ(Bytes(frame.begin(), frame.begin() + 5), Bytes{0x12} + f32(2.0f));
    for (std::size_t offset = 5; offset < 21; offset += 4)
        EXPECT_TRUE(std::isnan(wire::read_f32(&frame[offset]))) << offset;
}

TEST_F(Setpoints, InternalVariants) {
    actuator.internal_change_speed_setpoint(1, 2, 3, 4);
    actuator.internal_change_position_setpoint(1, 2, 3, 4, 5, 6, 7, 8, 9);
    const auto frames = transport.frames();
    ASSERT_EQ(frames.size(), 3u);
    EXPECT_EQ(frames[0], Bytes{0x15} + f32(1) + f32(2) + f32(3) + f32(4));
    EXPECT_EQ(frames[1], (Bytes{0x03, 0x07}));
    EXPECT_EQ(frames[2].size(), 37u);
    EXPECT_EQ(frames[2][0], 0x16);
    EXPECT_EQ(wire::read_f32(&frames[2][33]), 9.0f);
}

TEST_F(Setpoints, PerformancePresetsSendOneByte) {
    actuator.set_torque_performance(OrreryActuator::TorquePerformance::PRESET_3);
    actuator.set_speed_performance(OrreryActuator::SpeedPerformance::PRESET_1);
    EXPECT_EQ(transport.frames(), (std::vector<Bytes>{{0x0D, 0x03}, {0x0E, 0x01}}));
}

}  // namespace
