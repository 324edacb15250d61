// ocpctl commands that move or watch actuators: move, stream, watch.
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "commands.hpp"
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

// ---------------------------------------------------------------- move

struct MoveOptions {
    std::string address;
    std::string mode;
    std::string setpoint;
    std::string stiffness;
    std::string damping;
    double seconds = 2.0;
};

int run_move(const MoveOptions& options, const GlobalOptions& global) {
    const int address = parse_address(options.address);
    const MotionCommand command = parse_motion(options.mode, options.setpoint, options.stiffness, options.damping);
    const double seconds = parse_seconds(options.seconds, "--for");

    const StopSignal stop_signal;
    Session session(global, address, OnExit::Stop);
    auto& actuator = session.actuator();
    actuator.setFeedbackItems(MOTION_ITEMS);
    actuator.setFeedbackRate(50);
    actuator.start();
    command_motion(actuator, command);
    std::fprintf(stderr, "%s: %s %s for %s (Ctrl-C stops it)\n", hex(address).c_str(),
                 std::string(ocp_api::mode_name(command.mode)).c_str(), format_value(command.setpoint).c_str(),
                 format_seconds(seconds).c_str());

    const auto start = Clock::now();
    while (!stop_signal.raised() && seconds_since(start) < seconds) {
        stop_signal.sleep_for(100ms);
        const auto feedback = actuator.get_feedback();
        std::fprintf(stderr, "%6.2f s  position %10.4f  speed %10.4f  torque %10.4f\n", seconds_since(start),
                     item_or_nan(feedback, Item::POS_FB_4C), item_or_nan(feedback, Item::SPD_FB_45),
                     item_or_nan(feedback, Item::T_FB_56));
    }
    actuator.setFeedbackRate(0);
    actuator.stop();
    const auto feedback = actuator.get_feedback();
    std::printf("%s position %s speed %s torque %s\n", hex(address).c_str(),
                format_value(item_or_nan(feedback, Item::POS_FB_4C)).c_str(),
                format_value(item_or_nan(feedback, Item::SPD_FB_45)).c_str(),
                format_value(item_or_nan(feedback, Item::T_FB_56)).c_str());
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
};

int run_stream(const StreamOptions& options, const GlobalOptions& global) {
    const int address = parse_address(options.address);
    const std::vector<Item> items = parse_items(options.items);
    const int rate = parse_rate(options.rate);
    if (options.format != "csv" && options.format != "jsonl")
        throw UsageError("unknown format '" + options.format + "' (expected csv or jsonl)");
    const bool csv = options.format == "csv";
    const double seconds = options.seconds == 0.0 ? 0.0 : parse_seconds(options.seconds, "--duration");

    const StopSignal stop_signal;
    // What the callback touches outlives the session, whose end waits for a
    // callback still running on the bus's thread.
    std::mutex output;
    std::atomic<long> rows{0};
    Clock::time_point start;
    Session session(global, address, OnExit::Stop);
    auto& actuator = session.actuator();
    if (csv) {
        std::string header = "time_s";
        for (const auto item : items) header += "," + std::string(ocp_api::item_name(item));
        std::printf("%s\n", header.c_str());
    }
    start = Clock::now();
    // Runs on the bus's receive thread, one row per streamed reply.
    actuator.set_feedback_callback([&](int, FeedbackMap feedback) {
        char time[32];
        std::snprintf(time, sizeof time, "%.6f", seconds_since(start));
        std::string row;
        if (csv) {
            row = time;
            for (const auto item : items) row += "," + format_exact(item_or_nan(feedback, item));
        } else {
            row = std::string("{\"time_s\":") + time;
            for (const auto item : items) {
                const float value = item_or_nan(feedback, item);
                row += ",\"" + std::string(ocp_api::item_name(item)) + "\":" +
                       (std::isfinite(value) ? format_exact(value) : "null");
            }
            row += "}";
        }
        std::lock_guard<std::mutex> lock(output);
        std::printf("%s\n", row.c_str());
        rows.fetch_add(1);
    });
    actuator.setFeedbackItems(items);
    actuator.setFeedbackRate(rate);

    const bool progress = isatty(STDERR_FILENO) != 0;
    while (!stop_signal.raised() && (seconds == 0.0 || seconds_since(start) < seconds)) {
        stop_signal.sleep_for(std::chrono::milliseconds(seconds == 0.0 ? 200 : 20));
        if (progress) std::fprintf(stderr, "\r%ld rows, %.1f s ", rows.load(), seconds_since(start));
    }
    actuator.setFeedbackRate(0);
    session.release_actuator();  // no callback runs after this
    if (progress) std::fprintf(stderr, "\n");
    std::fflush(stdout);
    return stop_signal.exit_status();
}

// ---------------------------------------------------------------- watch

struct WatchOptions {
    std::vector<std::string> addresses;
    double seconds = 0.0;  // 0: until Ctrl-C
};

const std::vector<Item> WATCH_ITEMS = {Item::POS_FB_4C, Item::SPD_FB_45, Item::T_FB_56, Item::VBUS_70,
                                        Item::TEMP_WINDING_72};

int run_watch(const WatchOptions& options, const GlobalOptions& global) {
    std::vector<int> addresses;
    for (const auto& text : options.addresses) addresses.push_back(parse_address(text));
    const double seconds = options.seconds == 0.0 ? 0.0 : parse_seconds(options.seconds, "--for");

    const StopSignal stop_signal;
    Bus bus(parse_bus(global.bus));
    ExitStopFilter transport(bus.transport());
    std::vector<std::unique_ptr<ocp_api::OrreryActuator>> actuators;
    for (const int address : addresses) {
        actuators.push_back(connect_actuator(transport, address, global.timeout_s));
        actuators.back()->setFeedbackItems(WATCH_ITEMS);
        actuators.back()->setFeedbackRate(20);
    }
    const bool terminal = isatty(STDOUT_FILENO) != 0;
    const auto start = Clock::now();
    do {
        stop_signal.sleep_for(250ms);
        if (terminal) std::printf("\x1b[H\x1b[2J");  // redraw in place
        std::printf("%-8s", "ADDRESS");
        for (const auto item : WATCH_ITEMS) std::printf(" %16s", std::string(ocp_api::item_name(item)).c_str());
        std::printf("\n");
        for (std::size_t i = 0; i < actuators.size(); ++i) {
            const auto feedback = actuators[i]->get_feedback();
            std::printf("%-8s", hex(addresses[i]).c_str());
            for (const auto item : WATCH_ITEMS) std::printf(" %16s", format_value(item_or_nan(feedback, item)).c_str());
            std::printf("\n");
        }
        if (!terminal) std::printf("\n");
        std::fflush(stdout);
    } while (!stop_signal.raised() && (seconds == 0.0 || seconds_since(start) < seconds));
    for (auto& actuator : actuators) actuator->setFeedbackRate(0);
    transport.arm();  // watching leaves the devices as they were
    actuators.clear();
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
        move->footer(
            "The actuator is stopped when the time is up, on Ctrl-C and on SIGTERM.\n"
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
        watch->footer("Example:\n  ocpctl watch 0x21 0x22 0x23");
        watch->callback([&runner, &global, options] { runner = [&global, options] { return run_watch(*options, global); }; });
    }
}

}  // namespace ocpctl
