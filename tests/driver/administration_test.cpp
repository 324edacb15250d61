#include <gtest/gtest.h>

#include "ocp_api/orrery_actuator.hpp"
#include "support/recording_transport.hpp"
#include "support/stream_capture.hpp"

namespace {

using namespace ocp_api;
using namespace ocp_test;
using Event = RecordingTransport::Event;
using EventKind = RecordingTransport::EventKind;

class Administration : public ::testing::Test {
protected:
    RecordingTransport transport;
};

TEST_F(Administration, InvalidAddressesAreRejectedWithTheRange) {
    OrreryActuator actuator(transport, 0x21);
    StreamCapture err(std::cerr);
    actuator.changeAddress(0x0F);
    actuator.changeAddress(0x3FFF);
    actuator.changeAddress(-5);
    EXPECT_EQ(err.text(),
              "Invalid address 15. Must be 0x10..0x3FFE\n"
              "Invalid address 16383. Must be 0x10..0x3FFE\n"
              "Invalid address -5. Must be 0x10..0x3FFE\n");
    EXPECT_TRUE(transport.sent().empty());
    EXPECT_EQ(actuator.get_address(), 0x21);
}

TEST_F(Administration, SameAddressIsReported) {
    OrreryActuator actuator(transport, 0x21);
    StreamCapture err(std::cerr);
    actuator.changeAddress(0x21);
    EXPECT_EQ(err.text(), "New address is the same as current: 33\n");
    EXPECT_TRUE(transport.sent().empty());
}

TEST_F(Administration, EdgesOfTheRangeAreAccepted) {
    OrreryActuator actuator(transport, 0x21);
    actuator.changeAddress(0x10);
    EXPECT_EQ(actuator.get_address(), 0x10);
    actuator.changeAddress(0x3FFE);
    EXPECT_EQ(actuator.get_address(), 0x3FFE);
    const auto sent = transport.sent();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0].address, 0x21);
    EXPECT_EQ(sent[0].frame, (Bytes{0x0B, 0x81} + f32(16.0f)));
    EXPECT_EQ(sent[1].address, 0x10) << "the second change goes to the address of the first";
    EXPECT_EQ(sent[1].frame, (Bytes{0x0B, 0x81} + f32(16382.0f)));
    // Put the registration back where destruction will look for it.
    transport.removeCallback(0x21);
}

TEST_F(Administration, CommandsAfterAChangeGoToTheNewAddressButTheCallbackStays) {
    {
        OrreryActuator actuator(transport, 0x21);
        actuator.changeAddress(0x22);
        transport.clear_records();
        actuator.blink();
        EXPECT_EQ(transport.sent().at(0).address, 0x22);
        EXPECT_EQ(transport.sent().at(0).frame, Bytes{0x41});
        actuator.disconnect();
        // The host removes the old registration itself.
        EXPECT_TRUE(transport.has_callback(0x21));
        transport.removeCallback(0x21);
    }
    EXPECT_EQ(transport.events(), (std::vector<Event>{{EventKind::Send, 0x22},
                                                      {EventKind::Send, 0x22},
                                                      {EventKind::RemoveCallback, 0x22},
                                                      {EventKind::RemoveCallback, 0x21},
                                                      {EventKind::Send, 0x22},
                                                      {EventKind::RemoveCallback, 0x22}}));
}

TEST_F(Administration, CanHighSpeedAlwaysSendsTheRecord) {
    OrreryActuator actuator(transport, 0x21);
    actuator.set_can_high_speed(true);
    EXPECT_TRUE(actuator.get_can_high_speed());
    actuator.set_can_high_speed(false);
    EXPECT_FALSE(actuator.get_can_high_speed());
    EXPECT_EQ(transport.frames(), (std::vector<Bytes>{Bytes{0x0B, 0x85} + f32(1.0f), Bytes{0x0B, 0x85} + f32(0.0f)}));
}

TEST_F(Administration, OneByteCommands) {
    OrreryActuator actuator(transport, 0x21);
    actuator.set_home_position();
    actuator.blink();
    actuator.enter_bootloader();
    EXPECT_EQ(transport.frames(), (std::vector<Bytes>{{0x0A}, {0x41}, {0xC1}}));
}

}  // namespace
