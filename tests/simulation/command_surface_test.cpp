#include <gtest/gtest.h>

#include <cmath>
#include <stdexcept>

#include "ocp_api/orrery_actuator_virtual.hpp"

namespace {

using ocp_api::OrreryActuatorVirtual;
using Mode = OrreryActuatorVirtual::Mode;
using P = OrreryActuatorVirtual::OCP_Parameters;
using ParameterMap = OrreryActuatorVirtual::ParameterMap;

ParameterMap initial_parameters(float address) {
    return {{P::ADDRESS, address},          {P::MODE, 7.0f},            {P::SETPOINT, 0.0f},
            {P::LIMIT_TORQUE, 0.0f},        {P::LIMIT_SPEED_MAX, 0.0f}, {P::LIMIT_SPEED_MIN, 0.0f},
            {P::LIMIT_POSITION_MAX, 0.0f},  {P::LIMIT_POSITION_MIN, 0.0f}, {P::DEVICE_80, 20000.0f},
            {P::DEVICE_83, 0.0f},           {P::DEVICE_84, 20000.0f},   {P::CAN_HIGH_SPEED, 0.0f}};
}

TEST(VirtualCommands, SpeedSetpointWithNanExtrasStoresOnlyModeAndSetpoint) {
    OrreryActuatorVirtual actuator(0x21);
    actuator.change_speed_setpoint(3.0f, NAN, NAN, NAN, NAN);
    EXPECT_EQ(actuator.get_mode(), Mode::SPEED);
    EXPECT_EQ(actuator.get_setpoint(), 3.0f);
    ParameterMap expected = initial_parameters(33.0f);
    expected[P::MODE] = 6.0f;
    expected[P::SETPOINT] = 3.0f;
    EXPECT_EQ(actuator.get_parameters_all(), expected);
}

TEST(VirtualCommands, ImpedanceSetpointStoresItsFourParameters) {
    OrreryActuatorVirtual actuator(0x21);
    actuator.change_impedance_setpoint(0.5f, 0.0f, 4.0f, 0.2f, 9.0f, 1.5f, 9.0f, 9.0f);
    ParameterMap expected = initial_parameters(33.0f);
    expected[P::MODE] = 8.0f;
    expected[P::SETPOINT] = 0.5f;
    expected[P::SPEED_FF] = 0.0f;
    expected[P::K_STIFF] = 4.0f;
    expected[P::K_DAMP] = 0.2f;
    expected[P::T_FF] = 1.5f;
    EXPECT_EQ(actuator.get_parameters_all(), expected);
}

TEST(VirtualCommands, ArgumentPositionsOfTorqueSpeedAndPosition) {
    OrreryActuatorVirtual torque(0x21);
    torque.change_torque_setpoint(1.0f, 2.0f, 3.0f, 4.0f, 5.0f);
    EXPECT_EQ(torque.param_or_nan(P::SETPOINT_AUX_0D), 2.0f);
    EXPECT_EQ(torque.param_or_nan(P::SETPOINT_AUX_0E), 3.0f);
    EXPECT_EQ(torque.param_or_nan(P::SETPOINT_AUX_0F), 4.0f);
    EXPECT_EQ(torque.get_parameters_all().size(), 15u) << "a5 is not stored";

    OrreryActuatorVirtual speed(0x21);
    speed.change_speed_setpoint(1.0f, 2.0f, 3.0f, 4.0f, 5.0f);
    EXPECT_EQ(speed.param_or_nan(P::SPEED_FF), 2.0f);
    EXPECT_EQ(speed.param_or_nan(P::SETPOINT_AUX_0E), 3.0f);
    EXPECT_EQ(speed.param_or_nan(P::SETPOINT_AUX_0D), 4.0f);
    EXPECT_EQ(speed.param_or_nan(P::T_FF), 5.0f);

    OrreryActuatorVirtual position(0x21);
    position.change_position_setpoint(1.0f, 2.0f, 3.0f, 4.0f, 5.0f, 6.0f);
    EXPECT_EQ(position.get_mode(), Mode::POSITION);
    EXPECT_EQ(position.param_or_nan(P::SPEED_FF), 2.0f);
    EXPECT_EQ(position.param_or_nan(P::SETPOINT_AUX_0E), 3.0f);
    EXPECT_EQ(position.param_or_nan(P::SETPOINT_AUX_0D), 4.0f);
    EXPECT_EQ(position.param_or_nan(P::SETPOINT_AUX_0F), 5.0f);
    EXPECT_EQ(position.param_or_nan(P::T_FF), 6.0f);
}

TEST(VirtualCommands, NanArgumentKeepsTheStoredValue) {
    OrreryActuatorVirtual actuator(0x21);
    actuator.change_impedance_setpoint(0.0f, NAN, 4.0f, 0.2f);
    actuator.change_impedance_setpoint(1.0f, NAN, NAN, 0.3f);
    EXPECT_EQ(actuator.param_or_nan(P::K_STIFF), 4.0f);
    EXPECT_EQ(actuator.param_or_nan(P::K_DAMP), 0.3f);
    EXPECT_EQ(actuator.get_setpoint(), 1.0f);
}

TEST(VirtualCommands, TorqueSetpointInTorqueModeStillRewritesMode) {
    OrreryActuatorVirtual actuator(0x21);
    actuator.change_torque_setpoint(1.0f);
    actuator.set_parameters({{P::MODE, 5.5f}});
    EXPECT_EQ(actuator.param_or_nan(P::MODE), 5.5f);
    actuator.change_torque_setpoint(1.0f);
    EXPECT_EQ(actuator.param_or_nan(P::MODE), 5.0f);
}

TEST(VirtualCommands, ChangeModeAcceptsAnyValue) {
    OrreryActuatorVirtual actuator(0x21);
    actuator.change_mode(static_cast<Mode>(200));
    EXPECT_EQ(actuator.get_mode(), static_cast<Mode>(200));
    EXPECT_EQ(actuator.param_or_nan(P::MODE), 200.0f);
}

TEST(VirtualCommands, SetParametersMirrorsModeSetpointAndAddress) {
    OrreryActuatorVirtual actuator(0x21);
    actuator.set_parameters({{P::ADDRESS, 5.0f}});
    EXPECT_EQ(actuator.get_address(), 5) << "no range check on this path";
    EXPECT_THROW(actuator.change_address(5), std::invalid_argument);

    actuator.set_parameters({{P::MODE, 300.0f}});
    EXPECT_EQ(actuator.get_mode(), static_cast<Mode>(44));
    EXPECT_EQ(actuator.param_or_nan(P::MODE), 300.0f);
    actuator.set_parameters({{P::MODE, 7.9f}});
    EXPECT_EQ(actuator.get_mode(), Mode::POSITION);
    EXPECT_EQ(actuator.param_or_nan(P::MODE), 7.9f);
    actuator.set_parameters({{P::MODE, -3.0f}});
    EXPECT_EQ(actuator.get_mode(), static_cast<Mode>(0));
    actuator.set_parameters({{P::MODE, NAN}});
    EXPECT_EQ(actuator.get_mode(), static_cast<Mode>(0));
    actuator.set_parameters({{P::MODE, 1e20f}});
    EXPECT_EQ(actuator.get_mode(), static_cast<Mode>(255));

    actuator.set_parameters({{P::SETPOINT, 1.25f}});
    EXPECT_EQ(actuator.get_setpoint(), 1.25f);
    actuator.set_parameters({{P::ADDRESS, NAN}});
    EXPECT_EQ(actuator.get_address(), 0);
    actuator.set_parameters({{P::ADDRESS, 1e12f}});
    EXPECT_EQ(actuator.get_address(), 2147483647);
    actuator.set_parameters({{P::ADDRESS, -1e12f}});
    EXPECT_EQ(actuator.get_address(), -2147483647 - 1);
    actuator.set_parameters({{P::ADDRESS, 40.7f}});
    EXPECT_EQ(actuator.get_address(), 40);
}

TEST(VirtualCommands, SetParametersLeavesOtherMembersAlone) {
    OrreryActuatorVirtual actuator(0x21);
    actuator.set_parameters({{P::TORQUE_PERFORMANCE, 3.0f}, {P::SPEED_PERFORMANCE, 1.0f}, {P::CAN_HIGH_SPEED, 1.0f}});
    EXPECT_EQ(actuator.get_torque_performance(), OrreryActuatorVirtual::TorquePerformance::PRESET_2);
    EXPECT_EQ(actuator.get_speed_performance(), OrreryActuatorVirtual::SpeedPerformance::PRESET_2);
    EXPECT_FALSE(actuator.get_can_high_speed());
    EXPECT_EQ(actuator.param_or_nan(P::CAN_HIGH_SPEED), 1.0f);
}

TEST(VirtualCommands, PresetsAndCanSpeedUpdateMembersAndStore) {
    OrreryActuatorVirtual actuator(0x21);
    actuator.set_torque_performance(OrreryActuatorVirtual::TorquePerformance::PRESET_3);
    actuator.set_speed_performance(OrreryActuatorVirtual::SpeedPerformance::PRESET_1);
    actuator.set_can_high_speed(true);
    EXPECT_EQ(actuator.param_or_nan(P::TORQUE_PERFORMANCE), 3.0f);
    EXPECT_EQ(actuator.param_or_nan(P::SPEED_PERFORMANCE), 1.0f);
    EXPECT_EQ(actuator.param_or_nan(P::CAN_HIGH_SPEED), 1.0f);
    EXPECT_TRUE(actuator.get_can_high_speed());
    actuator.set_can_high_speed(false);
    EXPECT_EQ(actuator.param_or_nan(P::CAN_HIGH_SPEED), 0.0f);
}

TEST(VirtualCommands, GetParametersAnswersFromTheStoreWithoutInserting) {
    OrreryActuatorVirtual actuator(0x21);
    const ParameterMap answer = actuator.get_parameters({P::K_STIFF}, 1.0f);
    ASSERT_EQ(answer.size(), 1u);
    EXPECT_TRUE(std::isnan(answer.at(P::K_STIFF)));
    EXPECT_EQ(actuator.get_parameters_all(), initial_parameters(33.0f));
    EXPECT_TRUE(actuator.get_parameters({}).empty());
    const ParameterMap twice = actuator.get_parameters({P::MODE, P::MODE, P::DEVICE_80});
    EXPECT_EQ(twice, (ParameterMap{{P::MODE, 7.0f}, {P::DEVICE_80, 20000.0f}}));
}

TEST(VirtualCommands, HomePositionZeroesAndRefreshes) {
    OrreryActuatorVirtual actuator(0x21);
    actuator.start();
    actuator.change_setpoint(1.0f);
    actuator.step(std::nullopt, 100);
    ASSERT_GT(actuator.get_position(), 0.0f);
    actuator.set_home_position();
    EXPECT_EQ(actuator.get_position(), 0.0f);
    EXPECT_EQ(actuator.get_feedback().at(OrreryActuatorVirtual::OCP_Items::POS_FB_4C), 0.0f);
    actuator.step();
    EXPECT_GT(actuator.get_position(), 0.0f);
}

TEST(VirtualCommands, ChangeAddressChecksTheRange) {
    OrreryActuatorVirtual actuator(0x21);
    actuator.change_address(0x22);
    EXPECT_EQ(actuator.get_address(), 0x22);
    EXPECT_EQ(actuator.param_or_nan(P::ADDRESS), 34.0f);
    actuator.change_address(0x22);
    try {
        actuator.change_address(16383);
        ADD_FAILURE() << "16383 accepted";
    } catch (const std::invalid_argument& error) {
        EXPECT_STREQ(error.what(), "Invalid virtual actuator address");
    }
    EXPECT_EQ(actuator.get_address(), 0x22);
    EXPECT_EQ(actuator.param_or_nan(P::ADDRESS), 34.0f);
}

TEST(VirtualCommands, SaveConfigAndBlinkChangeNothing) {
    OrreryActuatorVirtual actuator(0x21);
    actuator.save_config();
    actuator.blink();
    actuator.blink(3.0f);
    EXPECT_EQ(actuator.get_parameters_all(), initial_parameters(33.0f));
}

}  // namespace
