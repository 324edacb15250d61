// How the library's messages sit on CAN identifiers. This is the one place
// that knows identifier bits; everything else asks it.
//
// A 29-bit extended identifier of ours reads, from the most significant bit:
//
//   bits 28..16  tag        always PROTOCOL_TAG (0x0D0); any other value is not ours
//   bit  15      kind       device to host: 0 streamed feedback, 1 answer to GET_ITEMS;
//                           host to device: reserved, always 0 (receivers reject 1)
//   bit  14      direction  0 host to device, 1 device to host
//   bits 13..0   address    the device's address, 0..0x3FFF
//
// Frames with 11-bit identifiers are never ours.
//
// Every message travels as one ISO-TP (ISO 15765-2) message. Flow-control
// frames answer on the partner identifier of the data they control:
//  - a message from the host to device A (on host_to_device_id(A)) gets its
//    flow control on device_to_host_id(A, streamed);
//  - a message from device A to the host (on device_to_host_id(A, kind), either
//    kind) gets its flow control on host_to_device_id(A).
// A kernel ISO-TP socket playing a device therefore binds tx_id =
// device_to_host_id(A, kind), rx_id = host_to_device_id(A); playing the host,
// tx_id = host_to_device_id(A), rx_id = device_to_host_id(A, kind).
#pragma once

#include <cstdint>
#include <optional>

namespace ocp_api::can {

enum class Direction : uint8_t {
    to_device,  // host to device: commands
    to_host,    // device to host: replies
};

// What an identifier of ours says.
struct MappedId {
    int address = 0;  // 0..MAX_ADDRESS
    Direction direction = Direction::to_device;
    int kind = 0;  // for replies the receive callback's third argument; 0 towards a device

    bool operator==(const MappedId& other) const {
        return address == other.address && direction == other.direction && kind == other.kind;
    }
    bool operator!=(const MappedId& other) const { return !(*this == other); }
};

inline constexpr int MAX_ADDRESS = 0x3FFF;
inline constexpr uint32_t PROTOCOL_TAG = 0x0D0;

// The identifier of `id`. Throws std::invalid_argument for an address outside
// 0..MAX_ADDRESS, a kind other than 0 or 1, or a non-zero kind towards a device.
uint32_t encode_id(const MappedId& id);
// What a 29-bit identifier says, or nothing when it is not one of ours (wrong
// tag, bits above 28, or a kind bit set towards a device).
std::optional<MappedId> decode_id(uint32_t identifier);

uint32_t host_to_device_id(int address);
uint32_t device_to_host_id(int address, int kind);
// The identifier on which flow control for data sent on `data_id` travels.
MappedId flow_control_partner(const MappedId& data_id);

}  // namespace ocp_api::can
