#include <gtest/gtest.h>

#include <cmath>
#include <set>

#include "ocp_api/orrery_actuator_virtual.hpp"

namespace {

using ocp_api::OrreryActuatorVirtual;
using Mode = OrreryActuatorVirtual::Mode;
using P = OrreryActuatorVirtual::OCP_Parameters;

template <typename Map>
std::set<std::string> keys_of(const Map& map) {
    std::set<std::string> keys;
    for (const auto& entry : map) keys.insert(entry.first);
    return keys;
}

TEST(VirtualReports, KeySets) {
    const OrreryActuatorVirtual actuator(0x21);
    EXPECT_EQ(keys_of(actuator.get_info()), (std::set<std::string>{"enable", "temp_winding", "T_fb", "T_ref", "pos_fb",
                                                                    "pos_ref", "spd_fb", "spd_ref", "time"}));
    EXPECT_EQ(keys_of(actuator.get_motor_state()),
              (std::set<std::string>{"m_Te", "m_Tl", "m_acc", "m_eff_elec", "m_eff_mec", "m_i_dc", "m_pos1", "m_pos2",
                                     "m_spd1", "m_spd2"}));
    EXPECT_EQ(keys_of(actuator.get_measurements()),
              (std::set<std::string>{"turn", "turn2", "T", "e_pos", "pos", "pos2", "spd", "spd2"}));
    EXPECT_EQ(keys_of(actuator.get_debug_flags()),
              (std::set<std::string>{"T_fb_max", "T_ref_max", "i_max", "pos_fb_max", "pos_fb_min", "pos_ref_max",
                                     "pos_ref_min", "spd_fb_max", "spd_ref_max", "spd_ref_min"}));
    const auto grouped = actuator.get_all_parameters();
    EXPECT_EQ(keys_of(grouped), (std::set<std::string>{"control", "limits", "impedance", "profile"}));
    EXPECT_EQ(keys_of(grouped.at("control")), (std::set<std::string>{"mode", "setpoint", "enabled"}));
    EXPECT_EQ(keys_of(grouped.at("limits")), (std::set<std::string>{"torque", "speed_max", "speed_min"}));
    EXPECT_EQ(keys_of(grouped.at("impedance")), (std::set<std::string>{"K_stiff", "K_damp", "T_FF"}));
    EXPECT_EQ(keys_of(grouped.at("profile")),
              (std::set<std::string>{"position_max", "position_min", "speed_max", "speed_min"}));
}

TEST(VirtualReports, FreshActuator) {
    const OrreryActuatorVirtual actuator(0x21);
    const auto info = actuator.get_info();
    EXPECT_EQ(info.at("enable"), 0.0f);
    EXPECT_EQ(info.at("time"), 0.0f);
    EXPECT_EQ(info.at("temp_winding"), 25.0f);
    const auto motor = actuator.get_motor_state();
    EXPECT_EQ(motor.at("m_i_dc"), 0.0f);
    EXPECT_EQ(motor.at("m_acc"), 0.0f);
    EXPECT_EQ(motor.at("m_eff_elec"), 1.0f);
    EXPECT_EQ(motor.at("m_eff_mec"), 1.0f);
    const auto measurements = actuator.get_measurements();
    EXPECT_EQ(measurements.at("turn"), 0.0f);
    EXPECT_EQ(measurements.at("turn2"), 0.0f);
    for (const auto& entry : actuator.get_debug_flags()) EXPECT_FALSE(entry.second) << entry.first;
    const auto grouped = actuator.get_all_parameters();
    EXPECT_EQ(grouped.at("control").at("enabled"), 0.0f);
    EXPECT_EQ(grouped.at("control").at("mode"), 7.0f);
    EXPECT_EQ(grouped.at("control").at("setpoint"), 0.0f);
    for (const auto& entry : grouped.at("limits")) EXPECT_EQ(entry.second, 0.0f) << entry.first;
    for (const auto& entry : grouped.at("impedance")) EXPECT_TRUE(std::isnan(entry.second)) << entry.first;
    for (const auto& entry : grouped.at("profile")) EXPECT_TRUE(std::isnan(entry.second)) << entry.first;
}

TEST(VirtualReports, ReferencesReportTheOneSetpointInAnyMode) {
    OrreryActuatorVirtual actuator(0x21);
    for (const Mode mode : {Mode::TORQUE, Mode::SPEED, Mode::POSITION, Mode::IMPEDANCE}) {
        actuator.change_mode(mode);
        actuator.change_setpoint(1.75f);
        const auto info = actuator.get_info();
        EXPECT_EQ(info.at("T_ref"), 1.75f);
        EXPECT_EQ(info.at("pos_ref"), 1.75f);
        EXPECT_EQ(info.at("spd_ref"), 1.75f);
        EXPECT_EQ(actuator.get_all_parameters().at("control").at("setpoint"), 1.75f);
        EXPECT_EQ(actuator.get_all_parameters().at("control").at("mode"), static_cast<float>(static_cast<uint8_t>(mode)));
    }
}

TEST(VirtualReports, AliasesAgreeAfterSteps) {
    OrreryActuatorVirtual actuator(0x21);
    actuator.start();
    actuator.change_impedance_setpoint(1.0f, NAN, 3.0f, 0.2f);
    actuator.step(0.25f, 777);
    const auto info = actuator.get_info();
    const auto motor = actuator.get_motor_state();
    const auto meas = actuator.get_measurements();
    const float position = actuator.get_position();
    const float speed = actuator.get_speed();
    const float torque = actuator.get_torque();
    ASSERT_NE(position, 0.0f);
    for (const float value : {info.at("pos_fb"), motor.at("m_pos1"), motor.at("m_pos2"), meas.at("e_pos"),
                              meas.at("pos"), meas.at("pos2")})
        EXPECT_EQ(value, position);
    for (const float value : {info.at("spd_fb"), motor.at("m_spd1"), motor.at("m_spd2"), meas.at("spd"), meas.at("spd2")})
        EXPECT_EQ(value, speed);
    for (const float value : {info.at("T_fb"), motor.at("m_Te"), meas.at("T")}) EXPECT_EQ(value, torque);
    EXPECT_EQ(motor.at("m_Tl"), 0.25f);
    EXPECT_EQ(motor.at("m_i_dc"), torque / 48.0f) << "torque over voltage, not power";
    EXPECT_EQ(info.at("enable"), 1.0f);
    EXPECT_EQ(info.at("time"), actuator.get_sim_time(30));
    EXPECT_EQ(actuator.get_all_parameters().at("control").at("enabled"), 1.0f);
}

TEST(VirtualReports, ZeroBusVoltageGivesZeroCurrent) {
    OrreryActuatorVirtual actuator(0x21);
    actuator.start();
    actuator.change_torque_setpoint(2.0f);
    actuator.step();
    actuator.set_bus_voltage(0.0f);
    EXPECT_EQ(actuator.get_motor_state().at("m_i_dc"), 0.0f);
}

TEST(VirtualReports, StiffnessAppearsOnceStored) {
    OrreryActuatorVirtual actuator(0x21);
    actuator.set_parameters({{P::K_STIFF, 5.0f}, {P::PROFILE_SPEED_MAX, 2.0f}, {P::LIMIT_TORQUE, 1.5f}});
    const auto grouped = actuator.get_all_parameters();
    EXPECT_EQ(grouped.at("impedance").at("K_stiff"), 5.0f);
    EXPECT_TRUE(std::isnan(grouped.at("impedance").at("K_damp")));
    EXPECT_TRUE(std::isnan(grouped.at("impedance").at("T_FF")));
    EXPECT_EQ(grouped.at("profile").at("speed_max"), 2.0f);
    EXPECT_EQ(grouped.at("limits").at("torque"), 1.5f);
    EXPECT_EQ(grouped.at("limits").at("speed_max"), 0.0f) << "limits and profile have separate sources";
}

TEST(VirtualReports, ReturnedMapsAreIndependent) {
    OrreryActuatorVirtual actuator(0x21);
    actuator.start();
    actuator.change_setpoint(1.0f);
    auto info = actuator.get_info();
    auto flags = actuator.get_debug_flags();
    auto grouped = actuator.get_all_parameters();
    info["pos_fb"] = 99.0f;
    flags["i_max"] = true;
    grouped["control"]["setpoint"] = 99.0f;
    EXPECT_EQ(actuator.get_info().at("pos_fb"), 0.0f);
    EXPECT_FALSE(actuator.get_debug_flags().at("i_max"));
    EXPECT_FALSE(actuator.has_errors());
    EXPECT_EQ(actuator.get_all_parameters().at("control").at("setpoint"), 1.0f);
    const auto before = actuator.get_info();
    actuator.step(std::nullopt, 10);
    EXPECT_EQ(before.at("pos_fb"), 0.0f);
    EXPECT_NE(actuator.get_info().at("pos_fb"), 0.0f);
}

}  // namespace
