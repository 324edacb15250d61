#include <gtest/gtest.h>

#include <map>

#include "ocp_api/orrery_actuator.hpp"
#include "support/device_replies.hpp"
#include "support/recording_transport.hpp"
#include "support/stream_capture.hpp"

namespace {

using namespace ocp_api;
using namespace ocp_test;
using Event = RecordingTransport::Event;
using EventKind = RecordingTransport::EventKind;

struct FakeDevice {
    uint16_t model_code;
    uint16_t firmware_word;
};

// Answers pings from another thread after 2 ms, for the devices it knows.
class FakeBus {
public:
    FakeBus(RecordingTransport& transport, std::map<int, FakeDevice> devices, bool answer_inside_send = false)
        : transport_(transport), devices_(std::move(devices)) {
        transport.set_responder([this, &transport, answer_inside_send](int address, const Bytes& frame) {
            const auto device = devices_.find(address);
            if (!is_command(frame, wire::Command::PING) || device == devices_.end()) return;
            const Bytes reply = ping_reply(device->second.model_code, device->second.firmware_word);
            if (answer_inside_send) {
                transport.deliver(address, reply);
            } else {
                transport.deliver_later(address, reply, 0, std::chrono::milliseconds(2));
            }
        });
    }

    ~FakeBus() { transport_.set_responder(nullptr); }
    FakeBus(const FakeBus&) = delete;
    FakeBus& operator=(const FakeBus&) = delete;

private:
    RecordingTransport& transport_;
    std::map<int, FakeDevice> devices_;
};

const FakeDevice ADAPTER{MODEL_CODE_CAN_ADAPTER, 0x0842};

class Scanner : public ::testing::Test {
protected:
    ~Scanner() override { transport.join_deliveries(); }
    RecordingTransport transport;
};

TEST_F(Scanner, AdapterFoundSilently) {
    FakeBus bus(transport, {{0, ADAPTER}});
    StreamCapture err(std::cerr);
    OrreryActuatorScanner scanner(transport);
    EXPECT_TRUE(scanner.is_connected());
    EXPECT_EQ(scanner.get_model_name(), "CAN_ADAPTER");
    EXPECT_EQ(err.text(), "");
    EXPECT_EQ(transport.close_count(), 0u);
    EXPECT_EQ(transport.sent().at(0).address, 0);
    EXPECT_EQ(transport.sent().at(0).frame, Bytes{0x40});
}

TEST_F(Scanner, SilentAdapterLeavesTheScannerDisconnected) {
    StreamCapture err(std::cerr);
    OrreryActuatorScanner scanner(transport);
    EXPECT_FALSE(scanner.is_connected());
    EXPECT_EQ(err.text(), "CAN adapter not responding\n");
    transport.clear_records();
    EXPECT_TRUE(scanner.scan(0x10, 0x20).empty());
    EXPECT_TRUE(scanner.scan(0x10, 0x20).empty());
    EXPECT_EQ(err.text(),
              "CAN adapter not responding\nCAN adapter is not connected\nCAN adapter is not connected\n");
    EXPECT_TRUE(transport.events().empty()) << "nothing registered or sent";
}

TEST_F(Scanner, WrongDeviceAtAddressZeroClosesTheTransport) {
    FakeBus bus(transport, {{0, {3, 0x0842}}});
    StreamCapture err(std::cerr);
    OrreryActuatorScanner scanner(transport);
    EXPECT_EQ(err.text(), "Device is not a CAN adapter, it's a HERON_A\n");
    EXPECT_EQ(transport.close_count(), 1u);
    EXPECT_TRUE(scanner.is_connected()) << "the flag is deliberately left set";
}

TEST_F(Scanner, EmptyRangeDoesNothing) {
    FakeBus bus(transport, {{0, ADAPTER}});
    OrreryActuatorScanner scanner(transport);
    transport.clear_records();
    StreamCapture out(std::cout);
    StreamCapture err(std::cerr);
    EXPECT_TRUE(scanner.scan(5, 4).empty());
    EXPECT_TRUE(transport.events().empty());
    EXPECT_EQ(out.text(), "");
    EXPECT_EQ(err.text(), "");
}

TEST_F(Scanner, SingleAddressRegistersPingsAndRemovesOnce) {
    FakeBus bus(transport, {{0, ADAPTER}});
    OrreryActuatorScanner scanner(transport);
    transport.clear_records();
    EXPECT_TRUE(scanner.scan(0x30, 0x30).empty());
    EXPECT_EQ(transport.events(), (std::vector<Event>{{EventKind::SetCallback, 0x30},
                                                      {EventKind::Send, 0x30},
                                                      {EventKind::RemoveCallback, 0x30}}));
    EXPECT_EQ(transport.frames(), (std::vector<Bytes>{{0x40}}));
}

TEST_F(Scanner, DeviceFoundLineLeavesStandardOutputInDecimal) {
    FakeBus bus(transport, {{0, ADAPTER}, {0x21, {3, 0x0842}}});
    OrreryActuatorScanner scanner(transport);
    StreamCapture out(std::cout);
    HostSetHex hex(std::cout);
    EXPECT_EQ(scanner.scan(0x21, 0x21), (std::vector<int>{0x21}));
    EXPECT_EQ(out.text(), "Device found: address 0x21 (33)\tmodel HERON_A\tfirmware 1.1.2\n");
    EXPECT_TRUE(in_decimal(std::cout));
}

TEST_F(Scanner, FindsTheDevicesThatAnswerAndPrintsOneLineEach) {
    FakeBus bus(transport, {{0, ADAPTER}, {0x21, {3, 0x0842}}, {0x23, {99, 0x0001}}});
    OrreryActuatorScanner scanner(transport);
    transport.clear_records();
    StreamCapture out(std::cout);
    const std::vector<int> found = scanner.scan(0x20, 0x24);
    EXPECT_EQ(found, (std::vector<int>{0x21, 0x23}));
    EXPECT_EQ(out.text(),
              "Device found: address 0x21 (33)\tmodel HERON_A\tfirmware 1.1.2\n"
              "Device found: address 0x23 (35)\tmodel \tfirmware 0.0.1\n");
    // The base's texts describe the last device found.
    EXPECT_EQ(scanner.get_model_name(), "");
    EXPECT_EQ(scanner.get_firmware_version(), "0.0.1");
    std::vector<Event> expected;
    for (int a = 0x20; a <= 0x24; ++a) {
        expected.push_back({EventKind::SetCallback, a});
        expected.push_back({EventKind::Send, a});
        expected.push_back({EventKind::RemoveCallback, a});
    }
    EXPECT_EQ(transport.events(), expected);
}

TEST_F(Scanner, RangeIncludingZeroListsTheAdapterAndLeavesZeroWithoutHandler) {
    FakeBus bus(transport, {{0, ADAPTER}});
    OrreryActuatorScanner scanner(transport);
    StreamCapture out(std::cout);
    EXPECT_EQ(scanner.scan(0, 0), (std::vector<int>{0}));
    EXPECT_EQ(out.text(), "Device found: address 0x0 (0)\tmodel CAN_ADAPTER\tfirmware 1.1.2\n");
    EXPECT_FALSE(transport.has_callback(0));
}

TEST_F(Scanner, NegativeAddressesPrintTwosComplementAndKeepTheirHandler) {
    FakeBus bus(transport, {{0, ADAPTER}, {-1, {4, 0x0842}}});
    OrreryActuatorScanner scanner(transport);
    StreamCapture out(std::cout);
    EXPECT_EQ(scanner.scan(-2, -1), (std::vector<int>{-1}));
    EXPECT_EQ(out.text(), "Device found: address 0xffffffff (-1)\tmodel HERON_B\tfirmware 1.1.2\n");
    EXPECT_TRUE(transport.has_callback(-1));
    EXPECT_TRUE(transport.has_callback(-2));
    transport.join_deliveries();
    transport.removeCallback(-1);
    transport.removeCallback(-2);
}

TEST_F(Scanner, AReplyHandledBeforeTheFlagIsClearedIsMissed) {
    FakeBus adapter(transport, {{0, ADAPTER}});
    OrreryActuatorScanner scanner(transport);
    FakeBus bus(transport, {{0x21, {3, 0x0842}}}, /*answer_inside_send=*/true);
    StreamCapture out(std::cout);
    EXPECT_TRUE(scanner.scan(0x21, 0x21).empty());
    EXPECT_EQ(out.text(), "");
}

}  // namespace
