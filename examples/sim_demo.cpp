// A walk through the library on the simulated bus: find three emulated
// actuators, move them in three control modes while feedback streams, read
// parameters, see an error report, and move one actuator to a new address.
#include <chrono>
#include <cstdio>
#include <memory>
#include <thread>
#include <vector>

#include <ocp_api/orrery_actuator.hpp>
#include <ocp_api/sim_bus.hpp>

#include <ocp_api/number_format.hpp>
#include "sim_demo.hpp"

namespace {

using namespace std::chrono_literals;
using ocp_api::OrreryActuator;
using ocp_api::format_number;
using Items = OrreryActuator::OCP_Items;

void heading(const char* text) { std::printf("\n== %s\n", text); }

float value_or_zero(const OrreryActuator::FeedbackMap& feedback, Items item) {
    const auto found = feedback.find(item);
    return found == feedback.end() ? 0.0f : found->second;
}

void print_table_row(double t, const std::vector<std::unique_ptr<OrreryActuator>>& joints) {
    std::printf("%5.2f s", t);
    for (const auto& joint : joints) {
        const auto feedback = joint->get_feedback();
        std::printf(" | %13s %13s %13s", format_number(value_or_zero(feedback, Items::POS_FB_4C)).c_str(),
                    format_number(value_or_zero(feedback, Items::SPD_FB_45)).c_str(),
                    format_number(value_or_zero(feedback, Items::T_FB_56)).c_str());
    }
    std::printf("\n");
}

}  // namespace

int run_sim_demo() {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    // The devices answer 20 ms after a frame, like a device behind a busy
    // adapter. The scanner misses a reply that arrives before it has cleared
    // its flag after sending, which a quicker device could do to a demo
    // running on a loaded machine.
    ocp_api::SimBusOptions options;
    options.reply_latency = std::chrono::milliseconds(20);
    ocp_api::SimBus bus(options);
    bus.add_actuator(0x21, 3, 0x0842);  // HERON_A
    bus.add_actuator(0x22, 2, 0x0903);  // KESTREL_B
    bus.add_actuator(0x23, 6, 0x1001);  // HERON_C

    heading("Scanning 0x10..0x2f");
    std::vector<int> found;
    {
        ocp_api::OrreryActuatorScanner scanner(bus);
        found = scanner.scan(0x10, 0x2F);
    }
    std::printf("%zu actuators found\n", found.size());

    heading("Connecting");
    std::vector<std::unique_ptr<OrreryActuator>> joints;
    for (const int address : found) {
        auto joint = std::make_unique<OrreryActuator>(bus, address);
        const bool connected = joint->connect(1.0f);
        std::printf("0x%x: %s, model %s, firmware %s\n", address, connected ? "connected" : "NOT connected",
                    joint->get_model_name().c_str(), joint->get_firmware_version().c_str());
        joint->setFeedbackItems({Items::POS_FB_4C, Items::SPD_FB_45, Items::T_FB_56});
        joint->setFeedbackRate(OrreryActuator::Rates::RATE_200HZ);
        joint->start();
        joints.push_back(std::move(joint));
    }
    if (joints.size() != 3) return 1;

    heading("Position move on 0x21, speed ramp under load on 0x22, impedance on 0x23 (feedback at 200 Hz)");
    std::printf("   time");
    for (const char* position : {"0x21 pos", "0x22 pos", "0x23 pos"})
        std::printf(" | %13s %13s %13s", position, "spd", "torque");
    std::printf("\n");
    joints[0]->change_position_setpoint(1.0f);
    bus.actuator(0x22).physics()->change_load(0.5f);
    joints[2]->change_impedance_setpoint(0.5f, 0.0f, 40.0f, 8.0f);
    const auto start = std::chrono::steady_clock::now();
    for (int row = 0; row <= 20; ++row) {
        joints[1]->change_speed_setpoint(0.1f * static_cast<float>(row));
        std::this_thread::sleep_until(start + row * 100ms);
        print_table_row(0.1 * row, joints);
    }

    heading("All 31 parameters of 0x21");
    const auto parameters = joints[0]->get_parameters_all();
    for (const auto id : OrreryActuator::ALL_PARAMETERS) {
        const auto found_value = parameters.find(id);
        std::printf("  %-22s 0x%02x  %s\n", std::string(ocp_api::parameter_name(id)).c_str(), static_cast<unsigned>(id),
                    found_value == parameters.end() ? "(no answer)" : format_number(found_value->second).c_str());
    }

    heading("An injected error on 0x23: the default report, and the actuator stops");
    std::fflush(stdout);
    bus.actuator(0x23).inject_errors((1u << 0) | (1u << 16));
    for (int i = 0; i < 100 && bus.actuator(0x23).physics()->is_running(); ++i) std::this_thread::sleep_for(10ms);
    joints[2]->send_ping(1.0f);  // the error report has been printed once the ping is answered
    std::printf("0x23 is %s\n", bus.actuator(0x23).physics()->is_running() ? "still running" : "stopped");

    heading("0x22 moves to 0x30, saves, and is power-cycled");
    joints[1]->changeAddress(0x30);
    joints[1]->save_config();
    joints[1]->send_ping(0.1f);  // let the device take both frames before the power cycle
    bus.removeCallback(0x22);    // the old registration stays with the transport otherwise
    bus.actuator(0x30).power_cycle();
    OrreryActuator moved(bus, 0x30);
    const bool reached = moved.connect(1.0f);
    std::printf("0x30: %s, model %s, firmware %s\n", reached ? "connected" : "NOT connected",
                moved.get_model_name().c_str(), moved.get_firmware_version().c_str());

    joints.clear();
    std::printf("\nDone: %llu replies delivered.\n",
                static_cast<unsigned long long>(bus.counters().replies_delivered));
    return 0;
}
