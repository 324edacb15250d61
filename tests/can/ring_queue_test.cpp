#include "can/ring_queue.hpp"

#include <gtest/gtest.h>

#include <memory>

namespace {

using ocp_api::can::RingQueue;

TEST(RingQueue, FirstInFirstOutAcrossTheWrapAndWhileGrowing) {
    RingQueue<int> queue;
    int next_in = 0;
    int next_out = 0;
    // Depth 10 for a while (the ring wraps), then 40 (it grows with items
    // on both sides of the wrap), then down to nothing.
    for (int round = 0; round < 50; ++round) {
        while (queue.size() < 10) queue.push_back(next_in++);
        for (int k = 0; k < 7; ++k) {
            ASSERT_EQ(queue.front(), next_out++);
            queue.pop_front();
        }
    }
    while (queue.size() < 40) queue.push_back(next_in++);
    while (!queue.empty()) {
        ASSERT_EQ(queue.front(), next_out++);
        queue.pop_front();
    }
    EXPECT_EQ(next_out, next_in);
}

TEST(RingQueue, HoldsMoveOnlyValues) {
    RingQueue<std::unique_ptr<int>> queue;
    for (int k = 0; k < 20; ++k) queue.push_back(std::make_unique<int>(k));
    EXPECT_EQ(queue.size(), 20u);
    EXPECT_EQ(*queue.front(), 0);
    queue.pop_front();
    EXPECT_EQ(*queue.front(), 1);
}

}  // namespace
