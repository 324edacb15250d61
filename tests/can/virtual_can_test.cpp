#include "ocp_api/virtual_can.hpp"

#include <gtest/gtest.h>

#include <thread>

namespace {

using namespace ocp_api;
using namespace std::chrono_literals;

CanFrame frame_with(uint32_t id, uint8_t len, bool fd = false) {
    CanFrame frame;
    frame.id = id;
    frame.len = len;
    frame.fd = fd;
    for (uint8_t i = 0; i < len; ++i) frame.data[i] = i;
    return frame;
}

TEST(VirtualCan, EveryOtherEndpointReceivesAFrame) {
    VirtualCanChannel channel;
    auto a = channel.open();
    auto b = channel.open();
    auto c = channel.open();
    ASSERT_EQ(a->send_frame(frame_with(0x123, 8)), CanLink::SendResult::sent);
    for (auto* link : {b.get(), c.get()}) {
        const CanLinkEvent event = link->receive(5s);
        ASSERT_EQ(event.type, CanLinkEvent::Type::frame);
        EXPECT_EQ(event.frame.id, 0x123u);
        EXPECT_EQ(event.frame.len, 8);
        EXPECT_EQ(event.frame.data[7], 7);
    }
    EXPECT_EQ(a->receive(1ms).type, CanLinkEvent::Type::none);  // not back to the sender
    EXPECT_EQ(channel.frames_carried(), 1u);
}

TEST(VirtualCan, ClassicEndpointsNeitherSendNorSeeCanFd) {
    VirtualCanChannel channel;
    auto classic = channel.open(false);
    auto fd = channel.open(true);
    auto other_fd = channel.open(true);
    EXPECT_TRUE(fd->fd());
    EXPECT_FALSE(classic->fd());
    EXPECT_EQ(classic->send_frame(frame_with(1, 12, true)), CanLink::SendResult::failed);
    EXPECT_EQ(classic->send_frame(frame_with(1, 12, false)), CanLink::SendResult::failed);
    EXPECT_EQ(fd->send_frame(frame_with(1, 13, true)), CanLink::SendResult::failed);
    ASSERT_EQ(fd->send_frame(frame_with(2, 64, true)), CanLink::SendResult::sent);
    EXPECT_EQ(other_fd->receive(5s).frame.len, 64);
    EXPECT_EQ(classic->receive(1ms).type, CanLinkEvent::Type::none);
    ASSERT_EQ(fd->send_frame(frame_with(3, 8)), CanLink::SendResult::sent);
    EXPECT_EQ(classic->receive(5s).frame.id, 3u);
}

TEST(VirtualCan, WakeEndsAWaitingReceive) {
    VirtualCanChannel channel;
    auto link = channel.open();
    std::thread waker([&] { link->wake(); });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(link->receive(60s).type, CanLinkEvent::Type::none);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 30s);
    waker.join();
}

TEST(VirtualCan, StateChangesReachEveryEndpointAndStopTraffic) {
    VirtualCanChannel channel;
    auto a = channel.open();
    auto b = channel.open();
    channel.set_state(CanLinkState::down);
    for (auto* link : {a.get(), b.get()}) {
        const CanLinkEvent event = link->receive(5s);
        ASSERT_EQ(event.type, CanLinkEvent::Type::state);
        EXPECT_EQ(event.state, CanLinkState::down);
    }
    EXPECT_EQ(a->send_frame(frame_with(1, 1)), CanLink::SendResult::failed);
    channel.set_state(CanLinkState::active);
    EXPECT_EQ(b->receive(5s).state, CanLinkState::active);
    EXPECT_EQ(a->send_frame(frame_with(1, 1)), CanLink::SendResult::sent);
}

TEST(VirtualCan, AFullEndpointDropsNewFramesAndCountsThem) {
    VirtualCanChannel channel(2);
    auto a = channel.open();
    auto b = channel.open();
    for (uint32_t id = 1; id <= 3; ++id) a->send_frame(frame_with(id, 1));
    EXPECT_EQ(channel.frames_dropped(), 1u);
    EXPECT_EQ(b->receive(5s).frame.id, 1u);
    EXPECT_EQ(b->receive(5s).frame.id, 2u);
    EXPECT_EQ(b->receive(1ms).type, CanLinkEvent::Type::none);
}

TEST(VirtualCan, EndpointsOutliveTheChannelObject) {
    std::unique_ptr<CanLink> a;
    std::unique_ptr<CanLink> b;
    {
        VirtualCanChannel channel;
        a = channel.open();
        b = channel.open();
    }
    a->send_frame(frame_with(9, 2));
    EXPECT_EQ(b->receive(5s).frame.id, 9u);
}

}  // namespace
