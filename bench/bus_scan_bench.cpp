// Time to scan addresses on the simulated bus: the pipelined scan over the
// whole range 0x10..0x3FFE against the one-at-a-time pace (BusScanOptions::
// sequential(), the pace of OrreryActuatorScanner::scan) over a short range,
// both reported per address so they compare side by side. A full sequential
// scan would take about 14 minutes.
#include <benchmark/benchmark.h>

#include <chrono>
#include <vector>

#include <ocp_api/bus_scan.hpp>
#include <ocp_api/sim_bus.hpp>
#include <ocp_api/wire.hpp>

namespace {

void run_scan(benchmark::State& state, int first, int last, const ocp_api::BusScanOptions& options) {
    ocp_api::SimBus bus;
    const std::vector<int> devices = {first, first + 1, (first + last) / 2, last};
    for (const int address : devices) bus.add_actuator(address);
    std::size_t found = 0;
    double seconds = 0.0;
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        found = ocp_api::scan_bus(bus, first, last, options).size();
        const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
        seconds = elapsed.count();
        state.SetIterationTime(seconds);
    }
    const double addresses = last - first + 1;
    state.counters["addresses"] = addresses;
    state.counters["found"] = static_cast<double>(found);
    state.counters["us_per_address"] = seconds * 1e6 / addresses;
    state.counters["pings_per_s"] = addresses / seconds;
}

void BM_PipelinedScanWholeRange(benchmark::State& state) {
    run_scan(state, ocp_api::wire::MIN_DEVICE_ADDRESS, ocp_api::wire::MAX_DEVICE_ADDRESS, {});
}

void BM_SequentialScan64Addresses(benchmark::State& state) {
    run_scan(state, 0x10, 0x4f, ocp_api::BusScanOptions::sequential());
}

}  // namespace

BENCHMARK(BM_PipelinedScanWholeRange)->UseManualTime()->Iterations(2)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SequentialScan64Addresses)->UseManualTime()->Iterations(2)->Unit(benchmark::kMillisecond);
