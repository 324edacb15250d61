// The queueing rules of the host side, frame by frame: a STOP first, latest
// wins for setpoints, a bounded queue per address, an age limit for setpoints,
// and bounded reception slots that a flood of first frames cannot take over.
#include <gtest/gtest.h>

#include "can/can_node.hpp"
#include "ocp_api/codec.hpp"
#include "ocp_api/wire.hpp"
#include "support/can_frames.hpp"

namespace {

using ocp_test::bytes_of;
using ocp_test::frame_of;
using namespace ocp_api;
using namespace ocp_api::can;
using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;
using Frames = std::vector<CanFrame>;
using Messages = std::vector<ReceivedMessage>;
using wire::Command;

const IsoTpTime T0 = IsoTpTime{} + 1000s;
constexpr int ADDRESS = 0x21;
constexpr uint32_t COMMAND_ID = 0x00D00021;
constexpr uint32_t REPLY_ID = 0x00D04021;  // also the flow control of commands

const Bytes FC_CONTINUE{0x30, 0x00, 0x00};
const Bytes FC_WAIT{0x31, 0x00, 0x00};
const Bytes STOP_FRAME{0x01, 0x02, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC};

Bytes command(Command code, std::initializer_list<float> values = {}) {
    Bytes bytes{static_cast<uint8_t>(code)};
    for (const float value : values) append_float(bytes, value);
    return bytes;
}
// 25 bytes: segmented on classic CAN.
Bytes position_setpoint(float position) { return command(Command::SET_POSITION_SETPOINT, {position, 0, 0, 0, 0, 0}); }
Bytes setpoint(float value) { return command(Command::SET_SETPOINT, {value}); }
Bytes set_mode(uint8_t mode) { return {static_cast<uint8_t>(Command::SET_MODE), mode}; }
// 46 bytes of parameter records: segmented, and configuration.
Bytes set_parameters() {
    Bytes bytes{static_cast<uint8_t>(Command::SET_PARAMETERS)};
    for (uint8_t code = 1; code <= 9; ++code) {
        bytes.push_back(code);
        append_float(bytes, 1.0f);
    }
    return bytes;
}

bool queue(Node& host, const Bytes& bytes, IsoTpTime now, Frames& out) {
    MessageClass message_class = MessageClass::ordinary;
    switch (codec::command_class(bytes[0])) {
    case wire::CommandClass::safety: message_class = MessageClass::safety; break;
    case wire::CommandClass::motion: message_class = MessageClass::motion; break;
    case wire::CommandClass::setpoint: message_class = MessageClass::setpoint; break;
    case wire::CommandClass::ordinary: break;
    }
    return host.queue(ADDRESS, 0, bytes.data(), bytes.size(), message_class, now, out);
}

// The single frame a short command travels in on classic CAN.
Bytes single_frame(const Bytes& message) {
    Bytes frame{static_cast<uint8_t>(message.size())};
    frame.insert(frame.end(), message.begin(), message.end());
    frame.resize(8, 0xCC);
    return frame;
}

// What a device that answers each first frame with `flow_control` receives.
Frames answer(Node& host, const Bytes& flow_control, IsoTpTime now) {
    Frames out;
    Messages none;
    host.on_frame(frame_of(REPLY_ID, flow_control), now, out, none);
    return out;
}

TEST(CanQueueing, AStopOvertakesAThousandSegmentedCommandsToADeviceThatNeverSendsFlowControl) {
    Node host(Role::host, IsoTpOptions{});
    Frames wire_frames;
    for (int i = 0; i < 1000; ++i) EXPECT_TRUE(queue(host, position_setpoint(static_cast<float>(i)), T0, wire_frames));
    ASSERT_TRUE(queue(host, command(Command::STOP), T0, wire_frames));

    // The first setpoint's first frame, then at once the STOP: the rest
    // collapsed into one waiting setpoint, which the STOP cancelled.
    ASSERT_EQ(wire_frames.size(), 2u);
    EXPECT_EQ(bytes_of(wire_frames[0])[0], 0x10);
    EXPECT_EQ(bytes_of(wire_frames[1]), STOP_FRAME);
    const IsoTpCounters c = host.counters().isotp;
    EXPECT_EQ(c.superseded, 998u);
    EXPECT_EQ(c.preempted, 1u);
    EXPECT_EQ(c.cancelled, 2u);  // the one half-sent and the one waiting
    EXPECT_EQ(c.messages_out, 1u);
    EXPECT_EQ(host.open_senders(), 0u) << "nothing is left to send";
    EXPECT_FALSE(host.deadline());
}

TEST(CanQueueing, AStopOvertakesCommandsWaitingOnAFlowControlWait) {
    Node host(Role::host, IsoTpOptions{});
    Frames wire_frames;
    ASSERT_TRUE(queue(host, set_parameters(), T0, wire_frames));
    for (int i = 0; i < 20; ++i) ASSERT_TRUE(queue(host, set_parameters(), T0, wire_frames));
    EXPECT_TRUE(answer(host, FC_WAIT, T0 + 900ms).empty());
    EXPECT_TRUE(answer(host, FC_WAIT, T0 + 1800ms).empty());
    ASSERT_TRUE(queue(host, command(Command::STOP), T0 + 1800ms, wire_frames));

    // The STOP, then the abandoned configuration command again from its first
    // frame: a STOP never loses configuration.
    ASSERT_EQ(wire_frames.size(), 3u);
    EXPECT_EQ(bytes_of(wire_frames[0]), (Bytes{0x10, 46, 0x0B, 1, 0, 0, 0x80, 0x3F}));
    EXPECT_EQ(bytes_of(wire_frames[1]), STOP_FRAME);
    EXPECT_EQ(bytes_of(wire_frames[2]), bytes_of(wire_frames[0]));
    EXPECT_EQ(host.counters().isotp.preempted, 1u);
    EXPECT_EQ(host.counters().isotp.cancelled, 0u);

    // The device takes it now: 6 consecutive frames, then the next one starts.
    const Frames rest = answer(host, FC_CONTINUE, T0 + 1801ms);
    ASSERT_EQ(rest.size(), 7u);
    EXPECT_EQ(bytes_of(rest[0])[0], 0x21);
    EXPECT_EQ(bytes_of(rest[5])[0], 0x26);
    EXPECT_EQ(bytes_of(rest[6])[0], 0x10);
}

TEST(CanQueueing, ADeviceSilentForSecondsGetsTheLatestSetpointNotABacklog) {
    Node host(Role::host, IsoTpOptions{});
    Frames wire_frames;
    IsoTpTime now = T0;
    for (int ms = 0; ms < 3400; ++ms) {
        now = T0 + std::chrono::milliseconds(ms);
        host.on_time(now, wire_frames);
        ASSERT_TRUE(queue(host, position_setpoint(static_cast<float>(ms)), now, wire_frames));
    }
    // One first frame per N_Bs while silent: at 0, 1, 2 and 3 s.
    ASSERT_EQ(wire_frames.size(), 4u);
    now = T0 + 3400ms;
    Frames after_answer = answer(host, FC_CONTINUE, now);
    ASSERT_TRUE(queue(host, command(Command::STOP), now, after_answer));

    // The setpoint of 2.999 s finishes, the latest (3.399 s) starts, the STOP
    // overtakes it. Before, 2,996 stale setpoints went out first.
    ASSERT_EQ(after_answer.size(), 5u);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(bytes_of(after_answer[i])[0], 0x21 + i);
    Bytes latest_first_frame{0x10, 25};
    const Bytes latest = position_setpoint(3399.0f);
    latest_first_frame.insert(latest_first_frame.end(), latest.begin(), latest.begin() + 6);
    EXPECT_EQ(bytes_of(after_answer[3]), latest_first_frame);
    EXPECT_EQ(bytes_of(after_answer[4]), STOP_FRAME);
    const IsoTpCounters c = host.counters().isotp;
    EXPECT_EQ(c.superseded, 998u + 999u + 999u + 399u);
    EXPECT_EQ(c.timeouts, 3u);
    EXPECT_EQ(c.messages_out, 2u);  // the setpoint of 2.999 s and the STOP
    EXPECT_EQ(c.cancelled, 1u);
    EXPECT_EQ(c.preempted, 1u);
}

TEST(CanQueueing, ANewerSetpointReplacesAWaitingOneAndOtherCommandsKeepTheirOrder) {
    Node host(Role::host, IsoTpOptions{});
    Frames wire_frames;
    ASSERT_TRUE(queue(host, set_parameters(), T0, wire_frames));  // in progress
    for (const Bytes& next : {setpoint(1), setpoint(2), setpoint(3), set_mode(7), setpoint(4),
                              command(Command::SET_SETPOINT_EXT, {5, 1, 1})})
        ASSERT_TRUE(queue(host, next, T0, wire_frames));
    EXPECT_EQ(host.counters().isotp.superseded, 3u);

    const Frames rest = answer(host, FC_CONTINUE, T0 + 1ms);
    ASSERT_EQ(rest.size(), 6u + 3u);
    EXPECT_EQ(bytes_of(rest[6]), single_frame(set_mode(7)));
    EXPECT_EQ(bytes_of(rest[7]), single_frame(setpoint(4)));
    // A setpoint of another command is not replaced by SET_SETPOINT.
    EXPECT_EQ(bytes_of(rest[8])[0], 0x10);
    EXPECT_EQ(bytes_of(rest[8])[2], 0x10);
}

TEST(CanQueueing, SetpointsThatWaitedTooLongAreDroppedConfigurationIsNot) {
    Node host(Role::host, IsoTpOptions{});
    Frames wire_frames;
    ASSERT_TRUE(queue(host, set_parameters(), T0, wire_frames));
    ASSERT_TRUE(queue(host, setpoint(1), T0, wire_frames));
    ASSERT_TRUE(queue(host, command(Command::SAVE_CONFIG), T0, wire_frames));
    ASSERT_TRUE(queue(host, setpoint(2), T0 + 60ms, wire_frames));  // replaces setpoint 1, waits from 60 ms

    // 150 ms after the first: setpoint 2 waited 90 ms, within the 100 ms.
    Frames rest = answer(host, FC_CONTINUE, T0 + 150ms);
    ASSERT_EQ(rest.size(), 6u + 2u);
    EXPECT_EQ(bytes_of(rest[6]), single_frame(command(Command::SAVE_CONFIG)));
    EXPECT_EQ(bytes_of(rest[7]), single_frame(setpoint(2)));
    EXPECT_EQ(host.counters().isotp.expired, 0u);

    ASSERT_TRUE(queue(host, set_parameters(), T0 + 200ms, wire_frames));
    ASSERT_TRUE(queue(host, setpoint(3), T0 + 200ms, wire_frames));
    ASSERT_TRUE(queue(host, command(Command::SAVE_CONFIG), T0 + 200ms, wire_frames));
    rest = answer(host, FC_CONTINUE, T0 + 301ms);  // setpoint 3 waited 101 ms
    ASSERT_EQ(rest.size(), 6u + 1u);
    EXPECT_EQ(bytes_of(rest[6]), single_frame(command(Command::SAVE_CONFIG)));
    EXPECT_EQ(host.counters().isotp.expired, 1u);
}

TEST(CanQueueing, AFullQueueRefusesCommandsButNeverAStop) {
    IsoTpOptions options;
    options.queue_limit = 4;
    Node host(Role::host, options);
    Frames wire_frames;
    ASSERT_TRUE(queue(host, set_parameters(), T0, wire_frames));
    for (int i = 0; i < 4; ++i) ASSERT_TRUE(queue(host, set_mode(static_cast<uint8_t>(i)), T0, wire_frames));
    EXPECT_FALSE(queue(host, set_mode(9), T0, wire_frames));
    EXPECT_FALSE(queue(host, setpoint(1), T0, wire_frames));
    EXPECT_EQ(host.counters().isotp.queue_full, 2u);
    ASSERT_TRUE(queue(host, command(Command::STOP), T0, wire_frames));
    ASSERT_EQ(wire_frames.size(), 3u);
    EXPECT_EQ(bytes_of(wire_frames[1]), STOP_FRAME);

    // Other addresses have queues of their own.
    Frames other;
    EXPECT_TRUE(host.queue(0x22, 0, set_mode(1).data(), 2, MessageClass::ordinary, T0, other));
    EXPECT_EQ(other.size(), 1u);
}

TEST(CanQueueing, AStopToAnIdleAddressIsOneFrameAndTouchesNoOtherAddress) {
    Node host(Role::host, IsoTpOptions{});
    Frames wire_frames;
    ASSERT_TRUE(host.queue(0x22, 0, set_parameters().data(), 46, MessageClass::ordinary, T0, wire_frames));
    ASSERT_TRUE(queue(host, command(Command::STOP), T0, wire_frames));
    ASSERT_EQ(wire_frames.size(), 2u);
    EXPECT_EQ(wire_frames[1].id, COMMAND_ID);
    EXPECT_EQ(bytes_of(wire_frames[1]), STOP_FRAME);
    EXPECT_EQ(host.counters().isotp.preempted, 0u);
    EXPECT_EQ(host.open_senders(), 1u) << "0x22 still waits for its flow control";
}

// A first frame from `address` on the streamed-reply identifier: 20 bytes announced.
CanFrame reply_first_frame(int address) {
    return frame_of(0x00D04000u + static_cast<uint32_t>(address), {0x10, 20, 0x41, 0, 0, 0x80, 0x3F, 0x42});
}

TEST(CanQueueing, AFloodOfHalfOpenRepliesHoldsAtMostTheSlotsAndNeverThoseOfAKnownDevice) {
    IsoTpOptions options;
    options.max_open_receptions = 8;
    Node host(Role::host, options);
    Frames flow_control;
    Messages messages;
    // The device at 0x21 has delivered a reply before.
    host.on_frame(frame_of(REPLY_ID, {0x06, 0x41, 0, 0, 0x80, 0x3F, 0}), T0, flow_control, messages);
    ASSERT_EQ(messages.size(), 1u);

    for (int address = 0x100; address < 0x100 + 100; ++address)
        host.on_frame(reply_first_frame(address), T0 + 1ms, flow_control, messages);
    EXPECT_EQ(host.open_receptions(), 8u);
    EXPECT_EQ(flow_control.size(), 8u) << "ignored first frames get no flow control";
    EXPECT_EQ(host.counters().isotp.receptions_refused, 92u);

    // The known device's reply takes the oldest flooded slot and completes.
    flow_control.clear();
    host.on_frame(reply_first_frame(ADDRESS), T0 + 2ms, flow_control, messages);
    ASSERT_EQ(flow_control.size(), 1u);
    EXPECT_EQ(flow_control[0].id, COMMAND_ID);
    host.on_frame(frame_of(REPLY_ID, {0x21, 0, 0, 0, 0, 0x80, 0x3F, 0x43}), T0 + 2ms, flow_control, messages);
    host.on_frame(frame_of(REPLY_ID, {0x22, 0, 0, 0, 0, 0, 0, 0}), T0 + 2ms, flow_control, messages);
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[1].address, ADDRESS);
    EXPECT_EQ(messages[1].bytes.size(), 20u);
    EXPECT_EQ(host.counters().isotp.receptions_evicted, 1u);
    EXPECT_EQ(host.open_receptions(), 7u);

    // The flooded ones time out after N_Cr and free their slots.
    host.on_time(T0 + 1001ms + 1us, flow_control);
    EXPECT_EQ(host.open_receptions(), 0u);
    EXPECT_EQ(host.counters().isotp.timeouts, 7u);
    EXPECT_FALSE(host.deadline());
}

}  // namespace
