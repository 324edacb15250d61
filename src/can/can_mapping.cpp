// The identifier layout of the CAN mapping: the only place its bits are written.
#include "ocp_api/can_mapping.hpp"

#include <stdexcept>

namespace ocp_api::can {

namespace {

constexpr uint32_t ADDRESS_MASK = 0x3FFF;  // bits 13..0
constexpr uint32_t DIRECTION_SHIFT = 14;
constexpr uint32_t KIND_SHIFT = 15;
constexpr uint32_t TAG_SHIFT = 16;
constexpr uint32_t TAG_MASK = 0x1FFF;       // bits 28..16
constexpr uint32_t EXTENDED_ID_MASK = 0x1FFFFFFF;

uint32_t bit(bool set, uint32_t shift) { return static_cast<uint32_t>(set) << shift; }

}  // namespace

uint32_t encode_id(const MappedId& id) {
    if (id.address < 0 || id.address > MAX_ADDRESS)
        throw std::invalid_argument("CAN address out of range 0..0x3fff: " + std::to_string(id.address));
    if (id.kind != 0 && id.kind != 1) throw std::invalid_argument("Reply kind must be 0 or 1");
    if (id.direction == Direction::to_device && id.kind != 0)
        throw std::invalid_argument("Frames to a device carry no reply kind");
    return (PROTOCOL_TAG << TAG_SHIFT) | bit(id.kind == 1, KIND_SHIFT) |
           bit(id.direction == Direction::to_host, DIRECTION_SHIFT) | static_cast<uint32_t>(id.address);
}

std::optional<MappedId> decode_id(uint32_t identifier) {
    if ((identifier & ~EXTENDED_ID_MASK) != 0) return std::nullopt;
    if (((identifier >> TAG_SHIFT) & TAG_MASK) != PROTOCOL_TAG) return std::nullopt;
    MappedId id;
    id.address = static_cast<int>(identifier & ADDRESS_MASK);
    id.direction = ((identifier >> DIRECTION_SHIFT) & 1U) != 0 ? Direction::to_host : Direction::to_device;
    id.kind = static_cast<int>((identifier >> KIND_SHIFT) & 1U);
    if (id.direction == Direction::to_device && id.kind != 0) return std::nullopt;
    return id;
}

uint32_t host_to_device_id(int address) { return encode_id({address, Direction::to_device, 0}); }

uint32_t device_to_host_id(int address, int kind) { return encode_id({address, Direction::to_host, kind}); }

MappedId flow_control_partner(const MappedId& data_id) {
    // Commands are flow-controlled on the device's streamed-reply identifier,
    // replies of either kind on the command identifier.
    const Direction other = data_id.direction == Direction::to_device ? Direction::to_host : Direction::to_device;
    return {data_id.address, other, 0};
}

}  // namespace ocp_api::can
