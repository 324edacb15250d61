#include <gtest/gtest.h>

#include <random>

#include "ocp_api/orrery_actuator.hpp"
#include "support/device_replies.hpp"
#include "support/recording_transport.hpp"
#include "support/stream_capture.hpp"

namespace {

using namespace ocp_api;
using namespace ocp_test;
using Items = OrreryActuator::OCP_Items;
using FeedbackMap = OrreryActuator::FeedbackMap;

class ReplyDispatcher : public ::testing::Test {
protected:
    ReplyDispatcher() {
        actuator.set_feedback_callback([this](int address, FeedbackMap items) {
            ++callbacks;
            last_address = address;
            last_items = std::move(items);
        });
    }

    RecordingTransport transport;
    OrreryActuator actuator{transport, 0x21};
    int callbacks = 0;
    int last_address = -1;
    FeedbackMap last_items;
};

TEST_F(ReplyDispatcher, StreamedItemUpdatesFeedbackAndCallsBack) {
    ASSERT_TRUE(transport.deliver(0x21, Bytes{0x41, 0x00, 0x00, 0x80, 0x3F, 0x00}, 0));
    EXPECT_EQ(actuator.get_feedback(), (FeedbackMap{{Items::POS_FB_41, 1.0f}}));
    EXPECT_EQ(callbacks, 1);
    EXPECT_EQ(last_address, 0x21);
    EXPECT_EQ(last_items, (FeedbackMap{{Items::POS_FB_41, 1.0f}}));
}

// The map a buffer's items make when inserted one by one into a map with the
// default bucket count and a maximum load factor of 1.0.
FeedbackMap grown_item_by_item(const std::vector<Items>& items) {
    FeedbackMap map;
    map.max_load_factor(1.0f);
    for (const Items item : items) map[item] = 1.0f;
    return map;
}

std::vector<Items> keys_in_iteration_order(const FeedbackMap& map) {
    std::vector<Items> keys;
    for (const auto& entry : map) keys.push_back(entry.first);
    return keys;
}

Bytes item_records(const std::vector<Items>& items) {
    Bytes bytes;
    for (const Items item : items) bytes = bytes + Bytes{code_of(item)} + f32(1.0f);
    return bytes;
}

TEST_F(ReplyDispatcher, ItemMapsGrowFromTheDefaultBucketCount) {
    for (std::size_t n = 1; n <= 24; ++n) {
        const std::vector<Items> items(OrreryActuator::ALL_ITEMS.begin(), OrreryActuator::ALL_ITEMS.begin() + n);
        const FeedbackMap expected = grown_item_by_item(items);
        actuator.can_callback(0x21, item_records(items), 0);
        EXPECT_EQ(last_items.bucket_count(), expected.bucket_count()) << n << " items";
        EXPECT_EQ(keys_in_iteration_order(last_items), keys_in_iteration_order(expected)) << n << " items";
        transport.set_responder([&](int address, const Bytes& frame) {
            if (is_command(frame, wire::Command::GET_ITEMS)) transport.deliver(address, item_records(items), 1);
        });
        const FeedbackMap requested = actuator.getItemsBlocking(items, 1.0f);
        transport.set_responder(nullptr);
        EXPECT_EQ(keys_in_iteration_order(requested), keys_in_iteration_order(expected)) << n << " items";
    }
}

TEST_F(ReplyDispatcher, UnknownRecordDropsTheWholeBufferWithADiagnostic) {
    StreamCapture err(std::cerr);
    actuator.can_callback(0x21, Bytes{0x41, 0x00, 0x00, 0x80, 0x3F, 0x4E, 0x00, 0x00, 0x00, 0x00}, 0);
    EXPECT_EQ(err.text(), "Unknown command 0x4e\n");
    EXPECT_TRUE(actuator.get_feedback().empty());
    EXPECT_EQ(callbacks, 0);
}

TEST_F(ReplyDispatcher, UnknownRecordLineLeavesStandardErrorInDecimal) {
    StreamCapture err(std::cerr);
    HostSetHex hex(std::cerr);
    actuator.can_callback(0x21, Bytes{0x4E, 0, 0, 0, 0}, 0);
    EXPECT_EQ(err.text(), "Unknown command 0x4e\n");
    EXPECT_TRUE(in_decimal(std::cerr));
}

TEST_F(ReplyDispatcher, UnknownRecordCodeIsPrintedWithoutLeadingZeros) {
    StreamCapture err(std::cerr);
    actuator.can_callback(0, Bytes{0x05}, 0);
    actuator.can_callback(0, Bytes{0xFF, 1, 2, 3, 4}, 1);
    EXPECT_EQ(err.text(), "Unknown command 0x5\nUnknown command 0xff\n");
}

TEST_F(ReplyDispatcher, TruncatedRecordDeliversWhatCameBefore) {
    actuator.can_callback(0, Bytes{0x41, 0x00, 0x00}, 0);
    EXPECT_EQ(callbacks, 1);
    EXPECT_TRUE(last_items.empty());
    actuator.can_callback(0, Bytes{0x45} + f32(2.0f) + Bytes{0x41, 0x00}, 0);
    EXPECT_EQ(last_items, (FeedbackMap{{Items::SPD_FB_45, 2.0f}}));
}

TEST_F(ReplyDispatcher, EmptyBufferCallsBackWithAnEmptyMap) {
    actuator.can_callback(0, Bytes{}, 0);
    EXPECT_EQ(callbacks, 1);
    EXPECT_TRUE(last_items.empty());
}

TEST_F(ReplyDispatcher, LaterRecordForTheSameItemWins) {
    actuator.can_callback(0, Bytes{0x45} + f32(1.0f) + Bytes{0x45} + f32(2.0f), 0);
    EXPECT_EQ(last_items, (FeedbackMap{{Items::SPD_FB_45, 2.0f}}));
}

TEST_F(ReplyDispatcher, StreamedItemsMergeIntoTheFeedbackMap) {
    actuator.can_callback(0, Bytes{0x41} + f32(1.0f) + Bytes{0x45} + f32(2.0f), 0);
    actuator.can_callback(0, Bytes{0x41} + f32(3.0f), 0);
    EXPECT_EQ(last_items, (FeedbackMap{{Items::POS_FB_41, 3.0f}}));
    EXPECT_EQ(actuator.get_feedback(), (FeedbackMap{{Items::POS_FB_41, 3.0f}, {Items::SPD_FB_45, 2.0f}}));
}

TEST_F(ReplyDispatcher, IntegerItemsConvertByValue) {
    actuator.can_callback(0, Bytes{0x90, 0xFF, 0xFF, 0xFF, 0xFF, 0x4A, 0xFF, 0xFF, 0xFF, 0xFF}, 0);
    EXPECT_EQ(last_items, (FeedbackMap{{Items::ERRORS_90, 4294967296.0f}, {Items::ITEM_4A, -1.0f}}));
}

TEST_F(ReplyDispatcher, RequestedItemsReplaceTheRequestedMapWithoutCallback) {
    actuator.can_callback(0, Bytes{0x41} + f32(1.0f), 1);
    EXPECT_EQ(callbacks, 0);
    EXPECT_TRUE(actuator.get_feedback().empty());
}

TEST_F(ReplyDispatcher, EmptyFeedbackCallbackSwitchesCallsOff) {
    actuator.set_feedback_callback(nullptr);
    actuator.can_callback(0, Bytes{0x41} + f32(1.0f), 0);
    EXPECT_EQ(callbacks, 0);
    EXPECT_EQ(actuator.get_feedback().at(Items::POS_FB_41), 1.0f);
}

TEST_F(ReplyDispatcher, PingReplySetsModelAndFirmwareAndEndsTheWalk) {
    actuator.can_callback(0, ping_reply(3, 0x0842) + Bytes{0x41} + f32(1.0f), 0);
    EXPECT_EQ(actuator.get_model_name(), "HERON_A");
    EXPECT_EQ(actuator.get_firmware_version(), "1.1.2");
    EXPECT_EQ(callbacks, 0);
    EXPECT_TRUE(actuator.get_feedback().empty());
}

TEST_F(ReplyDispatcher, PingReplyWithUnknownModelCodeGivesEmptyName) {
    actuator.can_callback(0, ping_reply(3, 0x0842), 0);
    actuator.can_callback(0, ping_reply(11, 0xFFFF), 0);
    EXPECT_EQ(actuator.get_model_name(), "");
    EXPECT_EQ(actuator.get_firmware_version(), "31.31.63");
    actuator.can_callback(0, ping_reply(10, 0), 0);
    EXPECT_EQ(actuator.get_model_name(), "KESTREL_D");
}

TEST_F(ReplyDispatcher, ShortPingReplyIsIgnored) {
    actuator.can_callback(0, Bytes{0x80, 0x03, 0x00, 0x42}, 0);
    EXPECT_EQ(actuator.get_model_name(), "");
    EXPECT_EQ(actuator.get_firmware_version(), "x.x.x");
    EXPECT_FALSE(actuator.send_ping(0.0f));
}

TEST_F(ReplyDispatcher, ItemsBeforeAPingReplyAreDiscarded) {
    actuator.can_callback(0, Bytes{0x41} + f32(1.0f) + ping_reply(1, 0), 0);
    EXPECT_EQ(callbacks, 0);
    EXPECT_TRUE(actuator.get_feedback().empty());
    EXPECT_EQ(actuator.get_model_name(), "KESTREL_A");
}

TEST_F(ReplyDispatcher, RandomAndTruncatedBuffersNeverCrash) {
    // Diagnostics for unknown records are expected; keep them off the console.
    StreamCapture err(std::cerr);
    actuator.set_error_callback([](int, OrreryActuator::ErrorMap) {});
    std::mt19937 rng(12345);
    std::uniform_int_distribution<int> length(0, 64);
    std::uniform_int_distribution<int> byte(0, 255);
    const Bytes valid = Bytes{0x41} + f32(1.0f) + Bytes{0x90} + u32(7) + ping_reply(3, 0x0842) +
                        Bytes{0x83, 0x30} + f32(6.5f) + Bytes{0x82} + u32(1);
    for (int i = 0; i < 5000; ++i) {
        Bytes bytes(static_cast<std::size_t>(length(rng)));
        for (auto& b : bytes) b = static_cast<uint8_t>(byte(rng));
        // Bias towards plausible record codes so the walk goes deep.
        if (!bytes.empty() && i % 2 == 0) bytes[0] = static_cast<uint8_t>(0x41 + i % 0x5A);
        actuator.can_callback(0, bytes, i % 3);
    }
    for (std::size_t cut = 0; cut <= valid.size(); ++cut) {
        actuator.can_callback(0, Bytes(valid.begin(), valid.begin() + static_cast<std::ptrdiff_t>(cut)), 0);
        actuator.parse_parameters(valid, static_cast<int>(cut));
    }
    actuator.parse_parameters(valid, -3);
    actuator.parse_parameters(valid, 1000);
    SUCCEED() << "5000 random and " << valid.size() + 1 << " truncated buffers dispatched";
    EXPECT_GE(callbacks, 1);
}

}  // namespace
