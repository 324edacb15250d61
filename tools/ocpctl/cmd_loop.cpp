// ocpctl loop: a fixed-rate control loop over several actuators with a sine
// or step trajectory, and the loop's timing statistics at the end.
#include <cmath>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>
#include <ocp_api/loop_runner.hpp>

#include "commands.hpp"
#include "session.hpp"

namespace ocpctl {

namespace {

using namespace std::chrono_literals;
using ocp_api::TimingHistogram;

struct LoopCommandOptions {
    std::vector<std::string> addresses;
    double rate = 500.0;
    double seconds = 2.0;
    std::string mode = "position";
    std::string trajectory = "sine";
    std::string amplitude = "0.5";
    double frequency = 0.5;
    double feedback_rate = 0.0;  // 0: the loop's rate
    int watchdog = 50;
    bool json = false;
};

const std::vector<Item> LOOP_ITEMS = {Item::POS_FB_4C, Item::SPD_FB_45, Item::T_FB_56, Item::ERRORS_90};

enum class Trajectory { sine, step };

Trajectory parse_trajectory(const std::string& text) {
    if (text == "sine") return Trajectory::sine;
    if (text == "step") return Trajectory::step;
    throw UsageError("--trajectory " + shorten(text) + " is not sine or step");
}

// The setpoint at `t` seconds: a sine, or a square wave of the same period
// that starts at +amplitude.
float trajectory_at(Trajectory trajectory, float amplitude, double frequency, double t) {
    const double phase = std::sin(2.0 * M_PI * frequency * t);
    if (trajectory == Trajectory::sine) return static_cast<float>(amplitude * phase);
    return std::fmod(t * frequency, 1.0) < 0.5 ? amplitude : -amplitude;
}

nlohmann::json summary_json(const TimingHistogram& histogram) {
    const auto s = histogram.summary();
    return {{"p50", s.p50_us}, {"p99", s.p99_us}, {"max", s.max_us}};
}

std::string summary_text(const TimingHistogram& histogram) {
    const auto s = histogram.summary();
    char line[96];
    std::snprintf(line, sizeof line, "p50 %8.1f us  p99 %8.1f us  max %8.1f us", s.p50_us, s.p99_us, s.max_us);
    return line;
}

struct LoopReport {
    std::string bus;
    std::string mode;
    std::string trajectory;
    double rate_hz;
    double seconds;
    ocp_api::LoopResult result;
    ocp_api::LoopStatistics loop;
    ocp_api::GroupStatistics group;
};

const char* link_text(ocp_api::CanLinkState state) {
    switch (state) {
        case ocp_api::CanLinkState::active: return "active";
        case ocp_api::CanLinkState::error_warning: return "error_warning";
        case ocp_api::CanLinkState::error_passive: return "error_passive";
        case ocp_api::CanLinkState::bus_off: return "bus_off";
        case ocp_api::CanLinkState::down: return "down";
    }
    return "down";
}

// The bus's link state ("unknown" for a transport without one) and the
// counters every transport keeps in some form.
nlohmann::json bus_json(const ocp_api::BusStatistics& bus) {
    nlohmann::json out = {{"link", bus.link ? link_text(*bus.link) : "unknown"}};
    if (const auto* can = std::get_if<ocp_api::CanBusCounters>(&bus.counters)) {
        out["frames_out"] = can->frames_out;
        out["frames_in"] = can->frames_in;
        out["drops"] = can->drops;
        out["link_errors"] = can->link_errors;
    } else if (const auto* sim = std::get_if<ocp_api::SimBusCounters>(&bus.counters)) {
        out["frames_out"] = sim->frames_sent;
        out["frames_in"] = sim->replies_delivered;
        out["drops"] = sim->frames_lost + sim->replies_lost;
    }
    return out;
}

void print_json(const LoopReport& report) {
    nlohmann::json actuators = nlohmann::json::array();
    for (const auto& a : report.group.actuators) {
        actuators.push_back({{"address", hex(a.address)},
                             {"feedback_age_us", summary_json(a.feedback_age)},
                             {"fresh", a.fresh},
                             {"stale", a.stale},
                             {"missing", a.missing},
                             {"faults", a.faults},
                             {"restarts", a.restarts},
                             {"setpoints_short", a.setpoints_short},
                             {"setpoints_full", a.setpoints_full},
                             {"setpoints_superseded", a.setpoints_superseded},
                             {"setpoints_refused", a.setpoints_refused}});
    }
    nlohmann::json buses = nlohmann::json::array();
    for (const auto& bus : report.group.buses) buses.push_back(bus_json(bus));
    const nlohmann::json out = {{"bus", report.bus},
                                {"mode", report.mode},
                                {"trajectory", report.trajectory},
                                {"rate_hz", report.rate_hz},
                                {"seconds", report.seconds},
                                {"end", ocp_api::to_string(report.result.end)},
                                {"periods", report.loop.periods},
                                {"missed_periods", report.loop.missed_periods},
                                {"watchdog_trips", report.loop.watchdog_trips},
                                {"period_error_us", summary_json(report.loop.period_error)},
                                {"callback_time_us", summary_json(report.loop.callback_time)},
                                {"actuators", actuators},
                                {"buses", buses}};
    std::printf("%s\n", out.dump(2).c_str());
}

void print_text(const LoopReport& report) {
    std::printf("periods %llu, missed %llu, watchdog trips %llu, ended: %s\n",
                static_cast<unsigned long long>(report.loop.periods),
                static_cast<unsigned long long>(report.loop.missed_periods),
                static_cast<unsigned long long>(report.loop.watchdog_trips), ocp_api::to_string(report.result.end));
    std::printf("period error   %s\n", summary_text(report.loop.period_error).c_str());
    std::printf("callback time  %s\n", summary_text(report.loop.callback_time).c_str());
    std::printf("%-8s %7s %7s %7s %12s %12s %12s %6s %8s %9s %7s\n", "address", "fresh", "stale", "missing",
                "age p50 us", "age p99 us", "age max us", "faults", "restarts", "setpoints", "refused");
    for (const auto& a : report.group.actuators) {
        const auto age = a.feedback_age.summary();
        std::printf("%-8s %7llu %7llu %7llu %12.1f %12.1f %12.1f %6llu %8llu %9llu %7llu\n", hex(a.address).c_str(),
                    static_cast<unsigned long long>(a.fresh), static_cast<unsigned long long>(a.stale),
                    static_cast<unsigned long long>(a.missing), age.p50_us, age.p99_us, age.max_us,
                    static_cast<unsigned long long>(a.faults), static_cast<unsigned long long>(a.restarts),
                    static_cast<unsigned long long>(a.setpoints_short + a.setpoints_full),
                    static_cast<unsigned long long>(a.setpoints_refused));
    }
}

int run_loop(const LoopCommandOptions& options, const GlobalOptions& global) {
    std::vector<int> addresses;
    for (const auto& text : options.addresses) addresses.push_back(parse_address(text));
    const int rate = parse_rate(options.rate);
    const int feedback_rate = options.feedback_rate == 0.0 ? rate : parse_rate(options.feedback_rate);
    const double seconds = parse_seconds(options.seconds, "--for");
    const Mode mode = parse_mode(options.mode);
    const Trajectory trajectory = parse_trajectory(options.trajectory);
    const float amplitude = parse_float(options.amplitude, "--amplitude");
    if (!(options.frequency > 0.0) || !std::isfinite(options.frequency))
        throw UsageError("--frequency " + format_value(static_cast<float>(options.frequency)) +
                         " is not a positive number of Hz");
    if (options.watchdog < 0) throw UsageError("--watchdog " + std::to_string(options.watchdog) + " is negative");

    const StopSignal stop_signal;
    Bus bus(global.bus);
    for (const int address : addresses) {
        if (!answers_at(bus.transport(), address, global.timeout_s))
            throw DeviceError("no answer from " + hex(address) + " after " + format_seconds(global.timeout_s));
    }

    const auto period = std::chrono::nanoseconds(1'000'000'000LL / rate);
    ocp_api::ActuatorGroupOptions group_options;
    // Stale for up to five loop periods (at least two feedback periods), missing after.
    group_options.stale_after = std::max(5 * period, std::chrono::nanoseconds(2'000'000'000LL / feedback_rate));
    ocp_api::ActuatorGroup group(group_options);
    for (const int address : addresses) {
        try {
            group.add(bus.transport(), address);
        } catch (const std::invalid_argument& error) {
            throw UsageError(error.what());
        }
    }
    group.set_up({LOOP_ITEMS, feedback_rate, mode});
    group.start_all();
    std::fprintf(stderr, "loop: %zu actuator%s, %d Hz for %s, %s %s amplitude %s at %s Hz (Ctrl-C stops)\n",
                 addresses.size(), addresses.size() == 1 ? "" : "s", rate, format_seconds(seconds).c_str(),
                 std::string(ocp_api::mode_name(mode)).c_str(), options.trajectory.c_str(),
                 format_value(amplitude).c_str(), format_value(static_cast<float>(options.frequency)).c_str());

    ocp_api::LoopOptions loop_options;
    loop_options.period = period;
    loop_options.watchdog_missed_periods = options.watchdog;
    ocp_api::LoopRunner runner(group, loop_options);
    const double frequency = options.frequency;
    // Each snapshot's number counts periods, missed ones included in time.
    const auto started = ocp_api::GroupClock::now();
    const auto result = runner.run(
        [&](const ocp_api::GroupSnapshot& snapshot, ocp_api::ActuatorGroup& g) {
            if (stop_signal.raised()) runner.request_stop();
            const double t = std::chrono::duration<double>(snapshot.taken - started).count();
            const float setpoint = trajectory_at(trajectory, amplitude, frequency, t);
            for (std::size_t i = 0; i < snapshot.actuators.size(); ++i) g.set_setpoint(i, setpoint);
        },
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(seconds)));
    group.stop_all();

    LoopReport report{global.bus, options.mode, options.trajectory, static_cast<double>(rate), seconds, result,
                      runner.statistics(), group.statistics()};
    if (options.json) {
        print_json(report);
    } else {
        print_text(report);
    }
    std::fflush(stdout);
    if (stop_signal.raised()) throw Interrupted("loop stopped by signal, actuators stopped", StopSignal::signal_number());
    if (result.end == ocp_api::LoopEnd::watchdog)
        throw DeviceError("the watchdog stopped every actuator: " + std::to_string(options.watchdog) +
                          " periods missed in a row");
    if (result.end == ocp_api::LoopEnd::feedback_lost)
        throw DeviceError("feedback lost: every actuator stopped");
    return 0;
}

}  // namespace

void add_loop_command(CLI::App& app, const GlobalOptions& global, Runner& runner) {
    auto options = std::make_shared<LoopCommandOptions>();
    CLI::App* loop = app.add_subcommand("loop", "Run a fixed-rate control loop over actuators, print its statistics");
    loop->add_option("ADDR", options->addresses, "Actuator addresses")->required();
    loop->add_option("--rate", options->rate, "Loop rate in Hz, 1..10000")->capture_default_str();
    loop->add_option("--for", options->seconds, "Seconds to run before stopping")->capture_default_str();
    loop->add_option("--mode", options->mode, "torque, speed, position or impedance")->capture_default_str();
    loop->add_option("--trajectory", options->trajectory, "sine or step")->capture_default_str();
    loop->add_option("--amplitude", options->amplitude, "Amplitude of the trajectory")->capture_default_str();
    loop->add_option("--frequency", options->frequency, "Frequency of the trajectory in Hz")->capture_default_str();
    loop->add_option("--feedback-rate", options->feedback_rate, "Feedback rate in Hz (default: the loop rate)");
    loop->add_option("--watchdog", options->watchdog, "Stop every actuator after this many periods missed in a row; 0: off")
        ->capture_default_str();
    loop->add_flag("--json", options->json, "Print the statistics as JSON");
    loop->footer(
        "Each period: read every actuator's latest feedback, send each the trajectory's setpoint.\n"
        "At the end: period error and callback time, and per actuator the feedback age and the\n"
        "counts of fresh, stale and missing values, faults and restarts (times in microseconds).\n"
        "Every actuator is stopped when the time is up, on Ctrl-C, SIGTERM and when the watchdog trips.\n"
        "Examples:\n  ocpctl loop 0x21 0x22 0x23 --rate 1000 --for 5\n"
        "  ocpctl loop 0x21 --mode speed --trajectory step --amplitude 2 --json");
    loop->callback([&runner, &global, options] { runner = [&global, options] { return run_loop(*options, global); }; });
}

}  // namespace ocpctl
