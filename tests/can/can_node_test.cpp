#include "can/can_node.hpp"

#include <gtest/gtest.h>

#include <set>

#include "support/can_frames.hpp"

namespace {

using ocp_test::counting;
using namespace ocp_api;
using namespace ocp_api::can;
using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;
using Frames = std::vector<CanFrame>;
using Messages = std::vector<ReceivedMessage>;

const IsoTpTime T0 = IsoTpTime{} + 1000s;

// A host and a device side passing every frame to each other until quiet.
struct Pair {
    Node host{Role::host, IsoTpOptions{}};
    Node device{Role::device, IsoTpOptions{}, [](int address) { return address == 0x21 || address == 0x22; }};
    Messages at_host;
    Messages at_device;

    void exchange(Frames frames_from_host, Frames frames_from_device) {
        while (!frames_from_host.empty() || !frames_from_device.empty()) {
            Frames next_from_host;
            Frames next_from_device;
            for (const auto& frame : frames_from_host) device.on_frame(frame, T0, next_from_device, at_device);
            for (const auto& frame : frames_from_device) host.on_frame(frame, T0, next_from_host, at_host);
            frames_from_host = std::move(next_from_host);
            frames_from_device = std::move(next_from_device);
        }
    }
};

TEST(CanNode, CommandsReachTheDeviceAndRepliesTheHostWithTheirKind) {
    Pair pair;
    Frames out;
    ASSERT_TRUE(pair.host.queue(0x21, 0, counting(50), T0, out));
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].id, 0x00D00021u);
    pair.exchange(std::move(out), {});
    ASSERT_EQ(pair.at_device.size(), 1u);
    EXPECT_EQ(pair.at_device[0].address, 0x21);
    EXPECT_EQ(pair.at_device[0].bytes, counting(50));

    Frames replies;
    ASSERT_TRUE(pair.device.queue(0x22, 1, counting(155), T0, replies));
    ASSERT_TRUE(pair.device.queue(0x22, 0, counting(3), T0, replies));  // waits for the first
    ASSERT_EQ(replies.size(), 1u);
    EXPECT_EQ(replies[0].id, 0x00D0C022u);
    pair.exchange({}, std::move(replies));
    ASSERT_EQ(pair.at_host.size(), 2u);
    EXPECT_EQ(pair.at_host[0].address, 0x22);
    EXPECT_EQ(pair.at_host[0].kind, 1);
    EXPECT_EQ(pair.at_host[0].bytes, counting(155));
    EXPECT_EQ(pair.at_host[1].kind, 0);
    EXPECT_EQ(pair.at_host[1].bytes, counting(3));
}

TEST(CanNode, FlowControlUsesThePartnerIdentifiers) {
    Node host{Role::host, IsoTpOptions{}};
    Node device{Role::device, IsoTpOptions{}};
    Frames out;
    Messages messages;
    host.queue(0x21, 0, counting(20), T0, out);
    Frames fc;
    device.on_frame(out[0], T0, fc, messages);
    ASSERT_EQ(fc.size(), 1u);
    EXPECT_EQ(fc[0].id, 0x00D04021u);
    out.clear();
    device.queue(0x21, 1, counting(20), T0, out);
    fc.clear();
    host.on_frame(out[0], T0, fc, messages);
    ASSERT_EQ(fc.size(), 1u);
    EXPECT_EQ(fc[0].id, 0x00D00021u);
}

TEST(CanNode, DeviceSideIgnoresAddressesItDoesNotServe) {
    Pair pair;
    Frames out;
    pair.host.queue(0x23, 0, counting(20), T0, out);
    Frames fc;
    pair.device.on_frame(out[0], T0, fc, pair.at_device);
    EXPECT_TRUE(fc.empty());  // no flow control for another device's traffic
    EXPECT_EQ(pair.device.counters().foreign_frames, 1u);
}

TEST(CanNode, ForeignFramesAreCounted) {
    Node host{Role::host, IsoTpOptions{}};
    Frames out;
    Messages messages;
    CanFrame frame;
    frame.len = 2;
    frame.data[0] = 0x01;
    frame.extended = false;
    frame.id = 0x021;
    host.on_frame(frame, T0, out, messages);       // 11-bit
    frame.extended = true;
    frame.id = 0x00D00021;
    host.on_frame(frame, T0, out, messages);       // a command, not a reply
    frame.id = 0x18DAF110;
    host.on_frame(frame, T0, out, messages);       // somebody else's traffic
    frame.id = 0x00D04021;
    host.on_frame(frame, T0, out, messages);       // ours
    EXPECT_EQ(messages.size(), 1u);
    EXPECT_EQ(host.counters().frames_in, 4u);
    EXPECT_EQ(host.counters().foreign_frames, 3u);
}

TEST(CanNode, QueueRefusesBadAddressesAndKinds) {
    Node host{Role::host, IsoTpOptions{}};
    Node device{Role::device, IsoTpOptions{}};
    Frames out;
    EXPECT_FALSE(host.queue(0x4000, 0, {1}, T0, out));
    EXPECT_FALSE(host.queue(-1, 0, {1}, T0, out));
    EXPECT_FALSE(host.queue(0x21, 1, {1}, T0, out));
    EXPECT_FALSE(device.queue(0x21, 2, {1}, T0, out));
    EXPECT_FALSE(host.queue(0x21, 0, {}, T0, out));
    EXPECT_TRUE(out.empty());
}

TEST(CanNode, DeadlineIsTheEarliestOfItsTransfers) {
    Node host{Role::host, IsoTpOptions{}};
    Frames out;
    EXPECT_FALSE(host.deadline());
    host.queue(0x21, 0, counting(20), T0, out);
    host.queue(0x22, 0, counting(20), T0 + 10ms, out);
    EXPECT_EQ(host.deadline(), T0 + 1s);
    host.on_time(T0 + 1s, out);
    EXPECT_EQ(host.deadline(), T0 + 1010ms);
    EXPECT_EQ(host.counters().isotp.timeouts, 1u);
    host.abandon_sending();
    EXPECT_FALSE(host.deadline());
    EXPECT_EQ(host.counters().isotp.dropped, 2u);
}

}  // namespace

namespace {

Bytes data_of(const CanFrame& frame) { return Bytes(frame.data.begin(), frame.data.begin() + frame.len); }

// The first request and answer of get_parameters_all() on classic CAN, frame
// by frame as docs/can-mapping.md shows them.
TEST(CanNode, TheDocumentedParameterExchange) {
    Node host{Role::host, IsoTpOptions{}};
    Node device{Role::device, IsoTpOptions{}};
    Frames from_host;
    Frames from_device;
    Messages at_host;
    Messages at_device;
    host.queue(0x21, 0, {0x0C, 1, 2, 3, 4, 5, 6, 7, 8, 9}, T0, from_host);
    ASSERT_EQ(from_host.size(), 1u);
    EXPECT_EQ(from_host[0].id, 0x00D00021u);
    EXPECT_EQ(data_of(from_host[0]), (Bytes{0x10, 0x0A, 0x0C, 0x01, 0x02, 0x03, 0x04, 0x05}));
    device.on_frame(from_host[0], T0, from_device, at_device);
    ASSERT_EQ(from_device.size(), 1u);
    EXPECT_EQ(from_device[0].id, 0x00D04021u);
    EXPECT_EQ(data_of(from_device[0]), (Bytes{0x30, 0x00, 0x00, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC}));
    from_host.clear();
    host.on_frame(from_device[0], T0, from_host, at_host);
    ASSERT_EQ(from_host.size(), 1u);
    EXPECT_EQ(data_of(from_host[0]), (Bytes{0x21, 0x06, 0x07, 0x08, 0x09, 0xCC, 0xCC, 0xCC}));
    from_device.clear();
    device.on_frame(from_host[0], T0, from_device, at_device);
    ASSERT_EQ(at_device.size(), 1u);
    EXPECT_EQ(at_device[0].bytes, (Bytes{0x0C, 1, 2, 3, 4, 5, 6, 7, 8, 9}));

    // 46 bytes: PARAMETERS, then nine records (code, 32-bit value).
    const Bytes answer{0x83, 0x01, 0xCD, 0xCC, 0xCC, 0x3D, 0x02, 0x00, 0x00, 0x80, 0x3F, 0x03, 0x00, 0x00, 0x00, 0x00,
                       0x04, 0x00, 0x00, 0x20, 0x41, 0x05, 0x00, 0x00, 0xC8, 0x42, 0x06, 0x00, 0x00, 0xC8, 0xC2, 0x07,
                       0x00, 0x00, 0x48, 0x42, 0x08, 0x00, 0x00, 0x48, 0xC2, 0x09, 0x00, 0x00, 0xC8, 0x42};
    ASSERT_EQ(answer.size(), 46u);
    device.queue(0x21, 0, answer, T0, from_device);
    ASSERT_EQ(from_device.size(), 1u);
    EXPECT_EQ(data_of(from_device[0]), (Bytes{0x10, 0x2E, 0x83, 0x01, 0xCD, 0xCC, 0xCC, 0x3D}));
    from_host.clear();
    host.on_frame(from_device[0], T0, from_host, at_host);
    ASSERT_EQ(from_host.size(), 1u);
    EXPECT_EQ(from_host[0].id, 0x00D00021u);
    EXPECT_EQ(data_of(from_host[0]), (Bytes{0x30, 0x00, 0x00, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC}));
    from_device.clear();
    device.on_frame(from_host[0], T0, from_device, at_device);
    const std::vector<Bytes> expected{
        {0x21, 0x02, 0x00, 0x00, 0x80, 0x3F, 0x03, 0x00}, {0x22, 0x00, 0x00, 0x00, 0x04, 0x00, 0x00, 0x20},
        {0x23, 0x41, 0x05, 0x00, 0x00, 0xC8, 0x42, 0x06}, {0x24, 0x00, 0x00, 0xC8, 0xC2, 0x07, 0x00, 0x00},
        {0x25, 0x48, 0x42, 0x08, 0x00, 0x00, 0x48, 0xC2}, {0x26, 0x09, 0x00, 0x00, 0xC8, 0x42, 0xCC, 0xCC}};
    ASSERT_EQ(from_device.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) EXPECT_EQ(data_of(from_device[i]), expected[i]) << i;
    for (const auto& frame : from_device) host.on_frame(frame, T0, from_host, at_host);
    ASSERT_EQ(at_host.size(), 1u);
    EXPECT_EQ(at_host[0].bytes, answer);
}

}  // namespace
