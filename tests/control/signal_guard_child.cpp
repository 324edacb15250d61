// A control loop under a SignalGuard, for the signal guard's test: it prints
// "ready" once the loop runs, and one line per START or STOP frame sent, so
// the parent sees which actuators were stopped before the signal ended it.
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "ocp_api/loop_runner.hpp"
#include "ocp_api/sim_bus.hpp"

namespace {

void say(const std::string& line) {
    const std::string text = line + "\n";
    [[maybe_unused]] const ssize_t written = write(STDOUT_FILENO, text.data(), text.size());
}

class PrintingBus : public ocp_api::OCP {
public:
    explicit PrintingBus(ocp_api::OCP& bus) : bus_(bus) {}
    bool send(int address, const std::vector<uint8_t>& frame) override {
        if (frame.size() == 1 && frame[0] == 0x01) say("START " + std::to_string(address));
        if (frame.size() == 1 && frame[0] == 0x02) say("STOP " + std::to_string(address));
        return bus_.send(address, frame);
    }
    void setCallback(int address, ReceiveCallback callback) override { bus_.setCallback(address, std::move(callback)); }
    void removeCallback(int address) override { bus_.removeCallback(address); }
    void close() override { bus_.close(); }

private:
    ocp_api::OCP& bus_;
};

}  // namespace

int main() {
    const rlimit no_core{0, 0};
    setrlimit(RLIMIT_CORE, &no_core);  // SIGQUIT would dump one
    ocp_api::SimBus bus;
    PrintingBus printing(bus);
    ocp_api::ActuatorGroup group;
    for (int address = 0x21; address <= 0x23; ++address) {
        bus.add_actuator(address);
        group.add(printing, address);
    }
    group.set_up({{ocp_api::OrreryActuator::OCP_Items::POS_FB_4C}, 100, ocp_api::OrreryActuator::Mode::SPEED});
    group.start_all();
    ocp_api::LoopOptions options;
    options.period = std::chrono::milliseconds(2);
    options.watchdog_missed_periods = 0;
    ocp_api::LoopRunner runner(group, options);
    ocp_api::SignalGuard guard(group, &runner);
    bool announced = false;
    runner.run([&](const ocp_api::GroupSnapshot&, ocp_api::ActuatorGroup&) {
        if (!announced) say("ready");
        announced = true;
    }, std::chrono::seconds(60));
    say("loop ended");
    return 0;
}
