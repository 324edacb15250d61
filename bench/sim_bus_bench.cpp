// Feedback throughput through the simulated bus into actuator callbacks:
// 16 emulated actuators streaming 4 items each at 1 kHz, for one second of
// wall time per iteration. Reports the process's CPU time per delivered reply
// (worker thread and callbacks together).
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <memory>
#include <thread>
#include <vector>

#include <ocp_api/orrery_actuator.hpp>
#include <ocp_api/sim_bus.hpp>
#include <ocp_api/wire.hpp>

namespace {

using ocp_api::OrreryActuator;
using Items = OrreryActuator::OCP_Items;

double process_cpu_seconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

void BM_SimBusFeedback16x4At1kHz(benchmark::State& state) {
    constexpr int ACTUATORS = 16;
    ocp_api::SimBus bus;
    std::atomic<uint64_t> callbacks{0};
    std::vector<std::unique_ptr<OrreryActuator>> joints;
    for (int i = 0; i < ACTUATORS; ++i) {
        const int address = 0x20 + i;
        bus.add_actuator(address);
        auto joint = std::make_unique<OrreryActuator>(bus, address);
        joint->set_feedback_callback([&](int, OrreryActuator::FeedbackMap) { callbacks.fetch_add(1); });
        joint->setFeedbackItems({Items::POS_FB_4C, Items::SPD_FB_45, Items::T_FB_56, Items::VBUS_70});
        joint->start();
        joint->change_position_setpoint(1.0f);
        joint->setFeedbackRate(1000);
        joints.push_back(std::move(joint));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // let streaming settle

    double cpu_seconds = 0.0;
    uint64_t replies = 0;
    const uint64_t wakes_before = bus.counters().worker_wakes;
    for (auto _ : state) {
        const uint64_t before = callbacks.load();
        const double cpu_before = process_cpu_seconds();
        std::this_thread::sleep_for(std::chrono::seconds(1));
        cpu_seconds += process_cpu_seconds() - cpu_before;
        replies += callbacks.load() - before;
    }
    state.counters["replies_per_s"] =
        benchmark::Counter(static_cast<double>(replies), benchmark::Counter::kIsRate);
    state.counters["cpu_us_per_reply"] = replies ? cpu_seconds / static_cast<double>(replies) * 1e6 : 0.0;
    state.counters["wakes_per_s"] = benchmark::Counter(
        static_cast<double>(bus.counters().worker_wakes - wakes_before), benchmark::Counter::kIsRate);
    state.counters["core_share_pct"] = cpu_seconds / static_cast<double>(state.iterations()) * 100.0;
    joints.clear();
}
BENCHMARK(BM_SimBusFeedback16x4At1kHz)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();

// How long close() takes: on an idle bus, and on a bus doing the most it can be
// asked for (the fastest time scale, 16 devices streaming 4 items at 10 kHz,
// replies due at once, callbacks busy). Side by side, their ratio shows what
// the worker's bounded passes cost a closing host; the aim is under 100 ms.
void close_bus(benchmark::State& state, bool loaded) {
    constexpr int DEVICES = 16;
    for (auto _ : state) {
        ocp_api::SimBusOptions options;
        options.time_scale = loaded ? 1000.0 : 1.0;
        options.reply_latency = std::chrono::microseconds(0);
        ocp_api::SimBus bus(options);
        std::atomic<uint64_t> replies{0};
        for (int i = 0; i < DEVICES; ++i) {
            const int address = 0x21 + i;
            bus.add_actuator(address);
            bus.setCallback(address, [&replies](int, std::vector<uint8_t>, int) { replies.fetch_add(1); });
            if (!loaded) continue;
            std::vector<uint8_t> items{static_cast<uint8_t>(ocp_api::wire::Command::SET_FEEDBACK_ITEMS)};
            for (const auto item : {Items::POS_FB_4C, Items::SPD_FB_45, Items::T_FB_56, Items::VBUS_70})
                items.push_back(static_cast<uint8_t>(item));
            bus.send(address, items);
            std::vector<uint8_t> rate{static_cast<uint8_t>(ocp_api::wire::Command::SET_FEEDBACK_RATE)};
            ocp_api::wire::append_u32(rate, 1);
            bus.send(address, rate);
        }
        const auto settle_until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (loaded && replies.load() < 20000 && std::chrono::steady_clock::now() < settle_until)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        const auto start = std::chrono::steady_clock::now();
        bus.close();
        state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
}

void BM_SimBusCloseIdle(benchmark::State& state) { close_bus(state, false); }
void BM_SimBusCloseUnderMaximumLoad(benchmark::State& state) { close_bus(state, true); }
BENCHMARK(BM_SimBusCloseIdle)->Iterations(20)->Unit(benchmark::kMicrosecond)->UseManualTime();
BENCHMARK(BM_SimBusCloseUnderMaximumLoad)->Iterations(20)->Unit(benchmark::kMicrosecond)->UseManualTime();

}  // namespace
