// SocketCanBus on the guest's kernel CAN stack, end to end: the driver and
// scanner against emulated devices answering from a second socket on the same
// interface, the kernel's own ISO-TP as an independent peer in both
// directions, and bad traffic. Every test runs on classic CAN and on CAN-FD.
// Runs inside the VM (tests/vm/run-in-vm.sh).
#include <gtest/gtest.h>
#include <linux/can.h>
#include <linux/can/isotp.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <map>
#include <mutex>
#include <random>
#include <thread>

#include "ocp_api/bus_factory.hpp"
#include "ocp_api/can_device_host.hpp"
#include "ocp_api/can_mapping.hpp"
#include "ocp_api/orrery_actuator.hpp"
#include "ocp_api/socketcan_bus.hpp"
#include "ocp_api/socketcan_link.hpp"
#include "ocp_api/version.hpp"
#include "support/eventually.hpp"
#include "support/bus_expectations.hpp"
#include "support/stream_capture.hpp"
#include "vm/guest.hpp"

namespace {

using namespace ocp_api;
using namespace std::chrono_literals;
using ocp_test::eventually;
using ocp_test::StreamCapture;
using Items = OrreryActuator::OCP_Items;
using P = OrreryActuator::OCP_Parameters;

constexpr int kDevice = 0x21;

struct Medium {
    bool fd;
    std::string interface() const { return fd ? ocp_vm::fd_interface() : ocp_vm::classic_interface(); }
};

std::string medium_name(const testing::TestParamInfo<Medium>& info) { return info.param.fd ? "CanFd" : "Classic"; }

std::unique_ptr<CanLink> device_link_on(const std::string& interface, bool fd) {
    SocketCanLinkOptions link;
    link.fd = fd;
    link.filters = {mapped_frames_filter(can::Direction::to_device)};
    return std::make_unique<SocketCanLink>(interface, link);
}

std::unique_ptr<CanDeviceHost> device_host_on(const std::string& interface, bool fd) {
    CanDeviceHostOptions options;
    options.isotp.fd = fd;
    return std::make_unique<CanDeviceHost>(device_link_on(interface, fd), options);
}

std::vector<uint8_t> pattern(std::size_t size, unsigned seed) {
    std::vector<uint8_t> bytes(size);
    for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>((i * 7 + seed) & 0xFF);
    return bytes;
}

// A kernel CAN_ISOTP socket with normal addressing on extended identifiers.
class KernelIsoTp {
public:
    KernelIsoTp(const std::string& interface, uint32_t tx_id, uint32_t rx_id, bool fd, uint8_t block_size = 0,
                uint8_t st_min = 0)
        : fd_(::socket(PF_CAN, SOCK_DGRAM, CAN_ISOTP)) {
        EXPECT_GE(fd_, 0) << std::strerror(errno);
        can_isotp_fc_options flow{block_size, st_min, 0};
        EXPECT_EQ(::setsockopt(fd_, SOL_CAN_ISOTP, CAN_ISOTP_RECV_FC, &flow, sizeof flow), 0);
        if (fd) {
            can_isotp_ll_options link{CANFD_MTU, 64, 0};
            EXPECT_EQ(::setsockopt(fd_, SOL_CAN_ISOTP, CAN_ISOTP_LL_OPTS, &link, sizeof link), 0);
        }
        sockaddr_can address{};
        address.can_family = AF_CAN;
        address.can_ifindex = static_cast<int>(if_nametoindex(interface.c_str()));
        address.can_addr.tp.tx_id = tx_id | CAN_EFF_FLAG;
        address.can_addr.tp.rx_id = rx_id | CAN_EFF_FLAG;
        EXPECT_EQ(::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << std::strerror(errno);
    }
    ~KernelIsoTp() { ::close(fd_); }
    KernelIsoTp(const KernelIsoTp&) = delete;
    KernelIsoTp& operator=(const KernelIsoTp&) = delete;

    // The next whole message, or an empty vector after 20 s.
    std::vector<uint8_t> receive() {
        pollfd p{fd_, POLLIN, 0};
        if (::poll(&p, 1, 20000) != 1) return {};
        std::vector<uint8_t> bytes(8192);
        const ssize_t got = ::read(fd_, bytes.data(), bytes.size());
        bytes.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
        return bytes;
    }
    bool send(const std::vector<uint8_t>& bytes) {
        return ::write(fd_, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
    }

private:
    int fd_;
};

// A raw socket that sees every frame on the interface, with the kernel's
// time stamps of their arrival.
class Sniffer {
public:
    struct Seen {
        uint32_t id;
        uint8_t first_byte;
        std::chrono::microseconds at;
    };
    explicit Sniffer(const std::string& interface) : fd_(::socket(PF_CAN, SOCK_RAW, CAN_RAW)) {
        const int on = 1;
        EXPECT_EQ(::setsockopt(fd_, SOL_CAN_RAW, CAN_RAW_FD_FRAMES, &on, sizeof on), 0);
        EXPECT_EQ(::setsockopt(fd_, SOL_SOCKET, SO_TIMESTAMP, &on, sizeof on), 0);
        sockaddr_can address{};
        address.can_family = AF_CAN;
        address.can_ifindex = static_cast<int>(if_nametoindex(interface.c_str()));
        EXPECT_EQ(::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    ~Sniffer() { ::close(fd_); }
    Sniffer(const Sniffer&) = delete;
    Sniffer& operator=(const Sniffer&) = delete;

    // Every frame until none arrived for 1 s.
    std::vector<Seen> collect() {
        std::vector<Seen> seen;
        while (true) {
            pollfd p{fd_, POLLIN, 0};
            if (::poll(&p, 1, 1000) != 1) return seen;
            canfd_frame frame{};
            iovec io{&frame, sizeof frame};
            alignas(cmsghdr) char control[CMSG_SPACE(sizeof(timeval))];
            msghdr message{};
            message.msg_iov = &io;
            message.msg_iovlen = 1;
            message.msg_control = control;
            message.msg_controllen = sizeof control;
            if (::recvmsg(fd_, &message, 0) <= 0) return seen;
            timeval stamp{};
            for (cmsghdr* c = CMSG_FIRSTHDR(&message); c; c = CMSG_NXTHDR(&message, c)) {
                if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SO_TIMESTAMP) std::memcpy(&stamp, CMSG_DATA(c), sizeof stamp);
            }
            seen.push_back({frame.can_id & CAN_EFF_MASK, frame.data[0],
                            std::chrono::seconds(stamp.tv_sec) + std::chrono::microseconds(stamp.tv_usec)});
        }
    }

private:
    int fd_;
};

class SocketCanIntegration : public testing::TestWithParam<Medium> {
protected:
    std::unique_ptr<SocketCanBus> open_bus_here(CanBusOptions bus_options = {}) {
        SocketCanBusOptions options;
        options.fd = GetParam().fd;
        options.bus = bus_options;
        return std::make_unique<SocketCanBus>(GetParam().interface(), options);
    }
};

TEST_P(SocketCanIntegration, ConnectAndScanFindExactlyTheEmulatedDevices) {
    CanDeviceHostOptions device_options;
    device_options.isotp.fd = GetParam().fd;
    device_options.reply_latency = ocp_test::SCAN_REPLY_LATENCY;
    auto devices = std::make_unique<CanDeviceHost>(
        device_link_on(GetParam().interface(), GetParam().fd), device_options);
    devices->add_actuator(0x21, 3, 0x0842);
    devices->add_actuator(0x23, 6, 0x0843);
    auto bus = open_bus_here();
    {
        OrreryActuator joint(*bus, 0x21);  // gone before the scan: one driver per address
        ASSERT_TRUE(joint.connect(5.0f));
        EXPECT_EQ(joint.get_model_name(), "HERON_A");
        EXPECT_EQ(joint.get_firmware_version(), "1.1.2");
    }

    ocp_test::expect_scan_finds_0x21_and_0x23(*bus);
}

TEST_P(SocketCanIntegration, FeedbackAtOneKilohertzForOneSecond) {
    auto devices = device_host_on(GetParam().interface(), GetParam().fd);
    devices->add_actuator(kDevice);
    auto bus = open_bus_here();
    OrreryActuator joint(*bus, kDevice);
    ASSERT_TRUE(joint.connect(5.0f));
    std::atomic<int> callbacks{0};
    std::atomic<int> wrong_items{0};
    joint.set_feedback_callback([&](int, OrreryActuator::FeedbackMap items) {
        callbacks.fetch_add(1);
        if (items.size() != 2 || !items.count(Items::POS_FB_4C) || !items.count(Items::T_FB_56)) wrong_items.fetch_add(1);
    });
    joint.setFeedbackItems({Items::POS_FB_4C, Items::T_FB_56});
    const auto replies_before = devices->counters().replies_out;
    joint.setFeedbackRate(1000);
    const auto start = std::chrono::steady_clock::now();
    std::this_thread::sleep_until(start + 1s);  // the duration under test, not a wait for a result
    joint.setFeedbackRate(0);
    // Every streamed reply the devices sent reaches the callback: none lost on the way.
    ASSERT_TRUE(eventually([&] {
        const auto host = bus->counters();
        return host.messages_in >= devices->counters().replies_out - replies_before;
    }));
    const int streamed = callbacks.load();
    EXPECT_EQ(wrong_items.load(), 0);
    // The emulated device follows the wall clock: about 1000 in one second
    // (the rate change travels both ways, so a few more or less).
    EXPECT_GE(streamed, 900);
    EXPECT_LE(streamed, 1100);
    EXPECT_EQ(bus->counters().segmentation_errors, 0u);
    EXPECT_EQ(bus->counters().drops, 0u);
}

TEST_P(SocketCanIntegration, RequestedItemsAndAllParameters) {
    auto devices = device_host_on(GetParam().interface(), GetParam().fd);
    devices->add_actuator(kDevice);
    auto bus = open_bus_here();
    OrreryActuator joint(*bus, kDevice);
    const auto items = joint.getItemsBlocking({Items::VBUS_70, Items::ERRORS_90, Items::TEMP_WINDING_72}, 5.0f);
    EXPECT_EQ(items, (OrreryActuator::FeedbackMap{
                         {Items::VBUS_70, 48.0f}, {Items::ERRORS_90, 0.0f}, {Items::TEMP_WINDING_72, 25.0f}}));
    const auto frames_before = bus->counters().frames_in;
    const auto messages_before = bus->counters().messages_in;
    const auto all = joint.get_parameters_all();
    ASSERT_EQ(all.size(), 31u);
    EXPECT_EQ(all.at(P::DEVICE_80), 20000.0f);
    EXPECT_EQ(all.at(P::ADDRESS), 33.0f);
    EXPECT_EQ(all.at(P::MODE), 6.0f);
    EXPECT_EQ(all.at(P::LIMIT_TORQUE), 10.0f);
    const auto frames = bus->counters().frames_in - frames_before;
    const auto messages = bus->counters().messages_in - messages_before;
    if (!GetParam().fd) {
        EXPECT_GT(frames, messages) << "the parameter replies need several classic frames";
    }

    joint.set_parameters({{P::LIMIT_TORQUE, 2.5f}});
    EXPECT_EQ(joint.get_parameters({P::LIMIT_TORQUE}, 5.0f).at(P::LIMIT_TORQUE), 2.5f);
}

TEST_P(SocketCanIntegration, AnErrorRecordReachesTheDefaultErrorCallback) {
    auto devices = device_host_on(GetParam().interface(), GetParam().fd);
    devices->add_actuator(0x21);
    auto bus = open_bus_here();
    ocp_test::expect_injected_error_stops_0x21(*bus, *devices);
}

// Our segmentation against the kernel's, host to device: every size from the
// single-frame limits to the longest message, including every sequence wrap.
TEST_P(SocketCanIntegration, CommandsArriveByteForByteAtAKernelIsoTpSocket) {
    auto bus = open_bus_here();
    KernelIsoTp device(GetParam().interface(), can::device_to_host_id(kDevice, 0), can::host_to_device_id(kDevice),
                       GetParam().fd);
    for (const std::size_t size : {1, 6, 7, 8, 9, 61, 62, 63, 64, 100, 1000, 4094, 4095}) {
        const auto message = pattern(size, static_cast<unsigned>(size));
        ASSERT_TRUE(bus->send(kDevice, message)) << size;
        EXPECT_EQ(device.receive(), message) << size << " bytes";
    }
    EXPECT_EQ(bus->counters().drops, 0u);
}

// ... and device to host, both kinds, the kernel not padding its frames.
TEST_P(SocketCanIntegration, MessagesFromAKernelIsoTpSocketArriveWholeWithTheirKind) {
    auto bus = open_bus_here();
    std::mutex mutex;
    std::vector<std::pair<int, std::vector<uint8_t>>> received;
    bus->setCallback(kDevice, [&](int, std::vector<uint8_t> bytes, int kind) {
        std::lock_guard<std::mutex> lock(mutex);
        received.emplace_back(kind, std::move(bytes));
    });
    KernelIsoTp streamed(GetParam().interface(), can::device_to_host_id(kDevice, 0), can::host_to_device_id(kDevice),
                         GetParam().fd);
    KernelIsoTp answers(GetParam().interface(), can::device_to_host_id(kDevice, 1), can::host_to_device_id(kDevice),
                        GetParam().fd);
    std::vector<std::pair<int, std::vector<uint8_t>>> sent;
    for (const std::size_t size : {1, 7, 8, 62, 63, 300, 4095}) {
        for (const int kind : {0, 1}) {
            sent.emplace_back(kind, pattern(size, static_cast<unsigned>(size + kind)));
            ASSERT_TRUE((kind == 0 ? streamed : answers).send(sent.back().second)) << size;
            ASSERT_TRUE(eventually([&] {
                std::lock_guard<std::mutex> lock(mutex);
                return received.size() == sent.size();
            }));
        }
    }
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(received, sent);
}

// A kernel receiver asking for blocks of 4 and 10 ms between frames: our
// sender waits for each flow control and keeps the gaps.
TEST_P(SocketCanIntegration, BlockSizeAndSeparationTimeOfThePeerAreHonoured) {
    Sniffer sniffer(GetParam().interface());
    // The kernel turns receive time stamps on a moment after they are asked
    // for; a child process run to its end lets that happen first.
    ASSERT_EQ(ocp_vm::run({"cansend", GetParam().interface(), "7FF#00"}), 0);
    auto bus = open_bus_here();
    KernelIsoTp device(GetParam().interface(), can::device_to_host_id(kDevice, 0), can::host_to_device_id(kDevice),
                       GetParam().fd, 4, 10);
    const std::size_t size = GetParam().fd ? 1000 : 200;
    const auto message = pattern(size, 3);
    ASSERT_TRUE(bus->send(kDevice, message));
    EXPECT_EQ(device.receive(), message);
    std::vector<std::chrono::microseconds> consecutive;
    int flow_controls = 0;
    for (const auto& s : sniffer.collect()) {
        if (s.id == can::host_to_device_id(kDevice) && (s.first_byte >> 4) == 2) consecutive.push_back(s.at);
        if (s.id == can::device_to_host_id(kDevice, 0) && (s.first_byte >> 4) == 3) ++flow_controls;
    }
    // Classic: 6 bytes in the first frame, 7 per consecutive frame; CAN-FD
    // (64-byte frames, 12-bit length): 62, then 63 per frame.
    const std::size_t expected_cfs = GetParam().fd ? (size - 62 + 62) / 63 : (size - 6 + 6) / 7;
    ASSERT_EQ(consecutive.size(), expected_cfs);
    EXPECT_EQ(flow_controls, static_cast<int>((expected_cfs + 3) / 4));
    // Within each block of 4 (the first frame of a block follows the flow
    // control at once, as the kernel's own sender does). The time stamps are
    // the kernel's, taken when each frame was sent; the sender reads its clock
    // just before sending, so a single gap may come out short by the guest's
    // scheduling delay, but never their sum.
    std::chrono::microseconds within_blocks{0};
    int gaps = 0;
    for (std::size_t i = 1; i < consecutive.size(); ++i) {
        if (i % 4 == 0) continue;
        const auto gap = consecutive[i] - consecutive[i - 1];
        EXPECT_GE(gap.count(), 7000) << "gap before consecutive frame " << i;
        within_blocks += gap;
        ++gaps;
    }
    EXPECT_GE(within_blocks.count(), gaps * 10000);
}

// What our receiver asks for in its flow control reaches the kernel sender,
// and candump shows the documented frames.
TEST_P(SocketCanIntegration, OurFlowControlAndFramesAsCandumpShowsThem) {
    CanBusOptions options;
    options.isotp.block_size = 8;
    options.isotp.st_min = 2;
    auto bus = open_bus_here(options);
    std::atomic<int> messages{0};
    bus->setCallback(kDevice, [&](int, std::vector<uint8_t>, int) { messages.fetch_add(1); });
    KernelIsoTp device(GetParam().interface(), can::device_to_host_id(kDevice, 1), can::host_to_device_id(kDevice),
                       GetParam().fd);
    const std::string interface = GetParam().interface();
    const int before = ocp_vm::receivers_on(interface);
    const int frames = GetParam().fd ? 2 : 4;
    ocp_vm::Child candump({"candump", "-L", "-n", std::to_string(frames), "-T", "20000", interface});
    ASSERT_TRUE(ocp_vm::wait_for_receivers(interface, before + 1));
    // 10 bytes from the device (first frame, our flow control, one
    // consecutive frame on classic CAN; one frame on CAN-FD), then a 1-byte
    // command from us.
    ASSERT_TRUE(device.send(pattern(10, 0)));
    ASSERT_TRUE(eventually([&] { return messages.load() == 1; }));
    ASSERT_TRUE(bus->send(kDevice, {0x42}));
    std::string output = candump.finish();
    std::vector<std::string> lines;
    std::size_t start = 0;
    while (start < output.size()) {
        std::size_t end = output.find('\n', start);
        if (end == std::string::npos) end = output.size();
        const std::string line = output.substr(start, end - start);
        lines.push_back(line.substr(line.find(") ") + 2));
        start = end + 1;
    }
    if (GetParam().fd) {
        // candump's flag digit after "##" differs between can-utils versions
        // (with or without the FD bit), so the lines are checked around it.
        ASSERT_EQ(lines.size(), 2u);
        EXPECT_EQ(lines[0].substr(0, 18), "vcanfd0 00D0C021##");  // the kernel's single frame
        EXPECT_EQ(lines[0].substr(19, 24), "000A00070E151C232A31383F");
        EXPECT_EQ(lines[1].substr(0, 18), "vcanfd0 00D00021##");  // our command, padded
        EXPECT_EQ(lines[1].substr(19), "0142CCCCCCCCCCCC");
        return;
    }
    EXPECT_EQ(lines, (std::vector<std::string>{
                         "vcan0 00D0C021#100A00070E151C23",  // the kernel's first frame: 10 bytes
                         "vcan0 00D00021#300802CCCCCCCCCC",  // our flow control: BS 8, STmin 2 ms, padded
                         "vcan0 00D0C021#212A31383F",        // the kernel's consecutive frame, unpadded
                         "vcan0 00D00021#0142CCCCCCCCCCCC",  // our single-frame command, padded
                     }));
}

TEST_P(SocketCanIntegration, ALostConsecutiveFrameDropsTheMessageAndIsCounted) {
    auto bus = open_bus_here();
    std::atomic<int> messages{0};
    std::vector<uint8_t> last;
    std::mutex mutex;
    bus->setCallback(kDevice, [&](int, std::vector<uint8_t> bytes, int) {
        std::lock_guard<std::mutex> lock(mutex);
        last = std::move(bytes);
        messages.fetch_add(1);
    });
    SocketCanLinkOptions raw_options;
    raw_options.fd = GetParam().fd;
    SocketCanLink device(GetParam().interface(), raw_options);  // plays a device frame by frame
    const bool fd = GetParam().fd;
    const uint8_t frame_length = fd ? 64 : 8;
    const auto frame = [&](std::initializer_list<uint8_t> head) {
        CanFrame f;
        f.id = can::device_to_host_id(kDevice, 1);
        f.fd = fd;
        f.len = frame_length;
        std::fill(f.data.begin(), f.data.end(), 0x55);
        std::copy(head.begin(), head.end(), f.data.begin());
        return f;
    };
    // A message longer than one frame holds: its first frame, then
    // consecutive frame 2 where 1 belongs.
    const uint8_t size = fd ? 100 : 20;
    ASSERT_EQ(device.send_frame(frame({0x10, size})), CanLink::SendResult::sent);
    ASSERT_EQ(device.receive(5s).type, CanLinkEvent::Type::frame);  // the host's flow control
    ASSERT_EQ(device.send_frame(frame({0x22})), CanLink::SendResult::sent);
    ASSERT_TRUE(eventually([&] { return bus->counters().segmentation_errors >= 1; }));
    // A whole message afterwards still arrives.
    CanFrame single = frame({0x03, 0xA1, 0xA2, 0xA3});
    single.len = 8;
    ASSERT_EQ(device.send_frame(single), CanLink::SendResult::sent);
    ASSERT_TRUE(eventually([&] { return messages.load() == 1; }));
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(last, (std::vector<uint8_t>{0xA1, 0xA2, 0xA3}));
    EXPECT_EQ(bus->counters().segmentation_errors, 1u);
    EXPECT_EQ(bus->counters().drops, 1u);
}

// A raw socket playing a device that receives segmented setpoints: it sees
// the frames of commands in the order they reach the wire.
class RawDevice {
public:
    explicit RawDevice(const Medium& medium) : fd_(medium.fd) {
        SocketCanLinkOptions options;
        options.fd = medium.fd;
        link_ = std::make_unique<SocketCanLink>(medium.interface(), options);
    }
    // The next command frame for kDevice, or an empty frame after 10 s.
    CanFrame next_command() {
        for (;;) {
            const CanLinkEvent event = link_->receive(10s);
            if (event.type != CanLinkEvent::Type::frame) return {};
            if (event.frame.id == can::host_to_device_id(kDevice)) return event.frame;
        }
    }
    void flow_control(uint8_t status) {
        CanFrame frame;
        frame.id = can::device_to_host_id(kDevice, 0);
        frame.fd = fd_;
        frame.len = 8;
        std::fill(frame.data.begin(), frame.data.begin() + 8, 0xCC);
        frame.data[0] = static_cast<uint8_t>(0x30 | status);
        frame.data[1] = 0;
        frame.data[2] = 0;
        ASSERT_EQ(link_->send_frame(frame), CanLink::SendResult::sent);
    }

private:
    bool fd_;
    std::unique_ptr<SocketCanLink> link_;
};

// A setpoint too long for one frame: on CAN-FD padded out beyond 62 bytes
// (the device side here never reads it).
std::vector<uint8_t> segmented_setpoint(bool fd, int value) {
    std::vector<uint8_t> bytes{0x13};
    for (int i = 0; i < 6; ++i) append_float(bytes, static_cast<float>(value));
    if (fd) bytes.resize(100, 0);
    return bytes;
}

bool is_stop(const CanFrame& frame) { return frame.len >= 2 && frame.data[0] == 0x01 && frame.data[1] == 0x02; }
bool is_first_frame(const CanFrame& frame) { return frame.len >= 2 && (frame.data[0] >> 4) == 0x1; }

class StopOnSocketCan : public SocketCanIntegration {
protected:
    void queue_thousand(SocketCanBus& bus) {
        for (int i = 0; i < 1000; ++i) ASSERT_TRUE(bus.send(kDevice, segmented_setpoint(GetParam().fd, i)));
    }
};

TEST_P(StopOnSocketCan, OvertakesAThousandSegmentedSetpointsToADeviceThatNeverAnswers) {
    RawDevice device(GetParam());
    auto bus = open_bus_here();
    queue_thousand(*bus);
    ASSERT_TRUE(bus->send(kDevice, {0x02}));
    EXPECT_TRUE(is_first_frame(device.next_command()));
    EXPECT_TRUE(is_stop(device.next_command())) << "the STOP is the next frame on the wire";
    EXPECT_EQ(bus->counters().superseded, 998u);
}

TEST_P(StopOnSocketCan, OvertakesSetpointsHeldByFlowControlWait) {
    RawDevice device(GetParam());
    auto bus = open_bus_here();
    queue_thousand(*bus);
    EXPECT_TRUE(is_first_frame(device.next_command()));
    device.flow_control(1);  // wait
    ASSERT_TRUE(bus->send(kDevice, {0x02}));
    EXPECT_TRUE(is_stop(device.next_command()));
}

TEST_P(StopOnSocketCan, AfterSilenceTheDeviceGetsTheLatestSetpointThenTheStop) {
    RawDevice device(GetParam());
    auto bus = open_bus_here();
    queue_thousand(*bus);
    EXPECT_TRUE(is_first_frame(device.next_command()));
    device.flow_control(0);  // continue: setpoint 0 finishes, then the latest starts
    CanFrame frame = device.next_command();
    while (!is_first_frame(frame) && frame.len > 0) frame = device.next_command();
    ASSERT_TRUE(is_first_frame(frame));
    const std::vector<uint8_t> latest = segmented_setpoint(GetParam().fd, 999);
    EXPECT_TRUE(std::equal(latest.begin(), latest.begin() + 4, frame.data.begin() + 2)) << "setpoint 999, not 1";
    ASSERT_TRUE(bus->send(kDevice, {0x02}));
    EXPECT_TRUE(is_stop(device.next_command()));
    EXPECT_EQ(bus->counters().superseded, 998u);
}

INSTANTIATE_TEST_SUITE_P(Vcan, StopOnSocketCan, testing::Values(Medium{false}, Medium{true}), medium_name);

TEST_P(SocketCanIntegration, UnrelatedTrafficNeverReachesTheTransport) {
    auto devices = device_host_on(GetParam().interface(), GetParam().fd);
    devices->add_actuator(kDevice);
    auto bus = open_bus_here();
    OrreryActuator joint(*bus, kDevice);
    ASSERT_TRUE(joint.connect(5.0f));
    const auto before = bus->counters();
    // Standard identifiers, other tags and commands to devices: the kernel
    // filter keeps them all away from the host side.
    for (const char* frame : {"123#0102", "1FFFFFFF#00", "00D10021#0101", "00D00030#0155"}) {
        ASSERT_EQ(ocp_vm::run({"cansend", GetParam().interface(), frame}), 0) << frame;
    }
    ASSERT_TRUE(joint.send_ping(5.0f));
    const auto after = bus->counters();
    EXPECT_EQ(after.foreign_frames, before.foreign_frames);
    EXPECT_EQ(after.segmentation_errors, 0u);
}

TEST_P(SocketCanIntegration, RandomFramesOnOurIdentifiersAreCountedAndHarmless) {
    auto devices = device_host_on(GetParam().interface(), GetParam().fd);
    devices->add_actuator(kDevice);
    auto bus = open_bus_here();
    std::atomic<int> callbacks{0};
    bus->setCallback(0x30, [&](int, std::vector<uint8_t>, int) { callbacks.fetch_add(1); });
    SocketCanLinkOptions raw_options;
    raw_options.fd = GetParam().fd;
    SocketCanLink noise(GetParam().interface(), raw_options);
    std::mt19937 random(42);
    constexpr int kFrames = 3000;
    const auto frames_before = bus->counters().frames_in;
    for (int i = 0; i < kFrames; ++i) {
        CanFrame frame;
        frame.id = can::device_to_host_id(0x30, static_cast<int>(random() % 2));
        frame.fd = GetParam().fd && (random() % 2);
        frame.len = static_cast<uint8_t>(random() % 9);
        for (auto& byte : frame.data) byte = static_cast<uint8_t>(random());
        // Mostly protocol frames with nonsense in them.
        frame.data[0] = static_cast<uint8_t>((random() % 5) << 4 | (frame.data[0] & 0x0F));
        while (noise.send_frame(frame) == CanLink::SendResult::busy) std::this_thread::yield();
        // In bursts the transport's socket buffer can hold: every frame must be counted.
        if (i % 100 == 99) {
            ASSERT_TRUE(eventually([&] { return bus->counters().frames_in - frames_before >= uint64_t(i + 1); }));
        }
    }
    ASSERT_TRUE(eventually([&] { return bus->counters().frames_in - frames_before >= kFrames; }));
    const auto counters = bus->counters();
    EXPECT_EQ(counters.frames_in - frames_before, static_cast<uint64_t>(kFrames));
    EXPECT_GT(counters.segmentation_errors, 0u);
    // Still working afterwards.
    OrreryActuator joint(*bus, kDevice);
    EXPECT_TRUE(joint.connect(5.0f));
}

TEST_P(SocketCanIntegration, OpenBusGivesTheSameTransport) {
    auto devices = device_host_on(GetParam().interface(), GetParam().fd);
    devices->add_actuator(kDevice);
    auto bus = open_bus("socketcan:" + GetParam().interface() + (GetParam().fd ? ",fd" : ""));
    auto* socketcan = dynamic_cast<SocketCanBus*>(bus.get());
    ASSERT_NE(socketcan, nullptr);
    EXPECT_EQ(socketcan->fd(), GetParam().fd);
    EXPECT_EQ(socketcan->interface_name(), GetParam().interface());
    OrreryActuator joint(*bus, kDevice);
    EXPECT_TRUE(joint.connect(5.0f));
}

INSTANTIATE_TEST_SUITE_P(Vcan, SocketCanIntegration, testing::Values(Medium{false}, Medium{true}), medium_name);

TEST(SocketCanBusIntegration, InterfaceDownAndUpWhileRunning) {
    ocp_vm::add_vcan("vcanbus0", 16);
    auto devices = device_host_on("vcanbus0", false);
    devices->add_actuator(kDevice);
    SocketCanBusOptions options;
    options.recovery_interval = 20ms;
    SocketCanBus bus("vcanbus0", options);
    std::mutex mutex;
    std::vector<CanLinkState> states;
    bus.set_state_callback([&](CanLinkState state) {
        std::lock_guard<std::mutex> lock(mutex);
        states.push_back(state);
    });
    OrreryActuator joint(bus, kDevice);
    ASSERT_TRUE(joint.connect(5.0f));

    ocp_vm::set_interface_up("vcanbus0", false);
    ASSERT_TRUE(eventually([&] { return bus.link_state() == CanLinkState::down; }));
    EXPECT_FALSE(bus.send(kDevice, {0x01}));
    EXPECT_FALSE(joint.send_ping(0.1f));

    ocp_vm::set_interface_up("vcanbus0", true);
    ASSERT_TRUE(eventually([&] { return bus.link_state() == CanLinkState::active; }));
    EXPECT_TRUE(joint.send_ping(5.0f));
    {
        std::lock_guard<std::mutex> lock(mutex);
        EXPECT_EQ(states, (std::vector<CanLinkState>{CanLinkState::down, CanLinkState::active}));
    }
    devices->close();
    bus.close();
    ocp_vm::remove_interface("vcanbus0");
}

TEST(SocketCanBusIntegration, MissingOrDownInterfacesAreNamed) {
    try {
        SocketCanBus bus("nosuch0");
        FAIL() << "opened";
    } catch (const std::system_error& error) {
        EXPECT_STREQ(error.what(), "CAN interface nosuch0: not found: No such device");
    }
    try {
        SocketCanBus bus(ocp_vm::classic_interface(), {true, 64, {}, 100ms});
        FAIL() << "opened";
    } catch (const std::system_error& error) {
        EXPECT_STREQ(error.what(),
                     "CAN interface vcan0: cannot carry CAN-FD frames (MTU 16, CAN-FD needs 72): Protocol not supported");
    }
}

}  // namespace
