// Choosing the bus: every --bus value goes to the library's open_bus(), so
// each transport it knows works with every command.
#pragma once

#include <memory>
#include <string>

#include <ocp_api/ocp.hpp>
#include <ocp_api/sim_bus.hpp>

namespace ocpctl {

// "Bus: sim[:ADDR,...] (...); socketcan:IF[,fd][,dlen=N] (...)" for --help.
std::string bus_option_help();

class Bus {
public:
    // Throws UsageError for an unknown scheme or a malformed argument, and
    // std::system_error (naming the interface) when a SocketCAN interface is
    // missing or down.
    // `text` as the user wrote it, e.g. "sim:0x21" or "socketcan:can0,fd".
    explicit Bus(const std::string& text);
    ocp_api::OCP& transport() { return *transport_; }
    // The simulated bus behind the transport, or nullptr on a real one.
    ocp_api::SimBus* simulated() { return dynamic_cast<ocp_api::SimBus*>(transport_.get()); }

private:
    std::unique_ptr<ocp_api::OCP> transport_;
};

}  // namespace ocpctl
