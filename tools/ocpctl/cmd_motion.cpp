// ocpctl commands that move or watch actuators: move, stream, watch.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <optional>
#include <chrono>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "commands.hpp"
#include "plot.hpp"
#include "session.hpp"

namespace ocpctl {

namespace {

using Clock = std::chrono::steady_clock;
using FeedbackMap = ocp_api::OrreryActuator::FeedbackMap;
using namespace std::chrono_literals;

const std::vector<Item> MOTION_ITEMS = {Item::POS_FB_4C, Item::SPD_FB_45, Item::T_FB_56};

float item_or_nan(const FeedbackMap& feedback, Item item) {
    const auto found = feedback.find(item);
    return found == feedback.end() ? NAN : found->second;
}

double seconds_since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// The first of `candidates` that is among `items`.
std::optional<Item> first_present(const std::vector<Item>& items, std::initializer_list<Item> candidates) {
    for (const auto candidate : candidates) {
        if (std::find(items.begin(), items.end(), candidate) != items.end()) return candidate;
    }
    return std::nullopt;
}

// Which streamed items feed which panel of a plot.
struct PlotSources {
    std::optional<Item> position, speed, torque, setpoint;

    explicit PlotSources(const std::vector<Item>& items)
        : position(first_present(items, {Item::POS_FB_4C, Item::POS_FB_41, Item::POS_FB_43, Item::POS_FB_73})),
          speed(first_present(items, {Item::SPD_FB_45})),
          torque(first_present(items, {Item::T_FB_56, Item::T_FB_49})),
          setpoint(first_present(items, {Item::REF_4B, Item::REF_4D, Item::REF_55})) {}

    bool any_quantity() const { return position || speed || torque; }

    void add(PlotSamples& samples, double time_s, const FeedbackMap& feedback) const {
        samples.time_s.push_back(time_s);
        if (position) samples.position.push_back(item_or_nan(feedback, *position));
        if (speed) samples.speed.push_back(item_or_nan(feedback, *speed));
        if (torque) samples.torque.push_back(item_or_nan(feedback, *torque));
        if (setpoint) samples.setpoint.push_back(item_or_nan(feedback, *setpoint));
    }

    void name(PlotLabels& labels) const {
        if (position) labels.position = "position (" + std::string(ocp_api::item_name(*position)) + ")";
        if (speed) labels.speed = "speed (" + std::string(ocp_api::item_name(*speed)) + ")";
        if (torque) labels.torque = "torque (" + std::string(ocp_api::item_name(*torque)) + ")";
    }
};

// ---------------------------------------------------------------- move

struct MoveOptions {
    std::string address;
    std::string mode;
    std::string setpoint;
    std::string stiffness;
    std::string damping;
    double seconds = 2.0;
    std::string plot;
};

int run_move(const MoveOptions& options, const GlobalOptions& global) {
    const int address = parse_address(options.address);
    const MotionCommand command = parse_motion(options.mode, options.setpoint, options.stiffness, options.damping);
    const double seconds = parse_seconds(options.seconds, "--for");
    if (!options.plot.empty()) check_plot_path(options.plot);

    const StopSignal stop_signal;
    // Filled on the bus's thread; outlives the session, whose end waits for
    // a callback still running.
    std::mutex recording;
    PlotSamples samples;
    const PlotSources sources(MOTION_ITEMS);
    Clock::time_point start = Clock::now();
    Session session(global, address, OnExit::Stop);
    auto& actuator = session.actuator();
    if (!options.plot.empty()) {
        actuator.set_feedback_callback([&](int, FeedbackMap feedback) {
            std::lock_guard<std::mutex> lock(recording);
            sources.add(samples, seconds_since(start), feedback);
            samples.setpoint.push_back(command.setpoint);
        });
    }
    actuator.setFeedbackItems(MOTION_ITEMS);
    actuator.setFeedbackRate(options.plot.empty() ? 50 : 200);
    start = Clock::now();
    actuator.start();
    command_motion(actuator, command);
    std::fprintf(stderr, "%s: %s %s for %s (Ctrl-C stops it)\n", hex(address).c_str(),
                 std::string(ocp_api::mode_name(command.mode)).c_str(), format_value(command.setpoint).c_str(),
                 format_seconds(seconds).c_str());

    while (!stop_signal.raised() && seconds_since(start) < seconds) {
        stop_signal.sleep_for(100ms);
        const auto feedback = actuator.get_feedback();
        std::fprintf(stderr, "%6.2f s  position %s  speed %s  torque %s\n", seconds_since(start),
                     format_value(item_or_nan(feedback, Item::POS_FB_4C)).c_str(),
                     format_value(item_or_nan(feedback, Item::SPD_FB_45)).c_str(),
                     format_value(item_or_nan(feedback, Item::T_FB_56)).c_str());
    }
    actuator.setFeedbackRate(0);
    actuator.stop();
    const auto feedback = actuator.get_feedback();
    std::printf("%s position %s speed %s torque %s\n", hex(address).c_str(),
                format_value(item_or_nan(feedback, Item::POS_FB_4C)).c_str(),
                format_value(item_or_nan(feedback, Item::SPD_FB_45)).c_str(),
                format_value(item_or_nan(feedback, Item::T_FB_56)).c_str());
    if (!options.plot.empty()) {
        session.release_actuator();  // the recording is complete
        PlotLabels labels;
        labels.title = hex(address) + " " + motion_title(command);
        labels.controlled = command.mode;
        sources.name(labels);
        draw_plot(samples, labels, options.plot);
        std::fprintf(stderr, "ocpctl: plot written to %s\n", options.plot.c_str());
    }
    if (stop_signal.raised()) {
        std::string confirmation;
        if (ocp_api::SimBus* sim = session.bus().simulated()) {
            // On the simulated bus the device itself can be asked.
            bool running = true;
            for (int i = 0; i < 200 && running; ++i) {
                running = sim->actuator(address).physics()->is_running();
                if (running) std::this_thread::sleep_for(5ms);
            }
            confirmation = running ? " (the emulated device still runs!)" : " (the emulated device is not running)";
        }
        std::fprintf(stderr, "ocpctl: interrupted; %s stopped%s\n", hex(address).c_str(), confirmation.c_str());
        return stop_signal.exit_status();
    }
    return 0;
}

// ---------------------------------------------------------------- stream

struct StreamOptions {
    std::string address;
    std::vector<std::string> items;
    double rate = 100;
    double seconds = 0.0;  // 0: until Ctrl-C
    std::string format = "csv";
    std::string plot;
};

// The mode the device is in, for the panel its setpoint belongs to.
std::optional<Mode> device_mode(ocp_api::OrreryActuator& actuator, float timeout_s) {
    const auto values = actuator.get_parameters({Parameter::MODE}, timeout_s);
    const auto found = values.find(Parameter::MODE);
    if (found == values.end()) return std::nullopt;
    const auto mode = static_cast<Mode>(static_cast<int>(found->second));
    if (ocp_api::mode_name(mode).empty()) return std::nullopt;
    return mode;
}

int run_stream(const StreamOptions& options, const GlobalOptions& global) {
    const int address = parse_address(options.address);
    const std::vector<Item> items = parse_items(options.items);
    const int rate = parse_rate(options.rate);
    if (options.format != "csv" && options.format != "jsonl")
        throw UsageError("unknown format '" + options.format + "' (expected csv or jsonl)");
    const bool csv = options.format == "csv";
    const double seconds = options.seconds == 0.0 ? 0.0 : parse_seconds(options.seconds, "--duration");
    const PlotSources sources(items);
    if (!options.plot.empty()) {
        if (!sources.any_quantity())
            throw UsageError("--plot draws position, speed or torque: stream one of POS_FB_4C, POS_FB_41, POS_FB_43, "
                             "POS_FB_73, SPD_FB_45, T_FB_56 or T_FB_49");
        check_plot_path(options.plot);
    }

    const StopSignal stop_signal;
    PlotSamples samples;
    // What the callback touches outlives the session, whose end waits for a
    // callback still running on the bus's thread.
    std::mutex output;
    std::atomic<long> rows{0};
    Clock::time_point start;
    Session session(global, address, OnExit::Stop);
    auto& actuator = session.actuator();
    PlotLabels labels;
    if (!options.plot.empty()) {
        labels.title = hex(address) + " streamed at " + std::to_string(rate) + " Hz";
        sources.name(labels);
        if (sources.setpoint) labels.controlled = device_mode(actuator, global.timeout_s);
    }
    if (csv) {
        std::string header = "time_s";
        for (const auto item : items) header += "," + std::string(ocp_api::item_name(item));
        std::printf("%s\n", header.c_str());
        if (std::fflush(stdout) != 0) StopSignal::note_output_closed();
    }
    start = Clock::now();
    // Runs on the bus's receive thread, one row per streamed reply.
    actuator.set_feedback_callback([&](int, FeedbackMap feedback) {
        const double time_s = seconds_since(start);
        char time[32];
        std::snprintf(time, sizeof time, "%.6f", time_s);
        std::string row;
        if (csv) {
            row = time;
            for (const auto item : items) row += "," + format_value(item_or_nan(feedback, item));
        } else {
            row = std::string("{\"time_s\":") + time;
            for (const auto item : items) {
                const float value = item_or_nan(feedback, item);
                row += ",\"" + std::string(ocp_api::item_name(item)) + "\":" +
                       (std::isfinite(value) ? format_value(value) : "null");
            }
            row += "}";
        }
        std::lock_guard<std::mutex> lock(output);
        if (!options.plot.empty()) sources.add(samples, time_s, feedback);
        // A row at a time, so that a reader at the other end of a pipe sees
        // each as it comes; a failed write means the reader has gone.
        std::printf("%s\n", row.c_str());
        if (std::fflush(stdout) != 0) StopSignal::note_output_closed();
        rows.fetch_add(1);
    });
    actuator.setFeedbackItems(items);
    actuator.setFeedbackRate(rate);

    const bool progress = isatty(STDERR_FILENO) != 0;
    while (!stop_signal.raised() && (seconds == 0.0 || seconds_since(start) < seconds)) {
        stop_signal.sleep_for(std::chrono::milliseconds(seconds == 0.0 ? 200 : 20));
        if (progress) std::fprintf(stderr, "\r%ld rows, %.1f s ", rows.load(), seconds_since(start));
    }
    // Whether the time is up, a signal came or the reader closed the pipe:
    // streaming off first, then the session's STOP.
    actuator.setFeedbackRate(0);
    session.release_actuator();  // no callback runs after this
    if (progress) std::fprintf(stderr, "\n");
    std::fflush(stdout);
    if (!options.plot.empty() && StopSignal::signal_number() != SIGPIPE) {
        draw_plot(samples, labels, options.plot);
        std::fprintf(stderr, "ocpctl: plot written to %s\n", options.plot.c_str());
    }
    return stop_signal.exit_status();
}

// ---------------------------------------------------------------- watch

struct WatchOptions {
    std::vector<std::string> addresses;
    double seconds = 0.0;  // 0: until Ctrl-C
};

const std::vector<Item> WATCH_ITEMS = {Item::POS_FB_4C, Item::SPD_FB_45, Item::T_FB_56, Item::VBUS_70,
                                        Item::TEMP_WINDING_72};
// Column headers that fit: the item names, the winding temperature's cut.
const char* const WATCH_HEADERS[] = {"POS_FB_4C", "SPD_FB_45", "T_FB_56", "VBUS_70", "TEMP_WIND"};
constexpr int VALUE_WIDTH = 11;

// A number in at most `width` characters: fewer digits rather than a
// broken column.
std::string fit(float value, std::size_t width) {
    std::string text = format_value(value);
    for (int digits = 6; text.size() > width && digits >= 1; --digits) {
        char shorter[32];
        std::snprintf(shorter, sizeof shorter, "%.*g", digits, static_cast<double>(value));
        text = shorter;
    }
    return text;
}

// One actuator under watch: the time of its latest streamed reply tells
// whether it still answers.
struct Watched {
    int address;
    std::unique_ptr<ocp_api::OrreryActuator> actuator;
    std::atomic<Clock::rep> last_reply{0};
};

std::string watch_header() {
    char text[128];
    int used = std::snprintf(text, sizeof text, "%8s %-6s", "TIME_S", "ADDR");
    for (const char* header : WATCH_HEADERS)
        used += std::snprintf(text + used, sizeof text - static_cast<std::size_t>(used), " %*s", VALUE_WIDTH, header);
    return text;
}

std::string watch_row(double time_s, Watched& watched, Clock::duration silence) {
    char text[128];
    int used = std::snprintf(text, sizeof text, "%8.2f %-6s", time_s, hex(watched.address).c_str());
    const Clock::rep last = watched.last_reply.load();
    if (last == 0 || Clock::now() - Clock::time_point(Clock::duration(last)) > silence) {
        std::snprintf(text + used, sizeof text - static_cast<std::size_t>(used), " %*s", VALUE_WIDTH, "no answer");
        return text;
    }
    const auto feedback = watched.actuator->get_feedback();
    for (const auto item : WATCH_ITEMS)
        used += std::snprintf(text + used, sizeof text - static_cast<std::size_t>(used), " %*s", VALUE_WIDTH,
                              fit(item_or_nan(feedback, item), VALUE_WIDTH).c_str());
    return text;
}

int run_watch(const WatchOptions& options, const GlobalOptions& global) {
    std::vector<int> addresses;
    for (const auto& text : options.addresses) addresses.push_back(parse_address(text));
    const double seconds = options.seconds == 0.0 ? 0.0 : parse_seconds(options.seconds, "--for");

    const StopSignal stop_signal;
    Bus bus(global.bus);
    ExitStopFilter transport(bus.transport());
    transport.arm();  // watching leaves the devices as they were
    // Each device streams its feedback; one that is silent at the start or
    // falls silent later shows "no answer" in its row instead of ending the
    // watch, and shows values again once it streams.
    std::vector<std::unique_ptr<Watched>> watched;
    for (const int address : addresses) {
        auto entry = std::make_unique<Watched>();
        entry->address = address;
        entry->actuator = std::make_unique<ocp_api::OrreryActuator>(transport, address);
        Watched* target = entry.get();
        entry->actuator->set_feedback_callback(
            [target](int, FeedbackMap) { target->last_reply.store(Clock::now().time_since_epoch().count()); });
        entry->actuator->setFeedbackItems(WATCH_ITEMS);
        entry->actuator->setFeedbackRate(20);
        watched.push_back(std::move(entry));
    }
    const auto silence = std::max<Clock::duration>(std::chrono::duration_cast<Clock::duration>(
                                                       std::chrono::duration<float>(global.timeout_s)),
                                                   500ms);
    // On a terminal the table is redrawn in place; into a pipe or file each
    // refresh adds timestamped rows under one header.
    const bool terminal = isatty(STDOUT_FILENO) != 0;
    const auto start = Clock::now();
    if (!terminal) std::printf("%s\n", watch_header().c_str());
    do {
        stop_signal.sleep_for(250ms);
        if (terminal) std::printf("\x1b[H\x1b[2J%s\n", watch_header().c_str());
        const double now = seconds_since(start);
        for (auto& entry : watched) std::printf("%s\n", watch_row(now, *entry, silence).c_str());
        if (std::fflush(stdout) != 0) StopSignal::note_output_closed();
    } while (!stop_signal.raised() && (seconds == 0.0 || seconds_since(start) < seconds));
    for (auto& entry : watched) entry->actuator->setFeedbackRate(0);
    watched.clear();  // no callback runs after this
    return stop_signal.exit_status();
}

}  // namespace

void add_motion_commands(CLI::App& app, const GlobalOptions& global, Runner& runner) {
    {
        auto options = std::make_shared<MoveOptions>();
        CLI::App* move = app.add_subcommand("move", "Start an actuator, command it, show progress, stop it");
        move->add_option("ADDR", options->address, "Actuator address")->required();
        move->add_option("--mode", options->mode, "torque, speed, position or impedance")->required();
        move->add_option("--setpoint", options->setpoint, "Setpoint of the mode's quantity")->required();
        move->add_option("--stiffness", options->stiffness, "Impedance stiffness (K_STIFF)");
        move->add_option("--damping", options->damping, "Impedance damping (K_DAMP)");
        move->add_option("--for", options->seconds, "Seconds to run before stopping")->capture_default_str();
        move->add_option("--plot", options->plot, "Draw the move's position, speed and torque into a .png or .svg file");
        move->footer(
            "The actuator is stopped when the time is up, on Ctrl-C, SIGTERM, SIGHUP and SIGQUIT.\n"
            "Examples:\n  ocpctl move 0x21 --mode position --setpoint 1.0\n"
            "  ocpctl move 0x21 --mode impedance --setpoint 0.5 --stiffness 40 --damping 8 --for 5");
        move->callback([&runner, &global, options] { runner = [&global, options] { return run_move(*options, global); }; });
    }
    {
        auto options = std::make_shared<StreamOptions>();
        CLI::App* stream = app.add_subcommand("stream", "Print one row per streamed feedback reply");
        stream->add_option("ADDR", options->address, "Actuator address")->required();
        stream->add_option("--items", options->items, "Feedback items, comma-separated")->required()->delimiter(',');
        stream->add_option("--rate", options->rate, "Feedback rate in Hz, 1..10000")->capture_default_str();
        stream->add_option("--duration", options->seconds, "Seconds to stream (default: until Ctrl-C)");
        stream->add_option("--format", options->format, "csv or jsonl")->capture_default_str();
        stream->add_option("--plot", options->plot, "Also draw the streamed position, speed and torque (.png or .svg)");
        stream->footer("Examples:\n  ocpctl stream 0x21 --items POS_FB_4C,SPD_FB_45 --rate 200 --duration 2 > log.csv\n"
                       "  ocpctl stream 0x21 --items T_FB_56 --format jsonl");
        stream->callback(
            [&runner, &global, options] { runner = [&global, options] { return run_stream(*options, global); }; });
    }
    {
        auto options = std::make_shared<WatchOptions>();
        CLI::App* watch = app.add_subcommand("watch", "A live table of feedback values, until Ctrl-C");
        watch->add_option("ADDR", options->addresses, "Actuator addresses")->required();
        watch->add_option("--for", options->seconds, "Seconds to watch (default: until Ctrl-C)");
        watch->footer("On a terminal the table is redrawn in place; in a pipe each refresh adds one\n"
                      "timestamped row per device. A device that does not answer shows 'no answer'.\n"
                      "Example:\n  ocpctl watch 0x21 0x22 0x23");
        watch->callback([&runner, &global, options] { runner = [&global, options] { return run_watch(*options, global); }; });
    }
}

}  // namespace ocpctl
