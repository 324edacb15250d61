// ocpctl dump --log, run as a process on a recorded candump -L log.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

#include "tools/ocpctl_process.hpp"

namespace {

using ocp_test::ProcessResult;
using ocp_test::run_process;
namespace fs = std::filesystem;

using ocp_test::ocpctl;

// A recording of one session on vcan0: a ping and its answer, a parameter
// write in two frames with the device's flow control between them, an item
// answer, and what a dump must show as such: a frame that is not ours, a line
// that is not a frame, a consecutive frame without its first frame, an error
// frame and a message whose frames stop.
const char* const SESSION =
    "(1700000000.000100) vcan0 00D00021#0140\n"
    "(1700000000.000300) vcan0 00D04021#058003004208\n"
    "(1700000000.001000) vcan0 00D00021#100B0B0400002040\n"
    "(1700000000.001100) vcan0 00D04021#300000\n"
    "(1700000000.001200) vcan0 00D00021#21300000E040\n"
    "(1700000000.002000) vcan0 00D0C021#054C0000C03F\n"
    "(1700000000.003000) vcan0 123#DEADBEEF\n"
    "this is not a log line\n"
    "(1700000000.004000) vcan0 00D00022#2100\n"
    "(1700000000.005000) vcan0 20000004#0004000000000000\n"
    "(1700000000.006000) vcan0 00D00021#10140C0102030405\n";

class OcpctlDump : public ::testing::Test {
protected:
    OcpctlDump() {
        const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
        log_ = fs::temp_directory_path() / ("ocpctl_dump_" + std::to_string(getpid()) + "_" + info->name() + ".log");
        std::ofstream(log_) << SESSION;
    }
    ~OcpctlDump() override { fs::remove(log_); }
    fs::path log_;
};

TEST_F(OcpctlDump, OneDecodedLinePerMessageAndTheRestShownAsSuch) {
    const auto result = ocpctl({"dump", "--log", log_.string()});
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.out,
              "1700000000.000100 vcan0 0x21 to-device PING\n"
              "1700000000.000300 vcan0 0x21 to-host PING_REPLY model=HERON_A(3) firmware=1.1.2(0x0842)\n"
              "1700000000.001200 vcan0 0x21 to-device SET_PARAMETERS LIMIT_TORQUE=2.5 MODE=POSITION(7)\n"
              "1700000000.002000 vcan0 0x21 to-host[items] ITEMS POS_FB_4C=1.5\n"
              "1700000000.003000 vcan0 not-ours 123#DEADBEEF\n"
              "1700000000.004000 vcan0 0x22 to-device !! consecutive frame without a first frame "
              "[00D00022#2100]\n"
              "1700000000.005000 vcan0 error-frame 20000004#0004000000000000\n"
              "1700000002.006000 vcan0 !! message cut short: its next frame did not come in time\n");
    EXPECT_EQ(result.err, "ocpctl: " + log_.string() +
                              ":8: not a candump -L line: no (seconds.microseconds) timestamp\n");
}

TEST_F(OcpctlDump, JsonOneObjectPerLine) {
    const auto result = ocpctl({"dump", "--log", log_.string(), "--json"});
    ASSERT_EQ(result.exit_status, 0) << result.err;
    std::istringstream lines(result.out);
    std::vector<nlohmann::json> objects;
    for (std::string line; std::getline(lines, line);) objects.push_back(nlohmann::json::parse(line));
    ASSERT_EQ(objects.size(), 8u);
    EXPECT_EQ(objects[2]["time"], "1700000000.001200");
    EXPECT_EQ(objects[2]["interface"], "vcan0");
    EXPECT_EQ(objects[2]["type"], "message");
    EXPECT_EQ(objects[2]["address"], 0x21);
    EXPECT_EQ(objects[2]["direction"], "to_device");
    EXPECT_EQ(objects[2]["decoded"]["parts"][0]["name"], "SET_PARAMETERS");
    EXPECT_EQ(objects[2]["decoded"]["parts"][0]["values"][1]["meaning"], "POSITION");
    EXPECT_EQ(objects[3]["kind"], 1);
    EXPECT_EQ(objects[3]["decoded"]["parts"][0]["values"][0]["value"], 1.5);
    EXPECT_EQ(objects[4]["type"], "not_ours");
    EXPECT_EQ(objects[4]["frame"], "123#DEADBEEF");
    EXPECT_EQ(objects[5]["type"], "broken_segmentation");
    EXPECT_EQ(objects[6]["type"], "error_frame");
    EXPECT_EQ(objects[7]["problem"], "message cut short: its next frame did not come in time");
}

TEST_F(OcpctlDump, ReadsStandardInput) {
    const auto result = run_process({"/bin/sh", "-c", std::string(OCPCTL_PATH) + " dump --log - < " + log_.string()});
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.out.substr(0, result.out.find('\n')), "1700000000.000100 vcan0 0x21 to-device PING");
    EXPECT_EQ(result.err, "ocpctl: standard input:8: not a candump -L line: no (seconds.microseconds) timestamp\n");
}

TEST(OcpctlDumpArguments, TimestampPastTheYear2262IsRefusedWithAReason) {
    const fs::path log = fs::temp_directory_path() / ("ocpctl_dump_" + std::to_string(getpid()) + "_far_future.log");
    std::ofstream(log) << "(9300000000.000000) vcan0 00D04021#0580030042080000\n"
                          "(1700000000.000300) vcan0 00D04021#058003004208\n";
    const auto result = ocpctl({"dump", "--log", log.string()});
    fs::remove(log);
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.out, "1700000000.000300 vcan0 0x21 to-host PING_REPLY model=HERON_A(3) firmware=1.1.2(0x0842)\n");
    EXPECT_NE(result.err.find(":1: not a candump -L line: timestamp past the year 2262 (at most 9223368436 s)"),
              std::string::npos)
        << result.err;
}

TEST(OcpctlDumpArguments, InterfaceNamesAreShownSafelyAndTheirNumberIsBounded) {
    const fs::path log = fs::temp_directory_path() / ("ocpctl_dump_" + std::to_string(getpid()) + "_names.log");
    {
        std::ofstream file(log);
        file << "(1700000000.000100) v\x1b[2Jcan0 00D00021#0140\n"
                "(1700000000.000200) v\xff\xfe 00D00021#0140\n";
        for (int i = 0; i < 300; ++i) file << "(1700000000.001000) can" << i << " 00D00021#0140\n";
    }
    const auto text = ocpctl({"dump", "--log", log.string()});
    EXPECT_EQ(text.exit_status, 0);
    std::istringstream lines(text.out);
    std::string first, second;
    std::getline(lines, first);
    std::getline(lines, second);
    EXPECT_EQ(first, "1700000000.000100 v\\x1b[2Jcan0 0x21 to-device PING");
    EXPECT_EQ(second, "1700000000.000200 v\\xff\\xfe 0x21 to-device PING");
    EXPECT_EQ(std::count(text.out.begin(), text.out.end(), '\n'), 256);
    EXPECT_EQ(text.err, "ocpctl: " + log.string() + ": 46 frames on interfaces after the first 256 were not decoded\n");

    const auto json = ocpctl({"dump", "--log", log.string(), "--json"});
    fs::remove(log);
    EXPECT_EQ(json.exit_status, 0);
    std::istringstream json_lines(json.out);
    std::size_t objects = 0;
    for (std::string line; std::getline(json_lines, line); ++objects) {
        const auto object = nlohmann::json::parse(line);  // every line is valid JSON (and UTF-8)
        if (objects == 1) {
            EXPECT_EQ(object["interface"], "v\\xff\\xfe");
        }
    }
    EXPECT_EQ(objects, 256u);
}

TEST(OcpctlDumpArguments, MissingOrUnreadableLogIsAUsageError) {
    const auto missing = ocpctl({"dump", "--log", "/nonexistent/session.log"});
    EXPECT_EQ(missing.exit_status, 2);
    EXPECT_EQ(missing.out, "");
    EXPECT_EQ(missing.err, "ocpctl: cannot read /nonexistent/session.log: No such file or directory\n");
    const auto none = ocpctl({"dump"});
    EXPECT_EQ(none.exit_status, 2);
    EXPECT_EQ(none.err,
              "ocpctl: dump needs --log FILE (a candump -L recording, - for standard input) or --bus socketcan:IF; bus 'sim' carries "
              "no CAN frames to watch\n");
    const auto directory = ocpctl({"dump", "--log", "/"});
    EXPECT_EQ(directory.exit_status, 2);
    EXPECT_EQ(directory.out, "");
    EXPECT_EQ(directory.err, "ocpctl: cannot read /: Is a directory\n");
}

}  // namespace

namespace {

// 49,000 messages that are opened and never finished, each on its own
// address and direction, 10 us apart: what a peer flooding first frames
// leaves in a recording. About 2.5 MB.
void write_half_open_log(const fs::path& path) {
    std::ofstream log(path);
    char line[96];
    for (int i = 0; i < 49000; ++i) {
        const int address = 0x10 + i % 0x3FEF;
        const unsigned direction = (i / 0x3FEF) % 2 == 0 ? 0x4000u : 0x0000u;
        std::snprintf(line, sizeof line, "(1700000000.%06d) vcan0 %08X#10FF0102030405%02X\n", 100000 + i * 10,
                      0x00D00000u + direction + static_cast<unsigned>(address), i % 256);
        log << line;
    }
}

}  // namespace

TEST(OcpctlDumpFlood, FortyNineThousandHalfOpenMessagesTakeWellUnderASecond) {
    const fs::path log = fs::temp_directory_path() / ("ocpctl_dump_flood_" + std::to_string(getpid()) + ".log");
    write_half_open_log(log);
    const auto result = ocpctl({"dump", "--log", log.string()});
    fs::remove(log);
    EXPECT_EQ(result.exit_status, 0) << result.err;
    // 128 reception slots per direction: replies to 0x10..0x8f and commands to
    // 0x10..0x8f hold them; the replies to 0x10..0x8f of the third pass
    // replace the ones they find; every other first frame is ignored, and
    // shown as such.
    const auto occurrences = [&](const std::string& text) {
        std::size_t count = 0;
        for (auto at = result.out.find(text); at != std::string::npos; at = result.out.find(text, at + 1)) ++count;
        return count;
    };
    EXPECT_EQ(occurrences("first frame ignored: too many messages half-received at once"), 49000u - 3u * 128u);
    EXPECT_EQ(occurrences("segmentation broken: the half-received message is dropped"), 128u);
    // The 256 still open when the log ends are reported together.
    EXPECT_EQ(occurrences("message cut short: its next frame did not come in time"), 1u);
    EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 49000 - 3 * 128 + 128 + 1);
    std::printf("dump of 49,000 half-open messages: %.3f s of CPU\n",
                std::chrono::duration<double>(result.cpu).count());
    // Was 105 s; a sanitizer build is several times slower than a normal one.
    EXPECT_LT(result.cpu, std::chrono::seconds(5));
}
