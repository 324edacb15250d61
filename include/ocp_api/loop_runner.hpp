// A fixed-rate control loop over an ActuatorGroup: each period it waits for
// an absolute deadline on the monotonic clock, takes the group's snapshot,
// calls the host, sends the setpoints the host set and keeps the group's
// devices set up. It measures how well it kept time, and a watchdog stops
// every actuator when the loop stalls.
//
//   ocp_api::LoopRunner runner(group, {std::chrono::milliseconds(1)});
//   runner.run([](const ocp_api::GroupSnapshot& s, ocp_api::ActuatorGroup& g) {
//       for (std::size_t i = 0; i < s.actuators.size(); ++i) g.set_setpoint(i, 0.0f);
//   }, std::chrono::seconds(10));
//
// Threads: run() uses the calling thread; while it runs, the runner owns one
// more thread, the watchdog, which only reads a heartbeat and may stop the
// group. request_stop(), statistics() and reset_statistics() are safe from any
// thread; request_stop() also from a signal handler.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "ocp_api/actuator_group.hpp"
#include "ocp_api/timing_histogram.hpp"

namespace ocp_api {

struct LoopOptions {
    std::chrono::nanoseconds period = std::chrono::milliseconds(1);
    // The watchdog stops every actuator when this many periods in a row are
    // missed: the loop woke that late, or a period (the host's callback) has
    // not ended that long after its deadline. 0 switches the watchdog off.
    int watchdog_missed_periods = 10;
    // Opt-in real-time settings of the loop's thread, applied when run()
    // starts; run() throws std::system_error saying what is missing when the
    // process may not have them.
    int realtime_priority = 0;  // SCHED_FIFO priority 1..99; 0 leaves the scheduler alone
    std::vector<int> cpus;      // CPU affinity; empty leaves it alone
    bool lock_memory = false;   // mlockall(MCL_CURRENT | MCL_FUTURE)
};

enum class LoopEnd : uint8_t {
    duration_elapsed,
    stop_requested,
    watchdog,         // periods missed in a row: every actuator was stopped
    feedback_lost,    // ActuatorGroupOptions::stop_when_missing_for: every actuator was stopped
};
const char* to_string(LoopEnd end);

struct LoopResult {
    LoopEnd end = LoopEnd::duration_elapsed;
    uint64_t periods = 0;  // periods the callback ran in
};

struct LoopStatistics {
    uint64_t periods = 0;          // callbacks run
    uint64_t missed_periods = 0;   // deadlines skipped because the loop was late
    uint64_t watchdog_trips = 0;
    // Wake-up time minus the deadline of the period served.
    TimingHistogram period_error;
    // From wake-up to the end of the period: snapshot, callback, setpoints, upkeep.
    TimingHistogram callback_time;
};

class LoopRunner {
public:
    using PeriodCallback = std::function<void(const GroupSnapshot&, ActuatorGroup&)>;

    // Throws std::invalid_argument for a period <= 0, a negative watchdog
    // count or a priority outside 0..99.
    LoopRunner(ActuatorGroup& group, LoopOptions options);
    ~LoopRunner();
    LoopRunner(const LoopRunner&) = delete;
    LoopRunner& operator=(const LoopRunner&) = delete;

    // Runs periods until `duration` has passed, request_stop() is called, the
    // watchdog trips or the group's feedback is lost (the last two stop every
    // actuator). A period whose deadline has passed by whole periods skips
    // them (counted as missed) instead of running them in a burst. When the
    // callback throws, every actuator is stopped and the exception passes on.
    LoopResult run(const PeriodCallback& callback,
                   std::chrono::nanoseconds duration = std::chrono::nanoseconds::max());
    void request_stop() noexcept;

    LoopStatistics statistics() const;
    void reset_statistics();
    const LoopOptions& options() const { return options_; }

private:
    void apply_realtime_settings() const;
    void watch();

    ActuatorGroup& group_;
    const LoopOptions options_;
    std::atomic<bool> stop_requested_{false};
    std::atomic<bool> running_{false};
    std::atomic<bool> watchdog_tripped_{false};
    std::atomic<int64_t> period_deadline_ns_{0};  // deadline of the period in progress, monotonic ns; 0: idle

    mutable std::mutex statistics_mutex_;
    LoopStatistics statistics_;
};

// Stops a group on SIGINT, SIGTERM, SIGHUP and SIGQUIT before the signal
// takes its usual course: the handler only wakes the guard's thread, which
// stops every actuator, restores the disposition that was in force before the
// guard and sends the signal again. When the process lives on (the signal was
// caught or ignored before the guard), it asks the runner, if any, to stop.
// One guard at a time per process; the constructor throws std::logic_error
// for a second one. The destructor restores the previous dispositions.
// Destroy the guard before the group and runner it refers to (declare it
// after them).
class SignalGuard {
public:
    explicit SignalGuard(ActuatorGroup& group, LoopRunner* runner = nullptr);
    ~SignalGuard();
    SignalGuard(const SignalGuard&) = delete;
    SignalGuard& operator=(const SignalGuard&) = delete;

    // The signal that arrived, 0 while none has.
    int signal_received() const;

private:
    void run();
    struct State;
    State* state_;
};

}  // namespace ocp_api
