// The OCP transport over any source of raw CAN frames: the host side of the
// CAN mapping with ISO-TP segmentation. SocketCanBus is this over a SocketCAN
// link; tests and examples use it over a VirtualCanChannel.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "ocp_api/can_link.hpp"
#include "ocp_api/isotp_options.hpp"
#include "ocp_api/ocp.hpp"

namespace ocp_api {

struct CanBusOptions {
    // Segmentation and queueing; `isotp.fd` asks for CAN-FD frames and needs a
    // link that carries them. `isotp.queue_limit` bounds the commands waiting
    // per address, `isotp.setpoint_max_age` how long a setpoint may wait, and
    // `isotp.max_open_receptions` the replies half-received at once.
    can::IsoTpOptions isotp;
    // How long one frame is retried while the adapter reports busy before it
    // is dropped.
    std::chrono::microseconds busy_retry{2000};
};

struct CanBusCounters {
    uint64_t frames_in = 0;            // every frame the link delivered
    uint64_t frames_out = 0;           // frames the link accepted
    uint64_t messages_in = 0;          // whole replies reassembled
    uint64_t messages_out = 0;         // commands whose last frame went to the link
    uint64_t foreign_frames = 0;       // frames that are not replies of the mapping
    uint64_t segmentation_errors = 0;  // broken segmentation in arriving frames
    uint64_t timeouts = 0;             // half-sent or half-received messages dropped on a time-out
    uint64_t drops = 0;                // frames or messages given up: busy adapter, overflow, time-out
    uint64_t link_errors = 0;          // sends the link refused, and error states it reported
    uint64_t replies_unclaimed = 0;    // replies for an address without a callback
    uint64_t restarts = 0;             // returns to the active state after bus-off or down
    uint64_t callback_errors = 0;      // exceptions thrown by receive callbacks (caught; the first reported)
    // Queueing of commands, per address (see docs/can-mapping.md, "Queueing"):
    uint64_t superseded = 0;           // waiting setpoints replaced by a newer one of the same command
    uint64_t expired = 0;              // setpoints dropped for waiting longer than setpoint_max_age
    uint64_t cancelled = 0;            // START and setpoints dropped because a STOP overtook them
    uint64_t preempted = 0;            // segmented commands abandoned half-sent for a STOP
    uint64_t queue_full = 0;           // commands refused (send() false) for a full queue
    // Reassembly of replies:
    uint64_t receptions_refused = 0;   // first frames ignored with every reception slot taken
    uint64_t receptions_evicted = 0;   // half-received replies dropped to make room for a known device
};

// One receive thread pulls the link, reassembles replies, paces segmented
// commands and runs the callbacks. send() queues and returns at once, from any
// thread, callbacks included; it never waits for flow control. A STOP goes out
// at once, ahead of whatever waits for its address; a newer setpoint replaces
// a waiting one of the same command; each address queues at most
// `isotp.queue_limit` commands (send() returns false beyond).
//
// The adapter at address 0 is this transport: a PING to address 0 is answered
// locally with a PING_REPLY (model CAN_ADAPTER, the library's version as
// firmware word) through the callback of address 0, and nothing is sent.
//
// Destroy the actuators that use the bus before the bus, and do not destroy
// the bus from inside one of its callbacks.
class CanBus : public OCP {
public:
    using StateCallback = std::function<void(CanLinkState)>;

    // Throws std::invalid_argument for a null link, invalid options, or CAN-FD
    // asked of a link that does not carry it.
    explicit CanBus(std::unique_ptr<CanLink> link, CanBusOptions options = {});
    ~CanBus() override;
    CanBus(const CanBus&) = delete;
    CanBus& operator=(const CanBus&) = delete;

    // False when the bus is closed, the link failed, the message is empty or
    // longer than 4095 bytes, the address is outside 0..0x3FFF, or the
    // address's queue is full.
    bool send(int address, const std::vector<uint8_t>& frame) override;
    void setCallback(int address, ReceiveCallback callback) override;
    void removeCallback(int address) override;
    // Stops the receive thread; later sends return false. Safe to call more
    // than once and from inside a callback.
    void close() override;

    // Called on the receive thread when the link's state changes.
    void set_state_callback(StateCallback callback);
    CanLinkState link_state() const;
    CanBusCounters counters() const;
    bool fd() const;

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace ocp_api
