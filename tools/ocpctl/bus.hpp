// Choosing the bus: one parser for every --bus value, so that new transports
// add an entry here and every command can use them.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <ocp_api/ocp.hpp>
#include <ocp_api/sim_bus.hpp>

namespace ocpctl {

struct BusChoice {
    std::string scheme;     // "sim"
    std::string argument;   // what follows the colon, if anything
    std::string text;       // as the user wrote it
};

// Splits and checks a --bus value; throws UsageError for an unknown scheme or
// a malformed argument, before anything is opened.
BusChoice parse_bus(const std::string& text);

class Bus {
public:
    explicit Bus(const BusChoice& choice);
    ocp_api::OCP& transport() { return *transport_; }
    // The simulated bus behind the transport, or nullptr on a real one.
    ocp_api::SimBus* simulated() { return sim_; }

private:
    std::unique_ptr<ocp_api::OCP> transport_;
    ocp_api::SimBus* sim_ = nullptr;
};

// The emulated actuators a plain "sim" bus holds.
std::vector<int> default_sim_addresses();

}  // namespace ocpctl
