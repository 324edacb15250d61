// The actuator shared by the transport's receive thread and host threads.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "ocp_api/orrery_actuator.hpp"
#include "support/device_replies.hpp"
#include "support/recording_transport.hpp"

namespace {

using namespace ocp_api;
using namespace ocp_test;
using Items = OrreryActuator::OCP_Items;
using FeedbackMap = OrreryActuator::FeedbackMap;

TEST(ActuatorConcurrency, StreamingWhileTheHostReadsReplacesCallbacksAndRequests) {
    RecordingTransport transport;
    // A device that answers item requests and pings on the requesting thread.
    transport.set_responder([&](int address, const Bytes& frame) {
        if (is_command(frame, wire::Command::GET_ITEMS)) transport.deliver(address, Bytes{0x49} + f32(7.0f), 1);
        if (is_command(frame, wire::Command::PING)) transport.deliver(address, ping_reply(3, 0x0842));
    });
    OrreryActuator actuator(transport, 0x21);
    std::atomic<int> callbacks{0};
    constexpr int REPLIES = 20000;

    std::thread receiver([&] {
        for (int i = 1; i <= REPLIES; ++i) {
            transport.deliver(0x21, Bytes{0x41} + f32(static_cast<float>(i)) + Bytes{0x45} + f32(1.0f), 0);
            if (i % 1000 == 0) transport.deliver(0x21, error_reply(1u << 12), 0);
        }
    });
    int requests_answered = 0;
    int pings_answered = 0;
    for (int round = 0; round < 300; ++round) {
        const FeedbackMap feedback = actuator.get_feedback();
        if (!feedback.empty()) {
            EXPECT_EQ(feedback.at(Items::SPD_FB_45), 1.0f);
        }
        actuator.set_feedback_callback([&](int, FeedbackMap items) {
            callbacks.fetch_add(1);
            EXPECT_EQ(items.size(), 2u);
        });
        actuator.set_error_callback([](int, OrreryActuator::ErrorMap) {});
        const FeedbackMap answer = actuator.getItemsBlocking({Items::T_FB_49}, 5.0f);
        requests_answered += answer == FeedbackMap{{Items::T_FB_49, 7.0f}} ? 1 : 0;
        pings_answered += actuator.send_ping(5.0f) ? 1 : 0;
        EXPECT_EQ(actuator.get_model_name(), "HERON_A");
    }
    receiver.join();
    EXPECT_EQ(requests_answered, 300);
    EXPECT_EQ(pings_answered, 300);
    EXPECT_GT(callbacks.load(), 0);
    EXPECT_EQ(actuator.get_feedback().at(Items::POS_FB_41), static_cast<float>(REPLIES));
}

TEST(ActuatorConcurrency, DestroyingTheActuatorWhileRepliesStreamIsSafe) {
    RecordingTransport transport;
    std::atomic<bool> stop{false};
    std::atomic<int> delivered{0};
    std::thread receiver([&] {
        while (!stop.load()) {
            if (transport.deliver(0x21, Bytes{0x41} + f32(1.0f), 0)) delivered.fetch_add(1);
        }
    });
    for (int i = 0; i < 200; ++i) {
        std::atomic<int> calls{0};  // outlives the actuator that counts into it
        OrreryActuator actuator(transport, 0x21);
        actuator.set_feedback_callback([&](int, FeedbackMap) { calls.fetch_add(1); });
    }
    stop.store(true);
    receiver.join();
    EXPECT_FALSE(transport.has_callback(0x21));
}

TEST(ActuatorConcurrency, ErrorCallbackMayCallBackIntoTheActuator) {
    RecordingTransport transport;
    OrreryActuator actuator(transport, 0x21);
    std::atomic<int> calls{0};
    actuator.set_error_callback([&](int, OrreryActuator::ErrorMap) {
        actuator.stop();
        actuator.set_error_callback([&](int, OrreryActuator::ErrorMap) { calls.fetch_add(10); });
        calls.fetch_add(1);
    });
    std::thread receiver([&] { transport.deliver(0x21, error_reply(1u << 16)); });
    receiver.join();
    transport.deliver(0x21, error_reply(1u << 16));
    EXPECT_EQ(calls.load(), 11);
    EXPECT_EQ(transport.frames(), (std::vector<Bytes>{{0x02}}));
}

}  // namespace
