// An in-process CAN bus: any number of CanLink endpoints on one channel, each
// frame sent by one endpoint received by all the others. For tests, examples
// and trying the library without hardware.
//
// By default a frame reaches the other endpoints the moment it is sent. With
// timing on, the channel behaves like the wire: one frame on the bus at a
// time, each for its exact length in bits (can_timing.hpp) at the configured
// bit rates; the lowest identifier among the endpoints with a frame waiting
// wins arbitration; a frame reaches the others when its last bit would have.
// Faults can then be injected, seeded and reproducible: bit errors (error
// frame, automatic retransmission, error counters and states as a CAN
// controller keeps them), an endpoint that is unplugged (nobody acknowledges
// its frames), a node babbling a high-priority frame.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

#include "ocp_api/can_link.hpp"
#include "ocp_api/can_timing.hpp"

namespace ocp_api {

struct VirtualCanOptions {
    // Frames an endpoint holds unread before it drops new ones.
    std::size_t queue_limit = 8192;
    // Bus timing; none: instant delivery.
    std::optional<CanBitRates> timing;
    // With timing: time moves only when advance() is called (deterministic
    // tests drive the endpoints from one thread). Otherwise it follows the
    // steady clock, and the endpoints' receive() deliver frames on time.
    bool manual_clock = false;
    // With timing: frames one endpoint may have waiting for the bus; a send
    // beyond that reports busy, as a full adapter queue does.
    std::size_t tx_queue_limit = 64;
    // With timing and a data bit rate: CAN-FD frames go with the bit-rate
    // switch whether or not their sender asked for it, as from an interface
    // set up for it.
    bool bit_rate_switch = true;
    // With timing: the chance that any one bit is corrupted, 0..1, drawn from
    // a generator seeded with `seed`.
    double bit_error_rate = 0.0;
    uint32_t seed = 1;
};

// An endpoint's CAN controller, with timing on.
struct CanControllerStatus {
    int transmit_errors = 0;  // TEC
    int receive_errors = 0;   // REC
    CanLinkState state = CanLinkState::active;
};

// What the bus carried, with timing on.
struct VirtualCanBusStats {
    uint64_t frames = 0;                // frames sent whole and acknowledged
    uint64_t error_frames = 0;          // transmissions ended by an error frame
    uint64_t retransmissions = 0;       // frames sent again after an error
    uint64_t arbitration_losses = 0;    // frames that waited while a lower identifier went first
    uint64_t babbled_frames = 0;        // frames of the babbling node
    uint64_t tx_dropped = 0;            // frames thrown away when their endpoint went bus-off
    std::chrono::nanoseconds busy{0};   // time the bus carried frames and error frames
    std::chrono::nanoseconds elapsed{0};  // bus time since the channel was made
    // busy / elapsed, 0 before any time has passed.
    double load() const { return elapsed.count() > 0 ? static_cast<double>(busy.count()) / elapsed.count() : 0.0; }
};

// Thread-safe. Endpoints may outlive the channel object (they share its state).
// Like a SocketCAN raw socket, a classic endpoint neither sends nor receives
// CAN-FD frames; a CAN-FD endpoint does both.
class VirtualCanChannel {
public:
    static constexpr std::size_t DEFAULT_QUEUE_LIMIT = 8192;

    explicit VirtualCanChannel(std::size_t queue_limit = DEFAULT_QUEUE_LIMIT);
    // Throws std::invalid_argument for invalid bit rates, a bit error rate
    // outside 0..1 or a zero queue limit.
    explicit VirtualCanChannel(const VirtualCanOptions& options);
    ~VirtualCanChannel();
    VirtualCanChannel(const VirtualCanChannel&) = delete;
    VirtualCanChannel& operator=(const VirtualCanChannel&) = delete;

    std::unique_ptr<CanLink> open(bool fd = false);

    // Puts every endpoint in `state`: each receive()s one state event; while
    // down or bus-off, sends fail.
    void set_state(CanLinkState state);

    uint64_t frames_carried() const;  // frames sent by any endpoint (with timing: that went on the bus whole)
    uint64_t frames_dropped() const;  // deliveries lost to a full endpoint queue

    // --- with timing only (each throws std::logic_error without) ---

    bool timed() const;
    // Bus time since the channel was made.
    std::chrono::nanoseconds now() const;
    // Manual clock only: moves time on by `step`, carrying and delivering every
    // frame whose time has come.
    void advance(std::chrono::nanoseconds step);
    VirtualCanBusStats bus_stats() const;
    // An endpoint's controller; `endpoint` must come from this channel's open().
    CanControllerStatus controller(const CanLink& endpoint) const;
    // An unplugged endpoint receives nothing and acknowledges nothing, so a
    // sender left alone on the bus walks to error-passive and keeps retrying.
    // Its own frames go on a wire of its own, where each attempt ends in an
    // ACK error: it too walks to error-passive, and the bus sees none of it.
    void unplug(const CanLink& endpoint, bool unplugged = true);
    void set_bit_error_rate(double rate);
    // A node that sends `frame` again and again, `gap` apart (0: as soon as
    // the bus is free; with a low identifier it then starves everyone else).
    void start_babbling(const CanFrame& frame, std::chrono::nanoseconds gap = std::chrono::nanoseconds{0});
    void stop_babbling();

private:
    struct Shared;
    class Endpoint;
    std::shared_ptr<Shared> shared_;
};

}  // namespace ocp_api
