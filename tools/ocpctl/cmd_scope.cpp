// ocpctl scope: a live view of actuators in the browser, with controls.
#include <algorithm>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "commands.hpp"
#include "scope/security.hpp"
#include "scope/server.hpp"
#include "scope/source.hpp"

namespace ocpctl {

namespace {

using namespace std::chrono_literals;

struct ScopeOptions {
    std::vector<std::string> addresses;
    std::vector<std::string> items = {"POS_FB_4C", "SPD_FB_45", "T_FB_56"};
    double rate = 200;
    int port = 8650;
    std::string listen;
    double grace_s = 2.0;
};

constexpr std::size_t MAX_ITEMS = 8;

struct FinishSource {
    scope::ScopeSource& source;
    ~FinishSource() { source.finish(); }
};

// The server's thread, ended and joined however run_scope is left.
class Serving {
public:
    explicit Serving(scope::ScopeServer& server) : server_(server), thread_([&server] { server.run(); }) {}
    ~Serving() { end(); }
    Serving(const Serving&) = delete;
    Serving& operator=(const Serving&) = delete;
    void end() const {
        server_.shutdown();
        if (thread_.joinable()) thread_.join();
    }

private:
    scope::ScopeServer& server_;
    mutable std::thread thread_;
};

std::string address_list(const std::vector<int>& addresses) {
    std::string list;
    for (const int address : addresses) list += (list.empty() ? "" : ", ") + hex(address);
    return list;
}

int run_scope(const ScopeOptions& options, const GlobalOptions& global) {
    std::vector<int> addresses;
    for (const auto& text : options.addresses) {
        const int address = parse_address(text);
        if (std::find(addresses.begin(), addresses.end(), address) != addresses.end())
            throw UsageError(hex(address) + " is given twice");
        addresses.push_back(address);
    }
    const std::vector<Item> items = parse_items(options.items);
    if (items.size() > MAX_ITEMS)
        throw UsageError("at most " + std::to_string(MAX_ITEMS) + " items can be plotted, not " +
                         std::to_string(items.size()));
    const int rate = parse_rate(options.rate);
    if (options.port < 0 || options.port > 65535)
        throw UsageError("--port " + std::to_string(options.port) + " is outside 0..65535");
    const double grace_s = parse_seconds(options.grace_s, "--grace");

    scope::ScopeConfig config;
    config.items = items;
    config.rate_hz = rate;
    config.port = options.port;
    config.grace_s = grace_s;
    config.bus = global.bus;
    std::vector<std::string> hosts = {"127.0.0.1", "localhost"};
    const bool ipv6 = options.listen.find(':') != std::string::npos;
    const std::string listen_host = ipv6 ? "[" + options.listen + "]" : options.listen;
    if (!options.listen.empty()) {
        config.host = options.listen;
        hosts.push_back(listen_host);
        if (options.listen == "0.0.0.0" || options.listen == "::") hosts.clear();
    }
    const std::string token = scope::make_token();

    const StopSignal stop_signal;
    scope::ScopeServer server(config, scope::AccessPolicy(hosts, token));
    const int port = server.bind();
    scope::TrafficTap* tap = nullptr;
    std::unique_ptr<scope::ScopeSource> source = scope::open_group_source(global, addresses, rate, &tap);
    // On every way out, in this order: no more requests, then the source
    // stops what it started and its feedback ends, then the server goes.
    const FinishSource finish_source{*source};
    server.attach(*source, tap);
    server.start_streaming();
    const Serving serving(server);

    const std::string shown_host = options.listen.empty() ? "127.0.0.1" : listen_host;
    // The address is the result; the advice goes with the diagnostics.
    std::printf("http://%s:%d/#token=%s\n", shown_host.c_str(), port, token.c_str());
    std::fflush(stdout);
    const std::string forwarding =
        options.listen.empty() ? " (from another machine: ssh -L " + std::to_string(port) + ":127.0.0.1:" +
                                     std::to_string(port) + " this-host)"
                               : "; anyone who reaches " + listen_host + " and has the token can move the actuators";
    std::fprintf(stderr,
                 "ocpctl: scope of %s on %s; open the address above in a browser%s.\n"
                 "ocpctl: Ctrl-C ends it and stops every actuator started from the page; without a page for %s, "
                 "running actuators are stopped.\n",
                 address_list(addresses).c_str(), global.bus.c_str(), forwarding.c_str(),
                 format_seconds(grace_s).c_str());

    while (!stop_signal.raised()) {
        stop_signal.sleep_for(50ms);
        const std::vector<int> stopped = server.enforce_grace();
        if (!stopped.empty())
            std::fprintf(stderr, "ocpctl: no page for %s: stopped %s\n", format_seconds(grace_s).c_str(),
                         address_list(stopped).c_str());
    }
    serving.end();
    const std::vector<int> stopped = source->finish();
    std::string report;
    for (const int address : stopped) {
        report += (report.empty() ? "; stopped " : ", ") + hex(address);
        // On the simulated bus the device itself can be asked.
        std::optional<bool> running = source->state(address).device_running;
        for (int i = 0; i < 200 && running.value_or(false); ++i) {
            std::this_thread::sleep_for(5ms);
            running = source->state(address).device_running;
        }
        if (running) report += *running ? " (the emulated device still runs!)" : " (the emulated device is not running)";
    }
    std::fprintf(stderr, "ocpctl: scope ended%s\n", report.empty() ? "; nothing was started from the page" : report.c_str());
    return stop_signal.exit_status();
}

}  // namespace

void add_scope_command(CLI::App& app, const GlobalOptions& global, Runner& runner) {
    auto options = std::make_shared<ScopeOptions>();
    CLI::App* scope = app.add_subcommand("scope", "A live view of actuators in the browser, with controls");
    scope->add_option("ADDR", options->addresses, "Actuator addresses")->required();
    scope->add_option("--items", options->items, "Feedback items to plot, comma-separated")
        ->delimiter(',')
        ->capture_default_str();
    scope->add_option("--rate", options->rate, "Feedback rate in Hz, 1..10000")->capture_default_str();
    scope->add_option("--port", options->port, "Port of the page (0: any free port)")->capture_default_str();
    scope->add_option("--listen", options->listen,
                      "Listen on this address instead of 127.0.0.1 (anyone who can reach it and has the token "
                      "can move the actuators)");
    scope->add_option("--grace", options->grace_s,
                      "Seconds without a page after which running actuators are stopped")
        ->capture_default_str();
    scope->footer(
        "Prints the page's address, with its access token, and serves until Ctrl-C.\n"
        "Only the page itself may send commands: requests need the token and the\n"
        "page's own origin. Every actuator started from the page is stopped on exit.\n"
        "The actuators are driven as one group: set up stopped on start, and set up\n"
        "again (left stopped) when one answers after a restart.\n"
        "Examples:\n"
        "  ocpctl scope 0x21 0x22 0x23\n"
        "  ocpctl scope 0x21 --items POS_FB_4C,SPD_FB_45,T_FB_56,REF_4B --rate 1000\n"
        "  ssh -L 8650:127.0.0.1:8650 robot   # then open the printed address here");
    scope->callback([&runner, &global, options] { runner = [&global, options] { return run_scope(*options, global); }; });
}

}  // namespace ocpctl
