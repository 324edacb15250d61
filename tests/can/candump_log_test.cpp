#include "ocp_api/candump_log.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <sstream>

namespace {

using namespace ocp_api;
using std::chrono::microseconds;

LoggedFrame parsed(const std::string& line) {
    std::string problem;
    const auto logged = parse_candump_line(line, &problem);
    EXPECT_TRUE(logged.has_value()) << line << ": " << problem;
    return logged.value_or(LoggedFrame{});
}

std::string rejection(const std::string& line) {
    std::string problem;
    EXPECT_FALSE(parse_candump_line(line, &problem).has_value()) << line;
    return problem;
}

std::vector<uint8_t> data_of(const CanFrame& frame) { return {frame.data.begin(), frame.data.begin() + frame.len}; }

TEST(CandumpLog, ExtendedDataFrame) {
    const LoggedFrame logged = parsed("(1700000000.123456) can0 12345678#DEADBEEF");
    EXPECT_EQ(logged.timestamp, microseconds(1700000000123456));
    EXPECT_EQ(logged.interface, "can0");
    EXPECT_EQ(logged.type, LoggedFrame::Type::data);
    EXPECT_EQ(logged.frame.id, 0x12345678u);
    EXPECT_TRUE(logged.frame.extended);
    EXPECT_FALSE(logged.frame.fd);
    EXPECT_EQ(data_of(logged.frame), (std::vector<uint8_t>{0xDE, 0xAD, 0xBE, 0xEF}));
}

TEST(CandumpLog, StandardFramesEmptyDataAndDotSeparators) {
    const LoggedFrame logged = parsed("(0000000001.000001) vcan0 7FF#11.22.33");
    EXPECT_EQ(logged.timestamp, microseconds(1000001));
    EXPECT_EQ(logged.frame.id, 0x7FFu);
    EXPECT_FALSE(logged.frame.extended);
    EXPECT_EQ(data_of(logged.frame), (std::vector<uint8_t>{0x11, 0x22, 0x33}));
    EXPECT_EQ(parsed("(1.5) can1 123#").frame.len, 0);
    EXPECT_EQ(parsed("(1.5) can1 123#").timestamp, microseconds(1500000));
    EXPECT_EQ(parsed("(1.123456789) can1 123#").timestamp, microseconds(1123456)) << "nanoseconds are cut";
}

TEST(CandumpLog, FdFramesWithFlags) {
    const LoggedFrame logged = parsed("(1700000000.000000) can0 00012345##1" + std::string(24, 'A'));
    EXPECT_TRUE(logged.frame.fd);
    EXPECT_TRUE(logged.frame.brs);
    EXPECT_EQ(logged.frame.len, 12);
    EXPECT_EQ(logged.frame.data[11], 0xAA);
    const LoggedFrame no_brs = parsed("(1700000000.000000) can0 00012345##0" + std::string(128, '5'));
    EXPECT_FALSE(no_brs.frame.brs);
    EXPECT_EQ(no_brs.frame.len, 64);
    EXPECT_TRUE(parsed("(1.0) can0 123##4").frame.fd);
}

TEST(CandumpLog, RemoteAndErrorFrames) {
    const LoggedFrame remote = parsed("(1.000000) can0 123#R");
    EXPECT_EQ(remote.type, LoggedFrame::Type::remote);
    EXPECT_EQ(remote.frame.len, 0);
    EXPECT_EQ(parsed("(1.000000) can0 12345678#R5").frame.len, 5);
    const LoggedFrame error = parsed("(1.000000) can0 20000004#0004000000000000");
    EXPECT_EQ(error.type, LoggedFrame::Type::error);
    EXPECT_EQ(error.frame.id, 0x4u) << "the error class bits, without the error flag";
    EXPECT_EQ(error.frame.data[1], 0x04);
}

TEST(CandumpLog, DirectionMarkAndRawDlcAreAccepted) {
    EXPECT_EQ(parsed("(1.000000) can0 123#11 R").frame.len, 1);
    EXPECT_EQ(parsed("(1.000000) can0 123#11 T").frame.len, 1);
    EXPECT_EQ(parsed("(1.000000) can0 123#1122334455667788_C").frame.len, 8);
}

TEST(CandumpLog, GarbageLinesSayWhy) {
    EXPECT_EQ(rejection(""), "no (seconds.microseconds) timestamp");
    EXPECT_EQ(rejection("# a comment"), "no (seconds.microseconds) timestamp");
    EXPECT_EQ(rejection("(abc.def) can0 123#11"), "no (seconds.microseconds) timestamp");
    EXPECT_EQ(rejection("(9300000000.000000) vcan0 00D04021#0580030042080000"),
              "timestamp past the year 2262 (at most 9223368436 s)");
    EXPECT_EQ(rejection("(9223368437.000000) vcan0 123#"), "timestamp past the year 2262 (at most 9223368436 s)");
    EXPECT_EQ(parsed("(9223368436.999999) vcan0 123#").timestamp, microseconds(9223368436999999));
    EXPECT_EQ(rejection("(1.0)"), "no interface name");
    EXPECT_EQ(rejection("(1.0) can0 12345678"), "no '#' in the frame");
    EXPECT_EQ(rejection("(1.0) can0 1234#11"), "identifier is not 3 or 8 hex digits");
    EXPECT_EQ(rejection("(1.0) can0 12X#11"), "identifier is not 3 or 8 hex digits");
    EXPECT_EQ(rejection("(1.0) can0 800#11"), "identifier out of range");
    EXPECT_EQ(rejection("(1.0) can0 40000000#11"), "identifier out of range");
    EXPECT_EQ(rejection("(1.0) can0 123#112"), "odd number of hex digits in the data");
    EXPECT_EQ(rejection("(1.0) can0 123#11ZZ"), "data is not hex");
    EXPECT_EQ(rejection("(1.0) can0 123#112233445566778899"), "more than 8 data bytes");
    EXPECT_EQ(rejection("(1.0) can0 123##" ), "CAN-FD frame without its flags digit");
    EXPECT_EQ(rejection("(1.0) can0 123##0" + std::string(20, '1')), "CAN-FD frames do not carry 10 data bytes");
    EXPECT_EQ(rejection("(1.0) can0 123#R9"), "remote frame length is not a digit 0..8");
    EXPECT_EQ(rejection("(1.0) can0 20000004#R"), "an error frame cannot be a remote frame");
    EXPECT_EQ(rejection("(1.0) can0 123#11 extra words"), "unexpected text after the frame");
    EXPECT_EQ(rejection("(1.0) can0 123#11_"), "bad raw DLC after '_'");
}

TEST(CandumpLog, FormattingReadsBack) {
    LoggedFrame logged;
    logged.timestamp = microseconds(1700000000123456);
    logged.interface = "vcan0";
    logged.frame.id = 0x1234ABC;
    logged.frame.len = 3;
    logged.frame.data[0] = 0x0F;
    logged.frame.data[1] = 0xA0;
    logged.frame.data[2] = 0x01;
    EXPECT_EQ(format_candump_line(logged), "(1700000000.123456) vcan0 01234ABC#0FA001");
    logged.frame.fd = true;
    logged.frame.brs = true;
    EXPECT_EQ(format_candump_line(logged), "(1700000000.123456) vcan0 01234ABC##10FA001");
    logged.frame = CanFrame{};
    logged.frame.extended = false;
    logged.frame.id = 0x12;
    logged.type = LoggedFrame::Type::remote;
    logged.frame.len = 2;
    EXPECT_EQ(format_candump_line(logged), "(1700000000.123456) vcan0 012#R2");
    logged.type = LoggedFrame::Type::error;
    logged.frame.id = 0x40;
    logged.frame.len = 8;
    EXPECT_EQ(format_candump_line(logged), "(1700000000.123456) vcan0 20000040#0000000000000000");

    const std::string line = "(0000000012.000345) can0 12345678##1DEADBEEF0102030405060708";
    EXPECT_EQ(format_candump_line(parsed(line)), line);
}

TEST(CandumpLog, ReaderNumbersLinesSkipsBlankOnesAndCountsRejections) {
    std::istringstream log(
        "(1.000000) can0 123#11\n"
        "\n"
        "garbage\r\n"
        "(2.000000) can0 12345678#2233\r\n"
        "(3.000000) can0 123#11" + std::string(2000, ' ') + "x\n"
        "(4.000000) can0 123#44");
    CandumpLogReader reader(log);
    std::vector<CandumpLogReader::Line> lines;
    while (auto line = reader.next()) lines.push_back(*line);
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(lines[0].number, 1u);
    EXPECT_TRUE(lines[0].frame.has_value());
    EXPECT_EQ(lines[1].number, 3u);
    EXPECT_EQ(lines[1].problem, "no (seconds.microseconds) timestamp");
    EXPECT_EQ(lines[2].number, 4u);
    EXPECT_EQ(lines[2].frame->frame.id, 0x12345678u);
    EXPECT_EQ(lines[3].number, 5u);
    EXPECT_EQ(lines[3].problem, "line longer than 1024 characters");
    EXPECT_EQ(lines[4].number, 6u);
    EXPECT_EQ(lines[4].frame->frame.data[0], 0x44) << "the last line needs no line end";
    EXPECT_EQ(reader.frames(), 3u);
    EXPECT_EQ(reader.rejected_lines(), 2u);
}

TEST(CandumpLog, MutatedLinesNeverCrash) {
    const std::vector<std::string> valid = {
        "(1700000000.123456) can0 12345678#DEADBEEF", "(1.000000) vcan0 123#11.22", "(1.0) can0 123#R5",
        "(1.0) can0 12345678##1" + std::string(24, 'A'), "(1.0) can0 20000004#0004000000000000"};
    const std::string alphabet = "()0123456789abcdefABCDEF#.R_ Tx\t";
    std::mt19937 random(7);
    std::size_t accepted = 0;
    for (int round = 0; round < 20000; ++round) {
        std::string line = valid[random() % valid.size()];
        const int edits = static_cast<int>(random() % 3);
        for (int edit = 0; edit < edits; ++edit) line[random() % line.size()] = alphabet[random() % alphabet.size()];
        if (random() % 4 == 0) line.resize(random() % line.size());
        std::string problem;
        const auto logged = parse_candump_line(line, &problem);
        if (logged) {
            ++accepted;
            EXPECT_LE(logged->frame.len, CanFrame::MAX_DATA);
            const auto back = parse_candump_line(format_candump_line(*logged));
            ASSERT_TRUE(back.has_value()) << line;
            EXPECT_EQ(back->timestamp, logged->timestamp) << line;
            EXPECT_EQ(back->interface, logged->interface) << line;
            EXPECT_EQ(back->type, logged->type) << line;
            EXPECT_EQ(back->frame.id, logged->frame.id) << line;
            EXPECT_EQ(back->frame.extended, logged->frame.extended) << line;
            EXPECT_EQ(back->frame.fd, logged->frame.fd) << line;
            EXPECT_EQ(back->frame.brs, logged->frame.brs) << line;
            EXPECT_EQ(back->frame.len, logged->frame.len) << line;
            if (logged->type != LoggedFrame::Type::remote) {
                EXPECT_TRUE(std::equal(logged->frame.data.begin(), logged->frame.data.begin() + logged->frame.len,
                                       back->frame.data.begin()))
                    << line;
            }
        } else {
            EXPECT_FALSE(problem.empty()) << line;
        }
    }
    EXPECT_GT(accepted, 1000u);
}

}  // namespace
