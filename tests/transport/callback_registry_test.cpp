#include "ocp_api/callback_registry.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <thread>

namespace {

using ocp_api::CallbackRegistry;
using Bytes = std::vector<uint8_t>;

TEST(CallbackRegistry, DispatchesToTheCallbackOfTheAddress) {
    CallbackRegistry registry;
    int seen_address = -1;
    Bytes seen_bytes;
    int seen_kind = -1;
    registry.set(7, [&](int a, Bytes b, int k) {
        seen_address = a;
        seen_bytes = std::move(b);
        seen_kind = k;
    });
    EXPECT_TRUE(registry.dispatch(7, {1, 2}, 3));
    EXPECT_EQ(seen_address, 7);
    EXPECT_EQ(seen_bytes, (Bytes{1, 2}));
    EXPECT_EQ(seen_kind, 3);
    EXPECT_FALSE(registry.dispatch(8, {}, 0));
}

TEST(CallbackRegistry, ASecondCallbackReplacesTheFirst) {
    CallbackRegistry registry;
    int first = 0, second = 0;
    registry.set(7, [&](int, Bytes, int) { ++first; });
    registry.set(7, [&](int, Bytes, int) { ++second; });
    registry.dispatch(7, {}, 0);
    EXPECT_EQ(first, 0);
    EXPECT_EQ(second, 1);
    EXPECT_EQ(registry.size(), 1u);
}

TEST(CallbackRegistry, RemovedCallbackIsNotCalled) {
    CallbackRegistry registry;
    int calls = 0;
    registry.set(7, [&](int, Bytes, int) { ++calls; });
    registry.remove(7);
    registry.remove(7);  // removing twice is harmless
    EXPECT_FALSE(registry.dispatch(7, {}, 0));
    EXPECT_EQ(calls, 0);
    EXPECT_FALSE(registry.has(7));
}

TEST(CallbackRegistry, RemovingFromInsideTheCallbackDoesNotDeadlock) {
    CallbackRegistry registry;
    int calls = 0;
    registry.set(7, [&](int, Bytes, int) {
        ++calls;
        registry.remove(7);
    });
    EXPECT_TRUE(registry.dispatch(7, {}, 0));
    EXPECT_FALSE(registry.dispatch(7, {}, 0));
    EXPECT_EQ(calls, 1);
}

TEST(CallbackRegistry, RemoveWaitsForACallInFlightOnAnotherThread) {
    CallbackRegistry registry;
    std::mutex mutex;
    std::condition_variable changed;
    bool in_callback = false;
    bool release = false;
    std::atomic<bool> removed{false};
    bool removed_seen_inside = true;

    registry.set(7, [&](int, Bytes, int) {
        std::unique_lock<std::mutex> lock(mutex);
        in_callback = true;
        changed.notify_all();
        changed.wait(lock, [&] { return release; });
        removed_seen_inside = removed.load();
    });
    std::thread receiver([&] { registry.dispatch(7, {}, 0); });
    {
        std::unique_lock<std::mutex> lock(mutex);
        ASSERT_TRUE(changed.wait_for(lock, std::chrono::seconds(10), [&] { return in_callback; }));
    }
    std::thread remover([&] {
        registry.remove(7);
        removed.store(true);
    });
    // Give a broken remove() the chance to return early; a correct one cannot.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    {
        std::lock_guard<std::mutex> lock(mutex);
        release = true;
    }
    changed.notify_all();
    receiver.join();
    remover.join();
    EXPECT_FALSE(removed_seen_inside);
    EXPECT_TRUE(removed.load());
    EXPECT_FALSE(registry.dispatch(7, {}, 0));
}

TEST(CallbackRegistry, ConcurrentSetRemoveAndDispatch) {
    CallbackRegistry registry;
    std::atomic<int> calls{0};
    std::atomic<bool> stop{false};
    std::thread receiver([&] {
        while (!stop.load()) registry.dispatch(3, {1}, 0);
    });
    for (int i = 0; i < 2000; ++i) {
        registry.set(3, [&](int, Bytes, int) { calls.fetch_add(1); });
        registry.remove(3);
    }
    registry.set(3, [&](int, Bytes, int) { calls.fetch_add(1); });
    const int before = calls.load();
    while (calls.load() == before) std::this_thread::yield();
    stop.store(true);
    receiver.join();
    registry.clear();
    EXPECT_EQ(registry.size(), 0u);
}

}  // namespace
