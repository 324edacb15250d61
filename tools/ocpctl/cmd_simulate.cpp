// ocpctl simulate: a simulated-actuator scenario run as fast as it can, written
// as CSV and optionally plotted with gnuplot.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>

#include <ocp_api/orrery_actuator.hpp>

#include "commands.hpp"
#include "plot.hpp"

namespace ocpctl {

namespace {

using Items = ocp_api::OrreryActuatorVirtual::OCP_Items;

// The --items names as the simulated actuator spells its items.
std::vector<Items> simulated_items(const std::vector<std::string>& names) {
    std::vector<Items> items;
    for (const auto item : parse_items(names)) items.push_back(ocp_api::identifier_cast<Items>(item));
    return items;
}

struct SimulateOptions {
    std::string mode;
    std::string setpoint;
    std::string load = "0";
    std::string stiffness;
    std::string damping;
    double seconds = 1.0;
    double rate = 1000;
    std::vector<std::string> items{"POS_FB_4C", "SPD_FB_45", "T_FB_56"};
    std::string out;
    std::string plot;
};

const std::vector<Items> PLOTTED_ITEMS = {Items::POS_FB_4C, Items::SPD_FB_45, Items::T_FB_56};

// A plot holds every sample in memory; beyond this many it would take more
// memory than a picture is worth (and more pixels than it has).
constexpr long MAX_PLOTTED_SAMPLES = 1000000;

int steps_per_sample(int rate) { return (10000 + rate / 2) / rate; }

long sample_count(double seconds, int rate) { return std::lround(seconds * 10000.0 / steps_per_sample(rate)); }

// Runs the scenario and writes time and the items, one row per sample, as it
// goes; the position, speed and torque of each sample also go to `plot` when
// there is one.
void write_trajectory(std::ostream& out, const MotionCommand& command, float load, double seconds, int rate,
                      const std::vector<Items>& items, PlotSamples* plot) {
    ocp_api::OrreryActuatorVirtual sim(0x21);
    std::vector<Items> recorded = items;
    for (const auto item : PLOTTED_ITEMS) {
        if (std::find(recorded.begin(), recorded.end(), item) == recorded.end()) recorded.push_back(item);
    }
    sim.set_feedback_items(recorded);
    sim.change_load(load);
    sim.start();
    command_motion(sim, command);
    const int steps = steps_per_sample(rate);
    const long samples = sample_count(seconds, rate);
    out << "time_s";
    for (const auto item : items) out << ',' << ocp_api::item_name(item);
    out << '\n';
    auto write_row = [&](const ocp_api::OrreryActuatorVirtual::FeedbackMap& feedback) {
        const double time_s = static_cast<double>(sim.get_sim_time(6));
        char time[32];
        std::snprintf(time, sizeof time, "%.6f", time_s);
        out << time;
        for (const auto item : items) out << ',' << format_value(feedback.at(item));
        out << '\n';
        if (plot == nullptr) return;
        plot->time_s.push_back(time_s);
        plot->position.push_back(feedback.at(Items::POS_FB_4C));
        plot->speed.push_back(feedback.at(Items::SPD_FB_45));
        plot->torque.push_back(feedback.at(Items::T_FB_56));
        plot->setpoint.push_back(command.setpoint);
    };
    // A stream without a buffer discards the rows; one that fails later (a
    // closed pipe, a full disk) ends the run.
    const bool discarding = out.rdbuf() == nullptr;
    write_row(sim.get_feedback());
    for (long i = 0; i < samples && (discarding || out); ++i) write_row(sim.step(std::nullopt, steps));
}

int run_simulate(const SimulateOptions& options) {
    const MotionCommand command = parse_motion(options.mode, options.setpoint, options.stiffness, options.damping);
    const float load = parse_float(options.load, "load");
    const double seconds = parse_seconds(options.seconds, "--duration");
    const int rate = parse_rate(options.rate);
    const std::vector<Items> items = simulated_items(options.items);
    if (!options.plot.empty()) {
        if (sample_count(seconds, rate) > MAX_PLOTTED_SAMPLES)
            throw UsageError("--plot draws at most " + std::to_string(MAX_PLOTTED_SAMPLES) + " samples, not " +
                             std::to_string(sample_count(seconds, rate)) + " (a shorter --duration or a lower --rate)");
        check_plot_path(options.plot);
    }

    PlotSamples samples;
    PlotSamples* plot = options.plot.empty() ? nullptr : &samples;
    if (options.out.empty() && options.plot.empty()) {
        // Rows go out as they are made: a long run needs no memory for them.
        write_trajectory(std::cout, command, load, seconds, rate, items, plot);
        std::cout.flush();
    } else if (options.out.empty()) {
        std::ostream discarded(nullptr);  // with only --plot the picture is the result
        write_trajectory(discarded, command, load, seconds, rate, items, plot);
    } else {
        std::ofstream file(options.out);
        if (!file) throw UsageError("cannot write " + shorten(options.out));
        write_trajectory(file, command, load, seconds, rate, items, plot);
        file.close();
        if (!file) throw UsageError("cannot write " + shorten(options.out));
    }
    if (!options.plot.empty()) {
        PlotLabels labels;
        labels.title = "simulated " + motion_title(command) + (load != 0.0f ? ", load " + format_value(load) : "");
        labels.time_axis = "simulated time (s)";
        labels.position = "position (POS_FB_4C)";
        labels.speed = "speed (SPD_FB_45)";
        labels.torque = "torque (T_FB_56)";
        labels.controlled = command.mode;
        draw_plot(samples, labels, options.plot);
        std::fprintf(stderr, "ocpctl: plot written to %s\n", options.plot.c_str());
    }
    return 0;
}

}  // namespace

void add_simulate_command(CLI::App& app, Runner& runner) {
    auto options = std::make_shared<SimulateOptions>();
    CLI::App* simulate = app.add_subcommand("simulate", "Run a simulated actuator (no bus) and write its trajectory");
    simulate->add_option("--mode", options->mode, "torque, speed, position or impedance")->required();
    simulate->add_option("--setpoint", options->setpoint, "Setpoint of the mode's quantity")->required();
    simulate->add_option("--load", options->load, "Load torque opposing the motor")->capture_default_str();
    simulate->add_option("--stiffness", options->stiffness, "Impedance stiffness (K_STIFF)");
    simulate->add_option("--damping", options->damping, "Impedance damping (K_DAMP)");
    simulate->add_option("--duration", options->seconds, "Simulated seconds")->capture_default_str();
    simulate->add_option("--rate", options->rate, "Samples per simulated second, 1..10000")->capture_default_str();
    simulate->add_option("--items", options->items, "Feedback items, comma-separated")->delimiter(',')->capture_default_str();
    simulate->add_option("--out", options->out, "CSV file to write (default: standard output)");
    simulate->add_option("--plot", options->plot, "Draw position, speed and torque into a .png or .svg file");
    simulate->footer("Examples:\n  ocpctl simulate --mode position --setpoint 1 --duration 0.5 --out step.csv\n"
                     "  ocpctl simulate --mode speed --setpoint 2 --load 0.5 --plot speed.png\n"
                     "  ocpctl simulate --mode impedance --setpoint 0.5 --stiffness 40 --damping 3 --plot step.svg");
    simulate->callback([&runner, options] { runner = [options] { return run_simulate(*options); }; });
}

}  // namespace ocpctl
