// The OCP transport on a Linux SocketCAN interface: CanBus (the CAN mapping
// with ISO-TP segmentation, one receive thread, the adapter at address 0)
// over a SocketCanLink that receives only the mapping's reply identifiers.
//
//   ocp_api::SocketCanBus bus("can0");                        // classic CAN
//   ocp_api::SocketCanBus fd_bus("can0", {true, 64});         // CAN-FD, 64-byte frames
//   ocp_api::OrreryActuator actuator(bus, 0x21);
//
// Bring the interface up first, e.g.
//   ip link set can0 up type can bitrate 1000000 dbitrate 5000000 fd on
#pragma once

#include <cstdint>
#include <string>

#include "ocp_api/can_bus.hpp"
#include "ocp_api/can_mapping.hpp"
#include "ocp_api/socketcan_link.hpp"

namespace ocp_api {

struct SocketCanBusOptions {
    bool fd = false;                 // send CAN-FD frames; the interface must carry them (MTU 72)
    uint8_t fd_data_length = 64;     // CAN-FD frame length: 8, 12, 16, 20, 24, 32, 48 or 64
    // The rest of the segmentation and retry settings (their `fd` and
    // `fd_data_length` are taken from above).
    CanBusOptions bus;
    std::chrono::milliseconds recovery_interval{100};  // see SocketCanLinkOptions
};

class SocketCanBus final : public CanBus {
public:
    // Throws std::system_error naming the interface and the reason when it is
    // missing, not a CAN interface, down, or cannot carry CAN-FD when `fd` is
    // asked; std::invalid_argument for an invalid fd_data_length.
    explicit SocketCanBus(const std::string& interface, SocketCanBusOptions options = {});

    const std::string& interface_name() const { return interface_; }

private:
    const std::string interface_;
};

// The kernel filter that passes every frame of the mapping travelling in
// `direction` (replies and their flow control for a host; commands for
// emulated devices) and nothing else.
CanIdFilter mapped_frames_filter(can::Direction direction);

}  // namespace ocp_api
