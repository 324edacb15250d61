// ocpctl emulate: emulated actuators on a CAN interface, serving any host on
// it (another ocpctl, your own program) until Ctrl-C or SIGTERM. SIGHUP power-
// cycles them: saved parameters and addresses stay, unsaved changes go.
#include <algorithm>
#include <cctype>
#include <csignal>
#include <cstdio>
#include <memory>
#include <sstream>

#include <ocp_api/identifier_tables.hpp>
#include <ocp_api/bus_factory.hpp>
#include <ocp_api/can_device_host.hpp>
#include <ocp_api/identifiers.hpp>
#include <ocp_api/message_decoder.hpp>
#include <ocp_api/socketcan_bus.hpp>
#include <ocp_api/socketcan_link.hpp>
#include <ocp_api/wire.hpp>

#include "commands.hpp"

namespace ocpctl {

namespace {

struct EmulateOptions {
    std::vector<std::string> addresses;
    std::string model = "HERON_A";
    std::string firmware = "1.1.2";
    bool verbose = false;
    bool no_limits = false;
};

volatile std::sig_atomic_t hangups = 0;

extern "C" void on_hangup(int) { hangups = hangups + 1; }

// SIGHUP counts power cycles to do while it lives.
class HangupSignal {
public:
    HangupSignal() {
        hangups = 0;
        struct sigaction action {};
        action.sa_handler = on_hangup;
        sigemptyset(&action.sa_mask);
        sigaction(SIGHUP, &action, &previous_);
    }
    ~HangupSignal() { sigaction(SIGHUP, &previous_, nullptr); }
    HangupSignal(const HangupSignal&) = delete;
    HangupSignal& operator=(const HangupSignal&) = delete;

    // True once for each SIGHUP received since the last call.
    bool take() {
        if (hangups == taken_) return false;
        ++taken_;
        return true;
    }

private:
    struct sigaction previous_ {};
    std::sig_atomic_t taken_ = 0;
};

uint16_t model_code_of(const std::string& name) {
    std::string known;
    for (std::size_t code = 1; code < ocp_api::tables::MODELS.size(); ++code) {
        std::string candidate(ocp_api::tables::MODELS[code].name);
        if (candidate.size() == name.size() &&
            std::equal(candidate.begin(), candidate.end(), name.begin(),
                       [](char a, char b) { return std::toupper(static_cast<unsigned char>(a)) ==
                                                   std::toupper(static_cast<unsigned char>(b)); }))
            return static_cast<uint16_t>(code);
        known += (known.empty() ? "" : ", ") + candidate;
    }
    throw UsageError("unknown model '" + name + "' (known: " + known + ")");
}

// "X.Y.Z" with X and Y in 0..31 and Z in 0..63, the ranges of the version word.
uint16_t firmware_word_of(const std::string& text) {
    unsigned major = 0;
    unsigned minor = 0;
    unsigned patch = 0;
    char end = 0;
    if (std::sscanf(text.c_str(), "%u.%u.%u%c", &major, &minor, &patch, &end) != 3 || major > 31 || minor > 31 ||
        patch > 63 || text.find_first_not_of("0123456789.") != std::string::npos)
        throw UsageError("invalid --firmware '" + text + "' (expected X.Y.Z with X, Y up to 31 and Z up to 63)");
    return ocp_api::wire::firmware_word(major, minor, patch);
}

std::vector<int> addresses_of(const std::vector<std::string>& texts) {
    std::vector<int> addresses;
    for (const auto& text : texts) {
        std::istringstream list(text);
        for (std::string one; std::getline(list, one, ',');) addresses.push_back(parse_address(one));
    }
    if (addresses.empty()) throw UsageError("emulate needs at least one address");
    return addresses;
}

ocp_api::SocketCanChoice interface_of(const std::string& bus) {
    try {
        return ocp_api::parse_socketcan_bus(bus);
    } catch (const std::invalid_argument& error) {
        throw UsageError(std::string(error.what()) + "; emulate needs --bus socketcan:IF, e.g. socketcan:vcan0");
    }
}

void print_command(int address, const std::vector<uint8_t>& command) {
    std::printf("%s %s\n", hex(address).c_str(), ocp_api::decode_command(command).text().c_str());
    std::fflush(stdout);
}

int run_emulate(const EmulateOptions& options, const GlobalOptions& global) {
    const ocp_api::SocketCanChoice choice = interface_of(global.bus);
    const std::vector<int> addresses = addresses_of(options.addresses);
    const uint16_t model = model_code_of(options.model);
    const uint16_t firmware = firmware_word_of(options.firmware);

    ocp_api::SocketCanLinkOptions link_options;
    link_options.fd = choice.fd;
    link_options.filters = {ocp_api::mapped_frames_filter(ocp_api::can::Direction::to_device)};
    ocp_api::CanDeviceHostOptions host_options;
    host_options.enforce_limits = !options.no_limits;
    host_options.isotp.fd = choice.fd;
    host_options.isotp.fd_data_length = choice.fd_data_length;
    // The handlers are in place before any device answers: a signal at any
    // moment from here on ends the run through the loop below.
    StopSignal stop;
    HangupSignal hangup;
    ocp_api::CanDeviceHost host(std::make_unique<ocp_api::SocketCanLink>(choice.interface, link_options),
                                host_options);
    std::vector<ocp_api::EmulatedActuator*> devices;
    for (const int address : addresses) devices.push_back(&host.add_actuator(address, model, firmware));
    if (options.verbose) host.set_command_observer(print_command);

    std::fprintf(stderr, "ocpctl: emulating %zu %s %s on %s; Ctrl-C or SIGTERM stops, SIGHUP power-cycles\n",
                 devices.size(), std::string(ocp_api::model_name_of(model)).c_str(), options.firmware.c_str(), choice.interface.c_str());
    while (!stop.raised()) {
        stop.sleep_for(std::chrono::milliseconds(50));
        while (hangup.take()) {
            for (auto* device : devices) device->power_cycle();
            std::fprintf(stderr, "ocpctl: power cycle\n");
        }
    }
    host.close();
    return stop.exit_status();
}

}  // namespace

void add_emulate_command(CLI::App& app, const GlobalOptions& global, Runner& runner) {
    auto options = std::make_shared<EmulateOptions>();
    CLI::App* emulate = app.add_subcommand("emulate", "Serve emulated actuators on a CAN interface");
    emulate->add_option("addresses", options->addresses, "Addresses to answer at: ADDR[,ADDR...]")->required();
    emulate->add_option("--model", options->model, "Model every device reports")->capture_default_str();
    emulate->add_option("--firmware", options->firmware, "Firmware version X.Y.Z")->capture_default_str();
    emulate->add_flag("-v,--verbose", options->verbose, "Print each command received, decoded");
    emulate->add_flag("--no-limits", options->no_limits,
                      "Accept any setpoint: no clamping to the LIMIT_* parameters and no limit errors");
    emulate->footer(
        "Needs --bus socketcan:IF[,fd]. Runs until Ctrl-C or SIGTERM; SIGHUP power-cycles every device\n"
        "(saved parameters and addresses stay, unsaved changes are lost). Like firmware, the devices clamp\n"
        "references to their LIMIT_* parameters and report each limit reached as an error (--no-limits: off).\n"
        "Examples:\n  ocpctl --bus socketcan:vcan0 emulate 0x21,0x22 -v\n"
        "  ocpctl --bus socketcan:vcan0,fd emulate 0x30 --model KESTREL_B --firmware 1.4.3");
    emulate->callback(
        [&runner, &global, options] { runner = [&global, options] { return run_emulate(*options, global); }; });
}

}  // namespace ocpctl
