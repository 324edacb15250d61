// Opening a bus by a short text, the same way in every program and tool:
//
//   sim                        a simulated bus with emulated actuators at 0x21, 0x22, 0x23
//   sim:0x21,0x40              ... at the addresses listed
//   socketcan:can0             a SocketCAN interface, classic CAN
//   socketcan:can0,fd          ... with CAN-FD frames of 64 bytes
//   socketcan:can0,fd,dlen=16  ... with CAN-FD frames of at most 16 bytes
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ocp_api/ocp.hpp"

namespace ocp_api {

struct BusScheme {
    std::string name;         // "socketcan"
    std::string usage;        // "socketcan:IF[,fd][,dlen=N]"
    std::string description;  // one line for help texts
};

// Every scheme open_bus() knows, in the order help texts list them.
std::vector<BusScheme> bus_schemes();

// Opens the bus `bus` names ("sim", "socketcan:can0,fd", ...). Throws std::invalid_argument for an unknown
// scheme (the message lists the known ones) or a malformed argument, and
// whatever the transport throws when it cannot open (std::system_error naming
// the interface for SocketCAN).
std::unique_ptr<OCP> open_bus(const std::string& bus);

// The parts of a "socketcan:IF[,fd][,dlen=N]" text, for programs that work on
// the interface's raw frames themselves (a traffic monitor, emulated devices).
struct SocketCanChoice {
    std::string interface;
    bool fd = false;
    uint8_t fd_data_length = 64;
};

// Throws std::invalid_argument, with the same messages as open_bus, for a
// malformed text, and for any other scheme.
SocketCanChoice parse_socketcan_bus(const std::string& bus);

}  // namespace ocp_api
