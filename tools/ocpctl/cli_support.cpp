#include "cli_support.hpp"

#include <ocp_api/number_format.hpp>

#include <csignal>
#include <cmath>
#include <cstdio>
#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <thread>

#include <ocp_api/wire.hpp>

namespace ocpctl {

using ocp_api::parse_integer;

namespace {

// "A, B, C" from the names of every identifier in `all`.
template <typename Identifiers, typename NameOf>
std::string join_names(const Identifiers& all, NameOf name_of) {
    std::string names;
    for (const auto identifier : all) {
        if (!names.empty()) names += ", ";
        names += name_of(identifier);
    }
    return names;
}

std::string join_item_names() { return join_names(ocp_api::OrreryActuator::ALL_ITEMS, ocp_api::item_name<Item>); }
std::string join_parameter_names() { return join_names(ocp_api::OrreryActuator::ALL_PARAMETERS, ocp_api::parameter_name<Parameter>); }


volatile std::sig_atomic_t raised_signal = 0;

extern "C" void on_stop_signal(int signal_number) { raised_signal = signal_number; }

// Every signal that ends a session the user can see: Ctrl-C, kill, a closed
// terminal or dropped SSH session, Ctrl-\. Each stops the devices first.
constexpr int STOP_SIGNALS[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};
struct sigaction previous_actions[std::size(STOP_SIGNALS)] {};

}  // namespace

std::string hex(int address) {
    std::ostringstream text;
    text << "0x" << std::hex << address;
    return text.str();
}

int parse_address(const std::string& text) {
    long long value = 0;
    if (!parse_integer(text, value))
        throw UsageError("invalid address '" + shorten(text) + "' (expected a number such as 0x21 or 33, in 0x10..0x3FFE)");
    if (value < ocp_api::wire::MIN_DEVICE_ADDRESS || value > ocp_api::wire::MAX_DEVICE_ADDRESS)
        throw UsageError("address " + shorten(text) + " is outside 0x10..0x3FFE");
    return static_cast<int>(value);
}

std::vector<Item> parse_items(const std::vector<std::string>& names) {
    std::vector<Item> items;
    for (const auto& name : names) {
        auto item = ocp_api::item_from_name<Item>(name);
        long long code = 0;
        if (!item && parse_integer(name, code) && code >= 0 && code <= 0xFF &&
            ocp_api::wire::is_item_code(static_cast<uint8_t>(code)))
            item = static_cast<Item>(code);
        if (!item) throw UsageError("unknown feedback item '" + shorten(name) + "' (expected one of " + join_item_names() + ", or its code such as 0x4c)");
        items.push_back(*item);
    }
    if (items.empty()) throw UsageError("no feedback items given (expected one or more of " + join_item_names() + ")");
    return items;
}

Parameter parse_parameter(const std::string& name_or_code) {
    if (const auto parameter = ocp_api::parameter_from_name<Parameter>(name_or_code)) return *parameter;
    long long code = 0;
    if (parse_integer(name_or_code, code)) {
        for (const auto parameter : ocp_api::OrreryActuator::ALL_PARAMETERS) {
            if (static_cast<long long>(parameter) == code) return parameter;
        }
    }
    throw UsageError("unknown parameter '" + shorten(name_or_code) + "' (expected one of " + join_parameter_names() +
                     ", or its code such as 0x04)");
}

Mode parse_mode(const std::string& name) {
    if (const auto mode = ocp_api::mode_from_name<Mode>(name)) return *mode;
    throw UsageError("unknown mode '" + shorten(name) + "' (expected torque, speed, position or impedance)");
}

MotionCommand parse_motion(const std::string& mode_text, const std::string& setpoint, const std::string& stiffness,
                           const std::string& damping) {
    const Mode mode = parse_mode(mode_text);
    const float target = parse_float(setpoint, "setpoint");
    if ((!stiffness.empty() || !damping.empty()) && mode != Mode::IMPEDANCE)
        throw UsageError("--stiffness and --damping apply to --mode impedance only, not " + shorten(mode_text));
    return {mode, target, stiffness.empty() ? NAN : parse_float(stiffness, "stiffness"),
            damping.empty() ? NAN : parse_float(damping, "damping")};
}

std::string motion_title(const MotionCommand& command) {
    std::string title = std::string(ocp_api::mode_name(command.mode)) + " setpoint " + format_value(command.setpoint);
    if (!std::isnan(command.stiffness)) title += ", stiffness " + format_value(command.stiffness);
    if (!std::isnan(command.damping)) title += ", damping " + format_value(command.damping);
    return title;
}

int parse_rate(double hz) {
    if (!(hz >= 1.0) || hz != std::floor(hz))
        throw UsageError("rate " + format_value(static_cast<float>(hz)) + " Hz is not a whole number from 1 to 10000");
    if (hz > ocp_api::wire::MAX_FEEDBACK_RATE_HZ)
        throw UsageError("rate " + format_value(static_cast<float>(hz)) + " Hz is above the maximum of 10000 Hz");
    return static_cast<int>(hz);
}

double parse_seconds(double seconds, const std::string& option) {
    if (!(seconds > 0.0) || !std::isfinite(seconds))
        throw UsageError(option + " " + format_value(static_cast<float>(seconds)) + " is not a positive number of seconds");
    return seconds;
}

float parse_float(const std::string& text, const std::string& what) {
    std::size_t used = 0;
    float value = 0.0f;
    try {
        value = std::stof(text, &used);
    } catch (const std::exception&) {
        used = 0;
    }
    if (used == 0 || used != text.size())
        throw UsageError("invalid " + what + " '" + shorten(text) + "' (expected a number)");
    // A NaN or infinite setpoint or limit would reach the device as is.
    if (!std::isfinite(value))
        throw UsageError("invalid " + what + " '" + shorten(text) + "' (expected a finite number)");
    return value;
}

std::string format_value(float value) { return ocp_api::format_number(value); }

std::string shorten(const std::string& text) {
    constexpr std::size_t LONGEST = 200;
    constexpr std::size_t KEPT = 60;
    if (text.size() <= LONGEST) return text;
    return text.substr(0, KEPT) + "... (" + std::to_string(text.size()) + " characters)";
}

std::string printable(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte != 0x7f) {
            out += c;
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\r') {
            out += "\\r";
        } else if (c == '\t') {
            out += "\\t";
        } else {
            static constexpr char DIGITS[] = "0123456789abcdef";
            out += "\\x";
            out += DIGITS[byte >> 4];
            out += DIGITS[byte & 0xf];
        }
    }
    return out;
}

std::string format_seconds(double seconds) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f s", seconds);
    return text;
}

// The library's wait sleeps through signals, so one long connect() would
// hold Ctrl-C for the whole time-out. Short attempts, each a fresh ping, let
// a signal end the wait between two of them.
bool connect_interruptibly(ocp_api::OrreryActuator& actuator, int address, float timeout_s) {
    constexpr float ATTEMPT_S = 0.05f;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<float>(timeout_s);
    for (;;) {
        if (StopSignal::raised())
            throw Interrupted("interrupted while waiting for " + hex(address), StopSignal::signal_number());
        const float left = std::chrono::duration<float>(deadline - std::chrono::steady_clock::now()).count();
        if (left <= 0.0f) return false;
        if (actuator.connect(std::min(ATTEMPT_S, left))) return true;
    }
}

std::unique_ptr<ocp_api::OrreryActuator> connect_actuator(ocp_api::OCP& bus, int address, float timeout_s) {
    auto actuator = std::make_unique<ocp_api::OrreryActuator>(bus, address);
    if (connect_interruptibly(*actuator, address, timeout_s)) return actuator;
    throw DeviceError("no answer from " + hex(address) + " after " + format_seconds(timeout_s));
}


StopSignal::StopSignal() {
    raised_signal = 0;
    struct sigaction action {};
    action.sa_handler = on_stop_signal;
    sigemptyset(&action.sa_mask);
    for (std::size_t i = 0; i < std::size(STOP_SIGNALS); ++i) sigaction(STOP_SIGNALS[i], &action, &previous_actions[i]);
}

StopSignal::~StopSignal() {
    for (std::size_t i = 0; i < std::size(STOP_SIGNALS); ++i) sigaction(STOP_SIGNALS[i], &previous_actions[i], nullptr);
}

bool StopSignal::raised() { return raised_signal != 0; }

int StopSignal::signal_number() { return raised_signal; }

int StopSignal::exit_status() { return raised_signal == 0 ? 0 : 128 + raised_signal; }

void StopSignal::note_output_closed() {
    if (raised_signal == 0) raised_signal = SIGPIPE;
}

void StopSignal::sleep_for(std::chrono::milliseconds duration) const {
    const auto deadline = std::chrono::steady_clock::now() + duration;
    while (!raised() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::min<std::chrono::steady_clock::duration>(
            std::chrono::milliseconds(10), deadline - std::chrono::steady_clock::now()));
}

}  // namespace ocpctl
