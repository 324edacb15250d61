// A whole-robot control loop at 1 kHz, for as long as asked (10 s by
// default): 24 actuators on 6 CAN-FD buses over virtual channels, and 12
// actuators on one simulated bus. Prints the loop's timing, feedback age and
// freshness, CPU time per actuator-period and heap allocations per period in
// steady state (after a second of warm-up), counted by a replaced operator new.
//
//   ocp_api_loop_bench [--seconds S] [--warmup S] [--feedback-rate HZ] [--scenario can|sim|both]
//
// For instruction counts per period, which stay put on a noisy machine, run it
// under callgrind collecting only inside the loop runner, as one command line
//   valgrind --tool=callgrind --toggle-collect='ocp_api::LoopRunner::run*'
//   ocp_api_loop_bench --seconds 2 --warmup 0 --scenario sim
// and divide the total by the periods it printed.
#include <time.h>

#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include <ocp_api/can_bus.hpp>
#include <ocp_api/can_device_host.hpp>
#include <ocp_api/loop_runner.hpp>
#include <ocp_api/sim_bus.hpp>
#include <ocp_api/virtual_can.hpp>

// --- counted allocations ---------------------------------------------------------

namespace {
std::atomic<uint64_t> allocations{0};
thread_local bool on_loop_thread = false;
thread_local uint64_t loop_thread_allocations = 0;

void* counted(std::size_t size) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    if (on_loop_thread) ++loop_thread_allocations;
    if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
    throw std::bad_alloc();
}
}  // namespace

void* operator new(std::size_t size) { return counted(size); }
void* operator new[](std::size_t size) { return counted(size); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }

namespace {

using namespace std::chrono_literals;
using namespace ocp_api;
using Item = OrreryActuator::OCP_Items;
using Mode = OrreryActuator::Mode;

double cpu_seconds(clockid_t clock) {
    timespec t{};
    clock_gettime(clock, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

struct Measured {
    LoopStatistics loop;
    GroupStatistics group;
    double process_cpu_s = 0.0;
    double loop_cpu_s = 0.0;
    uint64_t allocations = 0;
    uint64_t loop_allocations = 0;
};

// Warm-up (a second by default), then the measured run with statistics reset.
int feedback_rate_hz = 1000;

Measured run_loop(ActuatorGroup& group, double seconds, double warmup) {
    group.set_up(GroupSetup{{Item::POS_FB_4C, Item::SPD_FB_45, Item::T_FB_56}, feedback_rate_hz, Mode::IMPEDANCE});
    group.start_all();
    LoopOptions options;
    options.period = 1ms;
    options.watchdog_missed_periods = 0;  // a loaded benchmark machine must not end the run
    LoopRunner runner(group, options);
    const std::size_t n = group.size();
    const auto controller = [n](const GroupSnapshot& snapshot, ActuatorGroup& g) {
        const double t = static_cast<double>(snapshot.number) * 1e-3;
        for (std::size_t i = 0; i < n; ++i) {
            const auto& a = snapshot.actuators[i];
            const float position = a.values[0];
            const float target = static_cast<float>(0.5 * std::sin(2.0 * M_PI * 0.5 * t + static_cast<double>(i)));
            // A proportional correction on top of the trajectory, as a host would.
            const float correction = std::isfinite(position) ? 0.1f * (target - position) : 0.0f;
            g.set_setpoint(i, target + correction);
        }
    };
    on_loop_thread = true;
    if (warmup > 0.0)
        runner.run(controller, std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(warmup)));
    runner.reset_statistics();
    group.reset_statistics();
    Measured m;
    const uint64_t allocations_before = allocations.load();
    loop_thread_allocations = 0;
    const double process_before = cpu_seconds(CLOCK_PROCESS_CPUTIME_ID);
    const double loop_before = cpu_seconds(CLOCK_THREAD_CPUTIME_ID);
    runner.run(controller, std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(seconds)));
    m.loop_cpu_s = cpu_seconds(CLOCK_THREAD_CPUTIME_ID) - loop_before;
    m.process_cpu_s = cpu_seconds(CLOCK_PROCESS_CPUTIME_ID) - process_before;
    m.loop_allocations = loop_thread_allocations;
    m.allocations = allocations.load() - allocations_before;
    on_loop_thread = false;
    m.loop = runner.statistics();
    m.group = group.statistics();
    group.stop_all();
    return m;
}

void report(const char* name, const Measured& m) {
    TimingHistogram age;
    uint64_t fresh = 0, stale = 0, missing = 0;
    for (const auto& a : m.group.actuators) {
        age.merge(a.feedback_age);
        fresh += a.fresh;
        stale += a.stale;
        missing += a.missing;
    }
    const double periods = static_cast<double>(m.loop.periods);
    const double actuator_periods = periods * static_cast<double>(m.group.actuators.size());
    const auto error = m.loop.period_error.summary();
    const auto callback = m.loop.callback_time.summary();
    const auto feedback = age.summary();
    std::printf("%s: %zu actuators, feedback at %d Hz, %llu periods, %llu missed\n", name, m.group.actuators.size(),
                feedback_rate_hz,
                static_cast<unsigned long long>(m.loop.periods), static_cast<unsigned long long>(m.loop.missed_periods));
    std::printf("  period error    p50 %8.1f us  p99 %8.1f us  max %8.1f us\n", error.p50_us, error.p99_us, error.max_us);
    std::printf("  callback time   p50 %8.1f us  p99 %8.1f us  max %8.1f us\n", callback.p50_us, callback.p99_us,
                callback.max_us);
    std::printf("  feedback age    p50 %8.1f us  p99 %8.1f us  max %8.1f us\n", feedback.p50_us, feedback.p99_us,
                feedback.max_us);
    const double total = static_cast<double>(fresh + stale + missing);
    std::printf("  fresh %.4f  stale %.4f  missing %.4f (fractions of actuator-periods)\n",
                static_cast<double>(fresh) / total, static_cast<double>(stale) / total,
                static_cast<double>(missing) / total);
    std::printf("  CPU per actuator-period: loop thread %.2f us, whole process (buses and emulated devices too) %.2f us\n",
                m.loop_cpu_s * 1e6 / actuator_periods, m.process_cpu_s * 1e6 / actuator_periods);
    std::printf("  heap allocations per period: loop thread %.4f, whole process %.2f\n",
                static_cast<double>(m.loop_allocations) / periods, static_cast<double>(m.allocations) / periods);
}

void can_scenario(double seconds, double warmup) {
    constexpr int BUSES = 6;
    constexpr int PER_BUS = 4;
    std::vector<std::unique_ptr<VirtualCanChannel>> channels;
    std::vector<std::unique_ptr<CanDeviceHost>> hosts;
    std::vector<std::unique_ptr<CanBus>> buses;
    for (int b = 0; b < BUSES; ++b) {
        channels.push_back(std::make_unique<VirtualCanChannel>());
        CanDeviceHostOptions host_options;
        host_options.isotp.fd = true;
        hosts.push_back(std::make_unique<CanDeviceHost>(channels.back()->open(true), host_options));
        CanBusOptions bus_options;
        bus_options.isotp.fd = true;
        buses.push_back(std::make_unique<CanBus>(channels.back()->open(true), bus_options));
    }
    {
        ActuatorGroup group;
        for (int b = 0; b < BUSES; ++b) {
            for (int k = 0; k < PER_BUS; ++k) {
                const int address = 0x21 + k;
                hosts[static_cast<std::size_t>(b)]->add_actuator(address);
                group.add(*buses[static_cast<std::size_t>(b)], address);
            }
        }
        report("CAN-FD, 6 virtual channels", run_loop(group, seconds, warmup));
    }
}

void sim_scenario(double seconds, double warmup) {
    SimBus bus;
    ActuatorGroup group;
    for (int k = 0; k < 12; ++k) {
        bus.add_actuator(0x21 + k);
        group.add(bus, 0x21 + k);
    }
    report("SimBus", run_loop(group, seconds, warmup));
}

}  // namespace

int main(int argc, char** argv) {
    double seconds = 10.0;
    double warmup = 1.0;
    std::string scenario = "both";
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--seconds") == 0) seconds = std::atof(argv[i + 1]);
        else if (std::strcmp(argv[i], "--warmup") == 0) warmup = std::atof(argv[i + 1]);
        else if (std::strcmp(argv[i], "--feedback-rate") == 0) feedback_rate_hz = std::atoi(argv[i + 1]);
        else if (std::strcmp(argv[i], "--scenario") == 0) scenario = argv[i + 1];
    }
    if (!(seconds > 0.0) || !(warmup >= 0.0) || feedback_rate_hz < 1 || feedback_rate_hz > 10000 || (scenario != "can" && scenario != "sim" && scenario != "both")) {
        std::fprintf(stderr, "usage: ocp_api_loop_bench [--seconds S] [--warmup S] [--feedback-rate HZ] [--scenario can|sim|both]\n");
        return 2;
    }
    if (scenario != "sim") can_scenario(seconds, warmup);
    if (scenario != "can") sim_scenario(seconds, warmup);
    return 0;
}
