// A STOP through CanBus reaches the wire ahead of everything queued for its
// address, whatever the device does with flow control. The device here is a
// raw endpoint of the virtual channel; the tests assert the order of the
// frames it sees, not how long anything took.
#include <gtest/gtest.h>

#include "ocp_api/can_bus.hpp"
#include "ocp_api/orrery_actuator.hpp"
#include "ocp_api/virtual_can.hpp"
#include "support/can_frames.hpp"

namespace {

using ocp_test::bytes_of;
using ocp_test::frame_of;
using namespace ocp_api;
using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;

constexpr int ADDRESS = 0x21;
constexpr uint32_t COMMAND_ID = 0x00D00021;
constexpr uint32_t REPLY_ID = 0x00D04021;
const Bytes STOP_FRAME{0x01, 0x02, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC};

// Frames for the device, read until `last` matches or nothing comes for a while.
std::vector<CanFrame> frames_until(CanLink& device, const Bytes& last) {
    std::vector<CanFrame> seen;
    for (;;) {
        const CanLinkEvent event = device.receive(10s);
        if (event.type != CanLinkEvent::Type::frame) return seen;
        if (event.frame.id != COMMAND_ID) continue;
        seen.push_back(event.frame);
        if (bytes_of(event.frame) == last) return seen;
    }
}

// The next command frame the device sees; fails the test when none comes.
CanFrame next_command_frame(CanLink& device) {
    for (;;) {
        const CanLinkEvent event = device.receive(10s);
        if (event.type != CanLinkEvent::Type::frame) {
            ADD_FAILURE() << "no frame came";
            return {};
        }
        if (event.frame.id == COMMAND_ID) return event.frame;
    }
}

// The actuator switches to position mode before its first position setpoint.
const Bytes SET_POSITION_MODE{0x02, 0x03, 0x07, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC};

// A bus with a raw device endpoint, and an actuator that has just sent 1000
// position setpoints: the device has seen the mode and the first setpoint's
// first frame, and answers no flow control.
class CanBusStop : public testing::Test {
protected:
    CanBusStop() {
        for (int i = 0; i < 1000; ++i) actuator.change_position_setpoint(static_cast<float>(i), 0.0f, 0.0f);
        EXPECT_EQ(bytes_of(next_command_frame(*device)), SET_POSITION_MODE);
        EXPECT_EQ(bytes_of(next_command_frame(*device))[0], 0x10);
    }
    void answer_flow_control(uint8_t status) {
        ASSERT_EQ(device->send_frame(frame_of(REPLY_ID, {static_cast<uint8_t>(0x30 | status), 0, 0, 0xCC, 0xCC,
                                                          0xCC, 0xCC, 0xCC})),
                  CanLink::SendResult::sent);
    }

    VirtualCanChannel channel;
    std::unique_ptr<CanLink> device = channel.open();
    CanBus bus{channel.open()};
    OrreryActuator actuator{bus, ADDRESS};
};

TEST_F(CanBusStop, OvertakesAThousandSegmentedCommandsToADeviceThatNeverSendsFlowControl) {
    actuator.stop();
    const std::vector<CanFrame> seen = frames_until(*device, STOP_FRAME);
    ASSERT_EQ(seen.size(), 1u) << "the STOP right after the first setpoint's first frame";
    const CanBusCounters c = bus.counters();
    EXPECT_EQ(c.superseded, 998u);
    EXPECT_EQ(c.cancelled, 2u);
    EXPECT_EQ(c.preempted, 1u);
}

TEST_F(CanBusStop, OvertakesCommandsHeldByFlowControlWait) {
    answer_flow_control(1);
    actuator.stop();
    const std::vector<CanFrame> seen = frames_until(*device, STOP_FRAME);
    ASSERT_EQ(seen.size(), 1u) << "nothing but the STOP after the first frame";
}

TEST_F(CanBusStop, AfterADeviceWasSilentItGetsTheLatestSetpointThenTheStop) {
    // The device answers again: the first setpoint finishes, the latest
    // waiting one goes, and nothing of the 998 in between.
    answer_flow_control(0);
    std::vector<CanFrame> seen;
    for (int i = 0; i < 4; ++i) seen.push_back(next_command_frame(*device));
    actuator.stop();
    const std::vector<CanFrame> rest = frames_until(*device, STOP_FRAME);
    ASSERT_EQ(rest.size(), 1u);
    EXPECT_EQ(bytes_of(seen[0])[0], 0x21);
    EXPECT_EQ(bytes_of(seen[2])[0], 0x23);
    // The latest setpoint, 999: its first frame carries the code and the
    // first bytes of 999.0f (0x4479C000).
    EXPECT_EQ(bytes_of(seen[3]), (Bytes{0x10, 25, 0x13, 0x00, 0xC0, 0x79, 0x44, 0x00}));
    EXPECT_EQ(bus.counters().superseded, 998u);
    EXPECT_EQ(bus.counters().messages_out, 3u);  // the mode, setpoint 0 and the STOP
}

}  // namespace
