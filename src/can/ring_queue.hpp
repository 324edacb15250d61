// A first-in first-out queue over one ring of slots that keeps its storage:
// it grows (doubling) when full and never gives memory back, so a queue that
// has seen its steady-state depth pushes and pops without allocating (a
// std::deque allocates and frees a block every few elements as it moves).
#pragma once

#include <cstddef>
#include <utility>
#include <vector>

namespace ocp_api::can {

template <typename T>
class RingQueue {
public:
    bool empty() const { return size_ == 0; }
    std::size_t size() const { return size_; }

    T& front() { return slots_[head_]; }

    void push_back(T value) {
        if (size_ == slots_.size()) grow();
        slots_[(head_ + size_) % slots_.size()] = std::move(value);
        ++size_;
    }

    void pop_front() {
        head_ = (head_ + 1) % slots_.size();
        --size_;
    }

private:
    void grow() {
        std::vector<T> bigger(slots_.empty() ? 16 : slots_.size() * 2);
        for (std::size_t i = 0; i < size_; ++i) bigger[i] = std::move(slots_[(head_ + i) % slots_.size()]);
        slots_ = std::move(bigger);
        head_ = 0;
    }

    std::vector<T> slots_;
    std::size_t head_ = 0;
    std::size_t size_ = 0;
};

}  // namespace ocp_api::can
