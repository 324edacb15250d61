// ocpctl run as a process on the simulated bus, as a user runs it.
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

#include "ocp_api/orrery_actuator.hpp"
#include "ocp_api/version.hpp"
#include "tools/process.hpp"

namespace {

using ocp_test::ProcessResult;
using ocp_test::run_process;
namespace fs = std::filesystem;

ProcessResult ocpctl(std::vector<std::string> args) {
    args.insert(args.begin(), OCPCTL_PATH);
    return run_process(args);
}

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

fs::path scratch_path(const std::string& name) {
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    return fs::temp_directory_path() / ("ocpctl_test_" + std::to_string(getpid()) + "_" + info->name() + "_" + name);
}

TEST(Ocpctl, HelpAndVersion) {
    const auto help = ocpctl({"--help"});
    EXPECT_EQ(help.exit_status, 0);
    EXPECT_NE(help.out.find("Subcommands:"), std::string::npos);
    EXPECT_NE(help.out.find("Examples:"), std::string::npos);
    const auto move_help = ocpctl({"move", "--help"});
    EXPECT_EQ(move_help.exit_status, 0);
    EXPECT_NE(move_help.out.find("--stiffness"), std::string::npos);
    const auto version = ocpctl({"--version"});
    EXPECT_EQ(version.exit_status, 0);
    EXPECT_EQ(version.out, std::string("ocpctl ") + ocp_api::VERSION_TEXT + "\n");
}

TEST(Ocpctl, ScanPrintsTheScannerLinesAndASummary) {
    const auto result = ocpctl({"scan"});
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.out,
              "Device found: address 0x21 (33)\tmodel HERON_A\tfirmware 1.1.2\n"
              "Device found: address 0x22 (34)\tmodel KESTREL_B\tfirmware 1.4.3\n"
              "Device found: address 0x23 (35)\tmodel HERON_C\tfirmware 2.0.1\n"
              "\n"
              "ADDRESS  MODEL       FIRMWARE\n"
              "0x21     HERON_A     1.1.2\n"
              "0x22     KESTREL_B   1.4.3\n"
              "0x23     HERON_C     2.0.1\n");
    EXPECT_EQ(result.err, "");
}

TEST(Ocpctl, ScanJsonParsesBack) {
    const auto result = ocpctl({"--bus", "sim:0x21,0x30", "scan", "--from", "0x20", "--to", "0x31", "--json"});
    ASSERT_EQ(result.exit_status, 0) << result.err;
    const auto json = nlohmann::json::parse(result.out);
    EXPECT_EQ(json["from"], "0x20");
    EXPECT_EQ(json["to"], "0x31");
    ASSERT_EQ(json["devices"].size(), 2u);
    EXPECT_EQ(json["devices"][0]["address"], 0x21);
    EXPECT_EQ(json["devices"][0]["model"], "HERON_A");
    EXPECT_EQ(json["devices"][1]["hex"], "0x30");
    EXPECT_EQ(json["devices"][1]["model"], "KESTREL_B");
    EXPECT_EQ(json["devices"][1]["firmware"], "1.4.3");
}

TEST(Ocpctl, ScanWithNothingAnsweringExitsOne) {
    const auto result = ocpctl({"--bus", "sim:0x40", "scan", "--from", "0x10", "--to", "0x12"});
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "ocpctl: no device answered in 0x10..0x12\n");
}

TEST(Ocpctl, InfoJson) {
    const auto result = ocpctl({"info", "0x22", "--json"});
    ASSERT_EQ(result.exit_status, 0) << result.err;
    const auto json = nlohmann::json::parse(result.out);
    EXPECT_EQ(json["address"], 0x22);
    EXPECT_EQ(json["model"], "KESTREL_B");
    EXPECT_EQ(json["firmware"], "1.4.3");
    EXPECT_EQ(json["connected"], true);
    EXPECT_EQ(json["feedback"].size(), 48u);
    EXPECT_EQ(json["feedback"]["VBUS_70"], 48.0);
    EXPECT_EQ(json["feedback"]["TEMP_WINDING_72"], 25.0);
}

TEST(Ocpctl, InfoText) {
    const auto result = ocpctl({"info", "0x21"});
    ASSERT_EQ(result.exit_status, 0) << result.err;
    const auto lines = lines_of(result.out);
    ASSERT_EQ(lines.size(), 4u + 48u);
    EXPECT_EQ(lines[0], "address          0x21");
    EXPECT_EQ(lines[1], "model            HERON_A");
    EXPECT_EQ(lines[2], "firmware         1.1.2");
    EXPECT_EQ(lines[3], "connected        yes");
    EXPECT_EQ(lines[4], "POS_FB_41        0");
}

TEST(Ocpctl, ParamsGetAllAsJson) {
    const auto result = ocpctl({"params", "get", "0x21", "--json"});
    ASSERT_EQ(result.exit_status, 0) << result.err;
    const auto json = nlohmann::ordered_json::parse(result.out);
    const auto& parameters = json["parameters"];
    ASSERT_EQ(parameters.size(), 31u);
    EXPECT_EQ(parameters["DEVICE_80"], 20000.0);
    EXPECT_EQ(parameters["ADDRESS"], 33.0);
    EXPECT_EQ(parameters["MODE"], 6.0);
    EXPECT_EQ(parameters.begin().key(), "K_DAMP") << "in the device's table order";
}

TEST(Ocpctl, ParamsGetByNameOrCode) {
    const auto result = ocpctl({"params", "get", "0x21", "limit_torque", "0x80", "Mode"});
    ASSERT_EQ(result.exit_status, 0) << result.err;
    EXPECT_EQ(result.out,
              "LIMIT_TORQUE           10\n"
              "DEVICE_80              20000\n"
              "MODE                   6\n");
}

TEST(Ocpctl, ParamsSetPrintsWhatTheDeviceHolds) {
    const auto result = ocpctl({"params", "set", "0x21", "LIMIT_TORQUE=2.5", "k_stiff=4", "MODE=7.9", "0x83=12"});
    ASSERT_EQ(result.exit_status, 0) << result.err;
    EXPECT_EQ(result.out,
              "LIMIT_TORQUE           2.5\n"
              "K_STIFF                4\n"
              "MODE                   7\n"
              "DEVICE_83              12\n");
}

TEST(Ocpctl, AdministrationCommands) {
    EXPECT_EQ(ocpctl({"save", "0x21"}).out, "0x21: configuration saved\n");
    EXPECT_EQ(ocpctl({"blink", "0x22"}).out, "0x22: blinking\n");
    EXPECT_EQ(ocpctl({"home", "0x23"}).out, "0x23: home position set\n");
    EXPECT_EQ(ocpctl({"start", "0x21"}).out, "0x21: started\n");
    EXPECT_EQ(ocpctl({"stop", "0x21"}).out, "0x21: stopped\n");
    EXPECT_EQ(ocpctl({"factory-reset", "0x21"}).out, "0x21: factory parameters restored\n");
    const auto clear = ocpctl({"clear", "0x21"});
    EXPECT_EQ(clear.out, "0x21: configuration cleared; the device resets to factory defaults\n");
    EXPECT_EQ(clear.err, "Warning: Actuator configuration cleared. Device will reset.\n");
    const auto bootloader = ocpctl({"bootloader", "0x21", "--yes"});
    EXPECT_EQ(bootloader.exit_status, 0);
    EXPECT_EQ(bootloader.out, "0x21: in the boot loader until its next power cycle\n");
}

TEST(Ocpctl, AddressChange) {
    const auto saved = ocpctl({"address", "0x21", "0x30", "--save"});
    EXPECT_EQ(saved.exit_status, 0) << saved.err;
    EXPECT_EQ(saved.out, "0x21 -> 0x30 (saved)\n");
    const auto unsaved = ocpctl({"address", "0x22", "0x31"});
    EXPECT_EQ(unsaved.exit_status, 0) << unsaved.err;
    EXPECT_EQ(unsaved.out, "0x22 -> 0x31 (not saved: back at 0x22 after a power cycle)\n");
}

TEST(Ocpctl, StreamCsvHeaderAndRowCount) {
    const auto result = ocpctl({"stream", "0x21", "--items", "POS_FB_4C,SPD_FB_45", "--rate", "100", "--duration", "1"});
    ASSERT_EQ(result.exit_status, 0) << result.err;
    const auto lines = lines_of(result.out);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines[0], "time_s,POS_FB_4C,SPD_FB_45");
    // 100 Hz for one second of wall time on a bus that runs at wall speed.
    EXPECT_GE(lines.size() - 1, 85u);
    EXPECT_LE(lines.size() - 1, 102u);
    for (std::size_t i = 1; i < lines.size(); ++i) {
        EXPECT_EQ(std::count(lines[i].begin(), lines[i].end(), ','), 2) << lines[i];
    }
    EXPECT_EQ(result.err, "") << "no progress line when standard error is not a terminal";
}

TEST(Ocpctl, StreamJsonLines) {
    const auto result = ocpctl({"stream", "0x21", "--items", "VBUS_70", "--rate", "50", "--duration", "0.2",
                                "--format", "jsonl"});
    ASSERT_EQ(result.exit_status, 0) << result.err;
    const auto lines = lines_of(result.out);
    ASSERT_GE(lines.size(), 3u);
    for (const auto& line : lines) EXPECT_EQ(nlohmann::json::parse(line)["VBUS_70"], 48.0);
}

TEST(Ocpctl, SimulateWritesTheSimulatedActuatorsOwnSteps) {
    const fs::path out = scratch_path("trajectory.csv");
    const auto result = ocpctl({"simulate", "--mode", "impedance", "--setpoint", "0.5", "--stiffness", "40",
                                "--damping", "3", "--load", "0.25", "--duration", "0.05", "--rate", "1000", "--out",
                                out.string()});
    ASSERT_EQ(result.exit_status, 0) << result.err;
    std::ifstream file(out);
    std::string header;
    std::getline(file, header);
    EXPECT_EQ(header, "time_s,POS_FB_4C,SPD_FB_45,T_FB_56");

    ocp_api::OrreryActuatorVirtual sim(0x21);
    sim.change_load(0.25f);
    sim.start();
    sim.change_impedance_setpoint(0.5f, 0.0f, 40.0f, 3.0f);
    int rows = 0;
    for (std::string line; std::getline(file, line); ++rows) {
        const auto expected = rows == 0 ? sim.get_feedback() : sim.step(std::nullopt, 10);
        float time = 0, position = 0, speed = 0, torque = 0;
        ASSERT_EQ(std::sscanf(line.c_str(), "%f,%f,%f,%f", &time, &position, &speed, &torque), 4) << line;
        EXPECT_EQ(position, expected.at(ocp_api::OrreryActuatorVirtual::OCP_Items::POS_FB_4C)) << "row " << rows;
        EXPECT_EQ(speed, expected.at(ocp_api::OrreryActuatorVirtual::OCP_Items::SPD_FB_45)) << "row " << rows;
        EXPECT_EQ(torque, expected.at(ocp_api::OrreryActuatorVirtual::OCP_Items::T_FB_56)) << "row " << rows;
        EXPECT_NEAR(time, sim.get_sim_time(6), 1e-6f);
    }
    EXPECT_EQ(rows, 51);
    fs::remove(out);
}

TEST(Ocpctl, SimulatePlotIsAPng) {
    const fs::path png = scratch_path("plot.png");
    const auto result = ocpctl({"simulate", "--mode", "speed", "--setpoint", "2", "--load", "0.5", "--plot", png.string()});
    ASSERT_EQ(result.exit_status, 0) << result.err;
    EXPECT_EQ(result.err, "ocpctl: plot written to " + png.string() + "\n");
    std::ifstream file(png, std::ios::binary);
    char signature[8] = {};
    file.read(signature, 8);
    EXPECT_EQ(std::string(signature, 8), std::string("\x89PNG\r\n\x1a\n", 8));
    EXPECT_GT(fs::file_size(png), 1000u);
    EXPECT_EQ(result.out, "") << "with --plot and no --out nothing goes to stdout";
    fs::remove(png);
}

struct BadInput {
    std::vector<std::string> args;
    std::string message;
};

TEST(Ocpctl, BadInputIsRejectedWithStatusTwo) {
    const BadInput cases[] = {
        {{"stream", "0x21", "--items", "POS_FB_4C,SPEED"},
         "ocpctl: unknown feedback item 'SPEED' (expected one of POS_FB_41,"},
        {{"params", "get", "0x21", "torque_limit"}, "ocpctl: unknown parameter 'torque_limit' (expected one of K_DAMP,"},
        {{"info", "0x4000"}, "ocpctl: address 0x4000 is outside 0x10..0x3FFE\n"},
        {{"info", "0x0f"}, "ocpctl: address 0x0f is outside 0x10..0x3FFE\n"},
        {{"info", "twelve"}, "ocpctl: invalid address 'twelve' (expected a number such as 0x21 or 33, in 0x10..0x3FFE)\n"},
        {{"stream", "0x21", "--items", "POS_FB_4C", "--rate", "10001"},
         "ocpctl: rate 10001 Hz is above the maximum of 10000 Hz\n"},
        {{"move", "0x21", "--mode", "hover", "--setpoint", "1"},
         "ocpctl: unknown mode 'hover' (expected torque, speed, position or impedance)\n"},
        {{"simulate", "--mode", "warp", "--setpoint", "1"},
         "ocpctl: unknown mode 'warp' (expected torque, speed, position or impedance)\n"},
        {{"move", "0x21", "--mode", "speed", "--setpoint", "1", "--stiffness", "3"},
         "ocpctl: --stiffness and --damping apply to --mode impedance only, not speed\n"},
        {{"params", "set", "0x21", "LIMIT_TORQUE"}, "ocpctl: expected NAME=VALUE, got 'LIMIT_TORQUE' (for example LIMIT_TORQUE=2.5)\n"},
        {{"params", "set", "0x21", "LIMIT_TORQUE=lots"}, "ocpctl: invalid LIMIT_TORQUE value 'lots' (expected a number)\n"},
        {{"bootloader", "0x21"}, "ocpctl: bootloader needs --yes: the device leaves normal operation until it is power-cycled\n"},
        {{"--bus", "can:can0", "scan"},
         "ocpctl: unknown bus 'can:can0' (known: sim[:ADDR,ADDR,...], socketcan:IF[,fd][,dlen=N])\n"},
        {{"--bus", "sim:0x21,0x21", "scan"}, "ocpctl: address 0x21 is listed twice in bus 'sim:0x21,0x21'\n"},
        {{"--bus", "socketcan:can0,fast", "scan"},
         "ocpctl: invalid option 'fast' in bus 'socketcan:can0,fast' (expected fd, or dlen= one of 8, 12, 16, 20, 24, "
         "32, 48, 64)\n"},
        {{"address", "0x21", "0x21"}, "ocpctl: the device already has address 0x21\n"},
    };
    for (const auto& bad : cases) {
        const auto result = ocpctl(bad.args);
        EXPECT_EQ(result.exit_status, 2) << bad.args[0];
        EXPECT_EQ(result.err.compare(0, bad.message.size(), bad.message), 0) << result.err;
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << "one line: " << result.err;
        EXPECT_EQ(result.out, "");
    }
}

// Here the host may have no CAN stack at all; inside the VM the exact reasons
// (missing, down) are checked.
TEST(Ocpctl, AnInterfaceThatCannotBeOpenedIsNamed) {
    const auto result = ocpctl({"--bus", "socketcan:nosuch0", "scan"});
    EXPECT_EQ(result.exit_status, 1);
    const std::string prefix = "ocpctl: CAN interface nosuch0: ";
    EXPECT_EQ(result.err.compare(0, prefix.size(), prefix), 0) << result.err;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    EXPECT_EQ(result.out, "");
}

TEST(Ocpctl, ASilentDeviceIsNamedWithTheTimeWaited) {
    const auto result = ocpctl({"--timeout", "0.2", "info", "0x30"});
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.err, "ocpctl: no answer from 0x30 after 0.2 s\n");
    EXPECT_EQ(result.out, "");
}

TEST(Ocpctl, MoveStopsTheDeviceOnSigint) {
    // Interrupt as soon as the first progress line shows the move under way.
    const auto result = run_process(
        {OCPCTL_PATH, "move", "0x21", "--mode", "speed", "--setpoint", "1", "--for", "60"},
        [](const std::string& err) { return err.find("speed") != std::string::npos &&
                                                    err.find("position") != std::string::npos
                                                ? SIGINT
                                                : 0; });
    EXPECT_EQ(result.exit_status, 128 + SIGINT);
    EXPECT_NE(result.err.find("ocpctl: interrupted; 0x21 stopped (the emulated device is not running)\n"),
              std::string::npos)
        << result.err;
    EXPECT_EQ(result.out.rfind("0x21 position ", 0), 0u) << result.out;
}

TEST(Ocpctl, MoveRunsForItsTimeAndReports) {
    const auto result = ocpctl({"move", "0x21", "--mode", "position", "--setpoint", "1", "--for", "0.5"});
    ASSERT_EQ(result.exit_status, 0) << result.err;
    float position = 0;
    ASSERT_EQ(std::sscanf(result.out.c_str(), "0x21 position %f", &position), 1) << result.out;
    EXPECT_NEAR(position, 1.0f, 0.01f);
    EXPECT_EQ(result.err.rfind("0x21: POSITION 1 for 0.5 s (Ctrl-C stops it)\n", 0), 0u) << result.err;
}

TEST(Ocpctl, WatchPrintsATablePerRefresh) {
    const auto result = ocpctl({"watch", "0x21", "0x23", "--for", "0.3"});
    ASSERT_EQ(result.exit_status, 0) << result.err;
    const auto lines = lines_of(result.out);
    ASSERT_GE(lines.size(), 4u);
    EXPECT_EQ(lines[0].rfind("ADDRESS ", 0), 0u);
    EXPECT_EQ(lines[1].rfind("0x21 ", 0), 0u);
    EXPECT_EQ(lines[2].rfind("0x23 ", 0), 0u);
}

TEST(Ocpctl, DemoRunsToTheEnd) {
    const auto result = ocpctl({"demo"});
    ASSERT_EQ(result.exit_status, 0) << result.err;
    EXPECT_NE(result.out.find("3 actuators found"), std::string::npos);
    EXPECT_NE(result.out.find("0x30: connected, model KESTREL_B"), std::string::npos);
    EXPECT_NE(result.err.find("Actuator 0x23 Stopping (override error_callback to change)"), std::string::npos);
}

}  // namespace
