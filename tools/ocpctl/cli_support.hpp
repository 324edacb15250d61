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

// Ctrl-C or SIGTERM arrived while ocpctl waited; main() exits with
// 128 + the signal number after the message.
struct Interrupted : std::runtime_error {
    Interrupted(const std::string& what, int signal_number) : std::runtime_error(what), signal(signal_number) {}
    int signal;
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
// A finite number; nan and inf are refused like any other non-number.
float parse_float(const std::string& text, const std::string& what);

// The one way ocpctl prints a number, in tables, CSV and JSON lines alike:
// the shortest text that reads back as the same float (0.1, 2.5, -0.5),
// whole numbers without exponent up to 10 digits (20000, 4294967296), "nan"
// for an absent value.
std::string format_value(float value);
std::string format_seconds(double seconds);

// A user-supplied text as it may appear in a one-line message: long texts
// are cut to their first characters and their length.
std::string shorten(const std::string& text);

// `text` with every control character written out ("\n", "\t", "\x1b"), so
// that a message quoting a file or an argument stays one line and cannot
// drive the terminal. Other bytes are kept.
std::string printable(const std::string& text);

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

// "POSITION setpoint 1", with the gains of an impedance command when given.
std::string motion_title(const MotionCommand& command);

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

// Pings until the actuator answers (true) or the time-out passes (false),
// in short attempts so that a StopSignal in force ends the wait within a few
// tens of milliseconds (throwing Interrupted).
bool connect_interruptibly(ocp_api::OrreryActuator& actuator, int address, float timeout_s);

// Connects an actuator or throws DeviceError naming the address and the wait.
// Interruptible as connect_interruptibly.
std::unique_ptr<ocp_api::OrreryActuator> connect_actuator(ocp_api::OCP& bus, int address, float timeout_s);

// Ctrl-C, SIGTERM, SIGHUP and SIGQUIT set a flag that long-running commands
// poll; they leave the devices stopped and exit with 128 + the signal. A closed
// output pipe is reported the same way (as SIGPIPE) by note_output_closed,
// so a stream into `head` ends like one stopped by a signal, status 141.
class StopSignal {
public:
    StopSignal();   // installs the handlers
    ~StopSignal();  // restores the previous ones
    StopSignal(const StopSignal&) = delete;
    StopSignal& operator=(const StopSignal&) = delete;

    static bool raised();
    static int signal_number();  // 0 when none arrived
    static int exit_status();    // 128 + the signal number, or 0
    static void note_output_closed();
    // Sleeps up to `duration`, waking early when a signal arrives.
    void sleep_for(std::chrono::milliseconds duration) const;
};

}  // namespace ocpctl
