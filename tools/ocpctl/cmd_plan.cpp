// ocpctl plan: how much bus a control loop takes, before any hardware is
// wired. The figures come from the library's planner, which builds the real
// frames of one control period.
#include <cmath>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>

#include <nlohmann/json.hpp>
#include <ocp_api/bus_planner.hpp>

#include "commands.hpp"

namespace ocpctl {

namespace {

// JSON figures without the noise of binary fractions: 1 ns, and 1e-6 of a load.
double rounded(double value, double unit) { return std::round(value / unit) * unit; }

struct PlanOptions {
    std::string can = "classic:1000000";
    int actuators = 1;
    double rate = 1000.0;
    std::string command = "position";
    int items = 4;
    bool json = false;
};

// "500000", "500k", "1M", "5m": bits per second.
uint32_t parse_bit_rate(const std::string& text, const std::string& whole) {
    std::size_t used = 0;
    double value = 0;
    try {
        value = std::stod(text, &used);
    } catch (const std::exception&) {
        throw UsageError("--can " + whole + ": \"" + text + "\" is not a bit rate");
    }
    const std::string suffix = text.substr(used);
    if (suffix == "k" || suffix == "K") {
        value *= 1e3;
    } else if (suffix == "M" || suffix == "m") {
        value *= 1e6;
    } else if (!suffix.empty()) {
        throw UsageError("--can " + whole + ": \"" + text + "\" is not a bit rate");
    }
    if (!(value >= 1.0 && value <= 1e9) || value != std::floor(value))
        throw UsageError("--can " + whole + ": \"" + text + "\" is not a whole number of bit/s");
    return static_cast<uint32_t>(value);
}

void parse_bus(const std::string& text, ocp_api::BusPlanRequest& request) {
    const std::size_t colon = text.find(':');
    const std::string kind = text.substr(0, colon);
    if (colon == std::string::npos || (kind != "classic" && kind != "fd"))
        throw UsageError("--can " + text + " is neither classic:BITRATE nor fd:NOMINAL/DATA");
    const std::string rates = text.substr(colon + 1);
    request.fd = kind == "fd";
    const std::size_t slash = rates.find('/');
    if (slash != std::string::npos && !request.fd)
        throw UsageError("--can " + text + ": a data bit rate needs fd:NOMINAL/DATA");
    request.rates.nominal = parse_bit_rate(rates.substr(0, slash), text);
    request.rates.data = slash == std::string::npos ? 0 : parse_bit_rate(rates.substr(slash + 1), text);
}

std::string bus_text(const ocp_api::BusPlanRequest& request) {
    if (!request.fd) return "classic CAN at " + std::to_string(request.rates.nominal) + " bit/s";
    if (request.rates.data == 0) return "CAN-FD at " + std::to_string(request.rates.nominal) + " bit/s";
    return "CAN-FD at " + std::to_string(request.rates.nominal) + "/" + std::to_string(request.rates.data) + " bit/s";
}

int run_plan(const PlanOptions& options) {
    ocp_api::BusPlanRequest request;
    parse_bus(options.can, request);
    request.actuators = options.actuators;
    request.rate_hz = options.rate;
    request.items = options.items;
    if (!ocp_api::planned_command_from_name(options.command, request.command))
        throw UsageError("--command " + options.command +
                         " is not one of position, setpoint, torque, speed, impedance");
    ocp_api::BusPlan plan;
    try {
        plan = ocp_api::plan_bus(request);
    } catch (const std::invalid_argument& error) {
        throw UsageError(error.what());
    }
    if (options.json) {
        nlohmann::ordered_json result;
        result["bus"] = options.can;
        result["actuators"] = request.actuators;
        result["rate_hz"] = request.rate_hz;
        result["command"] = options.command;
        result["items"] = request.items;
        result["frames_per_period"] = plan.frames_per_period;
        result["period_us"] = rounded(plan.period_us, 1e-3);
        result["period_us_nominal"] = rounded(plan.period_us_nominal, 1e-3);
        result["period_us_worst"] = rounded(plan.period_us_worst, 1e-3);
        result["period_us_expected"] = rounded(plan.period_us_expected, 1e-3);
        result["load_nominal"] = rounded(plan.load_nominal, 1e-6);
        result["load_worst"] = rounded(plan.load_worst, 1e-6);
        result["max_actuators"] = plan.max_actuators;
        std::printf("%s\n", result.dump(2).c_str());
        return 0;
    }
    std::printf("Bus:                      %s\n", bus_text(request).c_str());
    std::printf("Control period:           %d actuator%s at %g Hz (%.1f us), %s command, %d item%s per reply\n",
                request.actuators, request.actuators == 1 ? "" : "s", request.rate_hz, plan.period_us,
                options.command.c_str(), request.items, request.items == 1 ? "" : "s");
    std::printf("Frames per period:        %d (%zu per actuator)\n", plan.frames_per_period, plan.frames.size());
    std::printf("Bus time per period:      %.1f us without stuff bits, %.1f us with the most, %.1f us typical\n",
                plan.period_us_nominal, plan.period_us_worst, plan.period_us_expected);
    std::printf("Load:                     %.1f %% to %.1f %% of the period\n", 100.0 * plan.load_nominal,
                100.0 * plan.load_worst);
    std::printf("Most actuators that fit:  %d at %g Hz (with the most stuff bits)\n", plan.max_actuators,
                request.rate_hz);
    if (plan.load_worst > 1.0)
        std::printf("Does not fit: with the most stuff bits the traffic of one period takes %.0f %% of it.\n",
                    100.0 * plan.load_worst);
    return 0;
}

}  // namespace

void add_plan_command(CLI::App& app, Runner& runner) {
    auto options = std::make_shared<PlanOptions>();
    CLI::App* plan = app.add_subcommand(
        "plan", "Bus time of a control loop: frames, load and how many actuators fit (no bus is opened)");
    plan->add_option("--can", options->can, "The bus: classic:BITRATE or fd:NOMINAL/DATA (k and M allowed)")
        ->capture_default_str();
    plan->add_option("--actuators", options->actuators, "Actuators on the bus, each commanded once per period")
        ->capture_default_str();
    plan->add_option("--rate", options->rate, "Control periods per second (Hz)")->capture_default_str();
    plan->add_option("--command", options->command, "Command per period: position, setpoint, torque, speed, impedance")
        ->capture_default_str();
    plan->add_option("--items", options->items, "Streamed feedback items in each actuator's reply (0..48)")
        ->capture_default_str();
    plan->add_flag("--json", options->json, "Print the figures as JSON");
    plan->footer(
        "Counts the real frames of one period per actuator: the command (segmented when it does not fit one\n"
        "frame, with the device's flow control) and one streamed reply (likewise), and their exact lengths in\n"
        "bits, without stuff bits and with the most a frame can have. \"Most actuators that fit\" uses the latter.\n"
        "Examples:\n"
        "  ocpctl plan --can classic:1M --actuators 1 --rate 500\n"
        "  ocpctl plan --can fd:1M/5M --actuators 8 --rate 1000 --items 4 --json\n"
        "  ocpctl plan --can classic:500k --command setpoint --items 1");
    plan->callback([options, &runner] { runner = [options] { return run_plan(*options); }; });
}

}  // namespace ocpctl
