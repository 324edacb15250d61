// A device side that takes a moment to answer, as real firmware does. The
// scanner starts its answer period only after its ping has gone out, so an
// answer handled before then (an emulated device on the same machine,
// scheduled at once) would not count.
#pragma once

#include <chrono>
#include <memory>
#include <thread>

#include "ocp_api/can_link.hpp"

namespace ocp_vm {

class SlowToAnswer final : public ocp_api::CanLink {
public:
    explicit SlowToAnswer(std::unique_ptr<ocp_api::CanLink> link) : link_(std::move(link)) {}
    bool fd() const override { return link_->fd(); }
    SendResult send_frame(const ocp_api::CanFrame& frame) override {
        std::this_thread::sleep_for(std::chrono::microseconds(500));
        return link_->send_frame(frame);
    }
    ocp_api::CanLinkEvent receive(std::chrono::nanoseconds timeout) override { return link_->receive(timeout); }
    void wake() override { link_->wake(); }

private:
    std::unique_ptr<ocp_api::CanLink> link_;
};

}  // namespace ocp_vm
