// Six joints on two buses at 1 kHz for two seconds: each period reads every
// joint's feedback, follows a sine in impedance mode, and keeps away from
// stale values. Prints the loop's statistics at the end.
#include <cmath>
#include <cstdio>

#include <ocp_api/loop_runner.hpp>
#include <ocp_api/sim_bus.hpp>

int main() {
    using Item = ocp_api::OrreryActuator::OCP_Items;
    using Mode = ocp_api::OrreryActuator::Mode;
    using namespace std::chrono_literals;

    // Two simulated buses with three emulated actuators each; on a robot
    // these are ocp_api::open_bus("socketcan:can0,fd") and so on.
    ocp_api::SimBus left;
    ocp_api::SimBus right;
    ocp_api::ActuatorGroup group;  // declared after the buses: it goes first
    for (int address : {0x21, 0x22, 0x23}) {
        left.add_actuator(address);
        right.add_actuator(address);
        group.add(left, address);
        group.add(right, address);
    }
    // One call sets up every joint: items, rate, mode. Kept: a joint that
    // restarts is set up again (and left stopped).
    group.set_up({{Item::POS_FB_4C, Item::SPD_FB_45, Item::ERRORS_90}, 1000, Mode::IMPEDANCE});
    group.start_all();

    ocp_api::LoopOptions options;
    options.period = 1ms;
    options.watchdog_missed_periods = 20;  // stop everything after 20 ms without a period
    ocp_api::LoopRunner runner(group, options);
    ocp_api::SignalGuard guard(group, &runner);  // Ctrl-C stops the joints first

    ocp_api::ActuatorGroup::Extras gains = ocp_api::ActuatorGroup::unchanged_extras();
    gains[1] = 40.0f;  // K_STIFF
    gains[2] = 2.0f;   // K_DAMP
    runner.run(
        [&](const ocp_api::GroupSnapshot& snapshot, ocp_api::ActuatorGroup& g) {
            const double t = static_cast<double>(snapshot.number) * 1e-3;
            for (std::size_t i = 0; i < snapshot.actuators.size(); ++i) {
                const auto& joint = snapshot.actuators[i];
                if (joint.status == ocp_api::FeedbackStatus::missing || !joint.running) continue;
                const float target = static_cast<float>(0.3 * std::sin(2.0 * M_PI * 0.5 * t));
                // The gains go out once in the full impedance command; after
                // that each period sends the 5-byte setpoint frame only.
                g.set_setpoint(i, target, gains);
            }
        },
        2s);
    group.stop_all();

    const auto loop = runner.statistics();
    const auto error = loop.period_error.summary();
    std::printf("%llu periods, %llu missed; period error p50 %.1f us, p99 %.1f us\n",
                static_cast<unsigned long long>(loop.periods), static_cast<unsigned long long>(loop.missed_periods),
                error.p50_us, error.p99_us);
    for (const auto& joint : group.statistics().actuators) {
        const auto age = joint.feedback_age.summary();
        std::printf("bus %zu 0x%x: feedback age p50 %.0f us, p99 %.0f us; stale %llu, missing %llu; "
                    "setpoints %llu short, %llu full\n",
                    joint.bus, joint.address, age.p50_us, age.p99_us, static_cast<unsigned long long>(joint.stale),
                    static_cast<unsigned long long>(joint.missing), static_cast<unsigned long long>(joint.setpoints_short),
                    static_cast<unsigned long long>(joint.setpoints_full));
    }
}
