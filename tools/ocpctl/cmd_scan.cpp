// ocpctl scan: a table (or JSON) of the devices that answered; the scanner's
// own lines serve as progress on a terminal.
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <memory>
#include <sstream>

#include <nlohmann/json.hpp>
#include <ocp_api/orrery_actuator.hpp>

#include "bus.hpp"
#include "commands.hpp"

namespace ocpctl {

namespace {

struct ScanOptions {
    std::string from = "0x10";
    std::string to = "0x3f";
    bool json = false;
};

struct FoundDevice {
    int address;
    std::string model;
    std::string firmware;
};

// Keeps what is written to it and, when asked, shows it on standard error
// as it comes.
class KeepAndEcho : public std::stringbuf {
public:
    explicit KeepAndEcho(bool echo) : echo_(echo) {}

protected:
    std::streamsize xsputn(const char* text, std::streamsize count) override {
        if (echo_) std::fwrite(text, 1, static_cast<std::size_t>(count), stderr);
        return std::stringbuf::xsputn(text, count);
    }
    int_type overflow(int_type c) override {
        if (echo_ && c != traits_type::eof()) std::fputc(c, stderr);
        return std::stringbuf::overflow(c);
    }

private:
    bool echo_;
};

// Sends what is written to std::cout to `target` while it lives.
class RedirectCout {
public:
    explicit RedirectCout(std::streambuf* target) : saved_(std::cout.rdbuf(target)) {}
    ~RedirectCout() { std::cout.rdbuf(saved_); }
    RedirectCout(const RedirectCout&) = delete;
    RedirectCout& operator=(const RedirectCout&) = delete;

private:
    std::streambuf* saved_;
};

// Reads model and firmware back from a "Device found: ..." line.
FoundDevice parse_found_line(int address, const std::string& line) {
    const auto text_after = [&](const std::string& marker, char end) {
        const std::size_t start = line.find(marker);
        if (start == std::string::npos) return std::string();
        const std::size_t from = start + marker.size();
        const std::size_t stop = line.find(end, from);
        return line.substr(from, stop == std::string::npos ? std::string::npos : stop - from);
    };
    return {address, text_after("\tmodel ", '\t'), text_after("\tfirmware ", '\n')};
}

int run_scan(const ScanOptions& options, const GlobalOptions& global) {
    const int from = parse_address(options.from);
    const int to = parse_address(options.to);
    if (from > to) throw UsageError("--from " + options.from + " is above --to " + options.to);
    Bus bus(parse_bus(global.bus));

    // Each device is printed once on standard output, in the table; the
    // scanner's lines go to a terminal's standard error as progress.
    KeepAndEcho scanner_lines(isatty(STDERR_FILENO) != 0);
    std::vector<int> addresses;
    {
        RedirectCout capture(&scanner_lines);
        ocp_api::OrreryActuatorScanner scanner(bus.transport());
        if (!scanner.is_connected())
            throw DeviceError("no CAN adapter answered at address 0x0 after " + format_seconds(1.0));
        addresses = scanner.scan(from, to);
    }
    std::vector<FoundDevice> devices;
    std::istringstream lines(scanner_lines.str());
    std::string line;
    for (const int address : addresses) {
        std::getline(lines, line);
        devices.push_back(parse_found_line(address, line));
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
    scan->add_option("--from", options->from, "First address to probe")->capture_default_str();
    scan->add_option("--to", options->to, "Last address to probe")->capture_default_str();
    scan->add_flag("--json", options->json, "Print the result as JSON");
    scan->footer("Examples:\n  ocpctl scan\n  ocpctl scan --from 0x20 --to 0x2f --json");
    scan->callback([&runner, &global, options] { runner = [&global, options] { return run_scan(*options, global); }; });
}

}  // namespace ocpctl
