// ocpctl scope's source: its actuators driven as one ActuatorGroup on the
// simulated bus, with the scope's own period thread running.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <functional>
#include <thread>

#include "scope/source.hpp"
#include "scope/traffic_tap.hpp"

namespace {

using namespace ocpctl;
using namespace ocpctl::scope;
using namespace std::chrono_literals;

// Polls with a generous bound: the machine may be loaded.
bool eventually(const std::function<bool()>& condition, std::chrono::seconds bound = 20s) {
    const auto deadline = std::chrono::steady_clock::now() + bound;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

struct Opened {
    explicit Opened(const std::vector<int>& addresses) {
        global.bus = "sim:0x21,0x22";
        source = open_group_source(global, addresses, 200, &tap);
        source->stream({Item::POS_FB_4C, Item::ERRORS_90}, 200,
                       [this](int, const FeedbackMap&) { replies.fetch_add(1); });
    }
    GlobalOptions global;
    TrafficTap* tap = nullptr;
    std::atomic<uint64_t> replies{0};
    std::unique_ptr<ScopeSource> source;
};

DeviceStatistics row_of(const ScopeSource& source, int address) {
    for (const auto& row : source.device_statistics())
        if (row.address == address) return row;
    ADD_FAILURE() << "no statistics row for " << address;
    return {};
}

TEST(ScopeGroupSource, StreamsThroughTheGroupAndReportsFreshFeedback) {
    Opened opened({0x21, 0x22});
    ASSERT_TRUE(eventually([&] { return opened.replies.load() > 20; }));
    ASSERT_TRUE(eventually([&] { return opened.source->state(0x21).feedback == "fresh"; }));
    const DeviceState state = opened.source->state(0x21);
    ASSERT_TRUE(state.feedback_age_s.has_value());
    EXPECT_GE(*state.feedback_age_s, 0.0);
    EXPECT_TRUE(state.answering);
    EXPECT_FALSE(state.running);
    ASSERT_TRUE(eventually([&] { return row_of(*opened.source, 0x22).fresh > 5; }));
    EXPECT_EQ(row_of(*opened.source, 0x22).restarts, 0u);
    const auto footer = opened.source->statistics();
    ASSERT_EQ(footer.size(), 4u);
    EXPECT_EQ(footer[0].first, "frames out");
    EXPECT_EQ(footer[1].first, "replies in");
    EXPECT_GT(std::stoull(footer[1].second), 0u);
}

TEST(ScopeGroupSource, APowerCycledDeviceIsSetUpAgainAndStaysStoppedUntilStarted) {
    Opened opened({0x21, 0x22});
    ScopeSource& source = *opened.source;
    source.start(0x22);
    ASSERT_TRUE(eventually([&] { return source.state(0x22).device_running.value_or(false); }));
    EXPECT_TRUE(source.state(0x22).running);
    source.set_setpoint(0x22, 1.0f);
    EXPECT_EQ(source.state(0x22).setpoint, 1.0f);

    source.power_cycle(0x22);
    ASSERT_TRUE(eventually([&] { return row_of(source, 0x22).restarts == 1; }));
    // Set up again by the group, stopped, and so shown (from the next snapshot).
    ASSERT_TRUE(eventually([&] { return !source.state(0x22).running; }));
    DeviceState state = source.state(0x22);
    EXPECT_FALSE(state.running);
    EXPECT_EQ(state.device_running, std::optional<bool>(false));
    EXPECT_TRUE(std::isnan(state.setpoint));
    // Its stream is back.
    ASSERT_TRUE(eventually([&] { return source.state(0x22).feedback == "fresh"; }));
    EXPECT_EQ(row_of(source, 0x21).restarts, 0u);

    source.start(0x22);
    ASSERT_TRUE(eventually([&] { return source.state(0x22).device_running.value_or(false); }));
    // Started here, so stopped on the way out; 0x21 was only watched.
    EXPECT_EQ(source.finish(), std::vector<int>{0x22});
    EXPECT_TRUE(eventually([&] { return !source.state(0x22).device_running.value_or(true); }));
}

TEST(ScopeGroupSource, SetpointsGoOutWithThePeriodAndNonFiniteOnesAreRefused) {
    Opened opened({0x21});
    ScopeSource& source = *opened.source;
    source.set_mode(0x21, Mode::POSITION);
    source.set_setpoint(0x21, 0.5f);
    source.set_setpoint(0x21, 0.75f);
    EXPECT_EQ(source.state(0x21).setpoint, 0.75f);
    // Whether the period came between the two or not, both are accounted for.
    ASSERT_TRUE(eventually([&] {
        const auto row = row_of(source, 0x21);
        return row.setpoints + row.superseded == 2;
    }));
    EXPECT_THROW(source.set_setpoint(0x21, NAN), UsageError);
    EXPECT_EQ(row_of(source, 0x21).refused, 1u);
    EXPECT_EQ(source.state(0x21).setpoint, 0.75f);
    EXPECT_EQ(source.state(0x21).mode, Mode::POSITION);
    EXPECT_TRUE(source.finish().empty());
}

TEST(ScopeGroupSource, AStopIsNeverUndoneByAStartInProgress) {
    Opened opened({0x21});
    ScopeSource& source = *opened.source;
    // Starts and stops from two threads; whatever the interleaving, the last
    // word is a stop, so the device ends stopped and is reported so.
    std::thread starter([&] {
        for (int i = 0; i < 200; ++i) source.start(0x21);
    });
    for (int i = 0; i < 200; ++i) source.stop(0x21);
    starter.join();
    source.stop(0x21);
    EXPECT_FALSE(source.state(0x21).running);
    EXPECT_TRUE(eventually([&] { return !source.state(0x21).device_running.value_or(true); }));
    EXPECT_FALSE(source.state(0x21).running);
}

TEST(ScopeGroupSource, PowerCyclingNeedsAnEmulatedDeviceOnThisScope) {
    Opened opened({0x21});
    EXPECT_THROW(opened.source->power_cycle(0x30), UsageError);
}

}  // namespace
