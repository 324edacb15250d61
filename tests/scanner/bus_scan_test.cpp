#include "ocp_api/bus_scan.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <stdexcept>
#include <thread>

#include "ocp_api/orrery_actuator.hpp"
#include "support/device_replies.hpp"
#include "support/recording_transport.hpp"

namespace {

using namespace ocp_api;
using namespace ocp_test;
using EventKind = RecordingTransport::EventKind;
using std::chrono::milliseconds;

struct Answer {
    uint16_t model_code;
    uint16_t firmware_word;
    milliseconds delay;  // 0: answers inside send, on the scanning thread
};

// Fake devices that answer pings after their own delay.
class FakeDevices {
public:
    FakeDevices(RecordingTransport& transport, std::map<int, Answer> answers) : transport_(transport) {
        transport.set_responder([&transport, answers = std::move(answers)](int address, const Bytes& frame) {
            const auto answer = answers.find(address);
            if (!is_command(frame, wire::Command::PING) || answer == answers.end()) return;
            const Bytes reply = ping_reply(answer->second.model_code, answer->second.firmware_word);
            if (answer->second.delay.count() == 0) {
                transport.deliver(address, reply);
            } else {
                transport.deliver_later(address, reply, 0, answer->second.delay);
            }
        });
    }
    ~FakeDevices() {
        transport_.set_responder(nullptr);
        transport_.join_deliveries();
    }
    FakeDevices(const FakeDevices&) = delete;
    FakeDevices& operator=(const FakeDevices&) = delete;

private:
    RecordingTransport& transport_;
};

// The most callbacks the scan held registered at one time.
std::size_t most_registered_at_once(const std::vector<RecordingTransport::Event>& events) {
    std::size_t registered = 0;
    std::size_t most = 0;
    for (const auto& event : events) {
        if (event.kind == EventKind::SetCallback) most = std::max(most, ++registered);
        if (event.kind == EventKind::RemoveCallback) --registered;
    }
    return most;
}

std::vector<int> addresses_of(const std::vector<FoundDevice>& devices) {
    std::vector<int> addresses;
    for (const auto& device : devices) addresses.push_back(device.address);
    return addresses;
}

std::map<int, int> pings_per_address(const std::vector<RecordingTransport::Sent>& sent) {
    std::map<int, int> pings;
    for (const auto& s : sent) {
        EXPECT_EQ(s.frame, Bytes{0x40}) << "only PING frames are sent";
        ++pings[s.address];
    }
    return pings;
}

BusScanOptions quick_options() {
    BusScanOptions options;
    options.window = 16;
    options.pings_per_second = 0.0;
    return options;
}

TEST(BusScan, ReturnsEachAnsweringDeviceWithModelAndFirmwareInAddressOrder) {
    RecordingTransport transport;
    FakeDevices devices(transport, {{0x23, {6, 0x1001, milliseconds(0)}},
                                    {0x11, {3, 0x0842, milliseconds(2)}},
                                    {0x30, {99, 0x0000, milliseconds(5)}}});
    const auto found = scan_bus(transport, 0x10, 0x3f, quick_options());
    ASSERT_EQ(found.size(), 3u);
    EXPECT_EQ(found[0].address, 0x11);
    EXPECT_EQ(found[0].model_code, 3);
    EXPECT_EQ(found[0].model, "HERON_A");
    EXPECT_EQ(found[0].firmware_word, 0x0842);
    EXPECT_EQ(found[0].firmware, "1.1.2");
    EXPECT_EQ(found[1].address, 0x23);
    EXPECT_EQ(found[1].model, "HERON_C");
    EXPECT_EQ(found[1].firmware, "2.0.1");
    EXPECT_EQ(found[2].address, 0x30);
    EXPECT_EQ(found[2].model_code, 99);
    EXPECT_EQ(found[2].model, "") << "an unknown model code has no name";
    EXPECT_EQ(found[2].firmware, "0.0.0");
}

TEST(BusScan, PingsEveryAddressOfTheRangeOnceAndLeavesNoCallbackBehind) {
    RecordingTransport transport;
    FakeDevices devices(transport, {{0x12, {3, 0x0842, milliseconds(1)}}});
    scan_bus(transport, 0x10, 0x4f, quick_options());
    const auto pings = pings_per_address(transport.sent());
    ASSERT_EQ(pings.size(), 0x40u);
    EXPECT_EQ(pings.begin()->first, 0x10);
    EXPECT_EQ(pings.rbegin()->first, 0x4f);
    for (const auto& [address, count] : pings) EXPECT_EQ(count, 1) << address;
    for (int address = 0x10; address <= 0x4f; ++address) EXPECT_FALSE(transport.has_callback(address)) << address;
    const auto events = transport.events();
    const auto count = [&](EventKind kind) {
        return std::count_if(events.begin(), events.end(), [&](const auto& e) { return e.kind == kind; });
    };
    EXPECT_EQ(count(EventKind::SetCallback), 0x40);
    EXPECT_EQ(count(EventKind::RemoveCallback), 0x40);
}

TEST(BusScan, KeepsAtMostTheWindowOfPingsInFlight) {
    RecordingTransport transport;
    BusScanOptions options = quick_options();
    options.window = 8;
    options.answer_period = milliseconds(5);
    scan_bus(transport, 0x100, 0x163, options);
    EXPECT_EQ(most_registered_at_once(transport.events()), 8u);
    EXPECT_EQ(transport.sent().size(), 100u);
}

TEST(BusScan, EveryPingIsSentWhileItsCallbackIsRegistered) {
    RecordingTransport transport;
    scan_bus(transport, 0x10, 0x2f, [] {
        BusScanOptions options = quick_options();
        options.answer_period = milliseconds(2);
        return options;
    }());
    std::map<int, bool> registered;
    for (const auto& event : transport.events()) {
        if (event.kind == EventKind::SetCallback) registered[event.address] = true;
        if (event.kind == EventKind::RemoveCallback) registered[event.address] = false;
        if (event.kind == EventKind::Send) {
            EXPECT_TRUE(registered[event.address]) << event.address;
        }
    }
}

TEST(BusScan, SequentialOptionsProbeOneAddressAtATime) {
    RecordingTransport transport;
    FakeDevices devices(transport, {{0x14, {3, 0x0842, milliseconds(0)}}});
    BusScanOptions options = BusScanOptions::sequential();
    options.answer_period = milliseconds(2);
    const auto found = scan_bus(transport, 0x10, 0x17, options);
    EXPECT_EQ(addresses_of(found), std::vector<int>{0x14});
    EXPECT_EQ(most_registered_at_once(transport.events()), 1u);
    EXPECT_EQ(BusScanOptions::sequential().pings_per_second, 0.0);
    EXPECT_EQ(BusScanOptions::sequential().answer_period, milliseconds(50));
}

TEST(BusScan, LateAnswersWithinThePeriodAreFound) {
    RecordingTransport transport;
    // Two devices answer near the end of a 300 ms period, while the other
    // addresses of the window wait out theirs.
    FakeDevices devices(transport, {{0x10, {3, 0x0842, milliseconds(230)}},
                                    {0x13, {2, 0x0842, milliseconds(230)}},
                                    {0x15, {6, 0x1001, milliseconds(0)}}});
    BusScanOptions options = quick_options();
    options.window = 4;
    options.answer_period = milliseconds(300);
    const auto found = scan_bus(transport, 0x10, 0x1f, options);
    EXPECT_EQ(addresses_of(found), (std::vector<int>{0x10, 0x13, 0x15}));
}

TEST(BusScan, AnswersAfterThePeriodAreNotCounted) {
    RecordingTransport transport;
    FakeDevices devices(transport, {{0x10, {3, 0x0842, milliseconds(120)}}, {0x11, {3, 0x0842, milliseconds(0)}}});
    BusScanOptions options = quick_options();
    options.answer_period = milliseconds(20);
    const auto found = scan_bus(transport, 0x10, 0x11, options);
    EXPECT_EQ(addresses_of(found), std::vector<int>{0x11});
    // The late answer finds no callback and goes nowhere.
}

TEST(BusScan, ADeviceThatAnswersTwiceIsListedOnce) {
    RecordingTransport transport;
    transport.set_responder([&transport](int address, const Bytes&) {
        if (address != 0x20) return;
        transport.deliver(address, ping_reply(3, 0x0842));
        transport.deliver(address, ping_reply(3, 0x0842));
    });
    const auto found = scan_bus(transport, 0x1f, 0x21, quick_options());
    transport.set_responder(nullptr);
    EXPECT_EQ(addresses_of(found), std::vector<int>{0x20});
}

TEST(BusScan, APingAnswerBehindItemRecordsCountsAndOtherRepliesDoNot) {
    RecordingTransport transport;
    Bytes streamed_then_ping{code_of(OrreryActuator::OCP_Items::POS_FB_4C)};
    streamed_then_ping = streamed_then_ping + f32(1.0f) + ping_reply(3, 0x0842);
    Bytes item_only{code_of(OrreryActuator::OCP_Items::POS_FB_4C)};
    item_only = item_only + f32(1.0f);
    const Bytes short_ping{0x80, 0x03, 0x00, 0x42};
    const std::map<int, Bytes> replies{{0x10, streamed_then_ping},
                                       {0x11, item_only},
                                       {0x12, error_reply(1u << 16)},
                                       {0x13, short_ping},
                                       {0x14, Bytes{0x00} + ping_reply(3, 0x0842)}};
    transport.set_responder([&](int address, const Bytes&) {
        const auto reply = replies.find(address);
        if (reply != replies.end()) transport.deliver(address, reply->second);
    });
    BusScanOptions options = quick_options();
    options.answer_period = milliseconds(5);
    const auto found = scan_bus(transport, 0x10, 0x14, options);
    transport.set_responder(nullptr);
    EXPECT_EQ(addresses_of(found), std::vector<int>{0x10});
}

TEST(BusScan, FurtherAttemptsPingOnlyTheAddressesStillSilent) {
    RecordingTransport transport;
    // 0x11 answers only its second ping, as if the first had been lost.
    int pings_of_0x11 = 0;
    transport.set_responder([&](int address, const Bytes&) {
        if (address == 0x10 || (address == 0x11 && ++pings_of_0x11 == 2)) transport.deliver(address, ping_reply(3, 1));
    });
    BusScanOptions options = quick_options();
    options.answer_period = milliseconds(5);
    options.attempts = 3;
    const auto found = scan_bus(transport, 0x10, 0x12, options);
    transport.set_responder(nullptr);
    EXPECT_EQ(addresses_of(found), (std::vector<int>{0x10, 0x11}));
    EXPECT_EQ(pings_per_address(transport.sent()), (std::map<int, int>{{0x10, 1}, {0x11, 2}, {0x12, 3}}));
}

TEST(BusScan, TheRateCapSpacesThePings) {
    RecordingTransport transport;
    BusScanOptions options;
    options.window = 64;
    options.pings_per_second = 1000.0;
    options.answer_period = milliseconds(1);
    const auto start = std::chrono::steady_clock::now();
    scan_bus(transport, 0x10, 0x10 + 99, options);
    // The 100th ping may not leave before 99 ms have passed.
    EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(99));
    EXPECT_EQ(transport.sent().size(), 100u);
}

TEST(BusScan, ReportsProgressOnTheCallingThreadEndingWithTheTotals) {
    RecordingTransport transport;
    FakeDevices devices(transport, {{0x12, {3, 0x0842, milliseconds(0)}}, {0x13, {3, 0x0842, milliseconds(0)}}});
    std::vector<ScanProgress> reports;
    bool always_on_calling_thread = true;
    const auto caller = std::this_thread::get_id();
    BusScanOptions options = quick_options();
    options.answer_period = milliseconds(5);
    options.attempts = 2;
    options.on_progress = [&](const ScanProgress& progress) {
        always_on_calling_thread = always_on_calling_thread && std::this_thread::get_id() == caller;
        reports.push_back(progress);
    };
    scan_bus(transport, 0x10, 0x19, options);
    EXPECT_TRUE(always_on_calling_thread);
    ASSERT_GE(reports.size(), 2u);
    const auto end_of_first_report = std::find_if(reports.begin(), reports.end(), [](const ScanProgress& p) {
        return p.pass == 1 && p.probed == p.to_probe;
    });
    ASSERT_NE(end_of_first_report, reports.end()) << "pass 1 reports its end";
    const ScanProgress& end_of_first = *end_of_first_report;
    EXPECT_EQ(end_of_first.to_probe, 10u);
    EXPECT_EQ(end_of_first.found, 2u);
    EXPECT_EQ(reports.back().pass, 2);
    EXPECT_EQ(reports.back().to_probe, 8u);
    EXPECT_EQ(reports.back().probed, 8u);
    EXPECT_EQ(reports.back().found, 2u);
}

TEST(BusScan, AnEmptyRangeSendsNothing) {
    RecordingTransport transport;
    EXPECT_TRUE(scan_bus(transport, 5, 4).empty());
    EXPECT_TRUE(transport.events().empty());
}

TEST(BusScan, RejectsOptionsItCannotHonour) {
    RecordingTransport transport;
    BusScanOptions no_window;
    no_window.window = 0;
    BusScanOptions negative_rate;
    negative_rate.pings_per_second = -1.0;
    BusScanOptions no_attempt;
    no_attempt.attempts = 0;
    EXPECT_THROW(scan_bus(transport, -1, 4), std::invalid_argument);
    EXPECT_THROW(scan_bus(transport, 0x10, 0x11, no_window), std::invalid_argument);
    EXPECT_THROW(scan_bus(transport, 0x10, 0x11, negative_rate), std::invalid_argument);
    EXPECT_THROW(scan_bus(transport, 0x10, 0x11, no_attempt), std::invalid_argument);
    EXPECT_TRUE(transport.events().empty());
}

}  // namespace
