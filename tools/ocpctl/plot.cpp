#include "plot.hpp"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "cli_support.hpp"

namespace ocpctl {

namespace {

std::string lowercase_extension(const std::string& path) {
    std::string extension = std::filesystem::path(path).extension().string();
    for (char& c : extension) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return extension;
}

std::string quoted_for_gnuplot(const std::string& text) {
    std::string quoted = "'";
    for (const char c : text) quoted += c == '\'' ? std::string("''") : std::string(1, c);
    return quoted + "'";
}

// gnuplot reads its data from a file; this one lives as long as the plot.
struct ScratchFile {
    std::filesystem::path path;
    ~ScratchFile() {
        std::error_code ignored;
        if (!path.empty()) std::filesystem::remove(path, ignored);
    }
};

std::string number_or_nan(float value) { return std::isfinite(value) ? format_value(value) : "nan"; }

// Columns: 1 time, 2 position, 3 speed, 4 torque, 5 setpoint.
void write_data(const PlotSamples& samples, const std::string& path) {
    std::ofstream out(path);
    const auto at = [](const std::vector<float>& series, std::size_t i) { return i < series.size() ? series[i] : NAN; };
    for (std::size_t i = 0; i < samples.time_s.size(); ++i) {
        char time[32];
        std::snprintf(time, sizeof time, "%.6f", samples.time_s[i]);
        out << time << ' ' << number_or_nan(at(samples.position, i)) << ' ' << number_or_nan(at(samples.speed, i))
            << ' ' << number_or_nan(at(samples.torque, i)) << ' ' << number_or_nan(at(samples.setpoint, i)) << '\n';
    }
    out.close();
    if (!out) throw DeviceError("cannot write the plot's data to " + path);
}

struct Panel {
    const char* quantity;
    int column;
    const std::vector<float>* series;
    std::string legend;
    bool has_setpoint;
};

bool controls(std::optional<Mode> mode, const char* quantity) {
    if (!mode) return false;
    switch (*mode) {
        case Mode::TORQUE: return std::strcmp(quantity, "torque") == 0;
        case Mode::SPEED: return std::strcmp(quantity, "speed") == 0;
        case Mode::POSITION:
        case Mode::IMPEDANCE: return std::strcmp(quantity, "position") == 0;
    }
    return false;
}

std::string gnuplot_script(const PlotSamples& samples, const PlotLabels& labels, PlotFormat format,
                           const std::string& data_path, const std::string& plot_path) {
    std::vector<Panel> panels;
    const auto add = [&](const char* quantity, int column, const std::vector<float>& series, const std::string& legend) {
        if (!series.empty())
            panels.push_back({quantity, column, &series, legend,
                              controls(labels.controlled, quantity) && !samples.setpoint.empty()});
    };
    add("position", 2, samples.position, labels.position);
    add("speed", 3, samples.speed, labels.speed);
    add("torque", 4, samples.torque, labels.torque);

    const std::string size = std::to_string(PLOT_WIDTH) + "," + std::to_string(PLOT_HEIGHT);
    std::string script;
    script += format == PlotFormat::PNG ? "set terminal pngcairo size " + size + " font 'sans,10'\n"
                                        : "set terminal svg size " + size + " fixed font 'sans,11'\n";
    script += "set output " + quoted_for_gnuplot(plot_path) + "\n";
    script += "set datafile missing 'nan'\n";
    script += "set grid\nset autoscale xfix\nset key outside right top vertical noenhanced\n";
    // Fixed margins keep the panels' time axes aligned whatever the legends.
    script += "set lmargin 12\nset rmargin 26\n";
    script += "set multiplot layout " + std::to_string(panels.size()) + ",1 title " + quoted_for_gnuplot(labels.title) +
              " noenhanced\n";
    const std::string data = quoted_for_gnuplot(data_path);
    for (std::size_t i = 0; i < panels.size(); ++i) {
        const Panel& panel = panels[i];
        script += "set ylabel " + quoted_for_gnuplot(panel.quantity) + "\n";
        script += i + 1 == panels.size() ? "set xlabel " + quoted_for_gnuplot(labels.time_axis) + "\n" : "unset xlabel\n";
        // Keep a flat line readable: a constant series gets a band around it.
        script += "set offsets 0, 0, graph 0.05, graph 0.05\n";
        script += "plot " + data + " using 1:" + std::to_string(panel.column) + " with lines linewidth 2 linecolor " +
                  std::to_string(i + 1) + " title " + quoted_for_gnuplot(panel.legend);
        if (panel.has_setpoint)
            script += ", " + data + " using 1:5 with lines linewidth 2 dashtype 2 linecolor rgb 'black' title 'setpoint'";
        script += "\n";
    }
    script += "unset multiplot\nset output\n";
    return script;
}

}  // namespace

PlotFormat check_plot_path(const std::string& path) {
    const std::string extension = lowercase_extension(path);
    PlotFormat format;
    if (extension == ".png")
        format = PlotFormat::PNG;
    else if (extension == ".svg")
        format = PlotFormat::SVG;
    else
        throw UsageError("cannot draw '" + shorten(path) + "': the plot format comes from the file name, .png or .svg");
    // Opening for append creates the file if needed and leaves an existing
    // one as it is until the plot replaces it.
    std::FILE* file = std::fopen(path.c_str(), "a");
    if (file == nullptr) throw UsageError("cannot write plot " + shorten(path) + ": " + std::strerror(errno));
    std::fclose(file);
    return format;
}

void draw_plot(const PlotSamples& samples, const PlotLabels& labels, const std::string& path) {
    const PlotFormat format = check_plot_path(path);
    if (samples.time_s.empty()) throw DeviceError("nothing to plot: no samples were recorded");
    ScratchFile data;
    data.path = std::filesystem::temp_directory_path() / ("ocpctl-plot-" + std::to_string(getpid()) + ".dat");
    write_data(samples, data.path.string());
    const std::string script = gnuplot_script(samples, labels, format, data.path.string(), path);
    // gnuplot's own output and complaints never reach ocpctl's standard
    // output; the result is judged by the file it leaves.
    std::error_code ignored;
    std::filesystem::remove(path, ignored);
    FILE* gnuplot = popen("gnuplot >/dev/null 2>&1", "w");
    if (gnuplot == nullptr) throw DeviceError("cannot run gnuplot (install the Debian package gnuplot-nox)");
    std::fputs(script.c_str(), gnuplot);
    const int status = pclose(gnuplot);
    if (status != 0 || !std::filesystem::exists(path) || std::filesystem::file_size(path) == 0)
        throw DeviceError("gnuplot could not draw " + shorten(path) + " (is the Debian package gnuplot-nox installed?)");
}

}  // namespace ocpctl
