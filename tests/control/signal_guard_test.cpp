// The signal guard in a child process: the guarded signal stops every
// actuator, then ends the process as the signal would have.
#include "ocp_api/loop_runner.hpp"

#include <gtest/gtest.h>

#include <signal.h>

#include "tools/process.hpp"

namespace {

class SignalGuardTest : public ::testing::TestWithParam<int> {};

TEST_P(SignalGuardTest, StopsEveryActuatorThenTheSignalTakesItsCourse) {
    const int signal_number = GetParam();
    ocp_test::ProcessEvents events;
    events.signal_when_caught = signal_number;
    events.limit = std::chrono::seconds(60);
    const auto result = ocp_test::run_process({SIGNAL_GUARD_CHILD_PATH}, events);
    EXPECT_EQ(result.exit_status, 128 + signal_number) << result.out << result.err;
    for (const char* address : {"33", "34", "35"}) {
        const auto start = result.out.rfind(std::string("START ") + address + "\n");
        ASSERT_NE(start, std::string::npos) << result.out;
        EXPECT_NE(result.out.find(std::string("STOP ") + address + "\n", start), std::string::npos) << result.out;
    }
    EXPECT_EQ(result.out.find("loop ended"), std::string::npos) << result.out;
}

INSTANTIATE_TEST_SUITE_P(GuardedSignals, SignalGuardTest, ::testing::Values(SIGINT, SIGTERM, SIGHUP, SIGQUIT));

TEST(SignalGuard, OnlyOneAtATime) {
    ocp_api::ActuatorGroup group;
    ocp_api::SignalGuard first(group);
    EXPECT_THROW(ocp_api::SignalGuard second(group), std::logic_error);
    EXPECT_EQ(first.signal_received(), 0);
}

}  // namespace
