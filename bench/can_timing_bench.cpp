// The timed virtual channel: its own cost (frames simulated per CPU second,
// beside the instant channel and the bit counting alone), and a position loop
// of 4, 8 and 16 actuators at 1 kHz on a timed CAN-FD 1/5 Mbit/s channel with
// the command-to-feedback age against the planner's bus time per period.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include <ocp_api/bus_planner.hpp>
#include <ocp_api/can_bus.hpp>
#include <ocp_api/can_device_host.hpp>
#include <ocp_api/can_timing.hpp>
#include <ocp_api/orrery_actuator.hpp>
#include <ocp_api/virtual_can.hpp>

namespace {

using namespace ocp_api;
using namespace std::chrono_literals;

CanFrame sample_frame(uint8_t seed, bool fd) {
    CanFrame frame;
    frame.id = 0x00D04021;
    frame.fd = fd;
    frame.len = fd ? 32 : 8;
    for (uint8_t i = 0; i < frame.len; ++i) frame.data[i] = static_cast<uint8_t>(seed * 31 + i * 7);
    return frame;
}

void BM_CanFrameBits(benchmark::State& state) {
    const CanFrame frame = sample_frame(3, state.range(0) != 0);
    for (auto _ : state) benchmark::DoNotOptimize(can_frame_bits(frame));
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_CanFrameBits)->Arg(0)->Arg(1)->ArgName("fd");

// Frames from one endpoint to another, 32 at a time: instant (timing 0) or
// timed with its manual clock.
void BM_VirtualChannelFrames(benchmark::State& state) {
    const bool timed = state.range(0) != 0;
    VirtualCanOptions options;
    if (timed) {
        options.timing = CanBitRates{1000000, 0};
        options.manual_clock = true;
    }
    VirtualCanChannel channel(options);
    auto sender = channel.open();
    auto receiver = channel.open();
    std::vector<CanFrame> frames;
    for (uint8_t i = 0; i < 32; ++i) frames.push_back(sample_frame(i, false));
    for (auto _ : state) {
        for (const CanFrame& frame : frames) sender->send_frame(frame);
        if (timed) channel.advance(10ms);
        for (std::size_t i = 0; i < frames.size(); ++i) benchmark::DoNotOptimize(receiver->receive(0ns));
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(frames.size()));
}
BENCHMARK(BM_VirtualChannelFrames)->Arg(0)->Arg(1)->ArgName("timed");

// A position loop over CanBus and CanDeviceHost on a timed CAN-FD channel.
// Age: from sending the command numbered k to the first streamed reply whose
// reference is k, on the host's clock.
void BM_TimedLoopFeedbackAge(benchmark::State& state) {
    const int actuators = static_cast<int>(state.range(0));
    constexpr int PERIODS = 1000;
    using Clock = std::chrono::steady_clock;
    std::vector<double> ages_us;
    double bus_load = 0;
    for (auto _ : state) {
        VirtualCanOptions channel_options;
        channel_options.timing = CanBitRates{1000000, 5000000};
        channel_options.tx_queue_limit = 1u << 20;
        VirtualCanChannel channel(channel_options);
        CanBusOptions bus_options;
        bus_options.isotp.fd = true;
        CanDeviceHostOptions host_options;
        host_options.isotp.fd = true;
        CanBus bus(channel.open(true), bus_options);
        CanDeviceHost host(channel.open(true), host_options);
        std::vector<Clock::time_point> sent_at(PERIODS + 1);
        std::mutex mutex;
        std::vector<std::unique_ptr<OrreryActuator>> joints;
        std::vector<int> last_seen(static_cast<std::size_t>(actuators), 0);
        for (int i = 0; i < actuators; ++i) {
            host.add_actuator(0x21 + i);
            joints.push_back(std::make_unique<OrreryActuator>(bus, 0x21 + i));
            joints.back()->set_feedback_callback([&, i](int, const OrreryActuator::FeedbackMap& feedback) {
                const auto found = feedback.find(OrreryActuator::OCP_Items::REF_4B);
                if (found == feedback.end()) return;
                const int k = static_cast<int>(std::lround(found->second * 1000.0f));
                const auto now = Clock::now();
                std::lock_guard<std::mutex> lock(mutex);
                if (k > last_seen[static_cast<std::size_t>(i)] && k <= PERIODS) {
                    last_seen[static_cast<std::size_t>(i)] = k;
                    ages_us.push_back(std::chrono::duration<double, std::micro>(now - sent_at[k]).count());
                }
            });
            joints.back()->change_position_setpoint(0.0f);
            joints.back()->setFeedbackItems({OrreryActuator::OCP_Items::REF_4B, OrreryActuator::OCP_Items::POS_FB_4C,
                                             OrreryActuator::OCP_Items::SPD_FB_45, OrreryActuator::OCP_Items::T_FB_49});
            joints.back()->setFeedbackRate(1000);
        }
        std::this_thread::sleep_for(20ms);
        const VirtualCanBusStats before = channel.bus_stats();
        auto next = Clock::now();
        for (int k = 1; k <= PERIODS; ++k) {
            {
                std::lock_guard<std::mutex> lock(mutex);
                sent_at[k] = Clock::now();
            }
            for (auto& joint : joints) joint->change_position_setpoint(static_cast<float>(k) / 1000.0f);
            next += 1ms;
            std::this_thread::sleep_until(next);
        }
        const VirtualCanBusStats after = channel.bus_stats();
        bus_load = static_cast<double>((after.busy - before.busy).count()) /
                   static_cast<double>((after.elapsed - before.elapsed).count());
        for (auto& joint : joints) joint->setFeedbackRate(0);
        joints.clear();  // not under `mutex`: removing a callback waits for one in flight
    }
    std::sort(ages_us.begin(), ages_us.end());
    auto percentile = [&ages_us](double p) {
        return ages_us.empty() ? 0.0 : ages_us[static_cast<std::size_t>(p * static_cast<double>(ages_us.size() - 1))];
    };
    BusPlanRequest request;
    request.fd = true;
    request.rates = CanBitRates{1000000, 5000000};
    request.actuators = actuators;
    const BusPlan plan = plan_bus(request);
    // On an overloaded bus the commands (lower identifiers) may take it all:
    // then no reply with a new reference arrives, and the ages mean nothing.
    state.counters["fresh_replies"] = static_cast<double>(ages_us.size());
    state.counters["age_p50_us"] = percentile(0.5);
    state.counters["age_p99_us"] = percentile(0.99);
    state.counters["planned_period_us_worst"] = plan.period_us_worst;
    state.counters["planned_load_worst"] = plan.load_worst;
    state.counters["planned_load_typical"] = plan.period_us_expected / plan.period_us;
    state.counters["bus_load"] = bus_load;
}
BENCHMARK(BM_TimedLoopFeedbackAge)->Arg(4)->Arg(8)->Arg(16)->ArgName("actuators")->Iterations(1)->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
