// An in-process CAN bus: any number of CanLink endpoints on one channel, each
// frame sent by one endpoint received by all the others. For tests, examples
// and trying the library without hardware.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "ocp_api/can_link.hpp"

namespace ocp_api {

// Thread-safe. Endpoints may outlive the channel object (they share its state).
// Like a SocketCAN raw socket, a classic endpoint neither sends nor receives
// CAN-FD frames; a CAN-FD endpoint does both.
class VirtualCanChannel {
public:
    // Frames an endpoint holds unread before it drops new ones.
    static constexpr std::size_t DEFAULT_QUEUE_LIMIT = 8192;

    explicit VirtualCanChannel(std::size_t queue_limit = DEFAULT_QUEUE_LIMIT);
    ~VirtualCanChannel();
    VirtualCanChannel(const VirtualCanChannel&) = delete;
    VirtualCanChannel& operator=(const VirtualCanChannel&) = delete;

    std::unique_ptr<CanLink> open(bool fd = false);

    // Puts every endpoint in `state`: each receive()s one state event; while
    // down or bus-off, sends fail.
    void set_state(CanLinkState state);

    uint64_t frames_carried() const;  // frames sent by any endpoint
    uint64_t frames_dropped() const;  // deliveries lost to a full endpoint queue

private:
    struct Shared;
    class Endpoint;
    std::shared_ptr<Shared> shared_;
};

}  // namespace ocp_api
