// A CanLink on a Linux SocketCAN network interface (can0, vcan0, a USB or SPI
// adapter, slcan...): one CAN_RAW socket bound to the interface by name.
//
// - Receive filters run in the kernel, so frames nobody here asked for never
//   wake the receive thread.
// - Error frames are enabled and become CanLinkState events: error_warning,
//   error_passive, bus_off, and active again when the controller restarts.
// - An interface that goes down (or is removed) while the link is open gives
//   a `down` state event; sends fail meanwhile. The link looks at the
//   interface again every `recovery_interval` and reports `active` once it
//   is up, after which frames flow again with no action from the owner.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ocp_api/can_link.hpp"

namespace ocp_api {

// Accepts the extended-identifier frames whose identifier matches `id` on
// every bit set in `mask`.
struct CanIdFilter {
    uint32_t id = 0;
    uint32_t mask = 0;
};

struct SocketCanLinkOptions {
    // Send and receive CAN-FD frames. The interface must carry them (MTU 72).
    bool fd = false;
    // Frames to receive; empty receives every frame on the interface.
    std::vector<CanIdFilter> filters;
    // How often a link that is down checks whether its interface is back.
    std::chrono::milliseconds recovery_interval{100};
    // Send every CAN-FD frame with the bit-rate switch, so its data phase
    // runs at the interface's data bit rate (`ip link ... dbitrate`); off,
    // only frames that ask for it (CanFrame::brs) switch.
    bool bit_rate_switch = true;
};

class SocketCanLink final : public CanLink {
public:
    // Opens a CAN_RAW socket on `interface`. Throws std::system_error naming
    // the interface and the reason when it does not exist, is not a CAN
    // interface, is down, or cannot carry CAN-FD frames when `fd` is asked.
    explicit SocketCanLink(std::string interface, SocketCanLinkOptions options = {});
    ~SocketCanLink() override;
    SocketCanLink(const SocketCanLink&) = delete;
    SocketCanLink& operator=(const SocketCanLink&) = delete;

    bool fd() const override { return options_.fd; }
    SendResult send_frame(const CanFrame& frame) override;
    CanLinkEvent receive(std::chrono::nanoseconds timeout) override;
    void wake() override;

    const std::string& interface_name() const { return interface_; }
    // The state last reported by receive() (or found by a failing send).
    CanLinkState state() const { return state_.load(); }
    // Error frames seen since the link was opened.
    uint64_t error_frames() const { return error_frames_.load(); }

private:
    class FileDescriptor {
    public:
        explicit FileDescriptor(int fd = -1) : fd_(fd) {}
        ~FileDescriptor();
        FileDescriptor(const FileDescriptor&) = delete;
        FileDescriptor& operator=(const FileDescriptor&) = delete;
        int get() const { return fd_; }

    private:
        int fd_;
    };

    void configure_socket();
    bool apply_filters();
    bool bind_to_interface();
    bool interface_is_up() const;
    bool try_recover();
    CanLinkEvent read_one(bool& nothing_read);
    bool refill_batch(bool& failed);
    CanLinkEvent state_event(CanLinkState state);

    // Frames read ahead with one recvmmsg() and handed out one per receive(),
    // so a busy bus costs one system call per batch, not two per frame.
    struct Batch;

    const std::string interface_;
    const SocketCanLinkOptions options_;
    FileDescriptor socket_;
    FileDescriptor wake_;
    std::atomic<CanLinkState> state_{CanLinkState::active};
    CanLinkState reported_state_ = CanLinkState::active;  // receive thread only
    bool bound_ = false;                                   // receive thread only
    std::atomic<uint64_t> error_frames_{0};
    std::unique_ptr<Batch> batch_;  // receive thread only
};

}  // namespace ocp_api
