#include <gtest/gtest.h>

#include <cmath>
#include <stdexcept>

#include "ocp_api/orrery_actuator_virtual.hpp"

namespace {

using ocp_api::OrreryActuatorVirtual;
using P = OrreryActuatorVirtual::OCP_Parameters;
using Items = OrreryActuatorVirtual::OCP_Items;
using FeedbackMap = OrreryActuatorVirtual::FeedbackMap;

void expect_invalid_address(int address) {
    try {
        OrreryActuatorVirtual actuator(address);
        ADD_FAILURE() << "address " << address << " was accepted";
    } catch (const std::invalid_argument& error) {
        EXPECT_STREQ(error.what(), "Invalid virtual actuator address") << address;
    }
}

TEST(VirtualActuatorState, AddressRange) {
    EXPECT_NO_THROW(OrreryActuatorVirtual(16));
    EXPECT_NO_THROW(OrreryActuatorVirtual(16382));
    expect_invalid_address(15);
    expect_invalid_address(16383);
    expect_invalid_address(0);
    expect_invalid_address(-1);
    EXPECT_TRUE(OrreryActuatorVirtual::is_valid_actuator_address(0x10));
    EXPECT_TRUE(OrreryActuatorVirtual::is_valid_actuator_address(0x3FFE));
    EXPECT_FALSE(OrreryActuatorVirtual::is_valid_actuator_address(0x3FFF));
}

TEST(VirtualActuatorState, FreshObject) {
    OrreryActuatorVirtual actuator(0x21);
    EXPECT_FALSE(actuator.has_errors());
    EXPECT_EQ(actuator.param_or_nan(P::ADDRESS), 33.0f);
    EXPECT_EQ(actuator.param_or_nan(P::MODE), 7.0f);
    EXPECT_EQ(actuator.param_or_nan(P::SETPOINT), 0.0f);
    EXPECT_EQ(actuator.param_or_nan(P::DEVICE_80), 20000.0f);
    EXPECT_EQ(actuator.param_or_nan(P::DEVICE_83), 0.0f);
    EXPECT_EQ(actuator.param_or_nan(P::DEVICE_84), 20000.0f);
    EXPECT_EQ(actuator.param_or_nan(P::CAN_HIGH_SPEED), 0.0f);
    EXPECT_TRUE(std::isnan(actuator.param_or_nan(P::K_STIFF)));
    EXPECT_TRUE(std::isnan(actuator.param_or_nan(P::K_DAMP)));
    EXPECT_TRUE(std::isnan(actuator.param_or_nan(P::TUNING_42)));
    EXPECT_EQ(actuator.get_parameters_all().size(), 12u);
    EXPECT_EQ(actuator.get_feedback(),
              (FeedbackMap{{Items::POS_FB_4C, 0.0f}, {Items::SPD_FB_45, 0.0f}, {Items::T_FB_56, 0.0f}}));
    EXPECT_EQ(actuator.get_model_name(), "virtual");
    EXPECT_EQ(actuator.get_firmware_version(), "cpp-virtual-2.0.0");
    EXPECT_EQ(actuator.get_mode(), OrreryActuatorVirtual::Mode::POSITION);
    EXPECT_EQ(actuator.get_torque_performance(), OrreryActuatorVirtual::TorquePerformance::PRESET_2);
    EXPECT_EQ(actuator.get_speed_performance(), OrreryActuatorVirtual::SpeedPerformance::PRESET_2);
    EXPECT_FALSE(actuator.is_connected());
    EXPECT_FALSE(actuator.is_running());
    EXPECT_EQ(actuator.get_model_path(), "");
    EXPECT_EQ(actuator.get_model_aux_path(), "");
    EXPECT_EQ(actuator.get_model_paths_extra(), "");
}

TEST(VirtualActuatorState, ParamOrNanNeverInserts) {
    OrreryActuatorVirtual actuator(0x21);
    EXPECT_TRUE(std::isnan(actuator.param_or_nan(P::K_STIFF)));
    EXPECT_EQ(actuator.get_parameters_all().count(P::K_STIFF), 0u);
}

TEST(VirtualActuatorState, DestroyingARunningObjectIsSilent) {
    int calls = 0;
    {
        OrreryActuatorVirtual actuator(0x21);
        actuator.set_feedback_callback([&](int, FeedbackMap) { ++calls; });
        actuator.set_feedback_rate(10000);
        actuator.start();
    }
    EXPECT_EQ(calls, 0);
}

TEST(VirtualActuatorState, MovingKeepsTheState) {
    OrreryActuatorVirtual first(0x21);
    first.change_setpoint(2.0f);
    OrreryActuatorVirtual second(std::move(first));
    EXPECT_EQ(second.get_setpoint(), 2.0f);
    EXPECT_EQ(second.get_address(), 0x21);
}

}  // namespace
