// Simulated time for emulated devices: steps of 100 us that follow the wall
// clock times a scale. Every bus hosting emulated devices keeps its devices'
// steps with one of these.
#pragma once

#include <chrono>
#include <cstdint>

namespace ocp_api::detail {

class DeviceClock {
public:
    using Clock = std::chrono::steady_clock;

    static constexpr double SECONDS_PER_STEP = 1e-4;  // the devices' control period
    // The time scales a host accepts (simulated seconds per wall second):
    // beyond them steps are either too rare to follow or too many to compute.
    static constexpr double MIN_TIME_SCALE = 1e-6;
    static constexpr double MAX_TIME_SCALE = 1000.0;
    // False also for NaN.
    static bool is_valid_time_scale(double scale) { return scale >= MIN_TIME_SCALE && scale <= MAX_TIME_SCALE; }

    DeviceClock(Clock::time_point epoch, double time_scale);

    // The step the devices should have reached at wall time `now`.
    int64_t step_at(Clock::time_point now) const;
    // The first wall instant at which step_at() reaches `step`.
    Clock::time_point time_of_step(int64_t step) const;

private:
    Clock::time_point epoch_;
    double time_scale_;
};

}  // namespace ocp_api::detail
