#include "ocp_api/orrery_actuator.hpp"

#include <gtest/gtest.h>

#include <chrono>

#include "support/device_replies.hpp"
#include "support/failing_allocation.hpp"
#include "support/recording_transport.hpp"

namespace {

using namespace ocp_api;
using namespace ocp_test;
using Event = RecordingTransport::Event;
using EventKind = RecordingTransport::EventKind;

class ActuatorLifecycle : public ::testing::Test {
protected:
    // Answers every PING sent to 0x21 from another thread after 20 ms.
    void answer_pings_later() {
        transport.set_responder([this](int address, const Bytes& frame) {
            if (is_command(frame, wire::Command::PING))
                transport.deliver_later(address, ping_reply(3, 0x0842), 0, std::chrono::milliseconds(20));
        });
    }

    RecordingTransport transport;
};

TEST_F(ActuatorLifecycle, ConstructionRegistersTheCallbackAndSendsNothing) {
    OrreryActuator actuator(transport, 0x21);
    EXPECT_EQ(transport.events(), (std::vector<Event>{{EventKind::SetCallback, 0x21}}));
    EXPECT_TRUE(transport.sent().empty());
}

TEST_F(ActuatorLifecycle, FreshActuatorState) {
    OrreryActuator actuator(transport, 0x21);
    EXPECT_EQ(actuator.get_firmware_version(), "x.x.x");
    EXPECT_EQ(actuator.get_model_name(), "");
    EXPECT_EQ(actuator.get_address(), 0x21);
    EXPECT_FALSE(actuator.is_connected());
    EXPECT_EQ(actuator.get_mode(), OrreryActuator::Mode::SPEED);
    EXPECT_FALSE(actuator.get_can_high_speed());
    EXPECT_TRUE(actuator.get_feedback().empty());
}

TEST_F(ActuatorLifecycle, StartAndStopSendOneByteFrames) {
    OrreryActuator actuator(transport, 0x21);
    actuator.start();
    actuator.stop();
    ASSERT_EQ(transport.sent().size(), 2u);
    EXPECT_EQ(transport.sent()[0].address, 0x21);
    EXPECT_EQ(transport.sent()[0].frame, Bytes{0x01});
    EXPECT_EQ(transport.sent()[1].frame, Bytes{0x02});
}

TEST_F(ActuatorLifecycle, ConnectSucceedsWhenTheDeviceAnswersFromAnotherThread) {
    answer_pings_later();
    OrreryActuator actuator(transport, 0x21);
    EXPECT_TRUE(actuator.connect(2.0f));
    EXPECT_TRUE(actuator.is_connected());
    EXPECT_EQ(transport.frames().at(0), Bytes{0x40});
    EXPECT_EQ(actuator.get_model_name(), "HERON_A");
    EXPECT_EQ(actuator.get_firmware_version(), "1.1.2");
    transport.join_deliveries();
}

TEST_F(ActuatorLifecycle, SendPingTimesOutWhenNobodyAnswers) {
    OrreryActuator actuator(transport, 0x21);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(actuator.send_ping(0.05f));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(50));
    EXPECT_FALSE(actuator.connect(0.05f));
    EXPECT_FALSE(actuator.is_connected());
}

TEST_F(ActuatorLifecycle, ConnectWithZeroTimeoutFailsEvenIfTheDeviceAnswersAtOnce) {
    // The answer is dispatched synchronously inside send(), before the wait.
    transport.set_responder([this](int address, const Bytes& frame) {
        if (is_command(frame, wire::Command::PING)) transport.deliver(address, ping_reply(3, 0x0842));
    });
    OrreryActuator actuator(transport, 0x21);
    EXPECT_TRUE(actuator.connect(1.0f));
    EXPECT_FALSE(actuator.connect(0.0f));
    EXPECT_FALSE(actuator.is_connected());
    EXPECT_FALSE(actuator.connect(-1.0f));
}

TEST_F(ActuatorLifecycle, DisconnectThenDestructionStopsTwiceAndRemovesTwice) {
    {
        OrreryActuator actuator(transport, 0x21);
        transport.clear_records();
        actuator.disconnect();
        EXPECT_FALSE(actuator.is_connected());
    }
    EXPECT_EQ(transport.events(), (std::vector<Event>{{EventKind::Send, 0x21},
                                                      {EventKind::RemoveCallback, 0x21},
                                                      {EventKind::Send, 0x21},
                                                      {EventKind::RemoveCallback, 0x21}}));
    EXPECT_EQ(transport.frames(), (std::vector<Bytes>{{0x02}, {0x02}}));
}

TEST_F(ActuatorLifecycle, AfterDisconnectAnswersAreNotDeliveredSoConnectFails) {
    transport.set_responder([this](int address, const Bytes& frame) {
        if (is_command(frame, wire::Command::PING)) transport.deliver(address, ping_reply(3, 0x0842));
    });
    OrreryActuator actuator(transport, 0x21);
    actuator.disconnect();
    EXPECT_FALSE(actuator.connect(0.05f));
    EXPECT_EQ(actuator.get_model_name(), "");
}

TEST_F(ActuatorLifecycle, DestructionSendsStopAndRemovesTheCallback) {
    { OrreryActuator actuator(transport, 0x33); }
    EXPECT_EQ(transport.frames(), (std::vector<Bytes>{{0x02}}));
    EXPECT_FALSE(transport.has_callback(0x33));
}

TEST_F(ActuatorLifecycle, CallbackSettersDoNotThrowWhenMemoryIsShort) {
    OrreryActuator actuator(transport, 0x21);
    int feedback_calls = 0;
    int last_feedback_calls = 0;
    int error_calls = 0;
    OrreryActuator::FeedbackCallback on_feedback = [&](int, OrreryActuator::FeedbackMap) { ++feedback_calls; };
    OrreryActuator::ErrorCallback on_error = [&](int, OrreryActuator::ErrorMap) { ++error_calls; };
    static_assert(noexcept(actuator.set_feedback_callback(std::move(on_feedback))));
    static_assert(noexcept(actuator.set_error_callback(std::move(on_error))));
    {
        FailingAllocation short_of_memory;
        EXPECT_NO_THROW(actuator.set_feedback_callback(std::move(on_feedback)));
        EXPECT_NO_THROW(actuator.set_error_callback(std::move(on_error)));
        EXPECT_NO_THROW(actuator.set_feedback_callback(nullptr));
        EXPECT_NO_THROW(
            actuator.set_feedback_callback([&](int, OrreryActuator::FeedbackMap) { ++last_feedback_calls; }));
    }
    // Both callbacks were installed, the last one set wins.
    transport.deliver(0x21, Bytes{0x41} + f32(1.0f), 0);
    transport.deliver(0x21, error_reply(1u << 0));
    EXPECT_EQ(last_feedback_calls, 1);
    EXPECT_EQ(feedback_calls, 0);
    EXPECT_EQ(error_calls, 1);
}

TEST_F(ActuatorLifecycle, LowFrequencyOperationsDoNothing) {
    OrreryActuator actuator(transport, 0x21);
    transport.deliver(0x21, Bytes{0x41} + f32(2.0f));
    bool called = false;
    actuator.set_low_freq_feedback_callback([&](OrreryActuator::FeedbackMap) { called = true; });
    actuator.set_low_freq_feedback_items({OrreryActuator::OCP_Items::POS_FB_41});
    actuator.set_low_freq_feedback_rate(100);
    actuator.set_low_freq_feedback_rate(OrreryActuator::Rates::RATE_100HZ);
    transport.deliver(0x21, Bytes{0x45} + f32(3.0f));
    EXPECT_TRUE(transport.sent().empty());
    EXPECT_FALSE(called);
    EXPECT_EQ(actuator.get_feedback(), (OrreryActuator::FeedbackMap{{OrreryActuator::OCP_Items::POS_FB_41, 2.0f},
                                                                   {OrreryActuator::OCP_Items::SPD_FB_45, 3.0f}}));
    EXPECT_EQ(actuator.get_mode(), OrreryActuator::Mode::SPEED);
    EXPECT_EQ(actuator.get_firmware_version(), "x.x.x");
}

}  // namespace

namespace {

using namespace ocp_api;
using namespace ocp_test;

// A token whose use count tells whether the callback that captured it is alive.
using Token = std::shared_ptr<int>;

TEST(ActuatorCallbackReplacement, ReplacedFeedbackCallbackIsReleasedAtOnceAfterItHasRun) {
    RecordingTransport transport;
    OrreryActuator actuator(transport, 0x21);
    Token token = std::make_shared<int>(0);
    actuator.set_feedback_callback([token](int, OrreryActuator::FeedbackMap) { ++*token; });
    transport.deliver(0x21, Bytes{0x41} + f32(1.0f), 0);
    ASSERT_EQ(*token, 1);
    actuator.set_feedback_callback(nullptr);
    EXPECT_EQ(token.use_count(), 1);
}

TEST(ActuatorCallbackReplacement, ReplacedErrorCallbackIsReleasedAtOnceAfterItHasRun) {
    RecordingTransport transport;
    OrreryActuator actuator(transport, 0x21);
    Token token = std::make_shared<int>(0);
    actuator.set_error_callback([token](int, OrreryActuator::ErrorMap) { ++*token; });
    transport.deliver(0x21, error_reply(1u << 0));
    ASSERT_EQ(*token, 1);
    actuator.set_error_callback([](int, OrreryActuator::ErrorMap) {});
    EXPECT_EQ(token.use_count(), 1);
}

TEST(ActuatorCallbackReplacement, CallbackReplacedWhileRunningLivesUntilItReturns) {
    RecordingTransport transport;
    OrreryActuator actuator(transport, 0x21);
    Token token = std::make_shared<int>(0);
    long count_inside_after_replacement = 0;
    actuator.set_feedback_callback([token, &actuator, &count_inside_after_replacement](int, OrreryActuator::FeedbackMap) {
        actuator.set_feedback_callback(nullptr);
        // Still running: what it captured must still be there.
        count_inside_after_replacement = token.use_count();
        ++*token;
    });
    transport.deliver(0x21, Bytes{0x41} + f32(1.0f), 0);
    EXPECT_EQ(*token, 1);
    EXPECT_EQ(count_inside_after_replacement, 2);
    EXPECT_EQ(token.use_count(), 1);
}

TEST(ActuatorCallbackReplacement, ReplacedCallbackThatNeverRanIsReleasedAtOnce) {
    RecordingTransport transport;
    OrreryActuator actuator(transport, 0x21);
    Token token = std::make_shared<int>(0);
    actuator.set_feedback_callback([token](int, OrreryActuator::FeedbackMap) {});
    actuator.set_feedback_callback(nullptr);
    EXPECT_EQ(token.use_count(), 1);
}

}  // namespace
