// What the scope shows and drives, behind one small interface: today a set
// of plain actuators on one bus (ActuatorSource); a control-loop group can
// feed the same page by implementing ScopeSource (its statistics() then
// fill the page's statistics panel).
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

    // Name and value pairs for the statistics panel (a control loop's
    // period, jitter, overruns); none for plain actuators.
    virtual std::vector<std::pair<std::string, std::string>> statistics() const { return {}; }
};

class TrafficTap;

// Plain actuators on one bus, opened from the --bus text.
std::unique_ptr<ScopeSource> open_actuator_source(const GlobalOptions& global, const std::vector<int>& addresses,
                                                  TrafficTap** tap);

}  // namespace ocpctl::scope
