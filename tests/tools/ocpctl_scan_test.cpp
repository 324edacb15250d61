// ocpctl scan --fast, run as a process on the simulated bus.
#include <gtest/gtest.h>

#include <filesystem>

#include <nlohmann/json.hpp>

#include "tools/ocpctl_process.hpp"

namespace {

using ocp_test::ProcessResult;
using ocp_test::run_process;

using ocp_test::ocpctl;

TEST(OcpctlScan, FastScanFindsTheDevicesOfTheWholeRangeByDefault) {
    const auto result = ocpctl({"--bus", "sim:0x10,0x2345,0x3ffe", "scan", "--fast"});
    ASSERT_EQ(result.exit_status, 0) << result.err;
    EXPECT_EQ(result.out,
              "ADDRESS  MODEL       FIRMWARE\n"
              "0x10     HERON_A     1.1.2\n"
              "0x2345   KESTREL_B   1.4.3\n"
              "0x3ffe   HERON_C     2.0.1\n");
    EXPECT_EQ(result.err, "") << "no progress when standard error is not a terminal";
}

TEST(OcpctlScan, FastScanJsonNamesTheRange) {
    const auto result = ocpctl({"--bus", "sim:0x21,0x30", "scan", "--fast", "--to", "0x100", "--json"});
    ASSERT_EQ(result.exit_status, 0) << result.err;
    const auto json = nlohmann::json::parse(result.out);
    EXPECT_EQ(json["from"], "0x10");
    EXPECT_EQ(json["to"], "0x100");
    ASSERT_EQ(json["devices"].size(), 2u);
    EXPECT_EQ(json["devices"][1]["hex"], "0x30");
}

TEST(OcpctlScan, FastScanWithNothingAnsweringExitsOne) {
    const auto result = ocpctl({"--bus", "sim:0x40", "scan", "--fast", "--from", "0x10", "--to", "0x12"});
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "ocpctl: no device answered in 0x10..0x12\n");
}

TEST(OcpctlScan, BadRateOrAttemptsAreUsageErrors) {
    const auto rate = ocpctl({"scan", "--fast", "--rate", "0"});
    EXPECT_EQ(rate.exit_status, 2);
    EXPECT_EQ(rate.out, "");
    EXPECT_EQ(rate.err, "ocpctl: --rate must be a positive number of pings per second\n");
    const auto attempts = ocpctl({"scan", "--fast", "--attempts", "0"});
    EXPECT_EQ(attempts.exit_status, 2);
    EXPECT_EQ(attempts.err, "ocpctl: --attempts must be at least 1\n");
}

TEST(OcpctlScan, FastScanShowsProgressOnATerminalAndClearsItAfterwards) {
    if (!std::filesystem::exists("/usr/bin/script")) GTEST_SKIP() << "needs script(1) for a terminal";
    // script gives ocpctl a terminal for both streams and copies it to stdout.
    const auto result = run_process({"/usr/bin/script", "-qec",
                                     std::string(OCPCTL_PATH) + " --bus sim:0x21 scan --fast --to 0xfff --json",
                                     "/dev/null"});
    ASSERT_EQ(result.exit_status, 0) << result.err;
    const std::string& terminal = result.out;
    EXPECT_NE(terminal.find("\rscanning: pass 1, "), std::string::npos) << terminal;
    EXPECT_NE(terminal.find("/4080 addresses, 1 found\033[K"), std::string::npos) << terminal;
    EXPECT_NE(terminal.find("\r\033[K{"), std::string::npos) << "the line is cleared before the result";
}

}  // namespace
