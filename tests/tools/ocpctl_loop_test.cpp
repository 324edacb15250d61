// ocpctl loop on the simulated bus: its JSON and text reports, and its refusals.
#include <gtest/gtest.h>

#include <csignal>

#include <nlohmann/json.hpp>

#include "tools/ocpctl_process.hpp"

namespace {

using ocp_test::ProcessResult;

using ocp_test::ocpctl;

void expect_summary(const nlohmann::json& summary) {
    ASSERT_TRUE(summary.is_object()) << summary;
    EXPECT_EQ(summary.size(), 3u) << summary;
    const double p50 = summary.at("p50");
    const double p99 = summary.at("p99");
    const double max = summary.at("max");
    EXPECT_LE(0.0, p50);
    EXPECT_LE(p50, p99);
    EXPECT_LE(p99, max);
}

TEST(OcpctlLoop, JsonReportsTimingAndPerActuatorCounts) {
    const auto result = ocpctl({"loop", "0x21", "0x22", "--rate", "200", "--for", "0.3", "--watchdog", "0",
                                "--mode", "speed", "--json"});
    ASSERT_EQ(result.exit_status, 0) << result.err;
    EXPECT_EQ(result.err, "loop: 2 actuators, 200 Hz for 0.3 s, SPEED sine amplitude 0.5 at 0.5 Hz (Ctrl-C stops)\n");
    const auto report = nlohmann::json::parse(result.out);
    EXPECT_EQ(report.at("bus"), "sim");
    EXPECT_EQ(report.at("mode"), "speed");
    EXPECT_EQ(report.at("trajectory"), "sine");
    EXPECT_EQ(report.at("rate_hz"), 200.0);
    EXPECT_EQ(report.at("end"), "duration_elapsed");
    EXPECT_EQ(report.at("watchdog_trips"), 0);
    const uint64_t periods = report.at("periods");
    const uint64_t missed = report.at("missed_periods");
    EXPECT_EQ(periods + missed, 60u);  // every deadline of 0.3 s at 200 Hz, served or missed
    expect_summary(report.at("period_error_us"));
    expect_summary(report.at("callback_time_us"));
    const auto& actuators = report.at("actuators");
    ASSERT_EQ(actuators.size(), 2u);
    EXPECT_EQ(actuators[0].at("address"), "0x21");
    EXPECT_EQ(actuators[1].at("address"), "0x22");
    for (const auto& actuator : actuators) {
        const uint64_t fresh = actuator.at("fresh");
        const uint64_t stale = actuator.at("stale");
        const uint64_t missing = actuator.at("missing");
        EXPECT_EQ(fresh + stale + missing, periods) << actuator;
        EXPECT_EQ(actuator.at("faults"), 0);
        EXPECT_EQ(actuator.at("restarts"), 0);
        EXPECT_EQ(actuator.at("setpoints_short"), periods);  // the main setpoint only: 5-byte frames
        EXPECT_EQ(actuator.at("setpoints_full"), 0);
        EXPECT_EQ(actuator.at("setpoints_refused"), 0);
        EXPECT_EQ(actuator.at("setpoints_superseded"), 0);
        expect_summary(actuator.at("feedback_age_us"));
    }
    const auto& buses = report.at("buses");
    ASSERT_EQ(buses.size(), 1u);
    EXPECT_EQ(buses[0].at("link"), "unknown");  // the simulated bus has no link state
    EXPECT_GE(buses[0].at("frames_out").get<uint64_t>(), 2 * periods);  // a setpoint each per period
    EXPECT_EQ(buses[0].at("drops"), 0);
}

TEST(OcpctlLoop, TextReportHasOneRowPerActuator) {
    const auto result = ocpctl({"loop", "0x23", "--rate", "100", "--for", "0.2", "--watchdog", "0",
                                "--trajectory", "step"});
    ASSERT_EQ(result.exit_status, 0) << result.err;
    EXPECT_EQ(result.out.rfind("periods ", 0), 0u) << result.out;
    EXPECT_NE(result.out.find("\nperiod error   p50 "), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("\ncallback time  p50 "), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("\naddress    fresh   stale missing   age p50 us"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("\n0x23 "), std::string::npos) << result.out;
}

TEST(OcpctlLoop, RefusesBadArgumentsBeforeOpeningTheBus) {
    auto result = ocpctl({"loop", "0x21", "--trajectory", "zigzag"});
    EXPECT_EQ(result.exit_status, 2);
    EXPECT_EQ(result.err, "ocpctl: --trajectory zigzag is not sine or step\n");
    EXPECT_EQ(result.out, "");
    result = ocpctl({"loop", "0x21", "0x21"});
    EXPECT_EQ(result.exit_status, 2);
    EXPECT_EQ(result.err, "ocpctl: actuator 0x21 is already in a group on this bus; one driver per address\n");
    result = ocpctl({"loop", "0x21", "--frequency", "0"});
    EXPECT_EQ(result.exit_status, 2);
    EXPECT_EQ(result.err, "ocpctl: --frequency 0 is not a positive number of Hz\n");
}

TEST(OcpctlLoop, ADeviceThatDoesNotAnswerEndsItBeforeAnyCommand) {
    const auto result = ocpctl({"--timeout", "0.2", "loop", "0x21", "0x30"});
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.err, "ocpctl: no answer from 0x30 after 0.2 s\n");
    EXPECT_EQ(result.out, "");
}

TEST(OcpctlLoop, CtrlCStopsTheLoopAndReportsWhatRan) {
    // Sent once the loop runs, which it says on standard error.
    bool sent = false;
    const auto result = ocp_test::run_process(
        {OCPCTL_PATH, "loop", "0x21", "--for", "60", "--watchdog", "0", "--json"}, [&](const std::string& err) {
            if (sent || err.find("loop: ") == std::string::npos) return 0;
            sent = true;
            return SIGINT;
        });
    EXPECT_EQ(result.exit_status, 128 + SIGINT);
    EXPECT_NE(result.err.find("ocpctl: loop stopped by signal, actuators stopped\n"), std::string::npos) << result.err;
    const auto report = nlohmann::json::parse(result.out);
    EXPECT_EQ(report.at("end"), "stop_requested");
}

}  // namespace
