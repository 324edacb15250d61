// One side of the CAN mapping, host or device: ISO-TP senders and receivers
// keyed by the identifiers of the mapping. Pure logic like the segmentation it
// drives: frames and time go in, frames to transmit and whole messages come out.
// CanBus runs the host side, CanDeviceHost the device side; a transport over
// another frame source can run either.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "ocp_api/can_link.hpp"
#include "ocp_api/can_mapping.hpp"
#include "ocp_api/isotp.hpp"

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

class Node {
public:
    // Whether a device side answers for `address`; frames for other addresses
    // are foreign (no flow control is sent for them).
    using AddressFilter = std::function<bool(int address)>;

    // `serves` is used by the device role only; empty serves every address.
    Node(Role role, IsoTpOptions options, AddressFilter serves = {});

    // Queues a message: the host's to the device at `address` (kind 0), a
    // device's from `address` with `kind`. One message per address is on its
    // way at a time; the rest wait in order. False when the message is empty,
    // too long, or the address or kind is invalid.
    bool queue(int address, int kind, std::vector<uint8_t> message, IsoTpTime now, std::vector<CanFrame>& out);
    void on_frame(const CanFrame& frame, IsoTpTime now, std::vector<CanFrame>& out,
                  std::vector<ReceivedMessage>& messages);
    void on_time(IsoTpTime now, std::vector<CanFrame>& out);
    std::optional<IsoTpTime> deadline() const;

    // Gives up every message queued or half-sent (counted as dropped).
    void abandon_sending();
    NodeCounters counters() const;

private:
    using ReceiverKey = std::pair<int, int>;  // address, kind

    IsoTpSender& sender_for(int address);
    IsoTpReceiver& receiver_for(int address, int kind);
    // Senders and receivers exist only while a message is on its way: a scan
    // of the whole address range must not leave thousands of idle ones to
    // walk on every frame. Their counts live on in retired_.
    void retire_sender_if_idle(int address);
    void retire_receiver_if_idle(const ReceiverKey& key);
    Direction incoming() const;
    Direction outgoing() const;

    const Role role_;
    const IsoTpOptions options_;
    const AddressFilter serves_;
    std::map<int, IsoTpSender> senders_;
    std::map<ReceiverKey, IsoTpReceiver> receivers_;
    IsoTpCounters retired_;  // of senders and receivers that finished
    uint64_t frames_in_ = 0;
    uint64_t foreign_frames_ = 0;
};

}  // namespace ocp_api::can
