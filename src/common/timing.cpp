#include "common/timing.hpp"

#include <cerrno>
#include <ctime>

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

float seconds_since(std::chrono::steady_clock::time_point start) {
    const auto elapsed = std::chrono::steady_clock::now() - start;
    return static_cast<float>(std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count()) / 1e9f;
}

}  // namespace ocp_api::detail
