// The loop sleeps to absolute deadlines on CLOCK_MONOTONIC, so the time the
// host's callback takes does not shift the next period, and a late wake-up
// skips the periods already gone rather than running them back to back: a
// burst of stale setpoints helps no joint.
#include "ocp_api/loop_runner.hpp"

#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <time.h>

#include <cerrno>
#include <condition_variable>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace ocp_api {

namespace {

constexpr int64_t NS_PER_S = 1'000'000'000;

int64_t monotonic_ns() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * NS_PER_S + now.tv_nsec;
}

void sleep_until(int64_t deadline_ns) {
    timespec deadline{};
    deadline.tv_sec = static_cast<time_t>(deadline_ns / NS_PER_S);
    deadline.tv_nsec = static_cast<long>(deadline_ns % NS_PER_S);
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) == EINTR) {
    }
}

std::string cpu_list(const std::vector<int>& cpus) {
    std::string text;
    for (const int cpu : cpus) text += (text.empty() ? "" : ",") + std::to_string(cpu);
    return text;
}

}  // namespace

const char* to_string(LoopEnd end) {
    switch (end) {
        case LoopEnd::duration_elapsed: return "duration_elapsed";
        case LoopEnd::stop_requested: return "stop_requested";
        case LoopEnd::watchdog: return "watchdog";
        case LoopEnd::feedback_lost: return "feedback_lost";
    }
    return "stop_requested";
}

LoopRunner::LoopRunner(ActuatorGroup& group, LoopOptions options) : group_(group), options_(std::move(options)) {
    if (options_.period.count() <= 0) throw std::invalid_argument("LoopOptions::period must be positive");
    if (options_.watchdog_missed_periods < 0)
        throw std::invalid_argument("LoopOptions::watchdog_missed_periods must not be negative");
    if (options_.realtime_priority < 0 || options_.realtime_priority > 99)
        throw std::invalid_argument("LoopOptions::realtime_priority " + std::to_string(options_.realtime_priority) +
                                    " is outside 0..99");
    for (const int cpu : options_.cpus) {
        if (cpu < 0 || cpu >= CPU_SETSIZE)
            throw std::invalid_argument("LoopOptions::cpus: CPU " + std::to_string(cpu) + " is outside 0.." +
                                        std::to_string(CPU_SETSIZE - 1));
    }
}

LoopRunner::~LoopRunner() = default;

void LoopRunner::apply_realtime_settings() const {
    if (options_.realtime_priority > 0) {
        sched_param parameters{};
        parameters.sched_priority = options_.realtime_priority;
        const int error = pthread_setschedparam(pthread_self(), SCHED_FIFO, &parameters);
        if (error != 0)
            throw std::system_error(error, std::generic_category(),
                                    "SCHED_FIFO priority " + std::to_string(options_.realtime_priority) +
                                        " refused (needs CAP_SYS_NICE or an rtprio limit: ulimit -r)");
    }
    if (!options_.cpus.empty()) {
        cpu_set_t set;
        CPU_ZERO(&set);
        for (const int cpu : options_.cpus) CPU_SET(cpu, &set);
        const int error = pthread_setaffinity_np(pthread_self(), sizeof(set), &set);
        if (error != 0)
            throw std::system_error(error, std::generic_category(),
                                    "CPU affinity " + cpu_list(options_.cpus) +
                                        " refused (are these CPUs online and allowed to this process?)");
    }
    if (options_.lock_memory && mlockall(MCL_CURRENT | MCL_FUTURE) != 0) {
        throw std::system_error(errno, std::generic_category(),
                                "mlockall refused (needs CAP_IPC_LOCK or a large enough memlock limit: ulimit -l)");
    }
}

void LoopRunner::request_stop() noexcept { stop_requested_.store(true); }

LoopResult LoopRunner::run(const PeriodCallback& callback, std::chrono::nanoseconds duration) {
    if (running_.exchange(true)) throw std::logic_error("LoopRunner::run is already running");
    struct Finish {
        LoopRunner& runner;
        std::thread watchdog;
        std::mutex mutex;
        std::condition_variable wake;
        bool done = false;
        long timer_slack_ns = -1;
        ~Finish() {
            {
                std::lock_guard<std::mutex> lock(mutex);
                done = true;
            }
            wake.notify_all();
            if (watchdog.joinable()) watchdog.join();
            if (timer_slack_ns >= 0) prctl(PR_SET_TIMERSLACK, static_cast<unsigned long>(timer_slack_ns));
            runner.period_deadline_ns_.store(0);
            runner.stop_requested_.store(false);
            runner.running_.store(false);
        }
    } finish{*this, {}, {}, {}, false, -1};

    apply_realtime_settings();
    // The kernel may let a sleep run up to the thread's timer slack (50 us by
    // default) past its deadline to batch wake-ups; a control loop wants its
    // deadline, so the slack is 1 ns while the loop runs.
    finish.timer_slack_ns = prctl(PR_GET_TIMERSLACK, 0, 0, 0, 0);
    prctl(PR_SET_TIMERSLACK, 1UL, 0, 0, 0);
    watchdog_tripped_.store(false);

    const int64_t period = options_.period.count();
    const int64_t start = monotonic_ns();
    const int64_t end = duration.count() >= INT64_MAX - start ? INT64_MAX : start + duration.count();
    int64_t next = start + period;
    period_deadline_ns_.store(next);

    if (options_.watchdog_missed_periods > 0) {
        finish.watchdog = std::thread([this, &finish, period] {
            const int64_t limit = period * options_.watchdog_missed_periods;
            std::unique_lock<std::mutex> lock(finish.mutex);
            while (!finish.done) {
                finish.wake.wait_for(lock, std::chrono::nanoseconds(period));
                const int64_t deadline = period_deadline_ns_.load();
                if (finish.done || deadline == 0 || monotonic_ns() - deadline < limit) continue;
                if (!watchdog_tripped_.exchange(true)) {
                    group_.stop_all();
                    std::lock_guard<std::mutex> statistics_lock(statistics_mutex_);
                    ++statistics_.watchdog_trips;
                }
            }
        });
    }

    GroupSnapshot snapshot;
    LoopResult result;
    int64_t missed_in_row = 0;
    for (;;) {
        if (watchdog_tripped_.load()) {
            result.end = LoopEnd::watchdog;
            break;
        }
        if (stop_requested_.load()) {
            result.end = LoopEnd::stop_requested;
            break;
        }
        if (next > end) {
            result.end = LoopEnd::duration_elapsed;
            break;
        }
        period_deadline_ns_.store(next);
        sleep_until(next);
        const int64_t woke = monotonic_ns();
        int64_t skipped = 0;
        if (woke - next >= period) {
            skipped = (woke - next) / period;
            if (next + skipped * period > end) {
                // Woke past the end of the run: the deadlines up to the end
                // were all missed, and none after it belongs to this run.
                std::lock_guard<std::mutex> lock(statistics_mutex_);
                statistics_.missed_periods += static_cast<uint64_t>((end - next) / period + 1);
                result.end = LoopEnd::duration_elapsed;
                break;
            }
            next += skipped * period;
            missed_in_row += skipped;
        } else {
            missed_in_row = 0;
        }
        if (options_.watchdog_missed_periods > 0 && missed_in_row >= options_.watchdog_missed_periods) {
            if (!watchdog_tripped_.exchange(true)) {
                group_.stop_all();
                std::lock_guard<std::mutex> lock(statistics_mutex_);
                ++statistics_.watchdog_trips;
                statistics_.missed_periods += static_cast<uint64_t>(skipped);
            }
            result.end = LoopEnd::watchdog;
            break;
        }
        group_.take_snapshot(snapshot);
        if (group_.feedback_lost()) {
            group_.stop_all();
            result.end = LoopEnd::feedback_lost;
            break;
        }
        try {
            callback(snapshot, group_);
        } catch (...) {
            group_.stop_all();
            throw;
        }
        group_.send_setpoints();
        group_.maintain();
        const int64_t done = monotonic_ns();
        {
            std::lock_guard<std::mutex> lock(statistics_mutex_);
            ++statistics_.periods;
            statistics_.missed_periods += static_cast<uint64_t>(skipped);
            statistics_.period_error.record(std::chrono::nanoseconds(woke - next));
            statistics_.callback_time.record(std::chrono::nanoseconds(done - woke));
        }
        ++result.periods;
        next += period;
    }
    if (watchdog_tripped_.load()) result.end = LoopEnd::watchdog;
    return result;
}

LoopStatistics LoopRunner::statistics() const {
    std::lock_guard<std::mutex> lock(statistics_mutex_);
    return statistics_;
}

void LoopRunner::reset_statistics() {
    std::lock_guard<std::mutex> lock(statistics_mutex_);
    statistics_ = LoopStatistics{};
}

}  // namespace ocp_api
