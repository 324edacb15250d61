#include "ocp_api/socketcan_link.hpp"

#include <linux/can.h>
#include <linux/can/error.h>
#include <linux/can/raw.h>
#include <net/if_arp.h>
#include <net/if.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include "can/isotp.hpp"

namespace ocp_api {

namespace {

constexpr int RECEIVE_BUFFER_BYTES = 4 << 20;

using Clock = std::chrono::steady_clock;

[[noreturn]] void throw_for(const std::string& interface, int error, const std::string& what) {
    throw std::system_error(error, std::generic_category(), "CAN interface " + interface + ": " + what);
}

ifreq request_for(const std::string& interface) {
    ifreq request{};
    std::memcpy(request.ifr_name, interface.c_str(), interface.size());  // size checked at open
    return request;
}


// The state an error frame announces, if it announces one.
bool state_from_error_frame(const can_frame& frame, CanLinkState& state) {
    const canid_t error_class = frame.can_id & CAN_ERR_MASK;
    if (error_class & CAN_ERR_BUSOFF) {
        state = CanLinkState::bus_off;
        return true;
    }
    if (error_class & CAN_ERR_RESTARTED) {
        state = CanLinkState::active;
        return true;
    }
    if (error_class & CAN_ERR_CRTL) {
        const uint8_t controller = frame.data[1];
        if (controller & (CAN_ERR_CRTL_RX_PASSIVE | CAN_ERR_CRTL_TX_PASSIVE)) {
            state = CanLinkState::error_passive;
            return true;
        }
        if (controller & (CAN_ERR_CRTL_RX_WARNING | CAN_ERR_CRTL_TX_WARNING)) {
            state = CanLinkState::error_warning;
            return true;
        }
        if (controller & CAN_ERR_CRTL_ACTIVE) {
            state = CanLinkState::active;
            return true;
        }
    }
    return false;  // lost arbitration, protocol errors...: counted only
}

// Errors after which the interface is down or gone until it comes back.
bool means_interface_down(int error) {
    return error == ENETDOWN || error == ENODEV || error == ENXIO;
}

}  // namespace

SocketCanLink::FileDescriptor::~FileDescriptor() {
    if (fd_ >= 0) ::close(fd_);
}

struct SocketCanLink::Batch {
    static constexpr std::size_t SIZE = 32;
    std::array<canfd_frame, SIZE> frames{};
    std::array<iovec, SIZE> vectors{};
    std::array<mmsghdr, SIZE> headers{};
    std::size_t count = 0;  // frames read
    std::size_t next = 0;   // the next to hand out

    Batch() {
        for (std::size_t i = 0; i < SIZE; ++i) {
            vectors[i] = {&frames[i], sizeof frames[i]};
            headers[i].msg_hdr.msg_iov = &vectors[i];
            headers[i].msg_hdr.msg_iovlen = 1;
        }
    }
    bool empty() const { return next == count; }
};

SocketCanLink::SocketCanLink(std::string interface, SocketCanLinkOptions options)
    : interface_(std::move(interface)),
      options_(std::move(options)),
      socket_(::socket(PF_CAN, SOCK_RAW | SOCK_CLOEXEC, CAN_RAW)),
      wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      batch_(std::make_unique<Batch>()) {
    if (socket_.get() < 0) throw_for(interface_, errno, "cannot open a CAN_RAW socket");
    if (wake_.get() < 0) throw_for(interface_, errno, "cannot create an eventfd");
    if (interface_.empty() || interface_.size() >= IFNAMSIZ) {
        throw_for(interface_, EINVAL, "not a valid interface name");
    }

    ifreq request = request_for(interface_);
    if (::ioctl(socket_.get(), SIOCGIFINDEX, &request) < 0) throw_for(interface_, errno, "not found");
    request = request_for(interface_);
    if (::ioctl(socket_.get(), SIOCGIFHWADDR, &request) < 0) throw_for(interface_, errno, "cannot read its link type");
    if (request.ifr_hwaddr.sa_family != ARPHRD_CAN) throw_for(interface_, EINVAL, "not a CAN interface");
    if (!interface_is_up()) throw_for(interface_, ENETDOWN, "the interface is down");
    if (options_.fd) {
        request = request_for(interface_);
        if (::ioctl(socket_.get(), SIOCGIFMTU, &request) < 0) throw_for(interface_, errno, "cannot read its MTU");
        if (request.ifr_mtu != CANFD_MTU) {
            throw_for(interface_, EPROTONOSUPPORT,
                      "cannot carry CAN-FD frames (MTU " + std::to_string(request.ifr_mtu) + ", CAN-FD needs " +
                          std::to_string(CANFD_MTU) + ")");
        }
    }
    configure_socket();
    if (!bind_to_interface()) throw_for(interface_, errno, "cannot bind to it");
}

SocketCanLink::~SocketCanLink() = default;

void SocketCanLink::configure_socket() {
    if (options_.fd) {
        const int on = 1;
        if (::setsockopt(socket_.get(), SOL_CAN_RAW, CAN_RAW_FD_FRAMES, &on, sizeof on) < 0) {
            throw_for(interface_, errno, "cannot enable CAN-FD frames");
        }
    }
    if (!apply_filters()) throw_for(interface_, errno, "cannot set the receive filters");
    // Room for a burst of a few thousand frames while the receive thread is
    // busy (the default holds a few hundred): a flood on the bus must not push
    // the replies we wait for out of the socket. Beyond rmem_max only with
    // CAP_NET_ADMIN; the default stays when neither is allowed.
    const int receive_buffer = RECEIVE_BUFFER_BYTES;
    if (::setsockopt(socket_.get(), SOL_SOCKET, SO_RCVBUFFORCE, &receive_buffer, sizeof receive_buffer) < 0)
        ::setsockopt(socket_.get(), SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer);
    const can_err_mask_t errors = CAN_ERR_MASK;
    if (::setsockopt(socket_.get(), SOL_CAN_RAW, CAN_RAW_ERR_FILTER, &errors, sizeof errors) < 0) {
        throw_for(interface_, errno, "cannot enable error frames");
    }
}

bool SocketCanLink::apply_filters() {
    std::vector<can_filter> filters;
    for (const CanIdFilter& filter : options_.filters) {
        // Only extended data frames match: the flag bits are part of the mask.
        filters.push_back({(filter.id & CAN_EFF_MASK) | CAN_EFF_FLAG,
                           (filter.mask & CAN_EFF_MASK) | CAN_EFF_FLAG | CAN_RTR_FLAG});
    }
    if (filters.empty()) filters.push_back({0, 0});  // every frame
    return ::setsockopt(socket_.get(), SOL_CAN_RAW, CAN_RAW_FILTER, filters.data(),
                        static_cast<socklen_t>(filters.size() * sizeof(can_filter))) == 0;
}

// Binds (again) to the interface's current index: after the interface was
// removed and created anew, the socket is unbound and the index differs.
bool SocketCanLink::bind_to_interface() {
    ifreq request = request_for(interface_);
    if (::ioctl(socket_.get(), SIOCGIFINDEX, &request) < 0) return false;
    sockaddr_can address{};
    address.can_family = AF_CAN;
    address.can_ifindex = request.ifr_ifindex;
    bound_ = ::bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    return bound_;
}

bool SocketCanLink::interface_is_up() const {
    ifreq request = request_for(interface_);
    if (::ioctl(socket_.get(), SIOCGIFFLAGS, &request) < 0) return false;
    return (request.ifr_flags & IFF_UP) != 0;
}

CanLink::SendResult SocketCanLink::send_frame(const CanFrame& frame) {
    if ((frame.fd && !options_.fd) || !is_valid_frame_length(frame.len, frame.fd)) return SendResult::failed;
    canfd_frame raw{};
    raw.can_id = frame.extended ? ((frame.id & CAN_EFF_MASK) | CAN_EFF_FLAG) : (frame.id & CAN_SFF_MASK);
    raw.len = frame.len;
    if (frame.fd && (frame.brs || options_.bit_rate_switch)) raw.flags = CANFD_BRS;
    std::memcpy(raw.data, frame.data.data(), frame.len);
    const std::size_t size = frame.fd ? CANFD_MTU : CAN_MTU;  // a can_frame is a canfd_frame's prefix
    ssize_t written = ::send(socket_.get(), &raw, size, MSG_DONTWAIT);
    if (written < 0 && errno == ENETDOWN && interface_is_up()) {
        // The socket kept the error of an earlier down; the interface is up now.
        written = ::send(socket_.get(), &raw, size, MSG_DONTWAIT);
    }
    if (written == static_cast<ssize_t>(size)) return SendResult::sent;
    if (written < 0 && (errno == ENOBUFS || errno == EAGAIN)) return SendResult::busy;
    if (written < 0 && means_interface_down(errno)) state_ = CanLinkState::down;
    return SendResult::failed;
}

void SocketCanLink::wake() {
    const uint64_t one = 1;
    // Fails only when the counter is about to overflow: it is then readable anyway.
    [[maybe_unused]] const ssize_t written = ::write(wake_.get(), &one, sizeof one);
}

CanLinkEvent SocketCanLink::state_event(CanLinkState state) {
    state_ = state;
    reported_state_ = state;
    CanLinkEvent event;
    event.type = CanLinkEvent::Type::state;
    event.state = state;
    return event;
}

// Called while down: true once the interface is up (and bound) again. When
// the interface was removed, the kernel dropped the socket's binding and its
// filters with it; both are set again on the new interface.
bool SocketCanLink::try_recover() {
    if (!interface_is_up()) return false;
    return bound_ || (apply_filters() && bind_to_interface());
}

CanLinkEvent SocketCanLink::receive(std::chrono::nanoseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    while (true) {
        if (state_ != reported_state_) return state_event(state_);  // a send found the link down
        if (reported_state_ == CanLinkState::down && try_recover()) return state_event(CanLinkState::active);
        if (!batch_->empty()) {
            bool nothing_read = false;
            CanLinkEvent event = read_one(nothing_read);
            if (!nothing_read) return event;
            continue;
        }

        auto wait = std::max(std::chrono::nanoseconds(0), deadline - Clock::now());
        if (reported_state_ == CanLinkState::down) {
            wait = std::min<std::chrono::nanoseconds>(wait, options_.recovery_interval);
        }
        const timespec wait_time{static_cast<time_t>(wait.count() / 1000000000),
                                 static_cast<long>(wait.count() % 1000000000)};
        pollfd fds[2] = {{socket_.get(), POLLIN, 0}, {wake_.get(), POLLIN, 0}};
        const int ready = ::ppoll(fds, 2, &wait_time, nullptr);
        if (ready < 0 && errno != EINTR) return {};
        if (ready > 0 && (fds[1].revents & POLLIN)) {
            uint64_t count = 0;
            [[maybe_unused]] const ssize_t got = ::read(wake_.get(), &count, sizeof count);
            return {};
        }
        if (ready > 0 && fds[0].revents != 0) {
            bool nothing_read = false;
            CanLinkEvent event = read_one(nothing_read);
            if (!nothing_read) return event;
        }
        if (Clock::now() >= deadline) return {};
    }
}

// Reads what the socket holds, up to a batch, without waiting. False when
// nothing was read; `failed` then says the socket reported an error (in errno).
bool SocketCanLink::refill_batch(bool& failed) {
    Batch& batch = *batch_;
    const int got = ::recvmmsg(socket_.get(), batch.headers.data(), Batch::SIZE, MSG_DONTWAIT, nullptr);
    failed = got < 0;
    batch.next = 0;
    batch.count = got > 0 ? static_cast<std::size_t>(got) : 0;
    return got > 0;
}

// Hands out one frame, error frame or socket error, reading a new batch when
// the last one is used up. `nothing_read` is set when there was nothing to
// report (no data after all, an unwanted frame, an error frame that changes
// no state).
CanLinkEvent SocketCanLink::read_one(bool& nothing_read) {
    nothing_read = false;
    if (batch_->empty()) {
        bool failed = false;
        if (!refill_batch(failed)) {
            if (failed && means_interface_down(errno)) {
                if (errno != ENETDOWN) bound_ = false;  // removed: the kernel unbound the socket
                if (reported_state_ != CanLinkState::down) return state_event(CanLinkState::down);
            }
            nothing_read = true;
            return {};
        }
    }
    const std::size_t index = batch_->next++;
    const canfd_frame& raw = batch_->frames[index];
    const auto got = static_cast<ssize_t>(batch_->headers[index].msg_len);
    if (got != static_cast<ssize_t>(CAN_MTU) && got != static_cast<ssize_t>(CANFD_MTU)) {
        nothing_read = true;
        return {};
    }
    if (raw.can_id & CAN_ERR_FLAG) {
        ++error_frames_;
        CanLinkState state{};
        can_frame classic{};
        std::memcpy(&classic, &raw, sizeof classic);
        if (state_from_error_frame(classic, state) && state != reported_state_) return state_event(state);
        nothing_read = true;
        return {};
    }
    if (raw.can_id & CAN_RTR_FLAG) {  // remote frames carry no data for anyone here
        nothing_read = true;
        return {};
    }
    CanLinkEvent event;
    event.type = CanLinkEvent::Type::frame;
    event.frame.extended = (raw.can_id & CAN_EFF_FLAG) != 0;
    event.frame.id = raw.can_id & (event.frame.extended ? CAN_EFF_MASK : CAN_SFF_MASK);
    event.frame.fd = got == static_cast<ssize_t>(CANFD_MTU);
    event.frame.brs = event.frame.fd && (raw.flags & CANFD_BRS);
    event.frame.len = std::min<uint8_t>(raw.len, event.frame.fd ? CANFD_MAX_DLEN : CAN_MAX_DLEN);
    std::memcpy(event.frame.data.data(), raw.data, event.frame.len);
    return event;
}

}  // namespace ocp_api
