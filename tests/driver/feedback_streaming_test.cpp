#include <gtest/gtest.h>

#include "ocp_api/orrery_actuator.hpp"
#include "support/device_replies.hpp"
#include "support/recording_transport.hpp"
#include "support/stream_capture.hpp"

namespace {

using namespace ocp_api;
using namespace ocp_test;
using Items = OrreryActuator::OCP_Items;
using FeedbackMap = OrreryActuator::FeedbackMap;

class FeedbackStreaming : public ::testing::Test {
protected:
    RecordingTransport transport;
    OrreryActuator actuator{transport, 0x21};
};

TEST_F(FeedbackStreaming, FeedbackItemsFrameKeepsOrderAndDuplicates) {
    actuator.setFeedbackItems({Items::T_FB_56, Items::POS_FB_41, Items::T_FB_56});
    EXPECT_EQ(transport.frames(), (std::vector<Bytes>{{0x07, 0x56, 0x41, 0x56}}));
}

TEST_F(FeedbackStreaming, EmptyItemListSendsTheBareCodeAndEmptiesFeedback) {
    transport.deliver(0x21, Bytes{0x41} + f32(1.0f));
    ASSERT_FALSE(actuator.get_feedback().empty());
    actuator.setFeedbackItems({});
    EXPECT_EQ(transport.frames(), (std::vector<Bytes>{{0x07}}));
    EXPECT_TRUE(actuator.get_feedback().empty());
}

TEST_F(FeedbackStreaming, SixtyFiveItemsAreHandedOverAsOneFrame) {
    actuator.setFeedbackItems(std::vector<Items>(65, Items::POS_FB_41));
    ASSERT_EQ(transport.frames().size(), 1u);
    EXPECT_EQ(transport.frames()[0].size(), 66u);
}

TEST_F(FeedbackStreaming, RatesOutOfRangeSendNothing) {
    StreamCapture err(std::cerr);
    actuator.setFeedbackRate(-1);
    actuator.setFeedbackRate(10001);
    EXPECT_TRUE(transport.sent().empty());
    EXPECT_EQ(err.text(), "Rate must be non-negative\nRate cannot exceed 10000 Hz\n");
}

TEST_F(FeedbackStreaming, RateFramesCarryThePeriodInHundredMicroseconds) {
    actuator.setFeedbackRate(10000);
    actuator.setFeedbackRate(0);
    actuator.setFeedbackRate(1000);
    actuator.setFeedbackRate(OrreryActuator::Rates::RATE_OFF);
    actuator.setFeedbackRate(3);
    EXPECT_EQ(transport.frames(), (std::vector<Bytes>{{0x06, 0x01, 0x00, 0x00, 0x00},
                                                      {0x06, 0x00, 0x00, 0x00, 0x00},
                                                      {0x06, 0x0A, 0x00, 0x00, 0x00},
                                                      {0x06, 0x00, 0x00, 0x00, 0x00},
                                                      {0x06, 0x05, 0x0D, 0x00, 0x00}}));
}

TEST_F(FeedbackStreaming, GetItemsBlockingReturnsTheDevicesAnswer) {
    transport.set_responder([this](int address, const Bytes& frame) {
        if (is_command(frame, wire::Command::GET_ITEMS))
            transport.deliver_later(address, Bytes{0x41} + f32(0.5f) + Bytes{0x60} + u32(9), 1,
                                    std::chrono::milliseconds(10));
    });
    const FeedbackMap answer = actuator.getItemsBlocking({Items::POS_FB_41, Items::ITEM_60}, 2.0f);
    EXPECT_EQ(answer, (FeedbackMap{{Items::POS_FB_41, 0.5f}, {Items::ITEM_60, 9.0f}}));
    EXPECT_EQ(transport.frames(), (std::vector<Bytes>{{0x0F, 0x41, 0x60}}));
    EXPECT_TRUE(actuator.get_feedback().empty()) << "a requested answer is not streamed feedback";
    transport.join_deliveries();
}

TEST_F(FeedbackStreaming, GetItemsBlockingWithZeroTimeoutSendsAndFailsAtOnce) {
    StreamCapture err(std::cerr);
    transport.set_responder([this](int address, const Bytes&) { transport.deliver(address, Bytes{0x41} + f32(1.0f), 1); });
    EXPECT_TRUE(actuator.getItemsBlocking({Items::POS_FB_41}, 0.0f).empty());
    EXPECT_EQ(transport.frames(), (std::vector<Bytes>{{0x0F, 0x41}}));
    EXPECT_EQ(err.text(), "Timeout waiting for feedback items\n");
}

TEST_F(FeedbackStreaming, GetItemsBlockingWaitsOnPastAnAnswerWithoutItems) {
    StreamCapture err(std::cerr);
    transport.set_responder([this](int address, const Bytes&) { transport.deliver(address, Bytes{0x00}, 1); });
    EXPECT_TRUE(actuator.getItemsBlocking({Items::POS_FB_41}, 0.03f).empty());
    EXPECT_EQ(err.text(), "Timeout waiting for feedback items\n");
}

TEST_F(FeedbackStreaming, GetItemsBlockingClearsAnOlderAnswerBeforeAsking) {
    StreamCapture err(std::cerr);
    transport.deliver(0x21, Bytes{0x41} + f32(1.0f), 1);
    EXPECT_TRUE(actuator.getItemsBlocking({Items::POS_FB_41}, 0.02f).empty());
    EXPECT_EQ(err.text(), "Timeout waiting for feedback items\n");
}

}  // namespace
