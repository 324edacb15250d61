#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "ocp_api/orrery_actuator.hpp"
#include "support/device_replies.hpp"
#include "support/recording_transport.hpp"
#include "support/stream_capture.hpp"

namespace {

using namespace ocp_api;
using namespace ocp_test;
using ErrorMap = OrreryActuator::ErrorMap;

std::vector<std::string> sorted_lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    std::sort(lines.begin(), lines.end());
    return lines;
}

class Errors : public ::testing::Test {
protected:
    RecordingTransport transport;
    OrreryActuator actuator{transport, 0x2a};
};

TEST_F(Errors, ZeroWordAndUndescribedBitsCallNothing) {
    int calls = 0;
    actuator.set_error_callback([&](int, ErrorMap) { ++calls; });
    actuator.parse_errors(0);
    actuator.parse_errors(1u << 1);
    actuator.parse_errors((1u << 10) | (1u << 11) | (1u << 13) | (1u << 28));
    EXPECT_EQ(calls, 0);
}

TEST_F(Errors, EveryDescribedBitDecodes) {
    ErrorMap seen;
    actuator.set_error_callback([&](int, ErrorMap errors) { seen = std::move(errors); });
    actuator.parse_errors(0xFFFFFFFFu);
    EXPECT_EQ(seen, (ErrorMap{
                        {0, "Overtemperature"},
                        {2, "Position reference maximum"},
                        {3, "Position reference minimum"},
                        {4, "Speed feedback maximum"},
                        {5, "VBUS out of range"},
                        {6, "Torque reference maximum"},
                        {7, "Torque feedback maximum"},
                        {8, "Position feedback maximum"},
                        {9, "Position feedback minimum"},
                        {12, "Control overrun"},
                        {16, "Current maximum"},
                        {17, "Invalid limits"},
                        {29, "VBUS critical range"},
                        {30, "Internal encoder error"},
                        {31, "External encoder error"},
                    }));
}

TEST_F(Errors, DefaultCallbackReportsAndStopsOnceForOneSevereBit) {
    StreamCapture err(std::cerr);
    transport.deliver(0x2a, error_reply((1u << 0) | (1u << 31)));
    EXPECT_EQ(sorted_lines(err.text()), (std::vector<std::string>{
                                            "Actuator 0x2a Error code: 0 - Overtemperature",
                                            "Actuator 0x2a Error code: 31 - External encoder error",
                                            "Actuator 0x2a Stopping (override error_callback to change)",
                                        }));
    EXPECT_EQ(transport.frames(), (std::vector<Bytes>{{0x02}}));
}

TEST_F(Errors, DefaultCallbackLinesLeaveStandardErrorInDecimal) {
    StreamCapture err(std::cerr);
    {
        HostSetHex hex(std::cerr);
        transport.deliver(0x2a, error_reply(1u << 0));
        EXPECT_EQ(err.text(), "Actuator 0x2a Error code: 0 - Overtemperature\n");
        EXPECT_TRUE(in_decimal(std::cerr));
    }
    {
        HostSetHex hex(std::cerr);
        transport.deliver(0x2a, error_reply(1u << 16));
        EXPECT_TRUE(in_decimal(std::cerr));
    }
    EXPECT_EQ(err.text(),
              "Actuator 0x2a Error code: 0 - Overtemperature\n"
              "Actuator 0x2a Error code: 16 - Current maximum\n"
              "Actuator 0x2a Stopping (override error_callback to change)\n");
}

TEST_F(Errors, TwoSevereBitsStopTwice) {
    StreamCapture err(std::cerr);
    actuator.parse_errors((1u << 16) | (1u << 17));
    EXPECT_EQ(transport.frames(), (std::vector<Bytes>{{0x02}, {0x02}}));
    EXPECT_EQ(sorted_lines(err.text()), (std::vector<std::string>{
                                            "Actuator 0x2a Error code: 16 - Current maximum",
                                            "Actuator 0x2a Error code: 17 - Invalid limits",
                                            "Actuator 0x2a Stopping (override error_callback to change)",
                                            "Actuator 0x2a Stopping (override error_callback to change)",
                                        }));
}

TEST_F(Errors, MinorBitsAreReportedOnly) {
    StreamCapture err(std::cerr);
    actuator.parse_errors(1u << 12);
    EXPECT_EQ(err.text(), "Actuator 0x2a Error code: 12 - Control overrun\n");
    EXPECT_TRUE(transport.sent().empty());
}

TEST_F(Errors, UserCallbackReplacesTheDefaultEntirely) {
    StreamCapture err(std::cerr);
    int address = 0;
    ErrorMap seen;
    actuator.set_error_callback([&](int a, ErrorMap errors) {
        address = a;
        seen = std::move(errors);
    });
    transport.deliver(0x2a, error_reply(1u << 30));
    EXPECT_EQ(address, 0x2a);
    EXPECT_EQ(seen, (ErrorMap{{30, "Internal encoder error"}}));
    EXPECT_EQ(err.text(), "");
    EXPECT_TRUE(transport.sent().empty());
}

TEST_F(Errors, CallbackGetsTheCurrentAddressAfterAChange) {
    int address = 0;
    actuator.set_error_callback([&](int a, ErrorMap) { address = a; });
    actuator.changeAddress(0x30);
    actuator.parse_errors(1u);
    EXPECT_EQ(address, 0x30);
}

TEST_F(Errors, ErrorRecordEndsTheWalk) {
    int feedback_calls = 0;
    actuator.set_feedback_callback([&](int, OrreryActuator::FeedbackMap) { ++feedback_calls; });
    actuator.set_error_callback([](int, ErrorMap) {});
    transport.deliver(0x2a, Bytes{0x41} + f32(1.0f) + error_reply(1));
    transport.deliver(0x2a, Bytes{0x82, 0x01, 0x00, 0x00});  // short: delivers nothing, no error
    EXPECT_EQ(feedback_calls, 1);
    EXPECT_TRUE(actuator.get_feedback().empty());
}

TEST_F(Errors, FirmwareVersionText) {
    EXPECT_EQ(OrreryActuator::parse_firmware_version(0x0842), "1.1.2");
    EXPECT_EQ(OrreryActuator::parse_firmware_version(0), "0.0.0");
    EXPECT_EQ(OrreryActuator::parse_firmware_version(0xFFFF), "31.31.63");
}

}  // namespace
