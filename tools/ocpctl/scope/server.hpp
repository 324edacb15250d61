// The scope's web server: the page, its live data as Server-Sent Events
// (decimated here, so the browser draws a few hundred points a second per
// trace whatever the feedback rate), and the requests that drive the
// actuators, all through a ScopeSource.
#pragma once

#include <atomic>
#include <cmath>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "decimator.hpp"
#include "presence.hpp"
#include "security.hpp"
#include "source.hpp"
#include "traffic_tap.hpp"

namespace httplib {
class Server;
}

namespace ocpctl::scope {

struct ScopeConfig {
    std::vector<Item> items;        // plotted, in the order given
    int rate_hz = 1000;
    std::string host = "127.0.0.1";  // to listen on
    int port = 8650;                 // 0: any free port
    double grace_s = 2.0;            // no page this long while running: stop
    std::string bus;                 // as given, for the page's title
};

// The live view of one device: its decimated traces and latest values.
struct Trace {
    explicit Trace(std::size_t channels);
    Decimator decimator;
    std::atomic<float> setpoint_shown{NAN};  // NaN while stopped
    std::atomic<uint32_t> error_word{0};
    std::atomic<bool> errors_known{false};
    std::vector<std::atomic<float>> latest;  // per plotted item
};

class ScopeServer {
public:
    ScopeServer(ScopeConfig config, AccessPolicy policy);
    ~ScopeServer();
    ScopeServer(const ScopeServer&) = delete;
    ScopeServer& operator=(const ScopeServer&) = delete;

    // Binds the address; returns the port. Throws UsageError when it cannot.
    // Done first, so that a port in use is refused before the bus is opened.
    int bind();
    // What the page shows and drives; call once, after bind().
    void attach(ScopeSource& source, TrafficTap* tap);
    // Starts streaming into the traces; call once before run().
    void start_streaming();
    // Serves until shutdown(); runs on its own thread.
    void run();
    void shutdown();

    // Called by the owner's loop: stops running devices when no page has
    // been connected for the grace time; returns what it stopped.
    std::vector<int> enforce_grace();

    double now_s() const;

private:
    void on_feedback(int address, const FeedbackMap& feedback);
    void install_routes();
    std::string config_json() const;
    std::string status_json();
    void note_stopped(int address);

    ScopeSource* source_ = nullptr;
    TrafficTap* tap_ = nullptr;
    const ScopeConfig config_;
    const AccessPolicy policy_;
    const std::chrono::steady_clock::time_point epoch_;
    std::vector<DeviceInfo> devices_;
    std::map<int, std::unique_ptr<Trace>> traces_;
    std::unique_ptr<httplib::Server> http_;

    std::atomic<bool> stopping_{false};
    PagePresence presence_;
    std::atomic<uint64_t> bytes_sent_{0};
    std::mutex notice_mutex_;
    std::string notice_;                          // shown on the page once
    uint64_t notice_number_ = 0;

    struct Rates {
        double time_s = 0;
        uint64_t samples = 0;
        uint64_t bytes = 0;
        double samples_per_s = 0;
        double bytes_per_s = 0;
    };
    std::mutex rates_mutex_;
    Rates rates_;
};

}  // namespace ocpctl::scope
