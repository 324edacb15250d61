// Emulated devices enforce their limits as firmware does: references clamped,
// each condition's bit in the error word and an error record when it arises,
// contradictory limits refused. Without a bus or threads.
#include "emulation/emulated_device.hpp"

#include <gtest/gtest.h>

#include <initializer_list>

#include "support/recording_transport.hpp"

namespace {

using namespace ocp_api;
using namespace ocp_test;
using detail::EmulatedDevice;
using wire::Command;
using P = OrreryActuatorVirtual::OCP_Parameters;
using Mode = OrreryActuatorVirtual::Mode;

constexpr uint32_t POSITION_REFERENCE_MAX = 1u << 2;
constexpr uint32_t POSITION_REFERENCE_MIN = 1u << 3;
constexpr uint32_t SPEED_FEEDBACK_MAX = 1u << 4;
constexpr uint32_t TORQUE_REFERENCE_MAX = 1u << 6;
constexpr uint32_t POSITION_FEEDBACK_MAX = 1u << 8;
constexpr uint32_t INVALID_LIMITS = 1u << 17;

Bytes command(Command code, std::initializer_list<float> values = {}) {
    Bytes frame{static_cast<uint8_t>(code)};
    for (const float value : values) frame = frame + f32(value);
    return frame;
}

Bytes error_record(uint32_t word) { return Bytes{static_cast<uint8_t>(wire::RecordCode::ERROR_FLAGS)} + u32(word); }

class DeviceLimitsTest : public ::testing::Test {
protected:
    EmulatedDevice::Replies send(const Bytes& frame) {
        EmulatedDevice::Replies out;
        device.handle_frame(frame, now, out);
        return out;
    }
    std::vector<Bytes> records(const EmulatedDevice::Replies& replies) {
        std::vector<Bytes> bytes;
        for (const auto& reply : replies) bytes.push_back(reply.bytes);
        return bytes;
    }
    Bytes set_parameter(P id, float value) { return Bytes{0x0B, static_cast<uint8_t>(id)} + f32(value); }

    // Factory limits: torque 10, speed -50..50, position -100..100.
    EmulatedDevice device{0x21, 3, 0x0842, 0};
    int64_t now = 0;
};

TEST_F(DeviceLimitsTest, TorqueReferenceIsClampedAndReportedOnce) {
    auto replies = send(command(Command::SET_TORQUE_SETPOINT, {25.0f, 0, 0, 0, 0}));
    EXPECT_FLOAT_EQ(device.physics().get_setpoint(), 10.0f);
    EXPECT_EQ(records(replies), std::vector<Bytes>{error_record(TORQUE_REFERENCE_MAX)});
    EXPECT_EQ(device.error_word(), TORQUE_REFERENCE_MAX);
    // Still over: the bit stays, no second record.
    replies = send(command(Command::SET_TORQUE_SETPOINT, {-30.0f, 0, 0, 0, 0}));
    EXPECT_FLOAT_EQ(device.physics().get_setpoint(), -10.0f);
    EXPECT_TRUE(replies.empty());
    // Within the limit: acted on as given, the bit clears.
    replies = send(command(Command::SET_TORQUE_SETPOINT, {4.0f, 0, 0, 0, 0}));
    EXPECT_FLOAT_EQ(device.physics().get_setpoint(), 4.0f);
    EXPECT_TRUE(replies.empty());
    EXPECT_EQ(device.error_word(), 0u);
}

TEST_F(DeviceLimitsTest, SpeedReferenceIsClampedToMinAndMax) {
    auto replies = send(command(Command::SET_SPEED_SETPOINT, {80.0f, 0, 0, 0, 0}));
    EXPECT_FLOAT_EQ(device.physics().get_setpoint(), 50.0f);
    EXPECT_EQ(records(replies), std::vector<Bytes>{error_record(SPEED_FEEDBACK_MAX)});
    send(set_parameter(P::LIMIT_SPEED_MIN, -5.0f));
    send(command(Command::SET_SPEED_SETPOINT, {-80.0f, 0, 0, 0, 0}));
    EXPECT_FLOAT_EQ(device.physics().get_setpoint(), -5.0f);
    EXPECT_EQ(device.error_word(), SPEED_FEEDBACK_MAX);
}

TEST_F(DeviceLimitsTest, PositionReferenceMaximumAndMinimumHaveTheirOwnBits) {
    auto replies = send(command(Command::SET_POSITION_SETPOINT, {150.0f, 0, 0, 0, 0, 0}));
    EXPECT_FLOAT_EQ(device.physics().get_setpoint(), 100.0f);
    EXPECT_EQ(records(replies), std::vector<Bytes>{error_record(POSITION_REFERENCE_MAX)});
    replies = send(command(Command::SET_POSITION_SETPOINT, {-150.0f, 0, 0, 0, 0, 0}));
    EXPECT_FLOAT_EQ(device.physics().get_setpoint(), -100.0f);
    EXPECT_EQ(records(replies), std::vector<Bytes>{error_record(POSITION_REFERENCE_MIN)});
    // SET_SETPOINT takes the limit of the mode the device is in (position).
    replies = send(command(Command::SET_SETPOINT, {120.0f}));
    EXPECT_FLOAT_EQ(device.physics().get_setpoint(), 100.0f);
    EXPECT_EQ(records(replies), std::vector<Bytes>{error_record(POSITION_REFERENCE_MAX)});
    // The error item reports the word too.
    replies = send(Bytes{0x0F, 0x90});
    ASSERT_EQ(replies.size(), 1u);
    EXPECT_EQ(replies[0].bytes, Bytes{0x90} + u32(POSITION_REFERENCE_MAX));
}

TEST_F(DeviceLimitsTest, PositionFeedbackBeyondTheLimitIsReportedWhileStepping) {
    send(set_parameter(P::LIMIT_POSITION_MAX, 0.01f));
    send(command(Command::SET_TORQUE_SETPOINT, {2.0f, 0, 0, 0, 0}));
    send(command(Command::START));
    EmulatedDevice::Replies out;
    device.advance_to(2000, out);
    ASSERT_GT(device.physics().get_position(), 0.01f);
    ASSERT_FALSE(out.empty());
    EXPECT_EQ(out[0].bytes[0], static_cast<uint8_t>(wire::RecordCode::ERROR_FLAGS));
    EXPECT_NE(device.error_word() & POSITION_FEEDBACK_MAX, 0u);
}

TEST_F(DeviceLimitsTest, InvalidLimitsStopTheDeviceAndRefuseStart) {
    send(command(Command::START));
    ASSERT_TRUE(device.physics().is_running());
    auto replies = send(set_parameter(P::LIMIT_POSITION_MIN, 200.0f));  // above the maximum, 100
    EXPECT_FALSE(device.physics().is_running());
    EXPECT_EQ(records(replies), std::vector<Bytes>{error_record(INVALID_LIMITS)});
    send(command(Command::START));
    EXPECT_FALSE(device.physics().is_running());
    send(set_parameter(P::LIMIT_POSITION_MIN, -100.0f));
    EXPECT_EQ(device.error_word(), 0u);
    send(command(Command::START));
    EXPECT_TRUE(device.physics().is_running());
    // Speed limits the wrong way round and a negative torque limit count too.
    replies = send(set_parameter(P::LIMIT_SPEED_MIN, 60.0f));
    EXPECT_EQ(records(replies), std::vector<Bytes>{error_record(INVALID_LIMITS)});
    send(set_parameter(P::LIMIT_SPEED_MIN, -50.0f));
    replies = send(set_parameter(P::LIMIT_TORQUE, -1.0f));
    EXPECT_EQ(records(replies), std::vector<Bytes>{error_record(INVALID_LIMITS)});
}

TEST_F(DeviceLimitsTest, InjectedErrorsAndLimitBitsAddUp) {
    EmulatedDevice::Replies out;
    device.inject_errors(1u << 0, now, out);
    auto replies = send(command(Command::SET_TORQUE_SETPOINT, {25.0f, 0, 0, 0, 0}));
    EXPECT_EQ(records(replies), std::vector<Bytes>{error_record(1u | TORQUE_REFERENCE_MAX)});
}

TEST_F(DeviceLimitsTest, TurnedOffEverySetpointGoesThrough) {
    device.set_enforce_limits(false);
    auto replies = send(command(Command::SET_TORQUE_SETPOINT, {25.0f, 0, 0, 0, 0}));
    EXPECT_FLOAT_EQ(device.physics().get_setpoint(), 25.0f);
    EXPECT_TRUE(replies.empty());
    send(set_parameter(P::LIMIT_POSITION_MIN, 200.0f));
    send(command(Command::START));
    EXPECT_TRUE(device.physics().is_running());
    EXPECT_EQ(device.error_word(), 0u);
}

TEST_F(DeviceLimitsTest, PowerCycleClearsTheConditions) {
    send(command(Command::SET_TORQUE_SETPOINT, {25.0f, 0, 0, 0, 0}));
    device.power_cycle();
    EXPECT_EQ(device.error_word(), 0u);
    // And a new condition is reported again.
    EXPECT_EQ(records(send(command(Command::SET_TORQUE_SETPOINT, {25.0f, 0, 0, 0, 0}))).size(), 1u);
}

}  // namespace
