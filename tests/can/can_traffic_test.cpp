#include "ocp_api/can_traffic.hpp"

#include <gtest/gtest.h>

#include "can/can_node.hpp"
#include "support/can_frames.hpp"

namespace {

using ocp_test::counting;
using namespace ocp_api;
using namespace ocp_api::can;
using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;
using Frames = std::vector<CanFrame>;
using Events = std::vector<TrafficEvent>;
using Type = TrafficEvent::Type;

const IsoTpTime T0 = IsoTpTime{} + 1000s;
constexpr std::chrono::microseconds WHEN{1700000000000000};

// A host and a device exchanging frames until quiet, with every frame on the
// bus, in order, also handed to `seen`.
struct Bus {
    explicit Bus(bool fd = false) : host(Role::host, options(fd)), device(Role::device, options(fd)) {}
    static IsoTpOptions options(bool fd) {
        IsoTpOptions o;
        o.fd = fd;
        o.block_size = 2;  // flow control between blocks, for the monitor to pass over
        return o;
    }

    void exchange(Frames from_host, Frames from_device) {
        std::vector<ReceivedMessage> ignored;
        while (!from_host.empty() || !from_device.empty()) {
            Frames next_host;
            Frames next_device;
            for (const auto& frame : from_host) {
                seen.push_back(frame);
                device.on_frame(frame, T0, next_device, ignored);
            }
            for (const auto& frame : from_device) {
                seen.push_back(frame);
                host.on_frame(frame, T0, next_host, ignored);
            }
            from_host = std::move(next_host);
            from_device = std::move(next_device);
        }
    }

    Node host;
    Node device;
    Frames seen;
};

Events watch(const Frames& frames) {
    TrafficMonitor monitor;
    Events events;
    for (const auto& frame : frames) monitor.on_frame(frame, WHEN, events);
    monitor.finish(events);
    return events;
}

TEST(CanTraffic, ReassemblesACommandAndARepliesPassingOverFlowControl) {
    Bus bus;
    Frames command;
    Frames reply;
    ASSERT_TRUE(bus.host.queue(0x21, 0, counting(50), T0, command));
    bus.exchange(std::move(command), {});
    ASSERT_TRUE(bus.device.queue(0x21, 1, counting(31 * 5 + 1), T0, reply));
    bus.exchange({}, std::move(reply));
    ASSERT_GT(bus.seen.size(), 10u);

    const Events events = watch(bus.seen);
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].type, Type::message);
    EXPECT_EQ(events[0].address, 0x21);
    EXPECT_EQ(events[0].direction, Direction::to_device);
    EXPECT_EQ(events[0].bytes, counting(50));
    EXPECT_EQ(events[0].time, WHEN);
    EXPECT_EQ(events[1].type, Type::message);
    EXPECT_EQ(events[1].direction, Direction::to_host);
    EXPECT_EQ(events[1].kind, 1);
    EXPECT_EQ(events[1].bytes, counting(156));
}

TEST(CanTraffic, ReassemblesCanFdMessages) {
    Bus bus(true);
    Frames reply;
    ASSERT_TRUE(bus.device.queue(0x3ffe, 0, counting(400), T0, reply));
    bus.exchange({}, std::move(reply));
    const Events events = watch(bus.seen);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].address, 0x3ffe);
    EXPECT_EQ(events[0].kind, 0);
    EXPECT_EQ(events[0].bytes, counting(400));
}

TEST(CanTraffic, FramesThatAreNotOursAreShownAsForeign) {
    CanFrame standard;
    standard.extended = false;
    standard.id = 0x123;
    standard.len = 1;
    CanFrame other_tag;
    other_tag.id = 0x12345678;
    other_tag.len = 2;
    const Events events = watch({standard, other_tag});
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].type, Type::foreign_frame);
    EXPECT_EQ(events[0].frame->id, 0x123u);
    EXPECT_EQ(events[1].type, Type::foreign_frame);
    EXPECT_EQ(events[1].frame->id, 0x12345678u);
}

TEST(CanTraffic, ALostConsecutiveFrameBreaksTheMessage) {
    Bus bus;
    Frames command;
    ASSERT_TRUE(bus.host.queue(0x21, 0, counting(40), T0, command));
    bus.exchange(std::move(command), {});
    Frames lossy = bus.seen;
    // First frame, flow control, then consecutive frames: lose the first of those.
    const auto first_consecutive = std::find_if(lossy.begin(), lossy.end(), [](const CanFrame& f) {
        return (f.data[0] >> 4) == 2;
    });
    ASSERT_NE(first_consecutive, lossy.end());
    lossy.erase(first_consecutive);
    const Events events = watch(lossy);
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(events[0].type, Type::broken_segmentation);
    EXPECT_EQ(events[0].address, 0x21);
    EXPECT_EQ(events[0].problem, "segmentation broken: the half-received message is dropped");
    ASSERT_TRUE(events[0].frame.has_value());
    for (const auto& event : events) EXPECT_NE(event.type, Type::message);
}

TEST(CanTraffic, AConsecutiveFrameWithoutAFirstOneAndACutMessageAreShown) {
    Bus bus;
    Frames command;
    ASSERT_TRUE(bus.host.queue(0x22, 0, counting(40), T0, command));
    bus.exchange(std::move(command), {});
    const CanFrame first = bus.seen.front();
    const CanFrame consecutive = bus.seen.back();

    const Events stray = watch({consecutive});
    ASSERT_EQ(stray.size(), 1u);
    EXPECT_EQ(stray[0].type, Type::broken_segmentation);
    EXPECT_EQ(stray[0].problem, "consecutive frame without a first frame");

    const Events cut = watch({first});
    ASSERT_EQ(cut.size(), 1u);
    EXPECT_EQ(cut[0].type, Type::broken_segmentation);
    EXPECT_EQ(cut[0].problem, "message cut short: its next frame did not come in time");
    EXPECT_FALSE(cut[0].frame.has_value());
}

TEST(CanTraffic, SingleFramesBothWays) {
    CanFrame ping;
    ping.id = host_to_device_id(0x21);
    ping.len = 2;
    ping.data[0] = 0x01;  // single frame of one byte
    ping.data[1] = 0x40;
    CanFrame answer;
    answer.id = device_to_host_id(0x21, 0);
    answer.len = 6;
    answer.data = {0x05, 0x80, 0x03, 0x00, 0x42, 0x08};
    const Events events = watch({ping, answer});
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].bytes, Bytes{0x40});
    EXPECT_EQ(events[0].direction, Direction::to_device);
    EXPECT_EQ(events[1].bytes, (Bytes{0x80, 0x03, 0x00, 0x42, 0x08}));
    EXPECT_EQ(events[1].direction, Direction::to_host);
}

}  // namespace

namespace {

TEST(CanTraffic, FramesOfAMessageAreTheFramesOnTheBusWhenTheReceiverKeepsUp) {
    const MappedId to_device{0x21, Direction::to_device, 0};
    const Frames frames = frames_of_message(to_device, ocp_test::counting(20));
    ASSERT_EQ(frames.size(), 4u);  // first frame, flow control, two consecutive frames
    EXPECT_EQ(frames[0].id, 0x00D00021u);
    EXPECT_EQ(ocp_test::bytes_of(frames[0]), (Bytes{0x10, 20, 0, 1, 2, 3, 4, 5}));
    EXPECT_EQ(frames[1].id, 0x00D04021u);  // the device's flow control: continue, no block limit, no gap
    EXPECT_EQ(ocp_test::bytes_of(frames[1]), (Bytes{0x30, 0x00, 0x00, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC}));
    EXPECT_EQ(ocp_test::bytes_of(frames[2]), (Bytes{0x21, 6, 7, 8, 9, 10, 11, 12}));
    EXPECT_EQ(ocp_test::bytes_of(frames[3]), (Bytes{0x22, 13, 14, 15, 16, 17, 18, 19}));

    const Events events = watch(frames);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].type, Type::message);
    EXPECT_EQ(events[0].bytes, ocp_test::counting(20));
}

TEST(CanTraffic, FramesOfAShortReplyAreOnePaddedSingleFrame) {
    const Frames frames = frames_of_message({0x22, Direction::to_host, 1}, Bytes{0x80, 3, 0, 0x42, 8});
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0].id, 0x00D0C022u);
    EXPECT_EQ(ocp_test::bytes_of(frames[0]), (Bytes{0x05, 0x80, 3, 0, 0x42, 8, 0xCC, 0xCC}));
}

TEST(CanTraffic, NoFramesForAnEmptyOrOverlongMessage) {
    EXPECT_TRUE(frames_of_message({0x21, Direction::to_device, 0}, Bytes{}).empty());
    EXPECT_TRUE(frames_of_message({0x21, Direction::to_device, 0}, Bytes(4096, 1)).empty());
}

}  // namespace
