// ocpctl run as a process on the simulated bus, as a user runs it.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <algorithm>
#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

#include "ocp_api/orrery_actuator.hpp"
#include "ocp_api/version.hpp"
#include "tools/ocpctl_process.hpp"

namespace {

using ocp_test::ProcessResult;
using ocp_test::run_process;
namespace fs = std::filesystem;

using ocp_test::ocpctl;

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

TEST(Ocpctl, ScanPrintsEachDeviceOnce) {
    const auto result = ocpctl({"scan"});
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.out,
              "ADDRESS  MODEL       FIRMWARE\n"
              "0x21     HERON_A     1.1.2\n"
              "0x22     KESTREL_B   1.4.3\n"
              "0x23     HERON_C     2.0.1\n");
    EXPECT_EQ(result.err, "") << "no progress when standard error is not a terminal";
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

// Addresses in --bus read as they do everywhere: 0100 is one hundred, not octal.
TEST(Ocpctl, BusAddressesReadLikeAddressArguments) {
    const auto result = ocpctl({"--bus", "sim:0100", "scan", "--from", "100", "--to", "0x64", "--json"});
    ASSERT_EQ(result.exit_status, 0) << result.err;
    const auto json = nlohmann::json::parse(result.out);
    ASSERT_EQ(json["devices"].size(), 1u);
    EXPECT_EQ(json["devices"][0]["hex"], "0x64");
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

TEST(Ocpctl, ParamsGetByNameOrCodeWithMeanings) {
    const auto result = ocpctl({"params", "get", "0x21", "limit_torque", "0x80", "Mode", "ADDRESS", "0x85", "k_damp"});
    ASSERT_EQ(result.exit_status, 0) << result.err;
    EXPECT_EQ(result.out,
              "LIMIT_TORQUE           10\n"
              "DEVICE_80              20000\n"
              "MODE                   6 (SPEED)\n"
              "ADDRESS                0x21\n"
              "CAN_HIGH_SPEED         0 (off)\n"
              "K_DAMP                 0.1\n");
}

TEST(Ocpctl, InfoDecodesTheErrorWord) {
    const auto result = ocpctl({"info", "0x21"});
    ASSERT_EQ(result.exit_status, 0) << result.err;
    EXPECT_NE(result.out.find("\nERRORS_90        0x00000000 (no error)\n"), std::string::npos) << result.out;
}

nlohmann::json read_json(const fs::path& path) {
    std::ifstream file(path);
    return nlohmann::json::parse(file);
}

TEST(Ocpctl, ParamsDumpListsAllWithNamesCodesAndValues) {
    const auto result = ocpctl({"params", "dump", "0x21"});
    ASSERT_EQ(result.exit_status, 0) << result.err;
    const auto lines = lines_of(result.out);
    ASSERT_EQ(lines.size(), 3u + 31u + 2u);
    EXPECT_EQ(lines[0], "{");
    EXPECT_EQ(lines[1], "  \"address\": \"0x21\",");
    EXPECT_EQ(lines[3], "    {\"name\":\"K_DAMP\",\"code\":\"0x01\",\"value\":0.1},");
    EXPECT_EQ(lines[18], "    {\"name\":\"MODE\",\"code\":\"0x30\",\"value\":6},");
    EXPECT_EQ(lines[28], "    {\"name\":\"DEVICE_80\",\"code\":\"0x80\",\"value\":20000},");
    EXPECT_EQ(lines[29], "    {\"name\":\"ADDRESS\",\"code\":\"0x81\",\"value\":33},");
    const auto json = nlohmann::json::parse(result.out);
    for (const auto& entry : json["parameters"]) {
        const std::string name = entry["name"];
        const bool integer = name == "MODE" || name == "ADDRESS" || name.rfind("DEVICE_", 0) == 0;
        EXPECT_EQ(entry["value"].is_number_integer(), integer) << name;
    }
}

TEST(Ocpctl, ParamsLoadWritesReadsBackAndRoundTrips) {
    const fs::path first = scratch_path("first.json"), changed = scratch_path("changed.json"),
                   after = scratch_path("after.json");
    ASSERT_EQ(ocpctl({"params", "dump", "0x22", "--out", first.string()}).exit_status, 0);
    auto document = read_json(first);
    for (auto& entry : document["parameters"]) {
        if (entry["name"] == "LIMIT_TORQUE") entry["value"] = 2.5;
        if (entry["name"] == "K_STIFF") entry["value"] = 40.0;
        if (entry["name"] == "MODE") entry["value"] = 8;
        if (entry["name"] == "DEVICE_83") entry["value"] = 12;
    }
    std::ofstream(changed) << document.dump(2);
    const auto load = ocpctl({"params", "load", "0x22", changed.string(), "--out", after.string()});
    ASSERT_EQ(load.exit_status, 0) << load.err;
    EXPECT_EQ(load.out, "0x22: 31 parameters loaded and read back equal (not saved: ocpctl save or --save keeps them)\n");
    // What the device holds after the load is exactly the file loaded.
    EXPECT_EQ(read_json(after), document);
    EXPECT_NE(read_json(after), read_json(first));
    // And loading the first dump over the changed device gives the first back.
    const auto back = ocpctl({"params", "load", "0x22", first.string(), "--out", after.string(), "--save"});
    ASSERT_EQ(back.exit_status, 0) << back.err;
    EXPECT_EQ(back.out, "0x22: 31 parameters loaded and read back equal; configuration saved\n");
    EXPECT_EQ(read_json(after), read_json(first));
    fs::remove(first);
    fs::remove(changed);
    fs::remove(after);
}

TEST(Ocpctl, ParamsLoadPrintsWhatDiffersAndDoesNotSave) {
    const fs::path file = scratch_path("mode.json");
    std::ofstream(file) << R"({"parameters": {"MODE": 7.9, "LIMIT_TORQUE": 3}})";
    const auto result = ocpctl({"params", "load", "0x21", file.string(), "--save"});
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.out,
              "MODE                   wrote 7.9, the device holds 7 (POSITION)\n"
              "0x21: 1 of 2 parameters differ from the file; nothing saved\n");
    fs::remove(file);
}

TEST(Ocpctl, ParamsLoadChecksTheWholeFileFirst) {
    const fs::path file = scratch_path("bad.json");
    const std::string name = file.string();
    const std::pair<std::string, std::string> cases[] = {
        {R"({"parameters": [{"name": "LIMIT_TORQUE", "value": 2}, {"name": "TORQUE_LIMIT", "value": 1}]})",
         "ocpctl: unknown parameter 'TORQUE_LIMIT' (expected one of K_DAMP,"},
        {R"({"parameters": [{"name": "LIMIT_TORQUE", "value": "high"}]})",
         "ocpctl: " + name + ": entry 1: the value of LIMIT_TORQUE is not a number\n"},
        {R"({"parameters": [{"code": "0x04", "value": 1e39}]})",
         "ocpctl: " + name + ": entry 1: the value of LIMIT_TORQUE is out of range\n"},
        {R"({"parameters": [{"name": "K_DAMP", "code": "0x02", "value": 1}]})",
         "ocpctl: " + name + ": entry 1: name K_DAMP and code 0x02 differ\n"},
        {R"({"parameters": {"K_DAMP": 1, "k_damp": 2}})", "ocpctl: " + name + " gives K_DAMP twice\n"},
        {R"({"parameters": {"ADDRESS": 34}})",
         "ocpctl: " + name + " is for the device at 0x22, not 0x21 (ocpctl address moves a device)\n"},
        {R"({"values": {}})", "ocpctl: " + name + " has no \"parameters\" (write one with ocpctl params dump)\n"},
        {R"({"parameters": [)", "ocpctl: " + name + " is not JSON: "},
        {R"({"parameters":{"LIMIT_TORQUE":1,"LIMIT_TORQUE":3}})",
         "ocpctl: " + name + " gives the key \"LIMIT_TORQUE\" twice\n"},
        {R"({"parameters": {"MODE": -1000000000}})",
         "ocpctl: " + name + ": MODE = -1000000000 is not a control mode (5 TORQUE, 6 SPEED, 7 POSITION, "
                             "8 IMPEDANCE) (--force sends it anyway)\n"},
        {R"({"parameters": {"MODE": 3}})", "ocpctl: " + name + ": MODE = 3 is not a control mode ("},
        {R"({"parameters": {"CAN_HIGH_SPEED": 5}})",
         "ocpctl: " + name + ": CAN_HIGH_SPEED = 5 is not 0 (off) or 1 (on) (--force sends it anyway)\n"},
        {R"({"parameters": {"DEVICE_80": 1.5}})",
         "ocpctl: " + name + ": DEVICE_80 = 1.5 is not a whole number from 0 to 4294967295 (--force sends it anyway)\n"},
        {R"({"parameters": {"LIMIT_SPEED_MIN": 5, "LIMIT_SPEED_MAX": 1}})",
         "ocpctl: " + name + ": LIMIT_SPEED_MIN = 5 is above LIMIT_SPEED_MAX = 1 (--force sends it anyway)\n"},
        // A name quoted from the file keeps the message one line and the terminal as it was.
        {R"({"parameters": {"MODE\n\u001b[2J": 1}})", "ocpctl: unknown parameter 'MODE\\n\\x1b[2J' (expected one of"},
        {"{\"parameters\": {\"MODE\": 1}}\x7f", "ocpctl: " + name + " is not JSON: "},
    };
    for (const auto& [text, message] : cases) {
        std::ofstream(file) << text;
        // Status 2 and nothing on standard output: the file was refused
        // before anything was sent.
        const auto result = ocpctl({"params", "load", "0x21", name});
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.exit_status, 2) << text;
        EXPECT_EQ(result.err.compare(0, message.size(), message), 0) << result.err;
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    }
    fs::remove(file);
    const auto missing = ocpctl({"params", "load", "0x21", name});
    EXPECT_EQ(missing.exit_status, 2);
    EXPECT_EQ(missing.err, "ocpctl: cannot read " + name + ": No such file or directory\n");
}

TEST(Ocpctl, ParamsLoadRefusesWhatIsNoParametersFile) {
    const fs::path directory = scratch_path("directory");
    fs::create_directory(directory);
    const auto from_directory = ocpctl({"params", "load", "0x21", directory.string()});
    EXPECT_EQ(from_directory.exit_status, 2);
    EXPECT_EQ(from_directory.err, "ocpctl: " + directory.string() + " is a directory, not a parameters file\n");
    fs::remove(directory);

    // A FIFO with no writer: refused at once, never opened (which would wait).
    const fs::path fifo = scratch_path("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const auto from_fifo = ocpctl({"params", "load", "0x21", fifo.string()});
    EXPECT_EQ(from_fifo.exit_status, 2);
    EXPECT_EQ(from_fifo.err,
              "ocpctl: " + fifo.string() + " is not a regular file (write one with ocpctl params dump)\n");
    fs::remove(fifo);

    const fs::path large = scratch_path("large.json");
    {
        std::ofstream file(large);
        file << R"({"parameters": {"LIMIT_TORQUE": 1}})" << std::string((1 << 20), ' ');
    }
    const auto from_large = ocpctl({"params", "load", "0x21", large.string()});
    EXPECT_EQ(from_large.exit_status, 2);
    EXPECT_EQ(from_large.err, "ocpctl: " + large.string() + " is 1048611 bytes; a parameters file is at most 1048576 bytes\n");
    EXPECT_EQ(from_large.out, "");
    fs::remove(large);
}

TEST(Ocpctl, ParamsLoadTakesAModeByNameAndForcedValues) {
    const fs::path file = scratch_path("mode_name.json");
    std::ofstream(file) << R"({"parameters": {"MODE": "position", "LIMIT_TORQUE": 3}})";
    const auto by_name = ocpctl({"params", "load", "0x21", file.string()});
    EXPECT_EQ(by_name.exit_status, 0) << by_name.err;
    EXPECT_EQ(by_name.out, "0x21: 2 parameters loaded and read back equal (not saved: ocpctl save or --save keeps them)\n");
    std::ofstream(file) << R"({"parameters": {"LIMIT_SPEED_MIN": 5, "LIMIT_SPEED_MAX": 1}})";
    const auto forced = ocpctl({"params", "load", "0x21", file.string(), "--force"});
    EXPECT_EQ(forced.exit_status, 0) << forced.err;
    fs::remove(file);
}

TEST(Ocpctl, ParamsSetRefusesValuesAParameterCannotHoldUnlessForced) {
    const auto mode = ocpctl({"params", "set", "0x21", "MODE=3"});
    EXPECT_EQ(mode.exit_status, 2);
    EXPECT_EQ(mode.out, "");
    EXPECT_EQ(mode.err, "ocpctl: MODE = 3 is not a control mode (5 TORQUE, 6 SPEED, 7 POSITION, 8 IMPEDANCE) "
                        "(--force sends it anyway)\n");
    const auto speed = ocpctl({"params", "set", "0x21", "CAN_HIGH_SPEED=5"});
    EXPECT_EQ(speed.exit_status, 2);
    EXPECT_EQ(speed.err, "ocpctl: CAN_HIGH_SPEED = 5 is not 0 (off) or 1 (on) (--force sends it anyway)\n");
    const auto by_name = ocpctl({"params", "set", "0x21", "mode=position"});
    EXPECT_EQ(by_name.exit_status, 0) << by_name.err;
    EXPECT_EQ(by_name.out, "MODE                   7 (POSITION)\n");
    const auto forced = ocpctl({"params", "set", "0x21", "MODE=3", "--force"});
    EXPECT_EQ(forced.exit_status, 0) << forced.err;
    EXPECT_EQ(forced.out, "MODE                   3\n");
}

TEST(Ocpctl, ParamsSetPrintsWhatTheDeviceHolds) {
    const auto result = ocpctl({"params", "set", "0x21", "LIMIT_TORQUE=2.5", "k_stiff=4", "MODE=7.9", "0x83=12"});
    ASSERT_EQ(result.exit_status, 0) << result.err;
    EXPECT_EQ(result.out,
              "LIMIT_TORQUE           2.5\n"
              "K_STIFF                4\n"
              "MODE                   7 (POSITION)\n"
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

TEST(Ocpctl, AddressRefusesAnAddressInUseUnlessForced) {
    const auto refused = ocpctl({"address", "0x21", "0x22"});
    EXPECT_EQ(refused.exit_status, 2);
    EXPECT_EQ(refused.err, "ocpctl: another device answers at 0x22; 0x21 stays where it is (--force moves it anyway)\n");
    EXPECT_EQ(refused.out, "");
    const auto forced = ocpctl({"address", "0x21", "0x22", "--force"});
    EXPECT_EQ(forced.exit_status, 0) << forced.err;
    EXPECT_EQ(forced.out, "0x21 -> 0x22 (not saved: back at 0x21 after a power cycle)\n");
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

// Width and height from a PNG's header chunk.
std::pair<uint32_t, uint32_t> png_size(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    unsigned char header[24] = {};
    file.read(reinterpret_cast<char*>(header), sizeof header);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(header), 8), std::string("\x89PNG\r\n\x1a\n", 8));
    EXPECT_EQ(std::string(reinterpret_cast<char*>(header) + 12, 4), "IHDR");
    const auto word = [&](int at) {
        return (uint32_t{header[at]} << 24) | (uint32_t{header[at + 1]} << 16) | (uint32_t{header[at + 2]} << 8) |
               uint32_t{header[at + 3]};
    };
    return {word(16), word(20)};
}

std::string read_text(const fs::path& path) {
    std::ifstream file(path);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

std::size_t count_of(const std::string& text, const std::string& what) {
    std::size_t count = 0;
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++count;
    return count;
}

// The three panels of a gnuplot multiplot in SVG: one group per series,
// named gnuplot_plot_<series><panel letter>.
void expect_three_panels_with_setpoint(const std::string& svg) {
    EXPECT_NE(svg.find("width=\"1000\" height=\"800\""), std::string::npos);
    EXPECT_EQ(count_of(svg, "<g id=\"gnuplot_plot_1a\""), 1u);
    EXPECT_EQ(count_of(svg, "<g id=\"gnuplot_plot_1b\""), 1u);
    EXPECT_EQ(count_of(svg, "<g id=\"gnuplot_plot_1c\""), 1u);
    EXPECT_EQ(count_of(svg, "<g id=\"gnuplot_plot_1d\""), 0u);
    for (const char* label : {">position</tspan></text>", ">speed</tspan></text>", ">torque</tspan></text>"})
        EXPECT_EQ(count_of(svg, label), 1u) << "axis label " << label;
    EXPECT_EQ(count_of(svg, "<text>setpoint</text>"), 1u) << "the setpoint's legend";
}

TEST(Ocpctl, SimulatePlotIsAPngOfFixedSize) {
    const fs::path png = scratch_path("plot.png");
    const auto result = ocpctl({"simulate", "--mode", "speed", "--setpoint", "2", "--load", "0.5", "--plot", png.string()});
    ASSERT_EQ(result.exit_status, 0) << result.err;
    EXPECT_EQ(result.err, "ocpctl: plot written to " + png.string() + "\n");
    EXPECT_EQ(png_size(png), std::make_pair(1000u, 800u));
    EXPECT_GT(fs::file_size(png), 10000u);
    EXPECT_EQ(result.out, "") << "with --plot and no --out nothing goes to stdout";
    fs::remove(png);
}

TEST(Ocpctl, SimulatePlotAsSvgHasAPanelPerQuantityAndTheSetpoint) {
    const fs::path svg_path = scratch_path("plot.SVG");
    const auto result = ocpctl({"simulate", "--mode", "impedance", "--setpoint", "0.5", "--stiffness", "40", "--damping",
                                "3", "--load", "0.25", "--plot", svg_path.string()});
    ASSERT_EQ(result.exit_status, 0) << result.err;
    const std::string svg = read_text(svg_path);
    expect_three_panels_with_setpoint(svg);
    EXPECT_NE(svg.find("<text>simulated IMPEDANCE setpoint 0.5, stiffness 40, damping 3, load 0.25</text>"), std::string::npos);
    EXPECT_NE(svg.find("<text>position (POS_FB_4C)</text>"), std::string::npos);
    EXPECT_NE(svg.find(">simulated time (s)</tspan></text>"), std::string::npos);
    fs::remove(svg_path);
}

TEST(Ocpctl, PlotIntoAnUnwritablePlaceIsOneLineAndNoImageOnStdout) {
    // A directory named like a picture cannot be written, even by root.
    const fs::path directory = scratch_path("plot.png");
    fs::create_directory(directory);
    const auto result = ocpctl({"simulate", "--mode", "speed", "--setpoint", "1", "--plot", directory.string()});
    fs::remove_all(directory);
    EXPECT_EQ(result.exit_status, 2);
    EXPECT_EQ(result.err, "ocpctl: cannot write plot " + directory.string() + ": Is a directory\n");
    EXPECT_EQ(result.out, "");
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
        // Control characters in an argument are written out, not sent to the terminal.
        {{"info", "0x2\n\x1b[2J1"},
         "ocpctl: invalid address '0x2\\n\\x1b[2J1' (expected a number such as 0x21 or 33, in 0x10..0x3FFE)\n"},
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
        {{"move", "0x21", "--mode", "speed", "--setpoint", "nan"}, "ocpctl: invalid setpoint 'nan' (expected a finite number)\n"},
        {{"move", "0x21", "--mode", "impedance", "--setpoint", "1", "--stiffness", "-inf"},
         "ocpctl: invalid stiffness '-inf' (expected a finite number)\n"},
        {{"simulate", "--mode", "torque", "--setpoint", "1", "--load", "infinity"},
         "ocpctl: invalid load 'infinity' (expected a finite number)\n"},
        {{"params", "set", "0x21", "LIMIT_TORQUE=NaN"}, "ocpctl: invalid LIMIT_TORQUE value 'NaN' (expected a finite number)\n"},
        {{"sacn"}, "ocpctl: unknown command 'sacn'; did you mean 'scan'? (see ocpctl --help)\n"},
        {{"--bus", "sim", "strem", "0x21"}, "ocpctl: unknown command 'strem'; did you mean 'stream'? (see ocpctl --help)\n"},
        {{"params", "gte", "0x21"}, "ocpctl: unknown params command 'gte'; did you mean 'get'? (see ocpctl --help)\n"},
        {{"list", "parms"}, "ocpctl: unknown list command 'parms'; did you mean 'params'? (see ocpctl --help)\n"},
        {{"simulate", "--mode", "speed", "--setpoint", "1", "--plot", "speed.jpg"},
         "ocpctl: cannot draw 'speed.jpg': the plot format comes from the file name, .png or .svg\n"},
        {{"simulate", "--mode", "speed", "--setpoint", "1", "--plot", "/nonexistent-dir/speed.png"},
         "ocpctl: cannot write plot /nonexistent-dir/speed.png: No such file or directory\n"},
    };
    for (const auto& bad : cases) {
        const auto result = ocpctl(bad.args);
        EXPECT_EQ(result.exit_status, 2) << bad.args[0];
        EXPECT_EQ(result.err.compare(0, bad.message.size(), bad.message), 0) << result.err;
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << "one line: " << result.err;
        EXPECT_EQ(result.out, "");
    }
}

TEST(Ocpctl, AHugeArgumentIsCutInTheErrorLine) {
    const std::string huge(100000, 'x');
    for (const auto& args : {std::vector<std::string>{"info", huge}, std::vector<std::string>{huge},
                             std::vector<std::string>{"stream", "0x21", "--items", "POS_FB_4C," + huge},
                             std::vector<std::string>{"params", "set", "0x21", "LIMIT_TORQUE=" + huge}}) {
        const auto result = ocpctl(args);
        EXPECT_EQ(result.exit_status, 2);
        EXPECT_LT(result.err.size(), 1200u) << result.err.substr(0, 200);
        EXPECT_NE(result.err.find(std::string(60, 'x') + "... (100000 characters)"), std::string::npos)
            << result.err.substr(0, 300);
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1);
    }
}

TEST(Ocpctl, StreamIntoAPipeThatClosesStopsQuietly) {
    // As `ocpctl stream ... | head -2`: rows arrive one by one while the
    // stream runs (it has no end of its own), and closing the pipe ends it.
    ocp_test::ProcessEvents events;
    events.close_stdout_after_lines = 2;
    const auto result = run_process({OCPCTL_PATH, "stream", "0x21", "--items", "POS_FB_4C", "--rate", "100"}, events);
    EXPECT_EQ(result.exit_status, 141);
    EXPECT_EQ(result.err, "") << "quietly";
    EXPECT_EQ(result.out.rfind("time_s,POS_FB_4C\n", 0), 0u) << result.out;
    EXPECT_GE(result.exit_delay.count(), 0);
    EXPECT_LT(result.exit_delay.count(), 1000) << "ms from the closed pipe to the exit";
    std::printf("stream exited %lld ms after its reader closed the pipe\n",
                static_cast<long long>(result.exit_delay.count()));
}

TEST(Ocpctl, CtrlCEndsTheWaitForASilentDevice) {
    ocp_test::ProcessEvents events;
    events.signal_when_caught = SIGINT;
    const auto result = run_process(
        {OCPCTL_PATH, "--timeout", "60", "move", "0x30", "--mode", "speed", "--setpoint", "1"}, events);
    EXPECT_EQ(result.exit_status, 128 + SIGINT);
    EXPECT_EQ(result.err, "ocpctl: interrupted while waiting for 0x30\n");
    EXPECT_EQ(result.out, "");
    EXPECT_GE(result.exit_delay.count(), 0);
    // The wait is sliced into 50 ms pings; allow for a loaded machine.
    EXPECT_LT(result.exit_delay.count(), 500) << "ms from SIGINT to the exit";
    std::printf("exited %lld ms after SIGINT\n", static_cast<long long>(result.exit_delay.count()));
}

TEST(Ocpctl, SimulateWritesRowsAsItGoesAndRefusesAnOversizedPlot) {
    // A billion simulated seconds: the first rows arrive at once, and closing
    // the pipe ends the run instead of memory filling with rows not yet written.
    ocp_test::ProcessEvents events;
    events.close_stdout_after_lines = 3;
    events.limit = std::chrono::seconds(60);
    const auto streamed = run_process({OCPCTL_PATH, "simulate", "--mode", "position", "--setpoint", "1", "--duration",
                                       "1e9"},
                                      events);
    EXPECT_EQ(streamed.out.rfind("time_s,POS_FB_4C,SPD_FB_45,T_FB_56\n0.000000,0,0,0\n", 0), 0u) << streamed.out;
    EXPECT_NE(streamed.exit_status, -1);
    EXPECT_GE(streamed.exit_delay.count(), 0);

    const fs::path plot = scratch_path("huge.png");
    const auto refused = ocpctl({"simulate", "--mode", "position", "--setpoint", "1", "--duration", "1e9", "--plot",
                                 plot.string()});
    EXPECT_EQ(refused.exit_status, 2);
    EXPECT_EQ(refused.err, "ocpctl: --plot draws at most 1000000 samples, not 1000000000000 (a shorter --duration or "
                           "a lower --rate)\n");
    EXPECT_FALSE(fs::exists(plot));
}

TEST(Ocpctl, ListItemsAndParameters) {
    const auto items = ocpctl({"list", "items"});
    ASSERT_EQ(items.exit_status, 0) << items.err;
    const auto item_lines = lines_of(items.out);
    ASSERT_EQ(item_lines.size(), 1u + 48u);
    EXPECT_EQ(item_lines[0], "CODE   NAME                 TYPE  UNIT            MEANING");
    EXPECT_EQ(item_lines[1], "0x41   POS_FB_41            f32   not documented  position feedback");
    EXPECT_EQ(item_lines[2], "0x42   ITEM_42              u32   not documented  unsigned integer quantity");
    EXPECT_EQ(item_lines[10], "0x4a   ITEM_4A              i32   not documented  signed integer quantity");
    EXPECT_EQ(item_lines[48], "0x9a   ITEM_9A              f32   not documented  not documented");
    EXPECT_NE(items.out.find("0x90   ERRORS_90            u32   none            error state word"), std::string::npos);

    const auto parameters = ocpctl({"list", "params"});
    ASSERT_EQ(parameters.exit_status, 0) << parameters.err;
    const auto parameter_lines = lines_of(parameters.out);
    ASSERT_EQ(parameter_lines.size(), 1u + 31u);
    EXPECT_EQ(parameter_lines[1], "0x01   K_DAMP               f32   not documented  impedance damping gain");
    EXPECT_EQ(parameter_lines[16].rfind("0x30   MODE                 mode  none            current control mode", 0), 0u);
    EXPECT_EQ(parameter_lines[26], "0x80   DEVICE_80            u32   not documented  integer device setting");
    EXPECT_EQ(parameter_lines[31], "0x85   CAN_HIGH_SPEED       f32   none            CAN high-speed flag (1 on, 0 off)");
    for (const auto& line : parameter_lines) EXPECT_EQ(line.find("  \n"), std::string::npos);
}

TEST(Ocpctl, CodesAreAcceptedWhereNamesAre) {
    const auto stream = ocpctl({"stream", "0x21", "--items", "0x4c,vbus_70", "--rate", "50", "--duration", "0.1"});
    ASSERT_EQ(stream.exit_status, 0) << stream.err;
    EXPECT_EQ(lines_of(stream.out).at(0), "time_s,POS_FB_4C,VBUS_70");
    const auto get = ocpctl({"params", "get", "0x21", "0x04"});
    ASSERT_EQ(get.exit_status, 0) << get.err;
    EXPECT_EQ(get.out, "LIMIT_TORQUE           10\n");
    EXPECT_EQ(ocpctl({"stream", "0x21", "--items", "0x4e"}).exit_status, 2) << "0x4e is no item";
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

TEST(Ocpctl, WatchInAPipePrintsTimestampedRowsThatFitEightyColumns) {
    const auto result = ocpctl({"--bus", "sim:0x21,0x23", "watch", "0x21", "0x30", "0x23", "--for", "0.6"});
    ASSERT_EQ(result.exit_status, 0) << result.err;
    const auto lines = lines_of(result.out);
    ASSERT_GE(lines.size(), 1u + 2u * 3u) << "a header and at least two refreshes";
    EXPECT_EQ(lines[0], "  TIME_S ADDR     POS_FB_4C   SPD_FB_45     T_FB_56     VBUS_70   TEMP_WIND");
    EXPECT_EQ((lines.size() - 1) % 3, 0u);
    for (const auto& line : lines) EXPECT_LE(line.size(), 80u) << line;
    for (std::size_t row = 1; row < lines.size(); row += 3) {
        EXPECT_EQ(lines[row].substr(8), " 0x21             0           0           0          48          25");
        EXPECT_EQ(lines[row + 1].substr(8), " 0x30     no answer");
        EXPECT_EQ(lines[row + 2].substr(8), " 0x23             0           0           0          48          25");
        EXPECT_EQ(lines[row].substr(0, 8), lines[row + 2].substr(0, 8)) << "one time stamp per refresh";
    }
    EXPECT_EQ(lines[1].substr(0, 8), "    0.25");
    EXPECT_EQ(result.out.find("TIME_S", 10), std::string::npos) << "the header is printed once";
}

TEST(Ocpctl, MovePlotDrawsTheMoveItMade) {
    const fs::path png = scratch_path("move.png");
    const auto result = ocpctl({"move", "0x21", "--mode", "position", "--setpoint", "1", "--for", "0.5", "--plot",
                                png.string()});
    ASSERT_EQ(result.exit_status, 0) << result.err;
    EXPECT_NE(result.err.find("ocpctl: plot written to " + png.string() + "\n"), std::string::npos);
    EXPECT_EQ(png_size(png), std::make_pair(1000u, 800u));
    EXPECT_EQ(result.out.rfind("0x21 position ", 0), 0u);
    const fs::path svg = scratch_path("move.svg");
    ASSERT_EQ(ocpctl({"move", "0x21", "--mode", "speed", "--setpoint", "2", "--for", "0.3", "--plot", svg.string()})
                  .exit_status,
              0);
    const std::string text = read_text(svg);
    expect_three_panels_with_setpoint(text);
    EXPECT_NE(text.find("<text>0x21 SPEED setpoint 2</text>"), std::string::npos);
    fs::remove(png);
    fs::remove(svg);
}

TEST(Ocpctl, StreamPlotDrawsWhatWasStreamed) {
    const fs::path svg = scratch_path("stream.svg");
    const auto result = ocpctl({"stream", "0x22", "--items", "POS_FB_4C,SPD_FB_45,T_FB_56,REF_4B", "--rate", "100",
                                "--duration", "0.3", "--plot", svg.string()});
    ASSERT_EQ(result.exit_status, 0) << result.err;
    EXPECT_EQ(result.err, "ocpctl: plot written to " + svg.string() + "\n");
    EXPECT_EQ(lines_of(result.out).at(0), "time_s,POS_FB_4C,SPD_FB_45,T_FB_56,REF_4B") << "the rows still go out";
    const std::string text = read_text(svg);
    expect_three_panels_with_setpoint(text);
    EXPECT_NE(text.find("<text>0x22 streamed at 100 Hz</text>"), std::string::npos);
    fs::remove(svg);
    const auto nothing_to_draw = ocpctl({"stream", "0x22", "--items", "VBUS_70", "--plot", svg.string()});
    EXPECT_EQ(nothing_to_draw.exit_status, 2);
    EXPECT_EQ(nothing_to_draw.err.rfind("ocpctl: --plot draws position, speed or torque: stream one of", 0), 0u);
}

TEST(Ocpctl, ManualPageIsMadeFromTheHelp) {
#ifdef OCPCTL_MAN_PATH
    const std::string page = read_text(OCPCTL_MAN_PATH);
    EXPECT_EQ(page.find(".TH OCPCTL \"1\""), page.find(".TH")) << page.substr(0, 300);
    EXPECT_NE(page.find(".TH OCPCTL \"1\""), std::string::npos);
    EXPECT_NE(page.find(std::string("ocpctl ") + ocp_api::VERSION_TEXT), std::string::npos);
    for (const char* command : {"scan", "params", "move", "stream", "watch", "simulate", "list"})
        EXPECT_NE(page.find(std::string("\n") + command), std::string::npos) << command;
#else
    GTEST_SKIP() << "help2man was not found at configure time";
#endif
}

// What bash offers after the words typed so far (the last one is completed).
std::vector<std::string> complete(const std::string& line) {
    const std::string directory = fs::path(OCPCTL_PATH).parent_path().string();
    const std::string script = "PATH='" + directory + "':$PATH; source '" OCPCTL_COMPLETION_PATH "'; " +
                               "COMP_LINE='" + line + "'; read -ra COMP_WORDS <<< \"$COMP_LINE\"; " +
                               "[[ $COMP_LINE == *' ' ]] && COMP_WORDS+=(''); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); " +
                               "_ocpctl; printf '%s\\n' \"${COMPREPLY[@]}\"";
    const auto result = run_process({"/bin/bash", "--norc", "-c", script});
    EXPECT_EQ(result.exit_status, 0) << result.err;
    EXPECT_EQ(result.err, "");
    auto words = lines_of(result.out);
    std::sort(words.begin(), words.end());
    return words;
}

TEST(Ocpctl, BashCompletionCompletesSubcommandsOptionsAndNames) {
    using Words = std::vector<std::string>;
    EXPECT_EQ(complete("ocpctl sc"), Words({"scan", "scope"}));
    EXPECT_EQ(complete("ocpctl s"), Words({"save", "scan", "scope", "simulate", "start", "stop", "stream"}));
    EXPECT_EQ(complete("ocpctl params "), Words({"dump", "get", "load", "set"}));
    EXPECT_EQ(complete("ocpctl --bus sim list "), Words({"items", "params"}));
    EXPECT_EQ(complete("ocpctl move 0x21 --mode p"), Words({"position"}));
    EXPECT_EQ(complete("ocpctl stream 0x21 --items POS_FB_4C,SPD"), Words({"POS_FB_4C,SPD_FB_45"}));
    EXPECT_EQ(complete("ocpctl params get 0x21 LIMIT_T"), Words({"LIMIT_TORQUE"}));
    EXPECT_EQ(complete("ocpctl address 0x21 0x30 --f"), Words({"--force"}));
    EXPECT_EQ(complete("ocpctl lo"), Words({"loop"}));
    EXPECT_EQ(complete("ocpctl loop 0x21 --trajectory s"), Words({"sine", "step"}));
    EXPECT_EQ(complete("ocpctl loop 0x21 --fe"), Words({"--feedback-rate"}));
    // Every subcommand in the help is offered.
    EXPECT_EQ(complete("ocpctl ").size(), 23u);
}

TEST(Ocpctl, DemoRunsToTheEnd) {
    const auto result = ocpctl({"demo"});
    ASSERT_EQ(result.exit_status, 0) << result.err;
    EXPECT_NE(result.out.find("3 actuators found"), std::string::npos);
    EXPECT_NE(result.out.find("0x30: connected, model KESTREL_B"), std::string::npos);
    EXPECT_NE(result.err.find("Actuator 0x23 Stopping (override error_callback to change)"), std::string::npos);
}

}  // namespace
