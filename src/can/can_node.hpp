// Internal to the CAN mapping (not installed). One side of it, host or
// device: ISO-TP senders and receivers keyed by the identifiers of the mapping. Pure logic like the segmentation it
// drives: frames and time go in, frames to transmit and whole messages come out.
// CanBus runs the host side, CanDeviceHost the device side; a transport over
// another frame source can run either.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "ocp_api/can_link.hpp"
#include "ocp_api/can_mapping.hpp"
#include "can/isotp.hpp"

namespace ocp_api::can {

enum class Role : uint8_t {
    host,    // sends commands, receives replies
    device,  // receives commands, sends replies (for the addresses it serves)
};

struct ReceivedMessage {
    int address = 0;
    int kind = 0;  // replies: streamed or requested; commands: 0
    std::vector<uint8_t> bytes;
};

struct NodeCounters {
    IsoTpCounters isotp;
    uint64_t frames_in = 0;       // every frame handed to on_frame()
    uint64_t foreign_frames = 0;  // not ours: other identifiers, other direction, other devices
};

// Work per frame and per tick does not grow with the number of messages on
// their way: senders and receivers are found through an index, their next
// deadlines are kept in a heap, and both are pooled and reused, so a steady
// flow of messages allocates nothing here. At most `max_open_receptions`
// messages are half-received at once: when every slot is taken, a first frame
// from a peer that has completed a message before takes the slot of the
// oldest reception from one that has not (or else the oldest), and a first
// frame from any other peer is ignored without flow control. So a peer
// flooding first frames it never finishes cannot crowd out the replies of
// known devices.
class Node {
public:
    // Whether a device side answers for `address`; frames for other addresses
    // are foreign (no flow control is sent for them).
    using AddressFilter = std::function<bool(int address)>;

    // `serves` is used by the device role only; empty serves every address.
    Node(Role role, IsoTpOptions options, AddressFilter serves = {});
    ~Node();
    Node(Node&&) noexcept;
    Node& operator=(Node&&) = delete;
    Node(const Node&) = delete;
    Node& operator=(const Node&) = delete;

    // Queues a message: the host's to the device at `address` (kind 0), a
    // device's from `address` with `kind`. One message per address is on its
    // way at a time; the rest wait by the rules of their class (see
    // MessageClass). False (counted) when the message is empty or too long,
    // the address or kind is invalid, or the address's queue is full.
    bool queue(int address, int kind, const uint8_t* data, std::size_t size, MessageClass message_class,
               IsoTpTime now, std::vector<CanFrame>& out);
    // The common case without reading the clock: when nothing is on its way
    // to `address` and the message fits one frame, appends that frame to
    // `out` and returns true; otherwise does nothing (then queue() it).
    bool send_at_once(int address, int kind, const uint8_t* data, std::size_t size, std::vector<CanFrame>& out);
    bool queue(int address, int kind, const std::vector<uint8_t>& message, IsoTpTime now, std::vector<CanFrame>& out) {
        return queue(address, kind, message.data(), message.size(), MessageClass::ordinary, now, out);
    }
    void on_frame(const CanFrame& frame, IsoTpTime now, std::vector<CanFrame>& out,
                  std::vector<ReceivedMessage>& messages);
    void on_time(IsoTpTime now, std::vector<CanFrame>& out);
    std::optional<IsoTpTime> deadline() const;

    // Gives up every message queued or half-sent (counted as dropped).
    void abandon_sending();
    NodeCounters counters() const;
    // Messages on their way or waiting, and half-received messages, now.
    std::size_t open_senders() const;
    std::size_t open_receptions() const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace ocp_api::can
