// SocketCanLink on the guest's kernel CAN stack, with can-utils as the
// independent peer. Runs inside the VM (tests/vm/run-in-vm.sh).
#include "ocp_api/socketcan_link.hpp"

#include <gtest/gtest.h>
#include <linux/can.h>
#include <linux/can/error.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <future>
#include <system_error>
#include <thread>

#include "vm/guest.hpp"

namespace {

using ocp_api::CanFrame;
using ocp_api::CanIdFilter;
using ocp_api::CanLink;
using ocp_api::CanLinkEvent;
using ocp_api::CanLinkState;
using ocp_api::SocketCanLink;
using ocp_api::SocketCanLinkOptions;
using namespace std::chrono_literals;

constexpr auto kGenerous = std::chrono::seconds(20);

CanFrame frame_of(uint32_t id, std::initializer_list<uint8_t> bytes, bool fd = false, bool brs = false) {
    CanFrame frame;
    frame.id = id;
    frame.fd = fd;
    frame.brs = brs;
    frame.len = static_cast<uint8_t>(bytes.size());
    std::copy(bytes.begin(), bytes.end(), frame.data.begin());
    return frame;
}

// The next event that is not Type::none, within a generous bound.
CanLinkEvent next_event(SocketCanLink& link) {
    const auto deadline = std::chrono::steady_clock::now() + kGenerous;
    while (std::chrono::steady_clock::now() < deadline) {
        CanLinkEvent event = link.receive(1s);
        if (event.type != CanLinkEvent::Type::none) return event;
    }
    return {};
}

// What `candump -L` prints for one frame: "IF ID#DATA" (without the time).
std::string candump_line(const std::string& interface, int count, const std::function<void()>& send) {
    const int before = ocp_vm::receivers_on(interface);
    ocp_vm::Child candump({"candump", "-L", "-n", std::to_string(count), "-T", "20000", interface});
    EXPECT_TRUE(ocp_vm::wait_for_receivers(interface, before + 1));
    send();
    std::string output = candump.finish();
    // Drop the "(seconds.micros) " time stamps.
    std::string lines;
    std::size_t start = 0;
    while (start < output.size()) {
        std::size_t end = output.find('\n', start);
        if (end == std::string::npos) end = output.size();
        const std::string line = output.substr(start, end - start);
        const std::size_t space = line.find(") ");
        lines += (space == std::string::npos ? line : line.substr(space + 2)) + "\n";
        start = end + 1;
    }
    return lines;
}

// A raw socket of the test's own, for frames SocketCanLink would never send
// (error frames).
class RawPeer {
public:
    explicit RawPeer(const std::string& interface) : fd_(::socket(PF_CAN, SOCK_RAW, CAN_RAW)) {
        ifreq request{};
        std::strncpy(request.ifr_name, interface.c_str(), IFNAMSIZ - 1);
        ::ioctl(fd_, SIOCGIFINDEX, &request);
        sockaddr_can address{};
        address.can_family = AF_CAN;
        address.can_ifindex = request.ifr_ifindex;
        EXPECT_EQ(::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    ~RawPeer() { ::close(fd_); }
    void send_error(canid_t error_class, uint8_t controller = 0) {
        can_frame frame{};
        frame.can_id = CAN_ERR_FLAG | error_class;
        frame.len = CAN_ERR_DLC;
        frame.data[1] = controller;
        EXPECT_EQ(::write(fd_, &frame, sizeof frame), static_cast<ssize_t>(sizeof frame));
    }

private:
    int fd_;
};

std::string open_error(const std::string& interface, SocketCanLinkOptions options = {}) {
    try {
        SocketCanLink link(interface, options);
    } catch (const std::system_error& error) {
        return error.what();
    }
    return "(opened)";
}

TEST(SocketCanLink, OpensClassicAndFdInterfaces) {
    SocketCanLink classic(ocp_vm::classic_interface());
    EXPECT_FALSE(classic.fd());
    EXPECT_EQ(classic.interface_name(), "vcan0");
    EXPECT_EQ(classic.state(), CanLinkState::active);
    SocketCanLink fd(ocp_vm::fd_interface(), {true, {}, 100ms});
    EXPECT_TRUE(fd.fd());
}

TEST(SocketCanLink, MissingInterfaceNamesItAndTheReason) {
    EXPECT_EQ(open_error("nosuch0"), "CAN interface nosuch0: not found: No such device");
    EXPECT_EQ(open_error("a-name-far-too-long-for-linux"),
              "CAN interface a-name-far-too-long-for-linux: not a valid interface name: Invalid argument");
    EXPECT_EQ(open_error("lo"), "CAN interface lo: not a CAN interface: Invalid argument");
}

TEST(SocketCanLink, InterfaceDownAtOpenIsRefused) {
    ocp_vm::add_vcan("vcandown0", 16);
    ocp_vm::set_interface_up("vcandown0", false);
    EXPECT_EQ(open_error("vcandown0"), "CAN interface vcandown0: the interface is down: Network is down");
    ocp_vm::remove_interface("vcandown0");
}

TEST(SocketCanLink, FdOnAClassicInterfaceIsRefused) {
    EXPECT_EQ(open_error(ocp_vm::classic_interface(), {true, {}, 100ms}),
              "CAN interface vcan0: cannot carry CAN-FD frames (MTU 16, CAN-FD needs 72): Protocol not supported");
}

TEST(SocketCanLink, SentClassicFramesAreWhatCandumpSees) {
    SocketCanLink link(ocp_vm::classic_interface());
    const std::string seen = candump_line("vcan0", 3, [&] {
        EXPECT_EQ(link.send_frame(frame_of(0x1ABCDE01, {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08})),
                  CanLink::SendResult::sent);
        EXPECT_EQ(link.send_frame(frame_of(0x00000021, {})), CanLink::SendResult::sent);
        CanFrame standard = frame_of(0x123, {0xAB});
        standard.extended = false;
        EXPECT_EQ(link.send_frame(standard), CanLink::SendResult::sent);
    });
    EXPECT_EQ(seen, "vcan0 1ABCDE01#0102030405060708\nvcan0 00000021#\nvcan0 123#AB\n");
}

TEST(SocketCanLink, SentFdFramesAreWhatCandumpSees) {
    SocketCanLink link(ocp_vm::fd_interface(), {true, {}, 100ms, false});  // BRS only where a frame asks
    CanFrame big = frame_of(0x00ABCDEF, {}, true, true);
    big.len = 64;
    for (uint8_t i = 0; i < 64; ++i) big.data[i] = i;
    const std::string seen = candump_line("vcanfd0", 3, [&] {
        EXPECT_EQ(link.send_frame(big), CanLink::SendResult::sent);
        EXPECT_EQ(link.send_frame(frame_of(0x1FFFFFFF, {0xAA, 0xBB, 0xCC}, true, false)), CanLink::SendResult::sent);
        EXPECT_EQ(link.send_frame(frame_of(0x10, {0x42})), CanLink::SendResult::sent);  // classic on FD
    });
    // can-utils prints the CAN-FD flags as one hex digit: BRS is 1, and
    // newer versions add the FD-frame bit 4.
    std::string expected_big = "vcanfd0 00ABCDEF##?" + ocp_vm::hex(big.data.data(), 64) + "\n";
    std::string expected_small = "vcanfd0 1FFFFFFF##?AABBCC\n";
    const std::size_t first_end = seen.find('\n');
    ASSERT_NE(first_end, std::string::npos);
    const std::string first = seen.substr(0, first_end + 1);
    const std::string rest = seen.substr(first_end + 1);
    const std::size_t flags = expected_big.find('?');  // the same column in both lines
    ASSERT_EQ(first.size(), expected_big.size());
    ASSERT_GT(rest.size(), flags);
    EXPECT_TRUE(first[flags] == '1' || first[flags] == '5') << first;
    EXPECT_TRUE(rest[flags] == '0' || rest[flags] == '4') << rest;
    expected_big[flags] = first[flags];
    expected_small[flags] = rest[flags];
    EXPECT_EQ(first, expected_big);
    EXPECT_EQ(rest, expected_small + "vcanfd0 00000010#42\n");
}

// By default every CAN-FD frame goes with the bit-rate switch, so a real
// interface sends its data at the data bit rate.
TEST(SocketCanLink, FdFramesSwitchTheBitRateByDefault) {
    SocketCanLink link(ocp_vm::fd_interface(), {true, {}, 100ms});
    const std::string seen = candump_line("vcanfd0", 1, [&] {
        EXPECT_EQ(link.send_frame(frame_of(0x1FFFFFFF, {0xAA, 0xBB, 0xCC}, true, false)), CanLink::SendResult::sent);
    });
    const std::size_t flags = std::string("vcanfd0 1FFFFFFF##").size();
    ASSERT_GT(seen.size(), flags);
    EXPECT_TRUE(seen[flags] == '1' || seen[flags] == '5') << seen;
}

TEST(SocketCanLink, FramesFromCansendArriveExactly) {
    SocketCanLink link(ocp_vm::fd_interface(), {true, {}, 100ms});
    ASSERT_EQ(ocp_vm::run({"cansend", "vcanfd0", "12345678#DEADBEEF"}), 0);
    CanLinkEvent event = next_event(link);
    ASSERT_EQ(event.type, CanLinkEvent::Type::frame);
    EXPECT_EQ(event.frame.id, 0x12345678u);
    EXPECT_TRUE(event.frame.extended);
    EXPECT_FALSE(event.frame.fd);
    ASSERT_EQ(event.frame.len, 4);
    EXPECT_EQ(ocp_vm::hex(event.frame.data.data(), 4), "DEADBEEF");

    ASSERT_EQ(ocp_vm::run({"cansend", "vcanfd0", "00000021##1" + std::string(24, 'A')}), 0);  // 12 bytes, BRS
    event = next_event(link);
    ASSERT_EQ(event.type, CanLinkEvent::Type::frame);
    EXPECT_EQ(event.frame.id, 0x21u);
    EXPECT_TRUE(event.frame.fd);
    EXPECT_TRUE(event.frame.brs);
    ASSERT_EQ(event.frame.len, 12);
    EXPECT_EQ(ocp_vm::hex(event.frame.data.data(), 12), std::string(24, 'A'));

    ASSERT_EQ(ocp_vm::run({"cansend", "vcanfd0", "7FF#01"}), 0);
    event = next_event(link);
    ASSERT_EQ(event.type, CanLinkEvent::Type::frame);
    EXPECT_EQ(event.frame.id, 0x7FFu);
    EXPECT_FALSE(event.frame.extended);
}

TEST(SocketCanLink, TwoLinksOnOneInterfaceHearEachOtherButNotThemselves) {
    SocketCanLink host(ocp_vm::classic_interface());
    SocketCanLink device(ocp_vm::classic_interface());
    ASSERT_EQ(host.send_frame(frame_of(0x100, {1, 2, 3})), CanLink::SendResult::sent);
    CanLinkEvent event = next_event(device);
    ASSERT_EQ(event.type, CanLinkEvent::Type::frame);
    EXPECT_EQ(event.frame.id, 0x100u);
    EXPECT_EQ(host.receive(50ms).type, CanLinkEvent::Type::none);  // its own frame does not come back
}

TEST(SocketCanLink, KernelFiltersPassOnlyTheAskedIdentifiers) {
    SocketCanLink link(ocp_vm::classic_interface(), {false, {{0x00100000, 0x1FF00000}}, 100ms});
    ASSERT_EQ(ocp_vm::run({"cansend", "vcan0", "00200001#01"}), 0);  // other upper bits
    ASSERT_EQ(ocp_vm::run({"cansend", "vcan0", "100#02"}), 0);       // standard identifier
    ASSERT_EQ(ocp_vm::run({"cansend", "vcan0", "00100001#R"}), 0);   // remote frame
    ASSERT_EQ(ocp_vm::run({"cansend", "vcan0", "001ABCDE#03"}), 0);  // matches
    CanLinkEvent event = next_event(link);
    ASSERT_EQ(event.type, CanLinkEvent::Type::frame);
    EXPECT_EQ(event.frame.id, 0x001ABCDEu);
    EXPECT_EQ(event.frame.data[0], 0x03);
    EXPECT_EQ(link.receive(50ms).type, CanLinkEvent::Type::none);
}

TEST(SocketCanLink, ErrorFramesBecomeStates) {
    SocketCanLink link(ocp_vm::classic_interface(), {false, {{0x00100000, 0x1FF00000}}, 100ms});
    RawPeer peer("vcan0");
    const auto expect_state = [&](CanLinkState state) {
        CanLinkEvent event = next_event(link);
        ASSERT_EQ(event.type, CanLinkEvent::Type::state);
        EXPECT_EQ(event.state, state);
        EXPECT_EQ(link.state(), state);
    };
    peer.send_error(CAN_ERR_CRTL, CAN_ERR_CRTL_TX_WARNING);
    expect_state(CanLinkState::error_warning);
    peer.send_error(CAN_ERR_CRTL, CAN_ERR_CRTL_RX_PASSIVE);
    expect_state(CanLinkState::error_passive);
    peer.send_error(CAN_ERR_PROT);  // a protocol error alone changes nothing
    peer.send_error(CAN_ERR_BUSOFF);
    expect_state(CanLinkState::bus_off);
    peer.send_error(CAN_ERR_RESTARTED);
    expect_state(CanLinkState::active);
    EXPECT_EQ(link.error_frames(), 5u);
}

TEST(SocketCanLink, WakeEndsAWaitingReceive) {
    SocketCanLink link(ocp_vm::classic_interface());
    link.wake();  // before: the next receive returns at once
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(link.receive(60s).type, CanLinkEvent::Type::none);
    auto waiting = std::async(std::launch::async, [&] { return link.receive(60s).type; });
    // Whether wake() lands before or during the wait, receive returns.
    link.wake();
    ASSERT_EQ(waiting.wait_for(kGenerous), std::future_status::ready);
    EXPECT_EQ(waiting.get(), CanLinkEvent::Type::none);
    EXPECT_LT(std::chrono::steady_clock::now() - start, kGenerous);
}

TEST(SocketCanLink, InvalidFramesAreNotSent) {
    SocketCanLink classic(ocp_vm::classic_interface());
    EXPECT_EQ(classic.send_frame(frame_of(0x1, {}, true)), CanLink::SendResult::failed);  // FD on a classic link
    CanFrame nine = frame_of(0x1, {});
    nine.len = 9;
    EXPECT_EQ(classic.send_frame(nine), CanLink::SendResult::failed);
    SocketCanLink fd(ocp_vm::fd_interface(), {true, {}, 100ms});
    CanFrame thirteen = frame_of(0x1, {}, true);
    thirteen.len = 13;
    EXPECT_EQ(fd.send_frame(thirteen), CanLink::SendResult::failed);
    CanFrame classic_twelve = frame_of(0x1, {});
    classic_twelve.len = 12;
    EXPECT_EQ(fd.send_frame(classic_twelve), CanLink::SendResult::failed);
}

TEST(SocketCanLink, InterfaceDownAndUpWhileOpen) {
    ocp_vm::add_vcan("vcanflap0", 72);
    SocketCanLink link("vcanflap0", {true, {}, 20ms});
    SocketCanLink peer("vcanflap0", {true, {}, 20ms});

    ocp_vm::set_interface_up("vcanflap0", false);
    CanLinkEvent event = next_event(link);
    ASSERT_EQ(event.type, CanLinkEvent::Type::state);
    EXPECT_EQ(event.state, CanLinkState::down);
    EXPECT_EQ(link.send_frame(frame_of(0x5, {1})), CanLink::SendResult::failed);
    EXPECT_EQ(link.receive(30ms).type, CanLinkEvent::Type::none);  // still down, no repeat

    ocp_vm::set_interface_up("vcanflap0", true);
    event = next_event(link);
    ASSERT_EQ(event.type, CanLinkEvent::Type::state);
    EXPECT_EQ(event.state, CanLinkState::active);
    ASSERT_EQ(peer.send_frame(frame_of(0x6, {2})), CanLink::SendResult::sent);
    event = next_event(link);
    ASSERT_EQ(event.type, CanLinkEvent::Type::frame);
    EXPECT_EQ(event.frame.id, 0x6u);
    EXPECT_EQ(link.send_frame(frame_of(0x7, {3})), CanLink::SendResult::sent);
    ocp_vm::remove_interface("vcanflap0");
}

TEST(SocketCanLink, InterfaceRemovedAndCreatedAgain) {
    ocp_vm::add_vcan("vcangone0", 16);
    SocketCanLink link("vcangone0", {false, {}, 20ms});
    ocp_vm::remove_interface("vcangone0");
    CanLinkEvent event = next_event(link);
    ASSERT_EQ(event.type, CanLinkEvent::Type::state);
    EXPECT_EQ(event.state, CanLinkState::down);
    EXPECT_EQ(link.send_frame(frame_of(0x5, {1})), CanLink::SendResult::failed);

    ocp_vm::add_vcan("vcangone0", 16);
    event = next_event(link);
    ASSERT_EQ(event.type, CanLinkEvent::Type::state);
    EXPECT_EQ(event.state, CanLinkState::active);
    SocketCanLink peer("vcangone0");
    ASSERT_EQ(peer.send_frame(frame_of(0x6, {2})), CanLink::SendResult::sent);
    event = next_event(link);
    ASSERT_EQ(event.type, CanLinkEvent::Type::frame);
    EXPECT_EQ(event.frame.id, 0x6u);
    EXPECT_EQ(link.send_frame(frame_of(0x7, {3})), CanLink::SendResult::sent);
    ocp_vm::remove_interface("vcangone0");
}

TEST(SocketCanLink, SendsFromManyThreadsAllArrive) {
    SocketCanLink sender(ocp_vm::classic_interface());
    SocketCanLink receiver(ocp_vm::classic_interface());
    constexpr int kThreads = 4;
    constexpr int kEach = 25;  // within the receiver's socket buffer
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kEach; ++i) {
                const CanFrame frame = frame_of(static_cast<uint32_t>(0x1000 + t), {static_cast<uint8_t>(i)});
                while (sender.send_frame(frame) == CanLink::SendResult::busy) std::this_thread::yield();
            }
        });
    }
    int received = 0;
    const auto deadline = std::chrono::steady_clock::now() + kGenerous;
    while (received < kThreads * kEach && std::chrono::steady_clock::now() < deadline) {
        if (receiver.receive(1s).type == CanLinkEvent::Type::frame) ++received;
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(received, kThreads * kEach);
}

}  // namespace
