// The in-process CAN channel: one lock for the channel, one inbox per endpoint.
#include "ocp_api/virtual_can.hpp"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <vector>

namespace ocp_api {

namespace {

bool carries_traffic(CanLinkState state) { return state != CanLinkState::bus_off && state != CanLinkState::down; }

}  // namespace

struct VirtualCanChannel::Shared {
    explicit Shared(std::size_t limit) : queue_limit(limit) {}

    const std::size_t queue_limit;
    std::mutex mutex;  // guards everything below and every endpoint's inbox
    std::vector<Endpoint*> endpoints;
    CanLinkState state = CanLinkState::active;
    uint64_t carried = 0;
    uint64_t dropped = 0;
};

class VirtualCanChannel::Endpoint : public CanLink {
public:
    Endpoint(std::shared_ptr<Shared> shared, bool fd) : shared_(std::move(shared)), fd_(fd) {
        std::lock_guard<std::mutex> lock(shared_->mutex);
        shared_->endpoints.push_back(this);
    }

    ~Endpoint() override {
        std::lock_guard<std::mutex> lock(shared_->mutex);
        auto& endpoints = shared_->endpoints;
        endpoints.erase(std::remove(endpoints.begin(), endpoints.end(), this), endpoints.end());
    }

    bool fd() const override { return fd_; }

    SendResult send_frame(const CanFrame& frame) override {
        if ((frame.fd && !fd_) || !is_valid_frame_length(frame.len, frame.fd)) return SendResult::failed;
        std::lock_guard<std::mutex> lock(shared_->mutex);
        if (!carries_traffic(shared_->state)) return SendResult::failed;
        ++shared_->carried;
        for (Endpoint* other : shared_->endpoints) {
            if (other == this || (frame.fd && !other->fd_)) continue;
            if (other->inbox_.size() >= shared_->queue_limit) {
                ++shared_->dropped;
                continue;
            }
            CanLinkEvent event;
            event.type = CanLinkEvent::Type::frame;
            event.frame = frame;
            other->push(std::move(event));
        }
        return SendResult::sent;
    }

    CanLinkEvent receive(std::chrono::nanoseconds timeout) override {
        std::unique_lock<std::mutex> lock(shared_->mutex);
        arrived_.wait_for(lock, timeout, [this] { return woken_ || !inbox_.empty(); });
        if (woken_ || inbox_.empty()) {
            woken_ = false;
            return {};
        }
        CanLinkEvent event = std::move(inbox_.front());
        inbox_.pop_front();
        return event;
    }

    void wake() override {
        std::lock_guard<std::mutex> lock(shared_->mutex);
        woken_ = true;
        arrived_.notify_all();
    }

    // Called with the channel's lock held.
    void push(CanLinkEvent event) {
        inbox_.push_back(std::move(event));
        arrived_.notify_all();
    }

private:
    const std::shared_ptr<Shared> shared_;
    const bool fd_;
    std::condition_variable arrived_;
    std::deque<CanLinkEvent> inbox_;
    bool woken_ = false;
};

VirtualCanChannel::VirtualCanChannel(std::size_t queue_limit) : shared_(std::make_shared<Shared>(queue_limit)) {}

VirtualCanChannel::~VirtualCanChannel() = default;

std::unique_ptr<CanLink> VirtualCanChannel::open(bool fd) { return std::make_unique<Endpoint>(shared_, fd); }

void VirtualCanChannel::set_state(CanLinkState state) {
    std::lock_guard<std::mutex> lock(shared_->mutex);
    if (shared_->state == state) return;
    shared_->state = state;
    for (Endpoint* endpoint : shared_->endpoints) {
        CanLinkEvent event;
        event.type = CanLinkEvent::Type::state;
        event.state = state;
        endpoint->push(std::move(event));
    }
}

uint64_t VirtualCanChannel::frames_carried() const {
    std::lock_guard<std::mutex> lock(shared_->mutex);
    return shared_->carried;
}

uint64_t VirtualCanChannel::frames_dropped() const {
    std::lock_guard<std::mutex> lock(shared_->mutex);
    return shared_->dropped;
}

}  // namespace ocp_api
