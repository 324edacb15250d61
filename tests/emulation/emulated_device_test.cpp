// The emulated device's answers, byte for byte, without a bus or threads.
#include "emulation/emulated_device.hpp"

#include <gtest/gtest.h>

#include <cmath>

#include "support/recording_transport.hpp"

namespace {

using namespace ocp_api;
using namespace ocp_test;
using detail::EmulatedDevice;
using P = OrreryActuatorVirtual::OCP_Parameters;
using Mode = OrreryActuatorVirtual::Mode;

class EmulatedDeviceTest : public ::testing::Test {
protected:
    EmulatedDevice::Replies send(const Bytes& frame) {
        EmulatedDevice::Replies out;
        device.handle_frame(frame, now, out);
        return out;
    }

    EmulatedDevice device{0x21, 3, 0x0842, 0};
    int64_t now = 0;
};

TEST_F(EmulatedDeviceTest, PingIsAnsweredWithModelAndFirmware) {
    const auto replies = send({0x40});
    ASSERT_EQ(replies.size(), 1u);
    EXPECT_EQ(replies[0].address, 0x21);
    EXPECT_EQ(replies[0].bytes, (Bytes{0x80, 0x03, 0x00, 0x42, 0x08}));
    EXPECT_EQ(replies[0].kind, 0);
}

TEST_F(EmulatedDeviceTest, ParametersGoBackInTheirWireTypes) {
    const auto replies = send({0x0C, 0x80, 0x81, 0x30, 0x99});
    ASSERT_EQ(replies.size(), 1u);
    const Bytes expected =
        Bytes{0x83, 0x80, 0x20, 0x4E, 0x00, 0x00} + Bytes{0x81} + f32(33.0f) + Bytes{0x30} + f32(6.0f);
    EXPECT_EQ(replies[0].bytes, expected)
        << "DEVICE_80 as an integer, ADDRESS and MODE as floats, the unknown 0x99 left out";
}

TEST_F(EmulatedDeviceTest, AllThirtyOneParametersHaveValues) {
    for (const P id : OrreryActuatorVirtual::ALL_PARAMETERS) {
        const auto replies = send({0x0C, static_cast<uint8_t>(id)});
        ASSERT_EQ(replies.size(), 1u);
        ASSERT_EQ(replies[0].bytes.size(), 6u);
        if (wire::parameter_value_type(static_cast<uint8_t>(id)) == wire::ValueType::F32) {
            EXPECT_FALSE(std::isnan(wire::read_f32(&replies[0].bytes[2]))) << parameter_name(id);
        }
    }
}

TEST_F(EmulatedDeviceTest, SetParametersStoresAndMovesTheAddress) {
    send(Bytes{0x0B, 0x04} + f32(2.5f) + Bytes{0x81} + f32(48.0f));
    EXPECT_EQ(device.address(), 0x30);
    EXPECT_EQ(device.physics().param_or_nan(P::LIMIT_TORQUE), 2.5f);
    send(Bytes{0x0B, 0x81} + f32(5.0f));  // out of range: refused
    EXPECT_EQ(device.address(), 0x30);
    const auto replies = send({0x40});
    EXPECT_EQ(replies.at(0).address, 0x30) << "answers from the new address";
}

TEST_F(EmulatedDeviceTest, ItemRequestsAndStreaming) {
    send({0x01});
    send(Bytes{0x12} + f32(2.0f) + f32(NAN) + f32(NAN) + f32(NAN) + f32(NAN));
    auto replies = send({0x0F, 0x45, 0x70, 0x4E, 0x90});
    ASSERT_EQ(replies.size(), 1u);
    EXPECT_EQ(replies[0].kind, 1);
    // The speed follows its setpoint only once the physics has stepped.
    EXPECT_EQ(replies[0].bytes, (Bytes{0x45} + f32(0.0f) + Bytes{0x70} + f32(48.0f) + Bytes{0x90} + u32(0)));

    send({0x07, 0x45, 0x4C});
    send(Bytes{0x06} + u32(10));  // every 10 steps (1 kHz)
    EmulatedDevice::Replies streamed;
    device.advance_to(100, streamed);
    ASSERT_EQ(streamed.size(), 10u);
    EXPECT_EQ(streamed[0].step, 10);
    EXPECT_EQ(streamed[9].step, 100);
    EXPECT_EQ(streamed[0].kind, 0);
    EXPECT_EQ(streamed[9].bytes, (Bytes{0x45} + f32(2.0f) + Bytes{0x4C} + f32(device.physics().get_position())));
    EXPECT_EQ(device.physics().get_step_count(), 100u);
    now = 100;
    send(Bytes{0x06} + u32(0));
    streamed.clear();
    device.advance_to(200, streamed);
    EXPECT_TRUE(streamed.empty());
}

TEST_F(EmulatedDeviceTest, SaveClearAndPowerCycle) {
    send(Bytes{0x0B, 0x04} + f32(3.0f));
    send({0x39});
    send(Bytes{0x0B, 0x04} + f32(4.0f) + Bytes{0x81} + f32(0x31));
    device.power_cycle();
    EXPECT_EQ(device.address(), 0x21) << "the unsaved address is lost";
    EXPECT_EQ(device.physics().param_or_nan(P::LIMIT_TORQUE), 3.0f);

    send(Bytes{0x0B, 0x81} + f32(0x31));
    send({0x39});
    device.power_cycle();
    EXPECT_EQ(device.address(), 0x31) << "the saved address survives";

    send({0xC2});  // factory defaults, then 50 ms of silence
    EXPECT_EQ(device.address(), 0x21);
    EXPECT_EQ(device.physics().param_or_nan(P::LIMIT_TORQUE), 10.0f);
    EXPECT_TRUE(send({0x40}).empty());
    now = 499;
    EXPECT_TRUE(send({0x40}).empty());
    now = 500;
    EXPECT_EQ(send({0x40}).size(), 1u);
    device.power_cycle();
    EXPECT_EQ(device.address(), 0x21) << "the factory address was saved too";
}

TEST_F(EmulatedDeviceTest, BootloaderSilencesUntilPowerCycle) {
    send({0xC1});
    EXPECT_TRUE(device.in_bootloader());
    EXPECT_TRUE(send({0x40}).empty());
    device.power_cycle();
    EXPECT_FALSE(device.in_bootloader());
    EXPECT_EQ(send({0x40}).size(), 1u);
}

TEST_F(EmulatedDeviceTest, ModesSetpointsPresetsBlinkAndHome) {
    send({0x03, 0x05});
    EXPECT_EQ(device.physics().get_mode(), Mode::TORQUE);
    send(Bytes{0x14} + f32(0.5f) + f32(0) + f32(4.0f) + f32(0.2f) + f32(9) + f32(1.5f) + f32(9) + f32(9));
    EXPECT_EQ(device.physics().get_mode(), Mode::IMPEDANCE);
    EXPECT_EQ(device.physics().param_or_nan(P::K_STIFF), 4.0f);
    EXPECT_EQ(device.physics().param_or_nan(P::T_FF), 1.5f);
    send(Bytes{0x10} + f32(0.75f) + f32(1) + f32(2));
    EXPECT_EQ(device.physics().get_setpoint(), 0.75f);
    send(Bytes{0x04} + f32(0.25f));
    EXPECT_EQ(device.physics().get_setpoint(), 0.25f);
    send(Bytes{0x04} + f32(0.25f) + Bytes{0x00});  // malformed length: ignored
    send({0x0D, 0x03});
    send({0x0E, 0x01});
    EXPECT_EQ(device.physics().param_or_nan(P::TORQUE_PERFORMANCE), 3.0f);
    EXPECT_EQ(device.physics().param_or_nan(P::SPEED_PERFORMANCE), 1.0f);
    send({0x41});
    send({0x41});
    EXPECT_EQ(device.blink_count(), 2);
    send({0x0A});
    EXPECT_EQ(device.physics().get_position(), 0.0f);
    send({});
    send({0xEE, 1, 2});
}

TEST_F(EmulatedDeviceTest, InjectedErrorsAreSentAndReported) {
    EmulatedDevice::Replies out;
    device.inject_errors(0x80000001u, now, out);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].bytes, (Bytes{0x82, 0x01, 0x00, 0x00, 0x80}));
    const auto replies = send({0x0F, 0x90});
    EXPECT_EQ(replies.at(0).bytes, (Bytes{0x90, 0x01, 0x00, 0x00, 0x80}));
    device.power_cycle();
    EXPECT_EQ(send({0x0F, 0x90}).at(0).bytes, (Bytes{0x90, 0, 0, 0, 0}));
}

TEST_F(EmulatedDeviceTest, SilentDeviceIgnoresFrames) {
    device.set_silent(true);
    EXPECT_TRUE(send({0x40}).empty());
    send({0x01});
    EXPECT_FALSE(device.physics().is_running());
    device.set_silent(false);
    EXPECT_EQ(send({0x40}).size(), 1u);
}

}  // namespace
