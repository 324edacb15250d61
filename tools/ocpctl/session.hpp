// A connection to one actuator for the length of a command.
#pragma once

#include <memory>
#include <vector>

#include <ocp_api/orrery_actuator.hpp>

#include "bus.hpp"
#include "cli_support.hpp"

namespace ocpctl {

// Forwards everything to the bus, except that once armed it drops the STOP
// frame an actuator object sends when it is destroyed. Commands that only
// read or administer a device use it to leave the device running as they
// found it; commands that move a device stop it on the way out.
class ExitStopFilter : public ocp_api::OCP {
public:
    explicit ExitStopFilter(ocp_api::OCP& bus) : bus_(bus) {}
    void arm() { armed_ = true; }
    bool send(int address, const std::vector<uint8_t>& frame) override;
    void setCallback(int address, ReceiveCallback callback) override { bus_.setCallback(address, std::move(callback)); }
    void removeCallback(int address) override { bus_.removeCallback(address); }
    void close() override { bus_.close(); }

private:
    ocp_api::OCP& bus_;
    bool armed_ = false;
};

// True when a device answers a ping at `address`; the device is left as it
// was (no STOP on the way out).
bool answers_at(ocp_api::OCP& bus, int address, float timeout_s);

enum class OnExit { LeaveAsFound, Stop };

// Opens the bus and connects the actuator at `address`; throws DeviceError
// when it does not answer.
class Session {
public:
    Session(const GlobalOptions& global, int address, OnExit on_exit);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    ocp_api::OrreryActuator& actuator() { return *actuator_; }
    Bus& bus() { return bus_; }
    ocp_api::OCP& transport() { return filter_; }
    // Drops the actuator now (before the session ends).
    void release_actuator();

private:
    Bus bus_;
    ExitStopFilter filter_;
    const OnExit on_exit_;
    std::unique_ptr<ocp_api::OrreryActuator> actuator_;
};

}  // namespace ocpctl
