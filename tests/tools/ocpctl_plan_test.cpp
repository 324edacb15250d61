// ocpctl plan run as a process: the figures of the library's planner, as text
// and as JSON, and clear refusals.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "ocp_api/bus_planner.hpp"
#include "tools/ocpctl_process.hpp"

namespace {

using ocp_test::ProcessResult;
using ocp_test::run_process;

using ocp_test::ocpctl;

TEST(OcpctlPlan, TextForOneActuatorOnClassicCanAt500Hz) {
    const auto result = ocpctl({"plan", "--can", "classic:1M", "--actuators", "1", "--rate", "500"});
    EXPECT_EQ(result.exit_status, 0) << result.err;
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out,
              "Bus:                      classic CAN at 1000000 bit/s\n"
              "Control period:           1 actuator at 500 Hz (2000.0 us), position command, 4 items per reply\n"
              "Frames per period:        9 (9 per actuator)\n"
              "Bus time per period:      1179.0 us without stuff bits, 1440.0 us with the most, 1277.0 us typical\n"
              "Load:                     59.0 % to 72.0 % of the period\n"
              "Most actuators that fit:  1 at 500 Hz (with the most stuff bits)\n");
}

TEST(OcpctlPlan, JsonCarriesTheLibrarysFigures) {
    const auto result =
        ocpctl({"plan", "--can", "fd:1000000/5000000", "--actuators", "8", "--rate", "1000", "--items", "4", "--json"});
    ASSERT_EQ(result.exit_status, 0) << result.err;
    const auto json = nlohmann::json::parse(result.out);
    ocp_api::BusPlanRequest request;
    request.fd = true;
    request.rates = {1000000, 5000000};
    request.actuators = 8;
    const ocp_api::BusPlan plan = ocp_api::plan_bus(request);
    EXPECT_EQ(json.at("frames_per_period"), 16);
    EXPECT_EQ(json.at("frames_per_period"), plan.frames_per_period);
    EXPECT_NEAR(json.at("period_us_nominal").get<double>(), plan.period_us_nominal, 1e-3);
    EXPECT_NEAR(json.at("period_us_worst").get<double>(), 1945.6, 1e-9);
    EXPECT_NEAR(json.at("load_nominal").get<double>(), plan.load_nominal, 1e-6);
    EXPECT_NEAR(json.at("load_worst").get<double>(), 1.9456, 1e-9);
    EXPECT_EQ(json.at("max_actuators"), 4);
}

TEST(OcpctlPlan, OverloadIsSaidInWords) {
    const auto result = ocpctl({"plan", "--can", "classic:1M"});
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_NE(result.out.find("Most actuators that fit:  0 at 1000 Hz"), std::string::npos);
    EXPECT_NE(result.out.find("Does not fit: with the most stuff bits the traffic of one period takes 144 % of it.\n"),
              std::string::npos);
}

TEST(OcpctlPlan, BadArgumentsExitTwoWithOneLine) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"plan", "--can", "serial:1M"}, "ocpctl: --can serial:1M is neither classic:BITRATE nor fd:NOMINAL/DATA\n"},
        {{"plan", "--can", "classic:1M/5M"}, "ocpctl: --can classic:1M/5M: a data bit rate needs fd:NOMINAL/DATA\n"},
        {{"plan", "--can", "classic:fast"}, "ocpctl: --can classic:fast: \"fast\" is not a bit rate\n"},
        {{"plan", "--can", "classic:2M"},
         "ocpctl: CAN nominal bit rate must be 10000..1000000 bit/s, not 2000000\n"},
        {{"plan", "--command", "jump"},
         "ocpctl: --command jump is not one of position, setpoint, torque, speed, impedance\n"},
        {{"plan", "--items", "49"}, "ocpctl: items must be 0..48, not 49\n"},
        {{"plan", "--actuators", "0"}, "ocpctl: actuators must be 1..16383, not 0\n"},
        {{"plan", "--rate", "0"}, "ocpctl: rate must be a positive number of Hz\n"},
    };
    for (const auto& [args, message] : cases) {
        const auto result = ocpctl(args);
        EXPECT_EQ(result.exit_status, 2) << args[2];
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, message);
    }
}

TEST(OcpctlPlan, HelpNamesEveryOption) {
    const auto help = ocpctl({"plan", "--help"});
    EXPECT_EQ(help.exit_status, 0);
    for (const char* option : {"--can", "--actuators", "--rate", "--command", "--items", "--json"})
        EXPECT_NE(help.out.find(option), std::string::npos) << option;
    EXPECT_NE(ocpctl({"--help"}).out.find("\n  plan "), std::string::npos);
}

}  // namespace
