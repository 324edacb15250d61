// ocpctl simulate: a simulated-actuator scenario run as fast as it can, written
// as CSV and optionally plotted with gnuplot.
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

#include <ocp_api/orrery_actuator.hpp>

#include "commands.hpp"

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

// Runs the scenario and writes time and the items, one row per sample.
void write_trajectory(std::ostream& out, const MotionCommand& command, float load, double seconds, int rate,
                      const std::vector<Items>& items) {
    ocp_api::OrreryActuatorVirtual sim(0x21);
    sim.set_feedback_items(items);
    sim.change_load(load);
    sim.start();
    command_motion(sim, command);
    const int steps_per_sample = (10000 + rate / 2) / rate;
    const long samples = std::lround(seconds * 10000.0 / steps_per_sample);
    out << "time_s";
    for (const auto item : items) out << ',' << ocp_api::item_name(item);
    out << '\n';
    auto write_row = [&](const ocp_api::OrreryActuatorVirtual::FeedbackMap& feedback) {
        char time[32];
        std::snprintf(time, sizeof time, "%.6f", static_cast<double>(sim.get_sim_time(6)));
        out << time;
        for (const auto item : items) out << ',' << format_exact(feedback.at(item));
        out << '\n';
    };
    write_row(sim.get_feedback());
    for (long i = 0; i < samples; ++i) write_row(sim.step(std::nullopt, steps_per_sample));
}

struct ScratchFile {
    std::filesystem::path path;
    ~ScratchFile() {
        std::error_code ignored;
        if (!path.empty()) std::filesystem::remove(path, ignored);
    }
};

std::string quoted_for_gnuplot(const std::string& text) {
    std::string quoted = "'";
    for (const char c : text) quoted += c == '\'' ? std::string("''") : std::string(1, c);
    return quoted + "'";
}

void plot_with_gnuplot(const std::string& csv_path, const std::string& png_path, std::size_t columns,
                       const std::string& title) {
    std::string script;
    script += "set terminal png size 1000,600\n";
    script += "set output " + quoted_for_gnuplot(png_path) + "\n";
    script += "set datafile separator ','\n";
    script += "set title " + quoted_for_gnuplot(title) + " noenhanced\n";
    script += "set xlabel 'simulated time (s)'\n";
    script += "set ylabel 'position, speed, torque (device units)'\n";
    script += "set key outside right top noenhanced\n";
    script += "set grid\n";
    script += "set autoscale xfix\n";
    script += "plot for [i=2:" + std::to_string(columns + 1) + "] " + quoted_for_gnuplot(csv_path) +
              " using 1:i with lines linewidth 2 title columnheader(i)\n";
    FILE* gnuplot = popen("gnuplot 2>&1", "w");
    if (gnuplot == nullptr) throw DeviceError("cannot run gnuplot (install the Debian package gnuplot-nox)");
    std::fputs(script.c_str(), gnuplot);
    const int status = pclose(gnuplot);
    if (status != 0 || !std::filesystem::exists(png_path) || std::filesystem::file_size(png_path) == 0)
        throw DeviceError("gnuplot could not draw " + png_path + " (is the Debian package gnuplot-nox installed?)");
}

int run_simulate(const SimulateOptions& options) {
    const MotionCommand command = parse_motion(options.mode, options.setpoint, options.stiffness, options.damping);
    const float load = parse_float(options.load, "load");
    const double seconds = parse_seconds(options.seconds, "--duration");
    const int rate = parse_rate(options.rate);
    const std::vector<Items> items = simulated_items(options.items);

    std::string csv_path = options.out;
    ScratchFile scratch;
    if (csv_path.empty() && !options.plot.empty()) {
        // gnuplot reads a file; without --out the data goes to a scratch one.
        scratch.path = std::filesystem::temp_directory_path() / ("ocpctl-simulate-" + std::to_string(getpid()) + ".csv");
        csv_path = scratch.path.string();
    }
    if (csv_path.empty()) {
        std::ostringstream text;
        write_trajectory(text, command, load, seconds, rate, items);
        std::fputs(text.str().c_str(), stdout);
    } else {
        std::ofstream file(csv_path);
        if (!file) throw UsageError("cannot write " + csv_path);
        write_trajectory(file, command, load, seconds, rate, items);
        file.close();
        if (!file) throw UsageError("cannot write " + csv_path);
    }
    if (!options.plot.empty()) {
        const std::string title = std::string(ocp_api::mode_name(command.mode)) + " " + format_value(command.setpoint) +
                                  (load != 0.0f ? ", load " + format_value(load) : std::string());
        plot_with_gnuplot(csv_path, options.plot, items.size(), title);
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
    simulate->add_option("--plot", options->plot, "PNG file to draw with gnuplot");
    simulate->footer("Examples:\n  ocpctl simulate --mode position --setpoint 1 --duration 0.5 --out step.csv\n"
                     "  ocpctl simulate --mode speed --setpoint 2 --load 0.5 --plot speed.png");
    simulate->callback([&runner, options] { runner = [options] { return run_simulate(*options); }; });
}

}  // namespace ocpctl
