#include "ocp_api/can_link.hpp"

#include <algorithm>
#include <array>
#include <thread>

namespace ocp_api {

namespace {
constexpr std::size_t CLASSIC_MAX_DATA = 8;
// The CAN-FD data lengths from 8 up; below 8 any length is valid on both.
constexpr std::array<uint8_t, 8> FD_LENGTHS_FROM_8{8, 12, 16, 20, 24, 32, 48, 64};
static_assert(FD_LENGTHS_FROM_8.back() == CanFrame::MAX_DATA);

// Short against a frame time at 1 Mbit/s (about 130 us), so a queue that
// drains is caught soon after.
constexpr std::chrono::microseconds BUSY_PAUSE{50};
}  // namespace

bool is_valid_frame_length(std::size_t len, bool fd) {
    if (len <= CLASSIC_MAX_DATA) return true;
    return fd && std::find(FD_LENGTHS_FROM_8.begin(), FD_LENGTHS_FROM_8.end(), len) != FD_LENGTHS_FROM_8.end();
}

uint8_t fd_frame_length(std::size_t bytes) {
    for (const uint8_t length : FD_LENGTHS_FROM_8) {
        if (bytes <= length) return length;
    }
    return FD_LENGTHS_FROM_8.back();
}

CanLink::~CanLink() = default;

CanLink::SendResult send_frame_retrying(CanLink& link, const CanFrame& frame, std::chrono::microseconds busy_retry,
                                        bool urgent) {
    const auto attempt = [&] { return urgent ? link.send_urgent_frame(frame) : link.send_frame(frame); };
    CanLink::SendResult result = attempt();
    if (result != CanLink::SendResult::busy) return result;  // nearly always: no clock needed
    const auto give_up_at = std::chrono::steady_clock::now() + busy_retry;
    for (;;) {
        std::this_thread::sleep_for(BUSY_PAUSE);
        result = attempt();
        if (result != CanLink::SendResult::busy || std::chrono::steady_clock::now() >= give_up_at) return result;
    }
}

}  // namespace ocp_api
