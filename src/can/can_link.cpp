#include "ocp_api/can_link.hpp"

#include <thread>

namespace ocp_api {

namespace {
// Short against a frame time at 1 Mbit/s (about 130 us), so a queue that
// drains is caught soon after.
constexpr std::chrono::microseconds BUSY_PAUSE{50};
}  // namespace

CanLink::~CanLink() = default;

CanLink::SendResult send_frame_retrying(CanLink& link, const CanFrame& frame, std::chrono::microseconds busy_retry) {
    const auto give_up_at = std::chrono::steady_clock::now() + busy_retry;
    for (;;) {
        const CanLink::SendResult result = link.send_frame(frame);
        if (result != CanLink::SendResult::busy || std::chrono::steady_clock::now() >= give_up_at) return result;
        std::this_thread::sleep_for(BUSY_PAUSE);
    }
}

}  // namespace ocp_api
