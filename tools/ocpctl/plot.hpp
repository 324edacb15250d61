// Plots of a motion, drawn with gnuplot: one panel per quantity (position,
// speed, torque) on a shared time axis, each with its own scale, and the
// setpoint over the quantity the mode controls. PNG or SVG by file name.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "cli_support.hpp"

namespace ocpctl {

// One row per sample. A quantity that was not recorded stays empty; when
// recorded it has one value per time (NaN where a sample lacked it).
struct PlotSamples {
    std::vector<double> time_s;
    std::vector<float> position;
    std::vector<float> speed;
    std::vector<float> torque;
    std::vector<float> setpoint;
};

struct PlotLabels {
    std::string title;
    std::string time_axis = "time (s)";
    // Legend texts of the feedback series, such as "position (POS_FB_4C)".
    std::string position = "position";
    std::string speed = "speed";
    std::string torque = "torque";
    // The mode whose quantity the setpoint is drawn over.
    std::optional<Mode> controlled;
};

enum class PlotFormat { PNG, SVG };

inline constexpr int PLOT_WIDTH = 1000;
inline constexpr int PLOT_HEIGHT = 800;

// Checks the name and that the file can be written, before any work is
// done; throws UsageError naming the path otherwise.
PlotFormat check_plot_path(const std::string& path);

// Draws the samples into `path`; throws DeviceError when gnuplot is missing
// or fails. Nothing is ever written to standard output.
void draw_plot(const PlotSamples& samples, const PlotLabels& labels, const std::string& path);

}  // namespace ocpctl
