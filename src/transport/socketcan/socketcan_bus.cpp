#include "ocp_api/socketcan_bus.hpp"

#include <memory>

namespace ocp_api {

namespace {

CanBusOptions bus_options(const SocketCanBusOptions& options) {
    CanBusOptions bus = options.bus;
    bus.isotp.fd = options.fd;
    bus.isotp.fd_data_length = options.fd_data_length;
    return bus;
}

std::unique_ptr<CanLink> open_link(const std::string& interface, const SocketCanBusOptions& options) {
    // Bad options are reported before the interface is opened, whichever of
    // the constructor's arguments the compiler evaluates first.
    can::validate(bus_options(options).isotp);
    SocketCanLinkOptions link;
    link.fd = options.fd;
    link.filters = {mapped_frames_filter(can::Direction::to_host)};
    link.recovery_interval = options.recovery_interval;
    return std::make_unique<SocketCanLink>(interface, link);
}

}  // namespace

SocketCanBus::SocketCanBus(const std::string& interface, SocketCanBusOptions options)
    : CanBus(open_link(interface, options), bus_options(options)), interface_(interface) {}

// Built from what the mapping says about two identifiers, so that no bit of
// the layout is written here: the address and kind bits may take any value,
// every other bit (tag, direction, reserved) must be as in the mapping.
CanIdFilter mapped_frames_filter(can::Direction direction) {
    constexpr uint32_t all_identifier_bits = 0x1FFFFFFF;
    const uint32_t address_bits = can::host_to_device_id(0) ^ can::host_to_device_id(can::MAX_ADDRESS);
    const uint32_t kind_bit = can::device_to_host_id(0, 0) ^ can::device_to_host_id(0, 1);
    CanIdFilter filter;
    if (direction == can::Direction::to_host) {
        filter.id = can::device_to_host_id(0, 0);
        filter.mask = all_identifier_bits & ~(address_bits | kind_bit);
    } else {
        filter.id = can::host_to_device_id(0);
        filter.mask = all_identifier_bits & ~address_bits;  // the kind bit is reserved (0) this way
    }
    return filter;
}

}  // namespace ocp_api
