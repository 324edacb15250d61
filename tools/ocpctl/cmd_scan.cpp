// ocpctl scan: a table (or JSON) of the devices that answered, each once on
// standard output. --fast keeps many pings in flight; progress goes to
// standard error when that is a terminal.
#include <unistd.h>

#include <cstdio>
#include <memory>

#include <nlohmann/json.hpp>
#include <ocp_api/bus_scan.hpp>
#include <ocp_api/orrery_actuator.hpp>
#include <ocp_api/wire.hpp>

#include "bus.hpp"
#include "commands.hpp"

namespace ocpctl {

namespace {

struct ScanOptions {
    std::string from;  // empty: the default of the kind of scan
    std::string to;
    bool json = false;
    bool fast = false;
    double rate = ocp_api::BusScanOptions{}.pings_per_second;
    int attempts = 1;
};

// The plain scan probes a short range by default; the fast one, all of it.
constexpr int PLAIN_SCAN_LAST = 0x3f;

std::string default_last(const ScanOptions& options) {
    return hex(options.fast ? ocp_api::wire::MAX_DEVICE_ADDRESS : PLAIN_SCAN_LAST);
}

// One line on standard error, rewritten in place while the scan runs.
class ProgressLine {
public:
    void show(const ocp_api::ScanProgress& progress) {
        std::fprintf(stderr, "\rscanning: pass %d, %zu/%zu addresses, %zu found\033[K", progress.pass,
                     progress.probed, progress.to_probe, progress.found);
        std::fflush(stderr);
        shown_ = true;
    }
    ~ProgressLine() {
        if (shown_) std::fputs("\r\033[K", stderr);
    }

private:
    bool shown_ = false;
};

ocp_api::BusScanOptions bus_scan_options(const ScanOptions& options, ProgressLine* progress) {
    ocp_api::BusScanOptions scan = ocp_api::BusScanOptions::sequential();
    if (options.fast) {
        scan = ocp_api::BusScanOptions{};
        scan.pings_per_second = options.rate;
        scan.attempts = options.attempts;
    }
    if (progress) scan.on_progress = [progress](const ocp_api::ScanProgress& p) { progress->show(p); };
    return scan;
}

int run_scan(const ScanOptions& options, const GlobalOptions& global) {
    const std::string from_text = options.from.empty() ? hex(ocp_api::wire::MIN_DEVICE_ADDRESS) : options.from;
    const std::string to_text = options.to.empty() ? default_last(options) : options.to;
    const int from = parse_address(from_text);
    const int to = parse_address(to_text);
    if (from > to) throw UsageError("--from " + from_text + " is above --to " + to_text);
    if (!(options.rate > 0.0)) throw UsageError("--rate must be a positive number of pings per second");
    if (options.attempts < 1) throw UsageError("--attempts must be at least 1");
    Bus bus(global.bus);

    std::vector<ocp_api::FoundDevice> devices;
    {
        ocp_api::OrreryActuatorScanner scanner(bus.transport());
        if (!scanner.is_connected())
            throw DeviceError("no CAN adapter answered at address 0x0 after " + format_seconds(1.0));
        ProgressLine progress;
        const bool show_progress = isatty(STDERR_FILENO) == 1;
        devices = ocp_api::scan_bus(bus.transport(), from, to,
                                    bus_scan_options(options, show_progress ? &progress : nullptr));
    }

    if (options.json) {
        nlohmann::ordered_json result;
        result["bus"] = global.bus;
        result["from"] = hex(from);
        result["to"] = hex(to);
        result["devices"] = nlohmann::ordered_json::array();
        for (const auto& device : devices) {
            result["devices"].push_back(
                {{"address", device.address}, {"hex", hex(device.address)}, {"model", device.model},
                 {"firmware", device.firmware}});
        }
        std::printf("%s\n", result.dump(2).c_str());
    } else {
        if (!devices.empty()) {
            std::printf("%-8s %-11s %s\n", "ADDRESS", "MODEL", "FIRMWARE");
            for (const auto& device : devices)
                std::printf("%-8s %-11s %s\n", hex(device.address).c_str(),
                            device.model.empty() ? "?" : device.model.c_str(), device.firmware.c_str());
        }
    }
    if (devices.empty()) {
        std::fprintf(stderr, "ocpctl: no device answered in %s..%s\n", hex(from).c_str(), hex(to).c_str());
        return EXIT_DEVICE;
    }
    return 0;
}

}  // namespace

void add_scan_command(CLI::App& app, const GlobalOptions& global, Runner& runner) {
    auto options = std::make_shared<ScanOptions>();
    CLI::App* scan = app.add_subcommand("scan", "Find the actuators that answer on a range of addresses");
    scan->add_option("--from", options->from, "First address to probe (default 0x10)");
    scan->add_option("--to", options->to, "Last address to probe (default 0x3f; with --fast 0x3ffe)");
    scan->add_flag("--json", options->json, "Print the result as JSON");
    scan->add_flag("--fast", options->fast,
                   "Keep up to 256 pings in flight: the whole range in about 3.5 s, at most --rate frames/s");
    scan->add_option("--rate", options->rate, "With --fast: pings per second at most")->capture_default_str();
    scan->add_option("--attempts", options->attempts, "With --fast: passes over addresses still silent (lossy bus)")
        ->capture_default_str();
    scan->footer(
        "Examples:\n  ocpctl scan\n  ocpctl scan --from 0x20 --to 0x2f --json\n  ocpctl scan --fast\n"
        "  ocpctl scan --fast --rate 1000 --attempts 2");
    scan->callback([&runner, &global, options] { runner = [&global, options] { return run_scan(*options, global); }; });
}

}  // namespace ocpctl
