// The next deadlines of a CAN node's senders and receivers: a binary min-heap
// that knows where each id sits, so setting, moving or removing one id's
// deadline is O(log n) and the earliest is O(1), however many are open.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "can/isotp.hpp"

namespace ocp_api::can::detail {

class DeadlineHeap {
public:
    // Sets, moves or (with nullopt) removes the deadline of `id`.
    void set(uint32_t id, std::optional<IsoTpTime> when) {
        if (id >= position_.size()) {
            if (!when) return;
            position_.resize(id + 1, ABSENT);
        }
        const uint32_t at = position_[id];
        if (!when) {
            if (at != ABSENT) remove_at(at);
            return;
        }
        if (at == ABSENT) {
            heap_.push_back({*when, id});
            position_[id] = static_cast<uint32_t>(heap_.size() - 1);
            sift_up(heap_.size() - 1);
            return;
        }
        const bool earlier = *when < heap_[at].time;
        heap_[at].time = *when;
        if (earlier) {
            sift_up(at);
        } else {
            sift_down(at);
        }
    }

    bool empty() const { return heap_.empty(); }
    IsoTpTime earliest() const { return heap_.front().time; }
    uint32_t earliest_id() const { return heap_.front().id; }
    std::size_t size() const { return heap_.size(); }

private:
    static constexpr uint32_t ABSENT = UINT32_MAX;
    struct Entry {
        IsoTpTime time;
        uint32_t id;
    };

    void swap_entries(std::size_t a, std::size_t b) {
        std::swap(heap_[a], heap_[b]);
        position_[heap_[a].id] = static_cast<uint32_t>(a);
        position_[heap_[b].id] = static_cast<uint32_t>(b);
    }

    void sift_up(std::size_t i) {
        while (i > 0) {
            const std::size_t parent = (i - 1) / 2;
            if (!(heap_[i].time < heap_[parent].time)) return;
            swap_entries(i, parent);
            i = parent;
        }
    }

    void sift_down(std::size_t i) {
        for (;;) {
            const std::size_t left = 2 * i + 1;
            if (left >= heap_.size()) return;
            std::size_t smallest = left;
            if (left + 1 < heap_.size() && heap_[left + 1].time < heap_[left].time) smallest = left + 1;
            if (!(heap_[smallest].time < heap_[i].time)) return;
            swap_entries(i, smallest);
            i = smallest;
        }
    }

    void remove_at(std::size_t i) {
        const std::size_t last = heap_.size() - 1;
        if (i != last) swap_entries(i, last);
        position_[heap_[last].id] = ABSENT;
        heap_.pop_back();
        if (i < heap_.size()) {
            sift_up(i);
            sift_down(i);
        }
    }

    std::vector<Entry> heap_;
    std::vector<uint32_t> position_;  // by id: index in heap_, or ABSENT
};

}  // namespace ocp_api::can::detail
