// A control loop over two SocketCAN interfaces at once, the guest's classic
// vcan and its CAN-FD vcan, with the emulated devices in other processes
// (ocpctl emulate). Runs inside the VM (tests/vm/run-in-vm.sh), with ocpctl
// copied beside it. Waits are on conditions, bounded generously: the guest
// may run without hardware virtualisation.
#include <gtest/gtest.h>

#include <csignal>
#include <memory>

#include <nlohmann/json.hpp>

#include "ocp_api/bus_factory.hpp"
#include "ocp_api/loop_runner.hpp"
#include "vm/guest.hpp"

namespace {

using namespace std::chrono_literals;
using ocp_api::FeedbackStatus;
using Item = ocp_api::OrreryActuator::OCP_Items;
using Mode = ocp_api::OrreryActuator::Mode;

const std::string OCPCTL = "/test/ocpctl";

std::string classic_bus() { return "socketcan:" + ocp_vm::classic_interface(); }
std::string fd_bus() { return "socketcan:" + ocp_vm::fd_interface() + ",fd"; }

// Starts `ocpctl emulate` on a bus and waits until its first device answers.
std::unique_ptr<ocp_vm::Child> emulate(const std::string& interface, const std::string& bus,
                                       const std::string& addresses) {
    const int before = ocp_vm::receivers_on(interface);
    auto emulator = std::make_unique<ocp_vm::Child>(std::vector<std::string>{OCPCTL, "--bus", bus, "emulate", addresses});
    EXPECT_TRUE(ocp_vm::wait_for_receivers(interface, before + 1));
    const std::string first = addresses.substr(0, addresses.find(','));
    for (int attempt = 0; attempt < 30; ++attempt) {
        if (ocp_vm::run({OCPCTL, "--bus", bus, "info", first}) == 0) return emulator;
    }
    ADD_FAILURE() << "the emulator on " << interface << " does not answer at " << first;
    return emulator;
}

class ControlLoopVm : public testing::Test {
protected:
    void SetUp() override {
        classic_emulator = emulate(ocp_vm::classic_interface(), classic_bus(), "0x21,0x22");
        fd_emulator = emulate(ocp_vm::fd_interface(), fd_bus(), "0x31,0x32");
    }
    std::unique_ptr<ocp_vm::Child> classic_emulator;
    std::unique_ptr<ocp_vm::Child> fd_emulator;
};

TEST_F(ControlLoopVm, OneLoopOverClassicAndFdBusesStreamsAndSetsUpAPowerCycledEmulatorAgain) {
    const auto classic = ocp_api::open_bus(classic_bus());
    const auto fd = ocp_api::open_bus(fd_bus());
    ocp_api::ActuatorGroupOptions group_options;
    group_options.silent_after = 300ms;
    group_options.ping_interval = 100ms;
    ocp_api::ActuatorGroup group(group_options);
    group.add(*classic, 0x21);
    group.add(*classic, 0x22);
    group.add(*fd, 0x31);
    group.add(*fd, 0x32);
    group.set_up({{Item::POS_FB_4C, Item::SPD_FB_45}, 200, Mode::SPEED});
    group.start_all();

    ocp_api::LoopOptions options;
    options.period = 5ms;
    options.watchdog_missed_periods = 0;  // a guest without KVM stalls; not what this test is about
    ocp_api::LoopRunner runner(group, options);
    enum class Stage { streaming, power_cycled, done } stage = Stage::streaming;
    std::vector<int> fresh(4, 0);
    bool link_active = false;
    bool restarted_stay_stopped = false;
    const auto result = runner.run(
        [&](const ocp_api::GroupSnapshot& snapshot, ocp_api::ActuatorGroup& g) {
            for (std::size_t i = 0; i < 4; ++i) {
                g.set_setpoint(i, 0.5f);
                if (snapshot.actuators[i].status == FeedbackStatus::fresh) ++fresh[i];
            }
            if (stage == Stage::streaming && std::all_of(fresh.begin(), fresh.end(), [](int n) { return n >= 20; })) {
                link_active = snapshot.actuators[0].link == ocp_api::CanLinkState::active &&
                              snapshot.actuators[2].link == ocp_api::CanLinkState::active;
                classic_emulator->signal(SIGHUP);  // the emulator power-cycles its devices
                stage = Stage::power_cycled;
                return;
            }
            if (stage == Stage::power_cycled) {
                const auto statistics = g.statistics();
                const bool both_set_up_again = statistics.actuators[0].restarts >= 1 && statistics.actuators[1].restarts >= 1;
                if (both_set_up_again && snapshot.actuators[0].status == FeedbackStatus::fresh &&
                    snapshot.actuators[1].status == FeedbackStatus::fresh) {
                    restarted_stay_stopped = !snapshot.actuators[0].running && !snapshot.actuators[1].running &&
                                             snapshot.actuators[2].running && snapshot.actuators[3].running;
                    stage = Stage::done;
                    runner.request_stop();
                }
            }
        },
        120s);
    EXPECT_EQ(result.end, ocp_api::LoopEnd::stop_requested);
    EXPECT_TRUE(link_active);
    EXPECT_TRUE(restarted_stay_stopped);
    const auto statistics = group.statistics();
    EXPECT_EQ(statistics.actuators[2].restarts, 0u);  // the FD emulator was not power cycled
    ASSERT_EQ(statistics.buses.size(), 2u);
    EXPECT_TRUE(std::holds_alternative<ocp_api::CanBusCounters>(statistics.buses[0].counters));
    EXPECT_TRUE(std::holds_alternative<ocp_api::CanBusCounters>(statistics.buses[1].counters));
    EXPECT_GT(std::get<ocp_api::CanBusCounters>(statistics.buses[1].counters).messages_in, 80u);
}

TEST_F(ControlLoopVm, OcpctlLoopRunsOnEitherInterface) {
    for (const std::string& bus : {classic_bus(), fd_bus()}) {
        const std::string first = bus == classic_bus() ? "0x21" : "0x31";
        const std::string second = bus == classic_bus() ? "0x22" : "0x32";
        ocp_vm::Child loop({OCPCTL, "--bus", bus, "loop", first, second, "--rate", "200", "--for", "1", "--watchdog",
                            "0", "--json"});
        const std::string out = loop.finish(120s);
        ASSERT_EQ(loop.exit_status(), 0) << bus << ": " << out;
        const auto report = nlohmann::json::parse(out);
        EXPECT_EQ(report.at("bus"), bus);
        EXPECT_EQ(report.at("end"), "duration_elapsed");
        ASSERT_EQ(report.at("actuators").size(), 2u);
        EXPECT_EQ(report.at("buses").at(0).at("link"), "active") << bus;
        for (const auto& actuator : report.at("actuators")) {
            EXPECT_GT(actuator.at("fresh").get<uint64_t>(), 0u) << bus << ": " << actuator;
            EXPECT_EQ(actuator.at("faults"), 0) << bus;
        }
    }
}

}  // namespace
