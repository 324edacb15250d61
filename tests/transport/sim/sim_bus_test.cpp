#include "ocp_api/sim_bus.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <thread>

#include "ocp_api/version.hpp"
#include "ocp_api/wire.hpp"
#include "support/eventually.hpp"
#include "support/recording_transport.hpp"

namespace {

using namespace ocp_api;
using namespace ocp_test;

// Waits, with a generous bound, until `done` holds.

TEST(SimBus, AddActuatorRejectsInvalidAndTakenAddresses) {
    SimBus bus;
    bus.add_actuator(0x21);
    try {
        bus.add_actuator(0x21);
        ADD_FAILURE();
    } catch (const std::invalid_argument& error) {
        EXPECT_STREQ(error.what(), "Address 0x21 is already taken on the simulated bus");
    }
    try {
        bus.add_actuator(0x0F);
        ADD_FAILURE();
    } catch (const std::invalid_argument& error) {
        EXPECT_STREQ(error.what(), "Invalid address 0xf for an emulated actuator: must be 0x10..0x3ffe");
    }
    EXPECT_THROW(bus.add_actuator(0x3FFF), std::invalid_argument);
    EXPECT_EQ(bus.actuator_count(), 1u);
    EXPECT_THROW(bus.actuator(0x22), std::out_of_range);
    EXPECT_EQ(bus.actuator(0x21).address(), 0x21);
    EXPECT_EQ(bus.actuator(0x21).model_code(), 3);
    EXPECT_EQ(bus.actuator(0x21).firmware_word(), 0x0842);
}

TEST(SimBus, RejectsNonsenseOptions) {
    EXPECT_THROW(SimBus(SimBusOptions{0.0}), std::invalid_argument);
    EXPECT_THROW(SimBus(SimBusOptions{1.0, std::chrono::microseconds(0), 1.5}), std::invalid_argument);
    EXPECT_THROW(SimBus(SimBusOptions{1.0, std::chrono::microseconds(-1)}), std::invalid_argument);
}

TEST(SimBus, AdapterAnswersPingsWithTheLibraryVersion) {
    SimBus bus;
    std::mutex mutex;
    std::condition_variable answered;
    Bytes reply;
    bus.setCallback(0, [&](int, Bytes bytes, int) {
        std::lock_guard<std::mutex> lock(mutex);
        reply = std::move(bytes);
        answered.notify_all();
    });
    EXPECT_TRUE(bus.send(0, {0x40}));
    std::unique_lock<std::mutex> lock(mutex);
    ASSERT_TRUE(answered.wait_for(lock, std::chrono::seconds(20), [&] { return !reply.empty(); }));
    EXPECT_EQ(reply, Bytes{0x80} + u16(MODEL_CODE_CAN_ADAPTER) +
                         u16(wire::firmware_word(VERSION_MAJOR, VERSION_MINOR, VERSION_PATCH)));
    lock.unlock();
    bus.removeCallback(0);
}

TEST(SimBus, SendAfterCloseFails) {
    SimBus bus;
    bus.close();
    bus.close();
    EXPECT_FALSE(bus.send(0x21, {0x01}));
    EXPECT_EQ(bus.counters().frames_sent, 0u);
}

TEST(SimBus, CountersAccountForEveryFrameAndReply) {
    SimBus bus(SimBusOptions{1.0, std::chrono::microseconds(0), 0.5, 7});
    bus.add_actuator(0x21);
    std::atomic<int> delivered{0};
    bus.setCallback(0x21, [&](int, Bytes, int) { delivered.fetch_add(1); });
    for (int i = 0; i < 400; ++i) bus.send(0x21, {0x40});
    bus.send(0x55, {0x40});  // nobody there
    ASSERT_TRUE(eventually([&] {
        const auto c = bus.counters();
        return c.frames_handled == c.frames_received &&
               c.replies_sent == c.replies_lost + c.replies_delivered + c.replies_unclaimed;
    }));
    const auto c = bus.counters();
    EXPECT_EQ(c.frames_received + c.frames_lost, 401u);
    EXPECT_GT(c.frames_lost, 100u);
    EXPECT_LT(c.frames_lost, 300u);
    EXPECT_GT(c.replies_lost, 0u);
    EXPECT_EQ(c.replies_delivered, static_cast<uint64_t>(delivered.load()));
    bus.removeCallback(0x21);
}

TEST(SimBus, SimulatedTimeFollowsTheScale) {
    SimBus bus(SimBusOptions{50.0});
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(eventually([&] { return bus.sim_time() >= 1.0; }));
    // 1 s of simulated time at 50x takes about 20 ms of wall time; allow plenty.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
}

TEST(SimBus, CloseFromInsideACallbackDoesNotDeadlock) {
    SimBus bus;
    std::atomic<bool> closed{false};
    bus.setCallback(0, [&](int, Bytes, int) {
        bus.close();
        closed.store(true);
    });
    bus.send(0, {0x40});
    ASSERT_TRUE(eventually([&] { return closed.load(); }));
    EXPECT_FALSE(bus.send(0, {0x40}));
}

TEST(SimBus, PhysicsAccessReachesTheDevicesModel) {
    SimBus bus;
    bus.add_actuator(0x21);
    bus.actuator(0x21).physics()->change_load(0.5f);
    EXPECT_EQ(bus.actuator(0x21).physics()->get_load(), 0.5f);
}

}  // namespace
