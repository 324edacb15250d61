// A source of raw CAN frames: the little the CAN mapping and the segmentation
// need from an adapter. SocketCAN, a python-can bus or a serial adapter each
// implement it once; everything above (identifiers, ISO-TP, the OCP transport,
// emulated devices on a real interface) is shared.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace ocp_api {

// One CAN or CAN-FD frame as it is on the wire, without any adapter framing.
struct CanFrame {
    static constexpr std::size_t MAX_DATA = 64;

    uint32_t id = 0;        // 29 bits when extended, 11 bits otherwise; no flag bits
    bool extended = true;   // false for an 11-bit identifier (never one of ours)
    bool fd = false;        // a CAN-FD frame
    bool brs = false;       // CAN-FD bit-rate switch
    uint8_t len = 0;        // data bytes: 0..8, or on CAN-FD also 12, 16, 20, 24, 32, 48, 64
    std::array<uint8_t, MAX_DATA> data{};
};

// True when a frame may carry `len` data bytes: 0..8, and on CAN-FD also 12,
// 16, 20, 24, 32, 48 or 64.
bool is_valid_frame_length(std::size_t len, bool fd);
// The smallest CAN-FD data length that holds `bytes` (8 for 0..8, 64 at most).
uint8_t fd_frame_length(std::size_t bytes);

// The state of the controller behind a link, as its error frames or the
// interface report it.
enum class CanLinkState : uint8_t {
    active,          // sending and receiving normally
    error_warning,   // an error counter passed 96
    error_passive,   // an error counter passed 127
    bus_off,         // the controller left the bus
    down,            // the interface is down or gone
};

// What one wait on a link produced.
struct CanLinkEvent {
    enum class Type : uint8_t {
        none,    // the time-out passed or wake() was called
        frame,   // `frame` arrived
        state,   // the link's state changed to `state`
    };
    Type type = Type::none;
    CanFrame frame;
    CanLinkState state = CanLinkState::active;
};

class CanLink {
public:
    enum class SendResult : uint8_t {
        sent,     // handed to the adapter
        busy,     // the adapter's queue is full for now; worth retrying shortly
        failed,   // the link is down, closed or the frame is not valid for it
    };

    virtual ~CanLink();

    // True when the link sends and receives CAN-FD frames.
    virtual bool fd() const = 0;
    // Sends one frame. Safe from any thread.
    virtual SendResult send_frame(const CanFrame& frame) = 0;
    // Sends a frame that must go before every frame this link still holds
    // (the STOP's): a link with a transmit queue of its own puts it first. By
    // default the same as send_frame().
    virtual SendResult send_urgent_frame(const CanFrame& frame) { return send_frame(frame); }
    // Waits at most `timeout` for one event. Only one thread (the owner's
    // receive thread) calls it.
    virtual CanLinkEvent receive(std::chrono::nanoseconds timeout) = 0;
    // Makes a receive() that is waiting, or the next one, return at once with
    // Type::none. Safe from any thread.
    virtual void wake() = 0;

protected:
    CanLink() = default;
    CanLink(const CanLink&) = default;
    CanLink& operator=(const CanLink&) = default;
};

// Sends `frame` (with send_urgent_frame() when `urgent`), retrying for up to
// `busy_retry` while the link reports busy; returns busy when it was still
// busy at the end.
CanLink::SendResult send_frame_retrying(CanLink& link, const CanFrame& frame, std::chrono::microseconds busy_retry,
                                        bool urgent = false);

}  // namespace ocp_api
