// The CAN mapping's cost, beside the simulated bus it is compared with:
// segmentation and reassembly alone (pure logic, no threads), and a ping's
// round trip host -> emulated device -> host callback over CanBus and a
// virtual channel, against the same round trip over SimBus without latency.
#include <benchmark/benchmark.h>

#include <condition_variable>
#include <mutex>
#include <numeric>

#include <ocp_api/can_bus.hpp>
#include <ocp_api/can_device_host.hpp>
#include "can/isotp.hpp"
#include <ocp_api/sim_bus.hpp>
#include <ocp_api/virtual_can.hpp>
#include <ocp_api/wire.hpp>

namespace {

using namespace ocp_api;

// One message from a sender to a receiver, flow control included.
void BM_IsoTpTransfer(benchmark::State& state) {
    can::IsoTpOptions options;
    options.fd = state.range(1) != 0;
    std::vector<uint8_t> message(static_cast<std::size_t>(state.range(0)));
    std::iota(message.begin(), message.end(), uint8_t{0});
    can::IsoTpSender sender(options);
    can::IsoTpReceiver receiver(0x00D04021, options);
    const can::IsoTpTime now = can::IsoTpClock::now();
    std::vector<CanFrame> data;
    std::vector<CanFrame> flow;
    for (auto _ : state) {
        sender.queue(0x00D00021, message, now, data);
        std::optional<std::vector<uint8_t>> received;
        while (!data.empty()) {
            for (const CanFrame& frame : data) {
                if (auto done = receiver.on_frame(frame, now, flow)) received = std::move(done);
            }
            data.clear();
            for (const CanFrame& frame : flow) sender.on_flow_control(frame, now, data);
            flow.clear();
        }
        benchmark::DoNotOptimize(received);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_IsoTpTransfer)->ArgsProduct({{5, 46, 4095}, {0, 1}})->ArgNames({"bytes", "fd"});

// Straight through the transport interface, so the driver's own waiting does
// not hide the transports' difference.
void ping_round_trips(benchmark::State& state, OCP& bus) {
    std::mutex mutex;
    std::condition_variable answered;
    uint64_t answers = 0;
    bus.setCallback(0x21, [&](int, std::vector<uint8_t>, int) {
        std::lock_guard<std::mutex> lock(mutex);
        ++answers;
        answered.notify_all();
    });
    const std::vector<uint8_t> ping{static_cast<uint8_t>(wire::Command::PING)};
    for (auto _ : state) {
        std::unique_lock<std::mutex> lock(mutex);
        const uint64_t expected = answers + 1;
        bus.send(0x21, ping);
        if (!answered.wait_for(lock, std::chrono::seconds(1), [&] { return answers >= expected; }))
            state.SkipWithError("no answer");
    }
    bus.removeCallback(0x21);
}

void BM_PingRoundTripCanBus(benchmark::State& state) {
    can::IsoTpOptions options;
    options.fd = state.range(0) != 0;
    VirtualCanChannel channel;
    CanDeviceHost devices(channel.open(options.fd), CanDeviceHostOptions{options});
    devices.add_actuator(0x21);
    CanBus bus(channel.open(options.fd), CanBusOptions{options});
    ping_round_trips(state, bus);
}
BENCHMARK(BM_PingRoundTripCanBus)->Arg(0)->Arg(1)->ArgName("fd")->UseRealTime();

void BM_PingRoundTripSimBus(benchmark::State& state) {
    SimBus bus(SimBusOptions{1.0, std::chrono::microseconds(0)});
    bus.add_actuator(0x21);
    ping_round_trips(state, bus);
}
BENCHMARK(BM_PingRoundTripSimBus)->UseRealTime();

// From stop() to the STOP's frame at the device, with 1000 segmented
// position setpoints queued to a device that never answers flow control:
// the time the STOP spends behind them (none: it overtakes them).
void BM_StopLatencyBehindThousandCommands(benchmark::State& state) {
    VirtualCanChannel channel;
    auto device = channel.open();
    CanBus bus(channel.open());
    std::vector<uint8_t> setpoint{static_cast<uint8_t>(wire::Command::SET_POSITION_SETPOINT)};
    for (int i = 0; i < 6; ++i) append_float(setpoint, 1.0f);
    const std::vector<uint8_t> stop{static_cast<uint8_t>(wire::Command::STOP)};
    for (auto _ : state) {
        state.PauseTiming();
        for (int i = 0; i < 1000; ++i) bus.send(0x21, setpoint);
        // Take the first setpoint's first frame off the device's queue.
        while (device->receive(std::chrono::seconds(1)).frame.data[0] != 0x10) {
        }
        state.ResumeTiming();
        bus.send(0x21, stop);
        for (;;) {
            const CanLinkEvent event = device->receive(std::chrono::seconds(1));
            if (event.type == CanLinkEvent::Type::none) {
                state.SkipWithError("the STOP never came");
                break;
            }
            if (event.frame.data[0] == 0x01 && event.frame.data[1] == 0x02) break;
        }
    }
    state.counters["superseded"] = static_cast<double>(bus.counters().superseded);
}
BENCHMARK(BM_StopLatencyBehindThousandCommands)->UseRealTime();

}  // namespace
