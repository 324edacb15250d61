#include "ocp_api/can_bus.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <random>

#include "ocp_api/version.hpp"
#include "ocp_api/virtual_can.hpp"
#include "ocp_api/wire.hpp"
#include "support/can_frames.hpp"
#include "support/eventually.hpp"

namespace {

using ocp_test::bytes_of;
using ocp_test::counting;
using ocp_test::frame_of;
using namespace ocp_api;
using namespace std::chrono_literals;
using ocp_test::eventually;
using Bytes = std::vector<uint8_t>;

// The next frame a raw endpoint sees, skipping nothing; fails the test on a time-out.
CanFrame next_frame(CanLink& link) {
    const CanLinkEvent event = link.receive(10s);
    EXPECT_EQ(event.type, CanLinkEvent::Type::frame);
    return event.frame;
}

// Replies a callback received, for the test thread to wait on.
struct Inbox {
    struct Entry {
        int address;
        Bytes bytes;
        int kind;
    };
    std::mutex mutex;
    std::vector<Entry> entries;

    OCP::ReceiveCallback callback() {
        return [this](int address, Bytes bytes, int kind) {
            std::lock_guard<std::mutex> lock(mutex);
            entries.push_back({address, std::move(bytes), kind});
        };
    }
    std::size_t size() {
        std::lock_guard<std::mutex> lock(mutex);
        return entries.size();
    }
    Entry at(std::size_t i) {
        std::lock_guard<std::mutex> lock(mutex);
        return entries.at(i);
    }
};

TEST(CanBus, AnswersPingsToTheAdapterLocally) {
    VirtualCanChannel channel;
    CanBus bus(channel.open());
    Inbox inbox;
    bus.setCallback(0, inbox.callback());
    ASSERT_TRUE(bus.send(0, {static_cast<uint8_t>(wire::Command::PING)}));
    ASSERT_TRUE(eventually([&] { return inbox.size() == 1; }));
    const uint16_t version = wire::firmware_word(VERSION_MAJOR, VERSION_MINOR, VERSION_PATCH);
    EXPECT_EQ(inbox.at(0).address, 0);
    EXPECT_EQ(inbox.at(0).kind, wire::REPLY_STREAMED);
    EXPECT_EQ(inbox.at(0).bytes, (Bytes{0x80, 0x05, 0x00, static_cast<uint8_t>(version & 0xFF),
                                         static_cast<uint8_t>(version >> 8)}));
    EXPECT_TRUE(bus.send(0, {0x41}));  // anything else to the adapter: nothing
    EXPECT_EQ(channel.frames_carried(), 0u);
}

TEST(CanBus, SendsACommandAsTheDocumentedFrame) {
    VirtualCanChannel channel;
    auto device = channel.open();
    CanBus bus(channel.open());
    ASSERT_TRUE(bus.send(0x21, {0x40}));
    const CanFrame frame = next_frame(*device);
    EXPECT_EQ(frame.id, 0x00D00021u);
    EXPECT_TRUE(frame.extended);
    EXPECT_FALSE(frame.fd);
    EXPECT_EQ(bytes_of(frame), (Bytes{0x01, 0x40, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC}));
    ASSERT_TRUE(eventually([&] { return bus.counters().messages_out == 1; }));
    EXPECT_EQ(bus.counters().frames_out, 1u);
}

TEST(CanBus, DeliversRepliesWithTheirKind) {
    VirtualCanChannel channel;
    auto device = channel.open();
    CanBus bus(channel.open());
    Inbox inbox;
    bus.setCallback(0x21, inbox.callback());
    device->send_frame(frame_of(0x00D0C021, {0x05, 0x80, 0x03, 0x00, 0x42, 0x08, 0xCC, 0xCC}));
    device->send_frame(frame_of(0x00D04021, {0x01, 0x00}));
    ASSERT_TRUE(eventually([&] { return inbox.size() == 2; }));
    EXPECT_EQ(inbox.at(0).kind, 1);
    EXPECT_EQ(inbox.at(0).bytes, (Bytes{0x80, 0x03, 0x00, 0x42, 0x08}));
    EXPECT_EQ(inbox.at(1).kind, 0);
    EXPECT_EQ(inbox.at(1).bytes, (Bytes{0x00}));
}

TEST(CanBus, SegmentedCommandWaitsForFlowControlWithoutBlockingTheSender) {
    VirtualCanChannel channel;
    auto device = channel.open();
    CanBus bus(channel.open());
    Bytes command(20);
    for (std::size_t i = 0; i < command.size(); ++i) command[i] = static_cast<uint8_t>(0xA0 + i);
    ASSERT_TRUE(bus.send(0x21, command));  // returns before any flow control
    EXPECT_EQ(bytes_of(next_frame(*device)), (Bytes{0x10, 0x14, 0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5}));
    device->send_frame(frame_of(0x00D04021, {0x30, 0x00, 0x00}));
    EXPECT_EQ(bytes_of(next_frame(*device)), (Bytes{0x21, 0xA6, 0xA7, 0xA8, 0xA9, 0xAA, 0xAB, 0xAC}));
    EXPECT_EQ(bytes_of(next_frame(*device)), (Bytes{0x22, 0xAD, 0xAE, 0xAF, 0xB0, 0xB1, 0xB2, 0xB3}));
    ASSERT_TRUE(eventually([&] { return bus.counters().messages_out == 1; }));
}

TEST(CanBus, SegmentedCommandWithoutFlowControlTimesOut) {
    VirtualCanChannel channel;
    auto device = channel.open();
    CanBusOptions options;
    options.isotp.n_bs = 50ms;
    CanBus bus(channel.open(), options);
    ASSERT_TRUE(bus.send(0x21, Bytes(20, 1)));
    ASSERT_TRUE(eventually([&] { return bus.counters().timeouts == 1; }));
    EXPECT_EQ(bus.counters().drops, 1u);
    EXPECT_EQ(bus.counters().messages_out, 0u);
}

TEST(CanBus, ReassemblesASegmentedReplyAfterSendingFlowControl) {
    VirtualCanChannel channel;
    auto device = channel.open();
    CanBusOptions options;
    options.isotp.block_size = 8;
    options.isotp.st_min = 0xF2;
    CanBus bus(channel.open(), options);
    Inbox inbox;
    bus.setCallback(0x21, inbox.callback());
    device->send_frame(frame_of(0x00D0C021, {0x10, 0x0A, 1, 2, 3, 4, 5, 6}));
    const CanFrame flow_control = next_frame(*device);
    EXPECT_EQ(flow_control.id, 0x00D00021u);
    EXPECT_EQ(bytes_of(flow_control), (Bytes{0x30, 0x08, 0xF2, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC}));
    device->send_frame(frame_of(0x00D0C021, {0x21, 7, 8, 9, 10}));
    ASSERT_TRUE(eventually([&] { return inbox.size() == 1; }));
    EXPECT_EQ(inbox.at(0).bytes, (Bytes{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
    EXPECT_EQ(inbox.at(0).kind, 1);
}

TEST(CanBus, RefusesWhatItCannotSend) {
    VirtualCanChannel channel;
    CanBus bus(channel.open());
    EXPECT_FALSE(bus.send(0x21, {}));
    EXPECT_FALSE(bus.send(0x21, Bytes(4096, 0)));
    EXPECT_FALSE(bus.send(0x4000, {0x40}));
    EXPECT_FALSE(bus.send(-1, {0x40}));
    EXPECT_TRUE(bus.send(0x21, Bytes(4095, 0)));
    bus.close();
    bus.close();
    EXPECT_FALSE(bus.send(0x21, {0x40}));
    EXPECT_FALSE(bus.send(0, {0x40}));
}

TEST(CanBus, RejectsAMissingLinkAndFdOnAClassicLink) {
    VirtualCanChannel channel;
    EXPECT_THROW(CanBus(nullptr), std::invalid_argument);
    CanBusOptions fd;
    fd.isotp.fd = true;
    EXPECT_THROW(CanBus(channel.open(false), fd), std::invalid_argument);
    fd.isotp.fd_data_length = 10;
    EXPECT_THROW(CanBus(channel.open(true), fd), std::invalid_argument);
}

TEST(CanBus, ReportsLinkStatesAndRecovers) {
    VirtualCanChannel channel;
    auto device = channel.open();
    CanBus bus(channel.open());
    std::mutex mutex;
    std::vector<CanLinkState> states;
    bus.set_state_callback([&](CanLinkState state) {
        std::lock_guard<std::mutex> lock(mutex);
        states.push_back(state);
    });
    channel.set_state(CanLinkState::down);
    ASSERT_TRUE(eventually([&] { return bus.link_state() == CanLinkState::down; }));
    EXPECT_FALSE(bus.send(0x21, {0x40}));
    channel.set_state(CanLinkState::active);
    ASSERT_TRUE(eventually([&] { return bus.link_state() == CanLinkState::active; }));
    EXPECT_TRUE(bus.send(0x21, {0x40}));
    EXPECT_EQ(device->receive(10s).state, CanLinkState::down);
    EXPECT_EQ(device->receive(10s).state, CanLinkState::active);
    EXPECT_EQ(next_frame(*device).id, 0x00D00021u);
    const auto counters = bus.counters();
    EXPECT_EQ(counters.restarts, 1u);
    EXPECT_EQ(counters.link_errors, 1u);
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(states, (std::vector<CanLinkState>{CanLinkState::down, CanLinkState::active}));
}

// A command half sent when the controller goes bus-off cannot be finished:
// the device has dropped it by the time the bus is back. After recovery a
// late flow control for it releases nothing, and new commands go out whole.
TEST(CanBus, BusOffAbandonsAHalfSentCommand) {
    VirtualCanChannel channel;
    auto device = channel.open();
    CanBus bus(channel.open());
    ASSERT_TRUE(bus.send(0x21, counting(20)));
    EXPECT_EQ(bytes_of(next_frame(*device)), (Bytes{0x10, 0x14, 0x00, 0x01, 0x02, 0x03, 0x04, 0x05}));
    channel.set_state(CanLinkState::bus_off);
    ASSERT_TRUE(eventually([&] { return bus.link_state() == CanLinkState::bus_off; }));
    channel.set_state(CanLinkState::active);
    ASSERT_TRUE(eventually([&] { return bus.link_state() == CanLinkState::active; }));
    EXPECT_EQ(device->receive(10s).state, CanLinkState::bus_off);
    EXPECT_EQ(device->receive(10s).state, CanLinkState::active);

    device->send_frame(frame_of(0x00D04021, {0x30, 0x00, 0x00}));  // flow control, too late
    ASSERT_TRUE(bus.send(0x21, {0x40}));
    // The next frame is the new command, not a consecutive frame of the old one.
    EXPECT_EQ(bytes_of(next_frame(*device)), (Bytes{0x01, 0x40, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC}));
    EXPECT_EQ(device->receive(50ms).type, CanLinkEvent::Type::none);
    EXPECT_EQ(bus.counters().messages_out, 1u);
}

TEST(CanBus, RandomFramesOnOurIdentifiersAreCountedAndHarmless) {
    VirtualCanChannel channel;
    auto noise = channel.open();
    CanBusOptions options;
    options.isotp.n_cr = 20ms;
    CanBus bus(channel.open(), options);
    Inbox inbox;
    bus.setCallback(0x21, inbox.callback());
    std::mt19937 rng(7);
    for (int i = 0; i < 5000; ++i) {
        CanFrame frame;
        frame.id = (rng() % 2 ? 0x00D04021u : 0x00D0C021u);
        frame.len = static_cast<uint8_t>(rng() % 9);
        for (auto& byte : frame.data) byte = static_cast<uint8_t>(rng());
        noise->send_frame(frame);
    }
    ASSERT_TRUE(eventually([&] { return bus.counters().frames_in == 5000; }));
    EXPECT_GT(bus.counters().segmentation_errors, 100u);
    // Still in working order afterwards.
    const std::size_t before = inbox.size();
    noise->send_frame(frame_of(0x00D04021, {0x01, 0x77}));
    ASSERT_TRUE(eventually([&] { return inbox.size() == before + 1; }));
    EXPECT_EQ(inbox.at(before).bytes, Bytes{0x77});
}

TEST(CanBus, CallbacksMaySendAndRemoveThemselves) {
    VirtualCanChannel channel;
    auto device = channel.open();
    CanBus bus(channel.open());
    std::atomic<int> calls{0};
    bus.setCallback(0x21, [&](int, Bytes, int) {
        calls.fetch_add(1);
        bus.send(0x21, {0x02});
        bus.removeCallback(0x21);
    });
    device->send_frame(frame_of(0x00D04021, {0x01, 0x00}));
    EXPECT_EQ(bytes_of(next_frame(*device)), (Bytes{0x01, 0x02, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC}));
    device->send_frame(frame_of(0x00D04021, {0x01, 0x00}));
    ASSERT_TRUE(eventually([&] { return bus.counters().replies_unclaimed == 1; }));
    EXPECT_EQ(calls.load(), 1);
}

TEST(CanBus, CloseFromInsideACallback) {
    VirtualCanChannel channel;
    auto device = channel.open();
    CanBus bus(channel.open());
    std::atomic<bool> called{false};
    bus.setCallback(0x21, [&](int, Bytes, int) {
        bus.close();
        called = true;
    });
    device->send_frame(frame_of(0x00D04021, {0x01, 0x00}));
    ASSERT_TRUE(eventually([&] { return called.load(); }));
    EXPECT_FALSE(bus.send(0x21, {0x40}));
}

}  // namespace

namespace {

// A link whose adapter queue never drains, or that refuses every frame.
class StuckLink : public ocp_api::CanLink {
public:
    explicit StuckLink(SendResult answer) : answer_(answer) {}
    bool fd() const override { return false; }
    SendResult send_frame(const ocp_api::CanFrame&) override {
        attempts.fetch_add(1);
        return answer_;
    }
    ocp_api::CanLinkEvent receive(std::chrono::nanoseconds timeout) override {
        std::unique_lock<std::mutex> lock(mutex_);
        woken_.wait_for(lock, timeout, [this] { return wake_; });
        wake_ = false;
        return {};
    }
    void wake() override {
        std::lock_guard<std::mutex> lock(mutex_);
        wake_ = true;
        woken_.notify_all();
    }
    std::atomic<int> attempts{0};

private:
    const SendResult answer_;
    std::mutex mutex_;
    std::condition_variable woken_;
    bool wake_ = false;
};

TEST(CanBus, ABusyAdapterIsRetriedBrieflyThenTheFrameIsDropped) {
    auto link = std::make_unique<StuckLink>(CanLink::SendResult::busy);
    StuckLink& stuck = *link;
    CanBusOptions options;
    options.busy_retry = std::chrono::microseconds(2000);
    CanBus bus(std::move(link), options);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(bus.send(0x21, {0x40}));
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(elapsed, options.busy_retry) << "retried for the whole window";
    EXPECT_LT(elapsed, 5s);
    EXPECT_GT(stuck.attempts.load(), 1);
    EXPECT_EQ(bus.counters().drops, 1u);
    EXPECT_EQ(bus.counters().frames_out, 0u);
}

TEST(CanBus, ALinkThatRefusesFramesCountsLinkErrors) {
    CanBus bus(std::make_unique<StuckLink>(CanLink::SendResult::failed));
    EXPECT_FALSE(bus.send(0x21, {0x40}));
    EXPECT_FALSE(bus.send(0x21, {0x40}));
    EXPECT_EQ(bus.counters().link_errors, 2u);
}

}  // namespace
