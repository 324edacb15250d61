// ISO 15765-2 (ISO-TP) segmentation and reassembly as pure logic: no threads,
// no sockets, no sleeps. The caller hands in frames and the present time and
// gets back the frames to transmit, the messages completed and the next
// deadline at which to call again. Interoperates with the Linux kernel's
// CAN_ISOTP sockets with normal (not extended or mixed) addressing.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

#include "ocp_api/can_link.hpp"

namespace ocp_api::can {

using IsoTpClock = std::chrono::steady_clock;
using IsoTpTime = IsoTpClock::time_point;

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
};

// Throws std::invalid_argument for an fd_data_length that is no CAN-FD length.
void validate(const IsoTpOptions& options);

struct IsoTpCounters {
    uint64_t frames_out = 0;           // frames produced for transmission
    uint64_t messages_out = 0;         // messages whose last frame was produced
    uint64_t messages_in = 0;          // messages reassembled whole
    uint64_t segmentation_errors = 0;  // frames breaking the protocol: bad PCI, wrong sequence, bad lengths
    uint64_t timeouts = 0;             // N_Bs or N_Cr expired: the message was dropped
    uint64_t overflows = 0;            // a peer answered FC overflow, or we did
    uint64_t dropped = 0;              // half-sent or half-received messages given up, for any reason
    uint64_t ignored_frames = 0;       // frames that were not for a transfer in progress

    IsoTpCounters& operator+=(const IsoTpCounters& other);
};

// The time an STmin code asks for between consecutive frames. Reserved codes
// (0x80..0xF0, 0xFA..0xFF) mean the longest, 127 ms, as the standard says.
std::chrono::microseconds st_min_duration(uint8_t code);
// The most message bytes a single frame carries with these options (7 or up to 62).
std::size_t single_frame_capacity(const IsoTpOptions& options);
// True for a flow control frame, which belongs to the sender on the partner identifier.
bool is_flow_control(const CanFrame& frame);

// Sends messages one after the other, each on its own identifier, towards one
// peer whose flow control frames are handed to on_flow_control().
class IsoTpSender {
public:
    explicit IsoTpSender(IsoTpOptions options);

    // Queues a message for `tx_id`; false (nothing queued) when it is empty or
    // longer than ISOTP_MAX_MESSAGE. Frames that may go at once are appended to `out`.
    bool queue(uint32_t tx_id, std::vector<uint8_t> message, IsoTpTime now, std::vector<CanFrame>& out);
    void on_flow_control(const CanFrame& frame, IsoTpTime now, std::vector<CanFrame>& out);
    // Produces frames whose STmin gap has passed, and gives up on a flow
    // control that is overdue.
    void on_time(IsoTpTime now, std::vector<CanFrame>& out);
    // When on_time() has something to do next; nullopt when idle or waiting
    // only for the peer.
    std::optional<IsoTpTime> deadline() const;

    bool idle() const;
    // Drops everything queued and in progress (counted as dropped).
    void abandon();
    const IsoTpCounters& counters() const { return counters_; }

private:
    enum class State : uint8_t { idle, waiting_for_flow_control, sending_block };

    void start_next(IsoTpTime now, std::vector<CanFrame>& out);
    void send_consecutive_frames(IsoTpTime now, std::vector<CanFrame>& out);
    void finish_message();
    void give_up();
    CanFrame frame_with(const std::vector<uint8_t>& payload) const;

    struct Outgoing {
        uint32_t tx_id;
        std::vector<uint8_t> bytes;
    };

    const IsoTpOptions options_;
    std::deque<Outgoing> queue_;
    State state_ = State::idle;
    Outgoing message_;              // the one in progress
    std::size_t sent_ = 0;          // bytes of it already framed
    uint8_t sequence_ = 0;
    int block_left_ = 0;            // consecutive frames before the next FC; 0 = unlimited
    std::chrono::microseconds gap_{0};
    IsoTpTime next_time_{};
    int waits_in_row_ = 0;
    IsoTpCounters counters_;
};

// Reassembles messages arriving on one identifier, answering first frames with
// flow control on `fc_id`.
class IsoTpReceiver {
public:
    IsoTpReceiver(uint32_t fc_id, IsoTpOptions options);

    // Handles a single, first or consecutive frame (a flow control frame is
    // counted as ignored); returns the message it completes.
    std::optional<std::vector<uint8_t>> on_frame(const CanFrame& frame, IsoTpTime now, std::vector<CanFrame>& out);
    // Drops a half-received message whose next frame is overdue.
    void on_time(IsoTpTime now);
    std::optional<IsoTpTime> deadline() const;

    bool receiving() const { return receiving_; }
    const IsoTpCounters& counters() const { return counters_; }

private:
    std::optional<std::vector<uint8_t>> on_single_frame(const CanFrame& frame);
    void on_first_frame(const CanFrame& frame, IsoTpTime now, std::vector<CanFrame>& out);
    std::optional<std::vector<uint8_t>> on_consecutive_frame(const CanFrame& frame, IsoTpTime now,
                                                             std::vector<CanFrame>& out);
    void send_flow_control(uint8_t status, std::vector<CanFrame>& out);
    void drop_partial();

    const uint32_t fc_id_;
    const IsoTpOptions options_;
    bool receiving_ = false;
    std::vector<uint8_t> message_;
    std::size_t expected_ = 0;
    std::size_t frame_length_ = 0;  // RX_DL, from the first frame
    uint8_t sequence_ = 0;
    int block_left_ = 0;
    IsoTpTime deadline_{};
    IsoTpCounters counters_;
};

}  // namespace ocp_api::can
