#include "common/timing.hpp"

#include <cerrno>
#include <cmath>
#include <ctime>
#include <limits>

namespace ocp_api::detail {

void sleep_resuming(std::chrono::nanoseconds duration) {
    if (duration.count() <= 0) return;
    const auto whole_seconds = std::chrono::duration_cast<std::chrono::seconds>(duration);
    timespec remaining{};
    remaining.tv_sec = static_cast<time_t>(whole_seconds.count());
    remaining.tv_nsec = static_cast<long>((duration - whole_seconds).count());
    timespec request = remaining;
    while (nanosleep(&request, &remaining) == -1 && errno == EINTR) request = remaining;
}

int64_t whole_milliseconds(float seconds) {
    if (!(seconds > 0.0f)) return 0;
    const float milliseconds = std::trunc(seconds * 1000.0f);
    // 2^63 is exact in float; anything from there on does not fit.
    if (!(milliseconds < 9223372036854775808.0f)) return std::numeric_limits<int64_t>::max();
    return static_cast<int64_t>(milliseconds);
}

void sleep_milliseconds_resuming(int64_t milliseconds) {
    if (milliseconds <= 0) return;
    // Built from seconds, not through nanoseconds, which would overflow for
    // waits beyond about 292 years.
    timespec remaining{};
    remaining.tv_sec = static_cast<time_t>(milliseconds / 1000);
    remaining.tv_nsec = static_cast<long>(milliseconds % 1000) * 1000000L;
    timespec request = remaining;
    while (nanosleep(&request, &remaining) == -1 && errno == EINTR) request = remaining;
}

float seconds_since(std::chrono::steady_clock::time_point start) {
    const auto elapsed = std::chrono::steady_clock::now() - start;
    return static_cast<float>(std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count()) / 1e9f;
}

}  // namespace ocp_api::detail
