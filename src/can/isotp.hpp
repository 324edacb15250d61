// Internal to the CAN mapping (not installed): ISO 15765-2 (ISO-TP)
// segmentation and reassembly as pure logic: no threads,
// no sockets, no sleeps. The caller hands in frames and the present time and
// gets back the frames to transmit, the messages completed and the next
// deadline at which to call again. Interoperates with the Linux kernel's
// CAN_ISOTP sockets with normal (not extended or mixed) addressing.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "ocp_api/can_link.hpp"
#include "ocp_api/isotp_options.hpp"

namespace ocp_api::can {

using IsoTpClock = std::chrono::steady_clock;
using IsoTpTime = IsoTpClock::time_point;

// How a queued message is treated while it waits behind others.
enum class MessageClass : uint8_t {
    ordinary,  // in order; refused only when the queue is full
    motion,    // in order, but cancelled by a later safety message while it waits
    setpoint,  // replaced by a newer setpoint with the same first byte while it waits;
               // dropped when it waited longer than setpoint_max_age; cancelled by a safety message
    safety,    // goes ahead of everything queued: a message in progress is abandoned
               // (sent again afterwards when it is ordinary), waiting motion and setpoints are cancelled
};

struct IsoTpCounters {
    uint64_t frames_out = 0;           // frames produced for transmission
    uint64_t messages_out = 0;         // messages whose last frame was produced
    uint64_t messages_in = 0;          // messages reassembled whole
    uint64_t segmentation_errors = 0;  // frames breaking the protocol: bad PCI, wrong sequence, bad lengths
    uint64_t timeouts = 0;             // N_Bs or N_Cr expired: the message was dropped
    uint64_t overflows = 0;            // a peer answered FC overflow, or we did
    uint64_t dropped = 0;              // half-sent or half-received messages given up, for any reason
    uint64_t ignored_frames = 0;       // frames that were not for a transfer in progress
    // Queueing (senders):
    uint64_t superseded = 0;           // waiting setpoints replaced by a newer one of the same code
    uint64_t expired = 0;              // setpoints dropped for waiting longer than setpoint_max_age
    uint64_t cancelled = 0;            // motion and setpoints dropped for a safety message
    uint64_t preempted = 0;            // messages in progress abandoned for a safety message
    uint64_t queue_full = 0;           // messages refused because their peer's queue was full
    // Reception slots (receivers of a node):
    uint64_t receptions_refused = 0;   // first frames ignored (no flow control) with every slot taken
    uint64_t receptions_evicted = 0;   // half-received messages dropped to make room for a known peer

    IsoTpCounters& operator+=(const IsoTpCounters& other);
};

// The time an STmin code asks for between consecutive frames. Reserved codes
// (0x80..0xF0, 0xFA..0xFF) mean the longest, 127 ms, as the standard says.
std::chrono::microseconds st_min_duration(uint8_t code);
// The most message bytes a single frame carries with these options (7 or up to 62).
std::size_t single_frame_capacity(const IsoTpOptions& options);
// True for a flow control frame, which belongs to the sender on the partner identifier.
bool is_flow_control(const CanFrame& frame);

// Whether `size` message bytes go in one single frame with these options.
bool fits_single_frame(std::size_t size, const IsoTpOptions& options);
// Appends the single frame on `tx_id` that carries the `size` bytes at `data`
// (which must fit one), padded as the mapping says.
void append_single_frame(uint32_t tx_id, const uint8_t* data, std::size_t size, const IsoTpOptions& options,
                         std::vector<CanFrame>& out);

// Sends messages one after the other, each on its own identifier, towards one
// peer whose flow control frames are handed to on_flow_control(). The queue
// holds at most `queue_limit` messages behind the one in progress, kept in
// buffers that are reused, so a steady flow of messages allocates nothing.
class IsoTpSender {
public:
    // With `shared`, counts go there (a node sums its senders that way);
    // otherwise into the sender's own counters().
    explicit IsoTpSender(IsoTpOptions options, IsoTpCounters* shared = nullptr);
    IsoTpSender(const IsoTpSender&) = delete;
    IsoTpSender& operator=(const IsoTpSender&) = delete;
    IsoTpSender(IsoTpSender&&) noexcept;
    IsoTpSender& operator=(IsoTpSender&&) = delete;

    // Queues a message for `tx_id` by the rules of its class; false (nothing
    // queued, counted) when it is empty, longer than ISOTP_MAX_MESSAGE, or the
    // queue is full. Frames that may go at once are appended to `out`.
    bool queue(uint32_t tx_id, const uint8_t* data, std::size_t size, MessageClass message_class, IsoTpTime now,
               std::vector<CanFrame>& out);
    bool queue(uint32_t tx_id, const std::vector<uint8_t>& message, IsoTpTime now, std::vector<CanFrame>& out) {
        return queue(tx_id, message.data(), message.size(), MessageClass::ordinary, now, out);
    }
    void on_flow_control(const CanFrame& frame, IsoTpTime now, std::vector<CanFrame>& out);
    // Produces frames whose STmin gap has passed, and gives up on a flow
    // control that is overdue.
    void on_time(IsoTpTime now, std::vector<CanFrame>& out);
    // When on_time() has something to do next; nullopt when idle or waiting
    // only for the peer.
    std::optional<IsoTpTime> deadline() const;

    bool idle() const;
    // Messages waiting behind the one in progress.
    std::size_t waiting() const { return waiting_; }
    // Drops everything queued and in progress (counted as dropped).
    void abandon();
    const IsoTpCounters& counters() const { return *counters_; }

private:
    enum class State : uint8_t { idle, waiting_for_flow_control, sending_block };

    struct Outgoing {
        uint32_t tx_id = 0;
        MessageClass message_class = MessageClass::ordinary;
        IsoTpTime queued_at{};
        std::vector<uint8_t> bytes;
    };

    void start_next(IsoTpTime now, std::vector<CanFrame>& out);
    void start_first_frame(IsoTpTime now, std::vector<CanFrame>& out);
    void send_consecutive_frames(IsoTpTime now, std::vector<CanFrame>& out);
    void preempt_for_safety();
    bool replace_waiting_setpoint(uint32_t tx_id, uint8_t code);
    void push_back(uint32_t tx_id, const uint8_t* data, std::size_t size, MessageClass message_class, IsoTpTime now);
    void push_front(Outgoing& message);
    void remove_waiting(std::size_t index);
    void finish_message();
    void give_up();
    CanFrame& next_frame(std::vector<CanFrame>& out) const;

    IsoTpOptions options_;
    IsoTpCounters own_counters_;
    IsoTpCounters* counters_;
    // Waiting messages in order in slots_[0, waiting_); the buffers of the
    // slots beyond are kept for reuse. Two slots more than queue_limit, so a
    // safety message always finds room.
    std::vector<Outgoing> slots_;
    std::size_t waiting_ = 0;
    State state_ = State::idle;
    Outgoing message_;              // the one in progress
    std::size_t sent_ = 0;          // bytes of it already framed
    uint8_t sequence_ = 0;
    int block_left_ = 0;            // consecutive frames before the next FC; 0 = unlimited
    std::chrono::microseconds gap_{0};
    IsoTpTime next_time_{};
    int waits_in_row_ = 0;
};

// Reassembles messages arriving on one identifier, answering first frames with
// flow control on `fc_id`.
class IsoTpReceiver {
public:
    // With `shared`, counts go there; otherwise into counters().
    IsoTpReceiver(uint32_t fc_id, IsoTpOptions options, IsoTpCounters* shared = nullptr);
    IsoTpReceiver(const IsoTpReceiver&) = delete;
    IsoTpReceiver& operator=(const IsoTpReceiver&) = delete;
    IsoTpReceiver(IsoTpReceiver&&) noexcept;
    IsoTpReceiver& operator=(IsoTpReceiver&&) = delete;

    // Handles a single, first or consecutive frame (a flow control frame is
    // counted as ignored); true when it completes a message, which message()
    // then holds until the next call.
    bool accept(const CanFrame& frame, IsoTpTime now, std::vector<CanFrame>& out);
    const std::vector<uint8_t>& message() const { return message_; }
    // accept(), returning a copy of the message it completes.
    std::optional<std::vector<uint8_t>> on_frame(const CanFrame& frame, IsoTpTime now, std::vector<CanFrame>& out);
    // Drops a half-received message whose next frame is overdue.
    void on_time(IsoTpTime now);
    std::optional<IsoTpTime> deadline() const;

    bool receiving() const { return receiving_; }
    // Gives up a half-received message (counted as dropped).
    void drop();
    // Makes an idle receiver ready for another peer, keeping its buffer.
    void rebind(uint32_t fc_id) { fc_id_ = fc_id; }
    const IsoTpCounters& counters() const { return *counters_; }

private:
    bool on_single_frame(const CanFrame& frame);
    void on_first_frame(const CanFrame& frame, IsoTpTime now, std::vector<CanFrame>& out);
    bool on_consecutive_frame(const CanFrame& frame, IsoTpTime now, std::vector<CanFrame>& out);
    void send_flow_control(uint8_t status, std::vector<CanFrame>& out);
    void drop_partial();

    uint32_t fc_id_;
    IsoTpOptions options_;
    IsoTpCounters own_counters_;
    IsoTpCounters* counters_;
    bool receiving_ = false;
    std::vector<uint8_t> message_;
    std::size_t expected_ = 0;
    std::size_t frame_length_ = 0;  // RX_DL, from the first frame
    uint8_t sequence_ = 0;
    int block_left_ = 0;
    IsoTpTime deadline_{};
};

// The bytes a single frame carries: false (nothing set) when the frame is no
// well-formed single frame.
bool single_frame_payload(const CanFrame& frame, const uint8_t*& data, std::size_t& size);

}  // namespace ocp_api::can
