// Options of the CAN mapping's segmentation (ISO 15765-2, "ISO-TP") and of
// its queueing, shared by the host side (CanBus, SocketCanBus) and the device
// side (CanDeviceHost). The segmentation itself is internal to the library.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace ocp_api::can {

// The longest message the 12-bit first-frame length can carry.
inline constexpr std::size_t ISOTP_MAX_MESSAGE = 4095;
// The byte that fills a frame up to its length.
inline constexpr uint8_t ISOTP_PADDING = 0xCC;

struct IsoTpOptions {
    bool fd = false;                            // send CAN-FD frames
    uint8_t fd_data_length = 64;                // on CAN-FD: 8, 12, 16, 20, 24, 32, 48 or 64
    uint8_t block_size = 0;                     // BS we ask for in our flow control; 0: no further FC
    uint8_t st_min = 0;                         // STmin code we ask for (0..0x7F ms, 0xF1..0xF9 100..900 us)
    std::chrono::milliseconds n_bs{1000};       // sender: longest wait for a flow control
    std::chrono::milliseconds n_cr{1000};       // receiver: longest wait for the next consecutive frame
    int max_wait_frames = 16;                   // FC WAIT frames accepted in a row before giving up

    // Queueing, per peer (one address): messages waiting behind the one in
    // progress. A full queue refuses further messages (safety ones excepted).
    std::size_t queue_limit = 32;
    // A setpoint that waited longer than this is dropped rather than sent late.
    std::chrono::milliseconds setpoint_max_age{100};
    // Half-received messages a node holds at once, over all its peers: a peer
    // opening messages it never finishes cannot take more than this.
    std::size_t max_open_receptions = 128;
};

// Throws std::invalid_argument for an fd_data_length that is no CAN-FD length.
void validate(const IsoTpOptions& options);

}  // namespace ocp_api::can
