// Waiting on a condition with a generous bound, for tests that cross threads.
#pragma once

#include <chrono>
#include <thread>

namespace ocp_test {

// Polls `done` every millisecond; false if it is still not true after `bound`.
template <typename Predicate>
bool eventually(Predicate done, std::chrono::seconds bound = std::chrono::seconds(30)) {
    const auto deadline = std::chrono::steady_clock::now() + bound;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace ocp_test
