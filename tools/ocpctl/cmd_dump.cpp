// ocpctl dump: the traffic of a candump -L log, or of a live SocketCAN
// interface, as one decoded line (or JSON object) per message, reassembled
// from its CAN frames.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>

#include <nlohmann/json.hpp>
#include <ocp_api/bus_factory.hpp>
#include <ocp_api/can_traffic.hpp>
#include <ocp_api/candump_log.hpp>
#include <ocp_api/message_decoder.hpp>
#include <ocp_api/socketcan_link.hpp>

#include "commands.hpp"

namespace ocpctl {

namespace {

using ocp_api::LoggedFrame;
using ocp_api::can::Direction;
using ocp_api::can::TrafficEvent;

struct DumpOptions {
    std::string log;
    bool json = false;
};

std::string time_text(std::chrono::microseconds time) {
    char text[32];
    std::snprintf(text, sizeof text, "%lld.%06lld", static_cast<long long>(time.count() / 1000000),
                  static_cast<long long>(time.count() % 1000000));
    return text;
}

// A frame the way candump writes it, without timestamp and interface.
std::string frame_text(const LoggedFrame& logged) {
    const std::string line = ocp_api::format_candump_line(logged);
    return line.substr(line.rfind(' ') + 1);
}

std::string frame_text(const ocp_api::CanFrame& frame) {
    LoggedFrame logged;
    logged.frame = frame;
    return frame_text(logged);
}

const char* direction_text(const TrafficEvent& event) {
    if (event.direction == Direction::to_device) return "to-device";
    return event.kind == 0 ? "to-host" : "to-host[items]";
}

const char* direction_json(const TrafficEvent& event) {
    return event.direction == Direction::to_device ? "to_device" : "to_host";
}

ocp_api::DecodedMessage decode(const TrafficEvent& event) {
    return event.direction == Direction::to_device ? ocp_api::decode_command(event.bytes)
                                                   : ocp_api::decode_reply(event.bytes, event.kind);
}

// An interface name as it is shown: a log is outside input, so every byte
// that is not printable ASCII (an escape sequence for the terminal, bytes that
// are not UTF-8 for JSON) is shown as \xHH. Kernel interface names are
// printable ASCII and show unchanged.
std::string shown_interface(const std::string& interface) {
    std::string shown;
    shown.reserve(interface.size());
    for (const char c : interface) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte > 0x20 && byte < 0x7F && byte != '\\') {
            shown += c;
        } else {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02x", byte);
            shown += escaped;
        }
    }
    return shown;
}

// Prints each event as a line or a JSON object.
class Printer {
public:
    explicit Printer(bool json) : json_(json) {}

    void event(const std::string& interface, const TrafficEvent& event) const {
        if (json_) {
            print_json(shown_interface(interface), event);
        } else {
            print_text(shown_interface(interface), event);
        }
    }

    // Error and remote frames never carry our messages; they are shown, not reassembled.
    void special_frame(const LoggedFrame& logged) const {
        const bool error = logged.type == LoggedFrame::Type::error;
        if (json_) {
            nlohmann::ordered_json line;
            line["time"] = time_text(logged.timestamp);
            line["interface"] = shown_interface(logged.interface);
            line["type"] = error ? "error_frame" : "remote_frame";
            line["frame"] = frame_text(logged);
            std::printf("%s\n", line.dump().c_str());
        } else {
            std::printf("%s %s %s %s\n", time_text(logged.timestamp).c_str(), shown_interface(logged.interface).c_str(),
                        error ? "error-frame" : "remote-frame", frame_text(logged).c_str());
        }
    }

private:
    static void print_text(const std::string& interface, const TrafficEvent& event) {
        const std::string time = time_text(event.time);
        switch (event.type) {
            case TrafficEvent::Type::message:
                std::printf("%s %s %s %s %s\n", time.c_str(), interface.c_str(), hex(event.address).c_str(),
                            direction_text(event), decode(event).text().c_str());
                return;
            case TrafficEvent::Type::foreign_frame:
                std::printf("%s %s not-ours %s\n", time.c_str(), interface.c_str(), frame_text(*event.frame).c_str());
                return;
            case TrafficEvent::Type::broken_segmentation:
                if (event.frame) {
                    std::printf("%s %s %s %s !! %s [%s]\n", time.c_str(), interface.c_str(),
                                hex(event.address).c_str(), direction_text(event), event.problem.c_str(),
                                frame_text(*event.frame).c_str());
                } else {
                    std::printf("%s %s !! %s\n", time.c_str(), interface.c_str(), event.problem.c_str());
                }
                return;
        }
    }

    // The decoder's JSON goes in as it is, as the last member of `line`,
    // rather than being parsed back only to be written out again.
    static void print_with_decoded(const nlohmann::ordered_json& line, const std::string& decoded) {
        std::string head = line.dump();
        head.pop_back();  // the closing brace
        std::printf("%s,\"decoded\":%s}\n", head.c_str(), decoded.c_str());
    }

    static void print_json(const std::string& interface, const TrafficEvent& event) {
        nlohmann::ordered_json line;
        line["time"] = time_text(event.time);
        line["interface"] = interface;
        switch (event.type) {
            case TrafficEvent::Type::message:
                line["type"] = "message";
                line["address"] = event.address;
                line["direction"] = direction_json(event);
                line["kind"] = event.kind;
                print_with_decoded(line, decode(event).json());
                return;
            case TrafficEvent::Type::foreign_frame:
                line["type"] = "not_ours";
                line["frame"] = frame_text(*event.frame);
                break;
            case TrafficEvent::Type::broken_segmentation:
                line["type"] = "broken_segmentation";
                if (event.frame) {
                    line["address"] = event.address;
                    line["direction"] = direction_json(event);
                    line["frame"] = frame_text(*event.frame);
                }
                line["problem"] = event.problem;
                break;
        }
        std::printf("%s\n", line.dump().c_str());
    }

    bool json_;
};

// One monitor per interface: a log may hold several buses. Their number is
// bounded, since each may hold half-reassembled messages: the frames of
// interfaces beyond the bound are counted and left undecoded.
class Dump {
public:
    static constexpr std::size_t MAX_INTERFACES = 256;

    explicit Dump(bool json) : printer_(json) {}

    void frame(const LoggedFrame& logged) {
        if (logged.type != LoggedFrame::Type::data) {
            printer_.special_frame(logged);
            return;
        }
        auto monitor = monitors_.find(logged.interface);
        if (monitor == monitors_.end()) {
            if (monitors_.size() >= MAX_INTERFACES) {
                ++undecoded_frames_;
                return;
            }
            monitor = monitors_.emplace(logged.interface, ocp_api::can::TrafficMonitor()).first;
        }
        std::vector<TrafficEvent> events;
        monitor->second.on_frame(logged.frame, logged.timestamp, events);
        print(logged.interface, events);
    }

    // Frames left undecoded because their interface came after the first
    // MAX_INTERFACES.
    std::size_t undecoded_frames() const { return undecoded_frames_; }

    void finish() {
        for (auto& [interface, monitor] : monitors_) {
            std::vector<TrafficEvent> events;
            monitor.finish(events);
            print(interface, events);
        }
    }

private:
    void print(const std::string& interface, const std::vector<TrafficEvent>& events) const {
        for (const auto& event : events) printer_.event(interface, event);
    }

    Printer printer_;
    std::map<std::string, ocp_api::can::TrafficMonitor> monitors_;
    std::size_t undecoded_frames_ = 0;
};

int dump_log(std::istream& in, const std::string& name, bool json) {
    ocp_api::CandumpLogReader reader(in);
    Dump dump(json);
    while (const auto line = reader.next()) {
        if (line->frame) {
            dump.frame(*line->frame);
        } else {
            std::fflush(stdout);
            std::fprintf(stderr, "ocpctl: %s:%zu: not a candump -L line: %s\n", name.c_str(), line->number,
                         line->problem.c_str());
        }
    }
    dump.finish();
    if (dump.undecoded_frames() != 0) {
        std::fflush(stdout);
        std::fprintf(stderr, "ocpctl: %s: %zu frames on interfaces after the first %zu were not decoded\n",
                     name.c_str(), dump.undecoded_frames(), Dump::MAX_INTERFACES);
    }
    return 0;
}

const char* state_text(ocp_api::CanLinkState state) {
    switch (state) {
        case ocp_api::CanLinkState::active: return "active";
        case ocp_api::CanLinkState::error_warning: return "error-warning";
        case ocp_api::CanLinkState::error_passive: return "error-passive";
        case ocp_api::CanLinkState::bus_off: return "bus-off";
        case ocp_api::CanLinkState::down: return "down";
    }
    return "?";
}

// Watches a live interface until Ctrl-C or SIGTERM; sends nothing.
int dump_live(const ocp_api::SocketCanChoice& choice, bool json) {
    StopSignal stop;
    ocp_api::SocketCanLinkOptions options;
    options.fd = choice.fd;
    ocp_api::SocketCanLink link(choice.interface, options);
    Dump dump(json);
    while (!stop.raised()) {
        const ocp_api::CanLinkEvent event = link.receive(std::chrono::milliseconds(50));
        if (event.type == ocp_api::CanLinkEvent::Type::frame) {
            LoggedFrame logged;
            logged.timestamp = std::chrono::duration_cast<std::chrono::microseconds>(
                std::chrono::system_clock::now().time_since_epoch());
            logged.interface = choice.interface;
            logged.frame = event.frame;
            dump.frame(logged);
            std::fflush(stdout);
        } else if (event.type == ocp_api::CanLinkEvent::Type::state) {
            std::fprintf(stderr, "ocpctl: %s is %s\n", choice.interface.c_str(), state_text(event.state));
        }
    }
    dump.finish();
    return stop.exit_status();
}

int run_dump(const DumpOptions& options, const GlobalOptions& global) {
    if (options.log.empty()) {
        if (global.bus.rfind("socketcan:", 0) != 0)
            throw UsageError("dump needs --log FILE (a candump -L recording, - for standard input) or --bus "
                             "socketcan:IF; bus '" + global.bus + "' carries no CAN frames to watch");
        try {
            return dump_live(ocp_api::parse_socketcan_bus(global.bus), options.json);
        } catch (const std::invalid_argument& error) {
            throw UsageError(error.what());
        }
    }
    if (options.log == "-") return dump_log(std::cin, "standard input", options.json);
    // A directory opens as a file that reads as empty; say what it is instead.
    std::error_code error;
    if (std::filesystem::is_directory(options.log, error))
        throw UsageError("cannot read " + options.log + ": " + std::strerror(EISDIR));
    std::ifstream file(options.log);
    if (!file) throw UsageError("cannot read " + options.log + ": " + std::strerror(errno));
    return dump_log(file, options.log, options.json);
}

}  // namespace

void add_dump_command(CLI::App& app, const GlobalOptions& global, Runner& runner) {
    auto options = std::make_shared<DumpOptions>();
    CLI::App* dump = app.add_subcommand("dump", "Decode CAN traffic (a log, or live with --bus socketcan:IF)");
    dump->add_option("--log", options->log, "A candump -L recording to decode; - reads standard input");
    dump->add_flag("--json", options->json, "One JSON object per line");
    dump->footer(
        "Each line: time, interface, address, direction (to-device, to-host, to-host[items] for\n"
        "answers to GET_ITEMS), then the decoded command or reply. Frames that are not ours are\n"
        "shown as not-ours, broken segmentation with !!. Bytes of an interface name that are not\n"
        "printable ASCII show as \\xHH; frames of interfaces after the first 256 are counted on\n"
        "standard error, not decoded. Lines that are not candump -L lines are named on standard\n"
        "error and skipped; the exit status is 0 unless the log cannot be read (2).\n"
        "Examples:\n  candump -L can0 > session.log\n  ocpctl dump --log session.log\n"
        "  ocpctl --bus socketcan:can0 dump\n"
        "  candump -L can0 | ocpctl dump --log - --json");
    dump->callback([&runner, &global, options] { runner = [&global, options] { return run_dump(*options, global); }; });
}

}  // namespace ocpctl
