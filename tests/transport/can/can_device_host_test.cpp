#include "ocp_api/can_device_host.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "ocp_api/orrery_actuator_virtual.hpp"
#include "ocp_api/virtual_can.hpp"
#include "ocp_api/wire.hpp"
#include "support/can_frames.hpp"
#include "support/eventually.hpp"

namespace {

using ocp_test::bytes_of;
using ocp_test::frame_of;
using namespace ocp_api;
using namespace std::chrono_literals;
using ocp_test::eventually;
using Bytes = std::vector<uint8_t>;

// The next frame on `link`, skipping none; an empty frame on a time-out.
CanFrame next_frame(CanLink& link, std::chrono::nanoseconds within = 10s) {
    const CanLinkEvent event = link.receive(within);
    return event.type == CanLinkEvent::Type::frame ? event.frame : CanFrame{};
}

TEST(CanDeviceHost, AddRemoveAndFindDevices) {
    VirtualCanChannel channel;
    CanDeviceHost host(channel.open());
    host.add_actuator(0x21, 3, 0x0842);
    try {
        host.add_actuator(0x21);
        ADD_FAILURE();
    } catch (const std::invalid_argument& error) {
        EXPECT_STREQ(error.what(), "Address 0x21 is already taken on this CAN link");
    }
    try {
        host.add_actuator(0x3FFF);
        ADD_FAILURE();
    } catch (const std::invalid_argument& error) {
        EXPECT_STREQ(error.what(), "Invalid address 0x3fff for an emulated actuator: must be 0x10..0x3ffe");
    }
    host.add_actuator(0x22, 6, 0x0843);
    EXPECT_EQ(host.actuator_count(), 2u);
    EXPECT_EQ(host.actuator(0x22).model_code(), 6);
    host.remove_actuator(0x21);
    EXPECT_EQ(host.actuator_count(), 1u);
    EXPECT_THROW(host.actuator(0x21), std::out_of_range);
    EXPECT_THROW(host.remove_actuator(0x21), std::out_of_range);
}

TEST(CanDeviceHost, AnswersAPingWithTheDocumentedFrame) {
    VirtualCanChannel channel;
    auto tester = channel.open();
    CanDeviceHost host(channel.open());
    host.add_actuator(0x21, 3, 0x0842);
    std::mutex mutex;
    std::vector<std::pair<int, Bytes>> seen;
    host.set_command_observer([&](int address, const Bytes& command) {
        std::lock_guard<std::mutex> lock(mutex);
        seen.emplace_back(address, command);
    });
    tester->send_frame(frame_of(0x00D00021, {0x01, 0x40, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC}));
    const CanFrame reply = next_frame(*tester);
    EXPECT_EQ(reply.id, 0x00D04021u);
    EXPECT_EQ(bytes_of(reply), (Bytes{0x05, 0x80, 0x03, 0x00, 0x42, 0x08, 0xCC, 0xCC}));
    ASSERT_TRUE(eventually([&] {
        std::lock_guard<std::mutex> lock(mutex);
        return seen.size() == 1;
    }));
    EXPECT_EQ(seen[0], (std::pair<int, Bytes>{0x21, Bytes{0x40}}));
    EXPECT_EQ(host.counters().commands_in, 1u);
}

TEST(CanDeviceHost, AnswersOnCanFdWithFdFrames) {
    VirtualCanChannel channel;
    auto tester = channel.open(true);
    CanDeviceHostOptions options;
    options.isotp.fd = true;
    CanDeviceHost host(channel.open(true), options);
    host.add_actuator(0x21, 3, 0x0842);
    tester->send_frame(frame_of(0x00D00021, {0x01, 0x40, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC}, true));
    const CanFrame reply = next_frame(*tester);
    EXPECT_TRUE(reply.fd);
    EXPECT_EQ(bytes_of(reply), (Bytes{0x05, 0x80, 0x03, 0x00, 0x42, 0x08, 0xCC, 0xCC}));
}

TEST(CanDeviceHost, SilentAndAbsentDevicesSendNothingNotEvenFlowControl) {
    VirtualCanChannel channel;
    auto tester = channel.open();
    CanDeviceHost host(channel.open());
    host.add_actuator(0x21).set_silent(true);
    tester->send_frame(frame_of(0x00D00021, {0x10, 0x14, 1, 2, 3, 4, 5, 6}));
    tester->send_frame(frame_of(0x00D00022, {0x10, 0x14, 1, 2, 3, 4, 5, 6}));
    ASSERT_TRUE(eventually([&] { return host.counters().frames_in == 2; }));
    EXPECT_EQ(host.counters().foreign_frames, 2u);
    EXPECT_EQ(next_frame(*tester, 50ms).len, 0);
    EXPECT_EQ(host.counters().frames_out, 0u);
}

TEST(CanDeviceHost, InjectedErrorIsSentAtOnce) {
    VirtualCanChannel channel;
    auto tester = channel.open();
    CanDeviceHost host(channel.open());
    host.add_actuator(0x21).inject_errors(1u << 16);
    const CanFrame record = next_frame(*tester);
    EXPECT_EQ(record.id, 0x00D04021u);
    EXPECT_EQ(bytes_of(record), (Bytes{0x05, 0x82, 0x00, 0x00, 0x01, 0x00, 0xCC, 0xCC}));
}

TEST(CanDeviceHost, RejectsAMissingLinkAndNonsenseOptions) {
    VirtualCanChannel channel;
    EXPECT_THROW(CanDeviceHost(nullptr), std::invalid_argument);
    CanDeviceHostOptions fd;
    fd.isotp.fd = true;
    EXPECT_THROW(CanDeviceHost(channel.open(false), fd), std::invalid_argument);
    for (const double scale : {0.0, 9e-7, 1001.0, std::nan("")}) {
        CanDeviceHostOptions options;
        options.time_scale = scale;
        try {
            CanDeviceHost host(channel.open(), options);
            ADD_FAILURE() << scale;
        } catch (const std::invalid_argument& error) {
            EXPECT_EQ(std::string(error.what()).rfind("CanDeviceHost time_scale must be between 1e-06 and 1000 "
                                                      "(simulated seconds per wall second), not ", 0),
                      0u)
                << error.what();
        }
    }
    for (const double scale : {1e-6, 1000.0}) {
        CanDeviceHostOptions options;
        options.time_scale = scale;
        EXPECT_NO_THROW(CanDeviceHost(channel.open(), options)) << scale;
    }
    CanDeviceHostOptions late;
    late.reply_latency = std::chrono::seconds(2);
    try {
        CanDeviceHost host(channel.open(), late);
        ADD_FAILURE();
    } catch (const std::invalid_argument& error) {
        EXPECT_STREQ(error.what(), "CanDeviceHost reply_latency must be 0..1 s");
    }
    late.reply_latency = std::chrono::microseconds(-1);
    EXPECT_THROW(CanDeviceHost(channel.open(), late), std::invalid_argument);
}

// An answer never leaves before the reply latency has passed: the host's
// scanner starts its answer period only after the ping went out.
TEST(CanDeviceHost, AnswersNoEarlierThanTheReplyLatency) {
    VirtualCanChannel channel;
    auto tester = channel.open();
    CanDeviceHostOptions options;
    options.reply_latency = 50ms;
    CanDeviceHost host(channel.open(), options);
    host.add_actuator(0x21, 3, 0x0842);
    const auto sent = std::chrono::steady_clock::now();
    tester->send_frame(frame_of(0x00D00021, {0x01, 0x40, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC}));
    const CanFrame reply = next_frame(*tester);
    const auto answered = std::chrono::steady_clock::now();
    EXPECT_EQ(bytes_of(reply), (Bytes{0x05, 0x80, 0x03, 0x00, 0x42, 0x08, 0xCC, 0xCC}));
    EXPECT_GE(answered - sent, 50ms);
}

// Much work for a host: the fastest time scale, sixteen devices streaming at
// 10 kHz. It steps through at most 0.1 s of simulated time per pass, so it
// falls behind the wall clock rather than holding its lock for ever longer
// passes, and its methods stay prompt.
TEST(CanDeviceHost, BehindTheClockItStaysResponsiveAndClosesPromptly) {
    VirtualCanChannel channel;
    auto tester = channel.open();
    CanDeviceHostOptions options;
    options.time_scale = 1000.0;
    options.reply_latency = 0us;
    CanDeviceHost host(channel.open(), options);
    const auto single_frame = [](int address, Bytes command) {
        command.insert(command.begin(), static_cast<uint8_t>(command.size()));
        return frame_of(0x00D00000u | static_cast<uint32_t>(address), command);
    };
    for (int address = 0x21; address < 0x21 + 16; ++address) {
        host.add_actuator(address);
        Bytes items = wire::make_frame(wire::Command::SET_FEEDBACK_ITEMS);
        wire::append_u8(items, static_cast<uint8_t>(OrreryActuatorVirtual::OCP_Items::POS_FB_4C));
        ASSERT_EQ(tester->send_frame(single_frame(address, items)), CanLink::SendResult::sent);
        Bytes rate = wire::make_frame(wire::Command::SET_FEEDBACK_RATE);
        wire::append_u32(rate, 1);
        ASSERT_EQ(tester->send_frame(single_frame(address, rate)), CanLink::SendResult::sent);
    }
    ASSERT_TRUE(eventually([&] {
        const auto counters = host.counters();
        return counters.commands_in == 32 && counters.replies_out > 20000;
    }));

    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(host.actuator_count(), 16u);
    host.close();
    // A host that waited to catch up with its clock (1000 times real time,
    // 16 devices at 10 kHz) would not return for hours; the bound tells that
    // hang from a loaded machine under a sanitizer, where closing took 7 s.
    EXPECT_LT(std::chrono::steady_clock::now() - start, 30s);
}

}  // namespace

namespace {

TEST(CanDeviceHost, AClosedHostSendsNothing) {
    ocp_api::VirtualCanChannel channel;
    auto tester = channel.open();
    ocp_api::CanDeviceHost host(channel.open());
    host.add_actuator(0x21);
    host.close();
    host.close();
    host.actuator(0x21).inject_errors(1u << 16);
    tester->send_frame(frame_of(0x00D00021, {0x01, 0x40}));
    EXPECT_EQ(next_frame(*tester, 50ms).len, 0);
    EXPECT_EQ(host.counters().frames_out, 0u);
}

}  // namespace
