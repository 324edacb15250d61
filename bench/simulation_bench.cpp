// Simulated actuator: inner steps per second for each control law, and the
// cost of one single-step call with the default feedback items.
#include <benchmark/benchmark.h>

#include <ocp_api/orrery_actuator_virtual.hpp>

namespace {

using ocp_api::OrreryActuatorVirtual;
using Mode = OrreryActuatorVirtual::Mode;

constexpr int STEPS_PER_CALL = 100000;

void BM_Steps(benchmark::State& state, Mode mode) {
    OrreryActuatorVirtual actuator(0x21);
    actuator.start();
    actuator.change_mode(mode);
    actuator.change_setpoint(1.0f);
    for (auto _ : state) {
        benchmark::DoNotOptimize(actuator.step(std::nullopt, STEPS_PER_CALL));
        // Keep the state bounded so every iteration does the same work.
        actuator.set_home_position();
    }
    state.SetItemsProcessed(state.iterations() * STEPS_PER_CALL);
    state.counters["steps_per_s"] =
        benchmark::Counter(static_cast<double>(state.iterations()) * STEPS_PER_CALL, benchmark::Counter::kIsRate);
}
BENCHMARK_CAPTURE(BM_Steps, torque, Mode::TORQUE);
BENCHMARK_CAPTURE(BM_Steps, speed, Mode::SPEED);
BENCHMARK_CAPTURE(BM_Steps, position, Mode::POSITION);
BENCHMARK_CAPTURE(BM_Steps, impedance, Mode::IMPEDANCE);

void BM_SingleStepDefaultItems(benchmark::State& state) {
    OrreryActuatorVirtual actuator(0x21);
    actuator.start();
    actuator.change_position_setpoint(1.0f);
    for (auto _ : state) benchmark::DoNotOptimize(actuator.step(std::nullopt, 1));
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SingleStepDefaultItems);

}  // namespace
