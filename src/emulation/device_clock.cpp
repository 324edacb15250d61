#include "emulation/device_clock.hpp"

#include <algorithm>
#include <cmath>

namespace ocp_api::detail {

namespace {
constexpr double NANOSECONDS_PER_STEP = DeviceClock::SECONDS_PER_STEP * 1e9;
// Wall times further ahead than this (about 31 years) stand for "never": it
// keeps every conversion of a step count to nanoseconds inside int64_t, also
// for a feedback period of 0xFFFFFFFF at a small time scale.
constexpr double FAR_FUTURE_NS = 1e18;
}

DeviceClock::DeviceClock(Clock::time_point epoch, double time_scale) : epoch_(epoch), time_scale_(time_scale) {}

int64_t DeviceClock::step_at(Clock::time_point now) const {
    const double wall_ns = static_cast<double>(std::chrono::duration_cast<std::chrono::nanoseconds>(now - epoch_).count());
    return static_cast<int64_t>(wall_ns * time_scale_ / NANOSECONDS_PER_STEP);
}

// Rounded up, and a nanosecond later, so that waking then finds the step due.
DeviceClock::Clock::time_point DeviceClock::time_of_step(int64_t step) const {
    const double wall_ns = std::ceil(static_cast<double>(step) * NANOSECONDS_PER_STEP / time_scale_) + 1.0;
    const double bounded_ns = std::min(wall_ns, FAR_FUTURE_NS);
    return epoch_ + std::chrono::nanoseconds(static_cast<int64_t>(bounded_ns));
}

}  // namespace ocp_api::detail
