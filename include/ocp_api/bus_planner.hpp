// How much of a CAN bus a control loop takes: the frames of one control
// period of one actuator (its command, the streamed reply, and the flow
// control of each when segmented) and the bus time they need, for N
// actuators at a given rate. The frames are the real ones: the driver encodes
// the command, the emulated devices' record helpers the reply, and the CAN
// mapping segments both; their lengths come from can_frame_bits, as on the
// timed virtual channel.
#pragma once

#include <string>
#include <vector>

#include "ocp_api/can_link.hpp"
#include "ocp_api/can_timing.hpp"

namespace ocp_api {

// The command an actuator gets once per control period.
enum class PlannedCommand : uint8_t {
    position,   // change_position_setpoint: 25 bytes
    setpoint,   // change_setpoint: 5 bytes, one frame on any bus
    torque,     // change_torque_setpoint: 21 bytes
    speed,      // change_speed_setpoint: 21 bytes
    impedance,  // change_impedance_setpoint: 33 bytes
};

// "position", "setpoint", ...; nullopt-like false when the name is unknown.
bool planned_command_from_name(const std::string& name, PlannedCommand& command);
const char* planned_command_name(PlannedCommand command);

struct BusPlanRequest {
    bool fd = false;             // CAN-FD frames (data length 64, bit-rate switch when rates.data is set)
    CanBitRates rates{1000000, 0};
    int actuators = 1;           // 1..16383
    double rate_hz = 1000.0;     // control periods per second, > 0
    PlannedCommand command = PlannedCommand::position;
    int items = 4;               // streamed items per reply, 0..48 (0: no reply)
};

struct BusPlan {
    // One actuator's period.
    std::vector<CanFrame> frames;   // in the order they go: command (and its flow control), then reply
    double actuator_us_nominal = 0;
    double actuator_us_worst = 0;
    // With the stuff bits of these very frames: identifiers, PCI bytes and
    // padding as on the bus, values typical of a moving joint.
    double actuator_us_expected = 0;
    // All actuators.
    int frames_per_period = 0;
    double period_us = 0;           // the control period, 1e6 / rate
    double period_us_nominal = 0;   // bus time per period without stuff bits
    double period_us_worst = 0;     // with the most stuff bits every frame can have
    double period_us_expected = 0;  // with the stuff bits of the planned frames
    double load_nominal = 0;        // bus time over the period
    double load_worst = 0;
    int max_actuators = 0;          // the most that fit in the period even with the most stuff bits
};

// Throws std::invalid_argument for a request outside the ranges above or
// invalid bit rates.
BusPlan plan_bus(const BusPlanRequest& request);

}  // namespace ocp_api
