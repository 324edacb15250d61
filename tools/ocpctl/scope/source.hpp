// What the scope shows and drives, behind one small interface. The source
// ocpctl opens drives its actuators as one ActuatorGroup: the group sets up
// their streams (and again after a device restarts), records how fresh the
// feedback is and the faults, and its statistics fill the page's panel.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <ocp_api/orrery_actuator.hpp>

#include "../cli_support.hpp"

namespace ocpctl::scope {

using FeedbackMap = ocp_api::OrreryActuator::FeedbackMap;
using ParameterMap = ocp_api::OrreryActuator::ParameterMap;

struct DeviceInfo {
    int address = 0;
    std::string model;
    std::string firmware;
};

// What the source knows of one device now.
struct DeviceState {
    Mode mode = Mode::POSITION;
    bool running = false;        // started from here and not stopped since
    float setpoint = 0.0f;       // the last one sent, NaN before any
    bool started_here = false;   // the scope started it at least once
    // On a simulated bus, whether the emulated device itself runs.
    std::optional<bool> device_running;

    // From the group's latest snapshot (refreshed every few milliseconds).
    std::string feedback;            // "fresh", "stale" or "missing"
    std::optional<double> feedback_age_s;  // none before the first value
    bool answering = true;           // false while the device is silent
    // The last error record the device sent: its word and decoded texts.
    std::optional<uint32_t> fault_word;
    std::vector<std::string> fault_texts;
    double fault_age_s = 0;          // how long ago it arrived
};

// The group's statistics of one device since the scope started.
struct DeviceStatistics {
    int address = 0;
    double age_p50_ms = 0, age_p99_ms = 0, age_max_ms = 0;
    uint64_t fresh = 0, stale = 0, missing = 0;
    uint64_t faults = 0, restarts = 0;
    uint64_t setpoints = 0, superseded = 0, refused = 0;
};

// Called on a transport's receive thread with every streamed reply.
using FeedbackSink = std::function<void(int address, const FeedbackMap& feedback)>;

class ScopeSource {
public:
    virtual ~ScopeSource() = default;

    virtual std::vector<DeviceInfo> devices() const = 0;
    // Starts streaming `items` at `rate_hz` from every device into `sink`.
    virtual void stream(const std::vector<Item>& items, int rate_hz, FeedbackSink sink) = 0;
    virtual DeviceState state(int address) const = 0;

    virtual void start(int address) = 0;
    virtual void stop(int address) = 0;
    // Every device, started here or not: the page's emergency button.
    virtual void stop_all() = 0;
    virtual void set_mode(int address, Mode mode) = 0;
    virtual void set_setpoint(int address, float setpoint) = 0;

    // Throws DeviceError when the device does not answer in time.
    virtual ParameterMap read_parameters(int address, const std::vector<Parameter>& ids) = 0;
    virtual void write_parameters(int address, const ParameterMap& values) = 0;
    virtual void save(int address) = 0;

    // Stops what was started here, ends streaming; devices only watched are
    // left as they were. Returns the devices it stopped; state() still
    // answers for them afterwards. Later calls do nothing and return none.
    virtual std::vector<int> finish() = 0;

    // Name and value pairs for the page's footer (the bus counters).
    virtual std::vector<std::pair<std::string, std::string>> statistics() const { return {}; }
    // One row per device for the statistics panel.
    virtual std::vector<DeviceStatistics> device_statistics() const { return {}; }

    // On a simulated bus: restarts the emulated device as a power cut would
    // (for trying what the scope does then). Throws UsageError elsewhere.
    virtual void power_cycle(int address) = 0;
};

class TrafficTap;

// The actuators at `addresses` on the bus of the --bus text, as one group;
// throws DeviceError when one does not answer.
// `rate_hz` is the feedback rate stream() will be given: it sets how old
// feedback may be before it counts as stale, and a device as silent.
std::unique_ptr<ScopeSource> open_group_source(const GlobalOptions& global, const std::vector<int>& addresses,
                                               int rate_hz, TrafficTap** tap);

}  // namespace ocpctl::scope
