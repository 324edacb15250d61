// The loop runner over a simulated bus with emulated devices. Nothing here
// depends on how fast the machine is: tests count periods against deadlines,
// and wait on conditions with generous bounds.
#include "ocp_api/loop_runner.hpp"

#include <gtest/gtest.h>

#include <sched.h>

#include <stdexcept>
#include <system_error>
#include <thread>

#include "control/frame_log.hpp"
#include "ocp_api/sim_bus.hpp"
#include "support/eventually.hpp"

namespace {

using namespace std::chrono_literals;
using ocp_api::ActuatorGroup;
using ocp_api::ActuatorGroupOptions;
using ocp_api::FeedbackStatus;
using ocp_api::GroupSetup;
using ocp_api::GroupSnapshot;
using ocp_api::LoopEnd;
using ocp_api::LoopOptions;
using ocp_api::LoopRunner;
using Item = ocp_api::OrreryActuator::OCP_Items;
using Mode = ocp_api::OrreryActuator::Mode;

constexpr int FIRST = 0x21;
constexpr int COUNT = 6;

LoopOptions every(std::chrono::nanoseconds period, int watchdog = 0) {
    LoopOptions options;
    options.period = period;
    options.watchdog_missed_periods = watchdog;
    return options;
}

class LoopTest : public ::testing::Test {
protected:
    explicit LoopTest(ActuatorGroupOptions options = {}) : log(bus), group(options) {
        for (int i = 0; i < COUNT; ++i) {
            bus.add_actuator(FIRST + i);
            group.add(log, FIRST + i);
        }
        group.set_up(GroupSetup{{Item::POS_FB_4C, Item::SPD_FB_45}, 1000, Mode::SPEED});
        group.start_all();
    }
    bool every_actuator_stopped_since_start() const {
        for (int i = 0; i < COUNT; ++i)
            if (!log.stopped_since_start(FIRST + i)) return false;
        return true;
    }

    ocp_api::SimBus bus;
    ocp_test::StartStopLog log;
    ActuatorGroup group;
};

TEST_F(LoopTest, EveryDeadlineIsEitherServedOrCountedMissed) {
    LoopRunner runner(group, every(1ms));
    uint64_t calls = 0;
    const auto result = runner.run([&](const GroupSnapshot& snapshot, ActuatorGroup& g) {
        ++calls;
        EXPECT_EQ(snapshot.actuators.size(), static_cast<std::size_t>(COUNT));
        for (std::size_t i = 0; i < snapshot.actuators.size(); ++i) g.set_setpoint(i, 1.0f);
    }, 200ms);
    EXPECT_EQ(result.end, LoopEnd::duration_elapsed);
    const auto statistics = runner.statistics();
    EXPECT_EQ(result.periods, calls);
    EXPECT_EQ(statistics.periods, calls);
    EXPECT_EQ(statistics.periods + statistics.missed_periods, 200u);
    EXPECT_EQ(statistics.period_error.count(), calls);
    EXPECT_EQ(statistics.callback_time.count(), calls);
    // A late wake-up skips to the latest deadline: never a whole period behind.
    EXPECT_LT(statistics.period_error.max(), 1ms);
    const auto group_statistics = group.statistics();
    EXPECT_EQ(group_statistics.actuators[0].fresh + group_statistics.actuators[0].stale +
                  group_statistics.actuators[0].missing,
              calls);
    EXPECT_EQ(group_statistics.actuators[0].setpoints_short, calls);
    runner.reset_statistics();
    EXPECT_EQ(runner.statistics().periods, 0u);
    EXPECT_EQ(runner.statistics().period_error.count(), 0u);
}

TEST_F(LoopTest, StreamedFeedbackShowsUpFreshInTheSnapshots) {
    LoopRunner runner(group, every(1ms));
    std::vector<bool> seen_fresh(COUNT, false);
    const auto result = runner.run([&](const GroupSnapshot& snapshot, ActuatorGroup&) {
        for (std::size_t i = 0; i < snapshot.actuators.size(); ++i)
            if (snapshot.actuators[i].status == FeedbackStatus::fresh) seen_fresh[i] = true;
        if (std::all_of(seen_fresh.begin(), seen_fresh.end(), [](bool b) { return b; })) runner.request_stop();
    }, 30s);
    EXPECT_EQ(result.end, LoopEnd::stop_requested);
}

TEST_F(LoopTest, ALateWakeUpSkipsTheMissedPeriodsInsteadOfRunningThemInABurst) {
    LoopRunner runner(group, every(2ms));
    int calls = 0;
    runner.run([&](const GroupSnapshot&, ActuatorGroup&) {
        // From a deadline d, 11 ms reach past d + 5 periods: the deadlines
        // d + 1 to d + 4 periods are gone when the loop looks again.
        if (++calls == 2) std::this_thread::sleep_for(11ms);
    }, 100ms);
    const auto statistics = runner.statistics();
    EXPECT_GE(statistics.missed_periods, 4u);
    EXPECT_EQ(statistics.periods + statistics.missed_periods, 50u);
    EXPECT_LT(statistics.period_error.max(), 2ms);
}

TEST_F(LoopTest, TheWatchdogStopsEveryActuatorWhileTheCallbackHangs) {
    // 100 ms without a period: long enough that a slow start (sanitizers, a
    // loaded machine) does not trip it before the callback first runs.
    LoopRunner runner(group, every(10ms, 10));
    bool stopped_while_hanging = false;
    const auto result = runner.run([&](const GroupSnapshot&, ActuatorGroup&) {
        if (!stopped_while_hanging)
            stopped_while_hanging = ocp_test::eventually([&] { return every_actuator_stopped_since_start(); });
    }, 60s);
    EXPECT_TRUE(stopped_while_hanging);
    EXPECT_EQ(result.end, LoopEnd::watchdog);
    EXPECT_EQ(runner.statistics().watchdog_trips, 1u);
}

TEST_F(LoopTest, ACallbackThatThrowsStopsEveryActuatorAndTheExceptionPassesOn) {
    LoopRunner runner(group, every(1ms));
    int calls = 0;
    EXPECT_THROW(runner.run([&](const GroupSnapshot&, ActuatorGroup&) {
        if (++calls == 3) throw std::runtime_error("controller diverged");
    }, 60s), std::runtime_error);
    EXPECT_EQ(calls, 3);
    EXPECT_TRUE(every_actuator_stopped_since_start());
    for (int i = 0; i < COUNT; ++i) EXPECT_EQ(log.commands(FIRST + i), "xSx");
}

TEST_F(LoopTest, RefusedRealTimeSettingsSayWhatIsMissingBeforeAnyPeriod) {
    LoopOptions options = every(1ms);
    options.cpus = {CPU_SETSIZE - 1};
    LoopRunner runner(group, options);
    int calls = 0;
    try {
        runner.run([&](const GroupSnapshot&, ActuatorGroup&) { ++calls; }, 10ms);
        FAIL() << "no exception";
    } catch (const std::system_error& error) {
        EXPECT_EQ(std::string(error.what()).rfind("CPU affinity 1023 refused (are these CPUs online", 0), 0u)
            << error.what();
    }
    EXPECT_EQ(calls, 0);
    EXPECT_THROW(LoopRunner(group, every(0ms)), std::invalid_argument);
    LoopOptions priority = every(1ms);
    priority.realtime_priority = 100;
    EXPECT_THROW(LoopRunner(group, priority), std::invalid_argument);
}

ActuatorGroupOptions quick_to_notice_silence() {
    ActuatorGroupOptions options;
    options.silent_after = 200ms;
    options.ping_interval = 50ms;
    return options;
}

class RestartTest : public LoopTest {
protected:
    RestartTest() : LoopTest(quick_to_notice_silence()) {}
};

TEST_F(RestartTest, ADevicePowerCycledIsSetUpAgainStreamsAndStaysStopped) {
    LoopRunner runner(group, every(1ms));
    bool cycled = false;
    uint64_t sequence_at_cycle = 0;
    const auto result = runner.run([&](const GroupSnapshot& snapshot, ActuatorGroup& g) {
        const auto& first = snapshot.actuators[0];
        if (!cycled) {
            if (first.status != FeedbackStatus::fresh) return;
            bus.actuator(FIRST).power_cycle();
            cycled = true;
            sequence_at_cycle = first.sequence;
            return;
        }
        const bool set_up_again = g.statistics().actuators[0].restarts >= 1;
        if (set_up_again && first.status == FeedbackStatus::fresh && first.sequence > sequence_at_cycle + 1) {
            EXPECT_FALSE(first.running);
            runner.request_stop();
        }
    }, 30s);
    EXPECT_EQ(result.end, LoopEnd::stop_requested);
    EXPECT_GE(group.statistics().actuators[0].pings, 1u);
    EXPECT_FALSE(bus.actuator(FIRST).physics()->is_running());
}

ActuatorGroupOptions stop_when_missing() {
    ActuatorGroupOptions options;
    options.stop_when_missing_for = 500ms;
    return options;
}

class MissingTest : public LoopTest {
protected:
    MissingTest() : LoopTest(stop_when_missing()) {}
};

TEST_F(MissingTest, FeedbackMissingBeyondTheBoundStopsTheGroupWhenAsked) {
    LoopRunner runner(group, every(1ms));
    bool silenced = false;
    const auto result = runner.run([&](const GroupSnapshot& snapshot, ActuatorGroup&) {
        if (!silenced && snapshot.actuators[2].status == FeedbackStatus::fresh) {
            bus.actuator(FIRST + 2).set_silent(true);
            silenced = true;
        }
    }, 30s);
    EXPECT_TRUE(silenced);
    EXPECT_EQ(result.end, LoopEnd::feedback_lost);
    EXPECT_TRUE(every_actuator_stopped_since_start());
}

}  // namespace
