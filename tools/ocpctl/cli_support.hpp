// Shared pieces of ocpctl: errors with their exit statuses, argument parsing
// with one-line messages, value formatting, and Ctrl-C handling.
#pragma once

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <ocp_api/orrery_actuator.hpp>

namespace ocpctl {

// Bad input: one line on standard error, exit status 2, nothing sent.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// A device or bus that does not answer: one line, exit status 1.
struct DeviceError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Identifiers named on the command line are parsed into the physical
// actuator's enumerations; commands that drive the simulated actuator convert
// them with ocp_api::identifier_cast.
using Item = ocp_api::OrreryActuator::OCP_Items;
using Parameter = ocp_api::OrreryActuator::OCP_Parameters;
using Mode = ocp_api::OrreryActuator::Mode;

inline constexpr int EXIT_DEVICE = 1;
inline constexpr int EXIT_USAGE = 2;

struct GlobalOptions {
    std::string bus = "sim";
    float timeout_s = 1.0f;
};

// "0x21" or "33"; a device address in 0x10..0x3FFE.
int parse_address(const std::string& text);
std::string hex(int address);

std::vector<Item> parse_items(const std::vector<std::string>& names);
Parameter parse_parameter(const std::string& name_or_code);
Mode parse_mode(const std::string& name);
// A rate in Hz, 1..10000.
int parse_rate(double hz);
// A positive, finite number of seconds.
double parse_seconds(double seconds, const std::string& option);
float parse_float(const std::string& text, const std::string& what);

// Numbers as people read them: 20000, 0.1, -0.5, nan.
std::string format_value(float value);
// Numbers that read back as the same float: 9 significant digits.
std::string format_exact(float value);
std::string format_seconds(double seconds);

// What move and simulate command: a mode, its setpoint and, for impedance,
// optional gains (NaN leaves the device's own gains in place).
struct MotionCommand {
    Mode mode;
    float setpoint;
    float stiffness;
    float damping;
};

// Checks --mode, --setpoint, --stiffness and --damping together; empty gain
// texts mean "not given".
MotionCommand parse_motion(const std::string& mode, const std::string& setpoint, const std::string& stiffness,
                           const std::string& damping);

// Sends the command's per-mode setpoint; written once for both actuator classes.
template <typename Actuator>
void command_motion(Actuator& actuator, const MotionCommand& command) {
    switch (command.mode) {
        case Mode::TORQUE: actuator.change_torque_setpoint(command.setpoint); break;
        case Mode::SPEED: actuator.change_speed_setpoint(command.setpoint); break;
        case Mode::POSITION: actuator.change_position_setpoint(command.setpoint); break;
        case Mode::IMPEDANCE:
            actuator.change_impedance_setpoint(command.setpoint, 0.0f, command.stiffness, command.damping);
            break;
    }
}

// Connects an actuator or throws DeviceError naming the address and the wait.
std::unique_ptr<ocp_api::OrreryActuator> connect_actuator(ocp_api::OCP& bus, int address, float timeout_s);

// Ctrl-C and SIGTERM set a flag that long-running commands poll.
class StopSignal {
public:
    StopSignal();   // installs the handlers
    ~StopSignal();  // restores the previous ones
    StopSignal(const StopSignal&) = delete;
    StopSignal& operator=(const StopSignal&) = delete;

    bool raised() const;
    int exit_status() const;  // 128 + the signal number, or 0
    // Sleeps up to `duration`, waking early when a signal arrives.
    void sleep_for(std::chrono::milliseconds duration) const;
};

}  // namespace ocpctl
