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
#include <ocp_api/isotp.hpp>
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

}  // namespace
