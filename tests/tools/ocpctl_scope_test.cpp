// ocpctl scope's pieces without a browser: the decimation of the streamed
// values, the access checks on requests, and the traffic recording.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <sstream>
#include <string>
#include <vector>

#include <ocp_api/can_traffic.hpp>
#include <ocp_api/candump_log.hpp>
#include <ocp_api/wire.hpp>

#include "scope/decimator.hpp"
#include "scope/presence.hpp"
#include "scope/security.hpp"
#include "scope/traffic_tap.hpp"

namespace {

using ocpctl::scope::AccessPolicy;
using ocpctl::scope::Decimator;
using ocpctl::scope::RequestFacts;
using ocpctl::scope::TrafficTap;

TEST(ScopeDecimator, EachBinKeepsTheLowestAndHighestValueOfEveryChannel) {
    Decimator decimator(2, 0.005, 16);
    const float a[] = {1.0f, 10.0f}, b[] = {-2.0f, NAN}, c[] = {0.5f, 12.0f}, d[] = {7.0f, 7.0f};
    decimator.add(0.0001, a);
    decimator.add(0.0020, b);
    decimator.add(0.0049, c);
    decimator.add(0.0051, d);  // the next bin
    int64_t cursor = -1;
    std::string out;
    ASSERT_TRUE(decimator.append_json(0.0052, &cursor, out));
    EXPECT_EQ(out, "{\"k\":[0],\"v\":[[-2,1],[10,12]]}");
    EXPECT_EQ(cursor, 0);
    out.clear();
    EXPECT_FALSE(decimator.append_json(0.0099, &cursor, out));  // bin 1 still open
    EXPECT_EQ(out, "");
    // Once the clock has left a bin it is complete, even with no later sample.
    ASSERT_TRUE(decimator.append_json(0.0100, &cursor, out));
    EXPECT_EQ(out, "{\"k\":[1],\"v\":[[7,7],[7,7]]}");
    EXPECT_EQ(decimator.samples(), 4u);
}

TEST(ScopeDecimator, AChannelWithoutValuesInABinIsNull) {
    Decimator decimator(2, 0.01, 4);
    const float only_first[] = {3.0f, NAN};
    decimator.add(0.001, only_first);
    int64_t cursor = -1;
    std::string out;
    ASSERT_TRUE(decimator.append_json(1.0, &cursor, out));
    EXPECT_EQ(out, "{\"k\":[0],\"v\":[[3,3],[null,null]]}");
}

TEST(ScopeDecimator, AReaderFarBehindGetsTheKeptBinsOnly) {
    Decimator decimator(1, 0.01, 3);
    for (int i = 0; i < 6; ++i) {
        const float value = static_cast<float>(i);
        decimator.add(i * 0.01 + 0.001, &value);
    }
    int64_t cursor = -1;
    std::string out;
    ASSERT_TRUE(decimator.append_json(0.06, &cursor, out));
    EXPECT_EQ(out, "{\"k\":[3,4,5],\"v\":[[3,3,4,4,5,5]]}");
    EXPECT_EQ(cursor, 5);
}

TEST(ScopeDecimator, A1kHzStreamShrinksToOneBinPer5Ms) {
    Decimator decimator(1, 0.005, 4096);
    for (int i = 0; i < 1000; ++i) {
        const float value = std::sin(static_cast<float>(i) * 0.01f);
        decimator.add(i * 0.001, &value);
    }
    int64_t cursor = -1;
    std::string out;
    ASSERT_TRUE(decimator.append_json(1.0, &cursor, out));
    EXPECT_EQ(cursor, 199);
    EXPECT_EQ(std::count(out.begin(), out.end(), ','), 199 + 1 + 399);  // 200 indices, 400 bounds
}

RequestFacts page_request(const std::string& method, const std::string& path) {
    RequestFacts facts;
    facts.method = method;
    facts.path = path;
    facts.host = "127.0.0.1:8650";
    facts.origin = method == "POST" ? "http://127.0.0.1:8650" : "";
    facts.fetch_site = "same-origin";
    facts.content_type = method == "POST" ? "application/json" : "";
    facts.token = "0123456789abcdef0123456789abcdef";
    return facts;
}

TEST(ScopeAccess, ThePageItselfMayDoEverything) {
    const AccessPolicy policy({"127.0.0.1", "localhost"}, "0123456789abcdef0123456789abcdef");
    EXPECT_EQ(policy.check(page_request("POST", "/api/start")).status, 200);
    EXPECT_EQ(policy.check(page_request("GET", "/api/events")).status, 200);
    RequestFacts page = page_request("GET", "/");
    page.token.clear();
    EXPECT_EQ(policy.check(page).status, 200);  // the page itself needs no token
    // Through `ssh -L 9000:127.0.0.1:8650` the browser names its own port.
    RequestFacts forwarded = page_request("POST", "/api/stop_all");
    forwarded.host = "localhost:9000";
    forwarded.origin = "http://localhost:9000";
    EXPECT_EQ(policy.check(forwarded).status, 200);
}

TEST(ScopeAccess, RefusalsSayWhy) {
    const AccessPolicy policy({"127.0.0.1", "localhost"}, "0123456789abcdef0123456789abcdef");
    RequestFacts facts = page_request("POST", "/api/start");
    facts.token = "0123456789abcdef0123456789abcdee";
    EXPECT_EQ(policy.check(facts).status, 403);
    EXPECT_EQ(policy.check(facts).reason, "missing or wrong access token");
    facts = page_request("POST", "/api/start");
    facts.token.clear();
    EXPECT_EQ(policy.check(facts).status, 403);
    facts = page_request("POST", "/api/start");
    facts.origin = "http://evil.example";
    EXPECT_EQ(policy.check(facts).reason, "cross-origin request from http://evil.example refused");
    facts = page_request("POST", "/api/start");
    facts.origin = "http://127.0.0.1:9999";
    EXPECT_EQ(policy.check(facts).status, 403);
    facts = page_request("GET", "/");
    facts.host = "rebound.example:8650";  // a name re-pointed at this machine
    facts.origin = "http://rebound.example:8650";
    EXPECT_EQ(policy.check(facts).status, 421);
    EXPECT_EQ(policy.check(facts).reason, "unknown host 'rebound.example:8650'");
    facts = page_request("POST", "/api/start");
    facts.fetch_site = "cross-site";
    EXPECT_EQ(policy.check(facts).reason, "cross-site request refused");
    facts = page_request("POST", "/api/start");
    facts.content_type = "text/plain";  // a form or a simple request from anywhere
    EXPECT_EQ(policy.check(facts).status, 415);
}

TEST(ScopeAccess, AServerOnEveryAddressAnswersToAnyNameButStillWantsTheOriginAndToken) {
    const AccessPolicy policy({}, "0123456789abcdef0123456789abcdef");
    RequestFacts facts = page_request("POST", "/api/start");
    facts.host = "robot.local:8650";
    facts.origin = "http://robot.local:8650";
    EXPECT_EQ(policy.check(facts).status, 200);
    facts.origin = "http://evil.example";
    EXPECT_EQ(policy.check(facts).status, 403);
    facts = page_request("POST", "/api/start");
    facts.host = "robot.local:8650";
    facts.origin = "http://robot.local:8650";
    facts.token.clear();
    EXPECT_EQ(policy.check(facts).status, 403);
}

TEST(ScopeAccess, TokensAre32HexDigitsAndDiffer) {
    const std::string first = ocpctl::scope::make_token(), second = ocpctl::scope::make_token();
    EXPECT_EQ(first.size(), 32u);
    EXPECT_EQ(first.find_first_not_of("0123456789abcdef"), std::string::npos);
    EXPECT_NE(first, second);
    EXPECT_TRUE(ocpctl::scope::same_token(first, first));
    EXPECT_FALSE(ocpctl::scope::same_token(first.substr(0, 31), first));
    EXPECT_FALSE(ocpctl::scope::same_token("", ""));
}

// A transport that takes every message and answers nothing.
class Sink : public ocp_api::OCP {
public:
    bool send(int, const std::vector<uint8_t>&) override {
        ++sent;
        return true;
    }
    void setCallback(int, ReceiveCallback callback) override { receive = std::move(callback); }
    void removeCallback(int) override { receive = nullptr; }
    void close() override {}
    int sent = 0;
    ReceiveCallback receive;
};

std::vector<std::string> frames_of(const std::string& log) {
    std::vector<std::string> frames;
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) frames.push_back(line.substr(line.find(' ') + 1));
    return frames;
}

TEST(ScopeTrafficTap, RecordsOnlyWhileAsked) {
    Sink bus;
    TrafficTap tap(bus, "can0");
    const std::vector<uint8_t> stop = {static_cast<uint8_t>(ocp_api::wire::Command::STOP)};
    tap.send(0x21, stop);
    EXPECT_EQ(tap.frames(), 0u);
    tap.start();
    tap.send(0x21, stop);
    tap.stop();
    tap.send(0x21, stop);
    EXPECT_EQ(bus.sent, 3);  // everything goes on to the bus
    char expected[64];
    std::snprintf(expected, sizeof expected, "can0 00D00021#01%02XCCCCCCCCCCCC",
                  static_cast<unsigned>(ocp_api::wire::Command::STOP));
    EXPECT_EQ(frames_of(tap.log()), std::vector<std::string>{expected});
}

TEST(ScopeTrafficTap, ASegmentedReplyIsLoggedWithItsFlowControlAndReadsBackWhole) {
    Sink bus;
    TrafficTap tap(bus, "can0");
    std::vector<uint8_t> seen;
    tap.setCallback(0x21, [&](int, std::vector<uint8_t> bytes, int) { seen = std::move(bytes); });
    tap.start();
    std::vector<uint8_t> reply(20);
    for (std::size_t i = 0; i < reply.size(); ++i) reply[i] = static_cast<uint8_t>(i + 1);
    bus.receive(0x21, reply, 0);
    EXPECT_EQ(seen, reply);  // handed on unchanged
    EXPECT_EQ(frames_of(tap.log()), (std::vector<std::string>{
                                        "can0 00D04021#1014010203040506",
                                        "can0 00D00021#300000CCCCCCCCCC",
                                        "can0 00D04021#210708090A0B0C0D",
                                        "can0 00D04021#220E0F1011121314",
                                    }));
    // Read back as a monitor of the bus would: one whole reply.
    ocp_api::can::TrafficMonitor monitor;
    std::vector<ocp_api::can::TrafficEvent> events;
    std::istringstream lines(tap.log());
    ocp_api::CandumpLogReader reader(lines);
    while (auto line = reader.next()) monitor.on_frame(line->frame->frame, line->frame->timestamp, events);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].type, ocp_api::can::TrafficEvent::Type::message);
    EXPECT_EQ(events[0].address, 0x21);
    EXPECT_EQ(events[0].bytes, reply);
}

}  // namespace

namespace {

constexpr int64_t S = 1000000000;  // nanoseconds

TEST(ScopePagePresence, APageIsThereWhileItsHeartbeatComes) {
    ocpctl::scope::PagePresence presence(0);
    EXPECT_TRUE(presence.present(1 * S, 2 * S));   // the grace time from the start
    EXPECT_FALSE(presence.present(2 * S, 2 * S));  // nobody came
    presence.heartbeat(3 * S, false);
    EXPECT_TRUE(presence.present(4 * S, 2 * S));
    // A visible page whose heartbeat stopped is gone, even with its event
    // stream still taking data (a network that vanished without a word).
    presence.stream_opened();
    presence.stream_wrote(5 * S);
    EXPECT_FALSE(presence.present(5 * S, 2 * S));
}

TEST(ScopePagePresence, AHiddenPageCountsWhileItsEventStreamTakesData) {
    ocpctl::scope::PagePresence presence(0);
    presence.stream_opened();
    presence.heartbeat(1 * S, true);  // the last one before the browser slows its timers
    presence.stream_wrote(9 * S);
    EXPECT_TRUE(presence.present(10 * S, 2 * S));
    EXPECT_FALSE(presence.present(11 * S, 2 * S));  // the stream stalled too
    presence.stream_wrote(12 * S);
    presence.stream_closed();  // the tab was closed
    EXPECT_FALSE(presence.present(12 * S, 2 * S));
    EXPECT_EQ(presence.streams(), 0);
}

}  // namespace
