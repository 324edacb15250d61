// Sleeping and polling on the monotonic clock.
#pragma once

#include <chrono>
#include <cstdint>

namespace ocp_api::detail {

inline constexpr std::chrono::nanoseconds PING_POLL_PERIOD = std::chrono::milliseconds(10);
inline constexpr std::chrono::nanoseconds PARAMETER_POLL_PERIOD = std::chrono::milliseconds(10);
inline constexpr std::chrono::nanoseconds ITEM_POLL_PERIOD = std::chrono::milliseconds(1);
inline constexpr std::chrono::nanoseconds DEVICE_RESET_PAUSE = std::chrono::milliseconds(100);

// Sleeps for `duration`; a sleep cut short by a signal goes on for the time
// that remains.
void sleep_resuming(std::chrono::nanoseconds duration);

// A wait in float seconds as whole milliseconds, truncated toward zero: 0 for
// NaN and waits of 0 or less, INT64_MAX for waits too long for int64_t.
int64_t whole_milliseconds(float seconds);

// Sleeps `milliseconds`, however long, resuming after signals.
void sleep_milliseconds_resuming(int64_t milliseconds);

// Seconds since `start` on the steady clock, as a float.
float seconds_since(std::chrono::steady_clock::time_point start);

// Polls `answered` every `period` until it is true or `timeout_s` has passed.
// The time is tested first: a timeout of 0 or less returns false without
// looking, and an answer that comes in the last sleep before the deadline is
// missed.
template <typename Predicate>
bool poll_until(float timeout_s, std::chrono::nanoseconds period, Predicate answered) {
    const auto start = std::chrono::steady_clock::now();
    for (;;) {
        if (!(timeout_s > seconds_since(start))) return false;
        if (answered()) return true;
        sleep_resuming(period);
    }
}

}  // namespace ocp_api::detail
