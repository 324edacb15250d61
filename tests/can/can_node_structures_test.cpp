// The index and the deadline heap behind the CAN node, against the standard
// containers they replace, over long random sequences of operations.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>

#include "can/deadline_heap.hpp"
#include "can/slot_index.hpp"

namespace {

using namespace ocp_api::can;
using namespace std::chrono_literals;

TEST(CanNodeStructures, SlotIndexAgreesWithAMapThroughInsertsAndErases) {
    detail::SlotIndex index;
    std::map<uint32_t, uint32_t> reference;
    std::mt19937 random(5);
    for (int step = 0; step < 200000; ++step) {
        const uint32_t key = random() % 600;  // addresses and address * 2 + kind alike
        const auto found = reference.find(key);
        if (found == reference.end()) {
            ASSERT_EQ(index.find(key), detail::SlotIndex::NOT_FOUND);
            const uint32_t slot = random() % 1000;
            index.insert(key, slot);
            reference[key] = slot;
        } else {
            ASSERT_EQ(index.find(key), found->second);
            if (random() % 2 == 0) {
                index.erase(key);
                reference.erase(found);
            }
        }
        ASSERT_EQ(index.size(), reference.size());
    }
    for (const auto& [key, slot] : reference) EXPECT_EQ(index.find(key), slot);
}

TEST(CanNodeStructures, DeadlineHeapGivesTheEarliestAfterEverySetMoveAndRemoval) {
    detail::DeadlineHeap heap;
    std::map<uint32_t, IsoTpTime> reference;
    std::mt19937 random(9);
    const IsoTpTime t0 = IsoTpTime{} + 100s;
    for (int step = 0; step < 100000; ++step) {
        const uint32_t id = random() % 300;
        if (random() % 4 == 0) {
            heap.set(id, std::nullopt);
            reference.erase(id);
        } else {
            const IsoTpTime when = t0 + std::chrono::microseconds(random() % 5000);
            heap.set(id, when);
            reference[id] = when;
        }
        ASSERT_EQ(heap.size(), reference.size());
        if (reference.empty()) {
            ASSERT_TRUE(heap.empty());
            continue;
        }
        IsoTpTime earliest = IsoTpTime::max();
        for (const auto& [key, when] : reference) earliest = std::min(earliest, when);
        ASSERT_EQ(heap.earliest(), earliest);
        ASSERT_EQ(reference.at(heap.earliest_id()), earliest);
    }
}

}  // namespace
