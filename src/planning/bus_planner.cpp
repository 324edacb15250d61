// The capacity planner. It lets the project's own pieces produce one control
// period's traffic instead of keeping a table of message sizes that could
// drift from them: an OrreryActuator encodes the command into a transport
// that only keeps it, the device-side record helper builds the reply, and a
// host and a device node of the CAN mapping segment both and answer each
// other's first frames with flow control.
#include "ocp_api/bus_planner.hpp"

#include <cmath>
#include <deque>
#include <stdexcept>
#include <string>

#include "can/can_node.hpp"
#include "ocp_api/orrery_actuator.hpp"
#include "ocp_api/codec.hpp"
#include "ocp_api/wire.hpp"

namespace ocp_api {

namespace {

constexpr int PLANNED_ADDRESS = 0x21;  // any address: identifiers have the same length for all

struct CommandName {
    PlannedCommand command;
    const char* name;
};
constexpr CommandName COMMAND_NAMES[] = {
    {PlannedCommand::position, "position"}, {PlannedCommand::setpoint, "setpoint"},
    {PlannedCommand::torque, "torque"},     {PlannedCommand::speed, "speed"},
    {PlannedCommand::impedance, "impedance"},
};

// A transport that keeps what it is given.
class CapturingTransport : public OCP {
public:
    bool send(int, const std::vector<uint8_t>& frame) override {
        sent.push_back(frame);
        return true;
    }
    void setCallback(int, ReceiveCallback) override {}
    void removeCallback(int) override {}
    void close() override {}
    std::vector<std::vector<uint8_t>> sent;
};

// The command's bytes as the driver sends them in steady state (the mode
// change that goes before the first one is left out).
std::vector<uint8_t> encoded_command(PlannedCommand command) {
    CapturingTransport transport;
    std::vector<uint8_t> bytes;
    {
        OrreryActuator actuator(transport, PLANNED_ADDRESS);
        for (int pass = 0; pass < 2; ++pass) {
            transport.sent.clear();
            switch (command) {
                case PlannedCommand::position: actuator.change_position_setpoint(1.25f, 0.5f); break;
                case PlannedCommand::setpoint: actuator.change_setpoint(1.25f); break;
                case PlannedCommand::torque: actuator.change_torque_setpoint(0.75f); break;
                case PlannedCommand::speed: actuator.change_speed_setpoint(2.5f); break;
                case PlannedCommand::impedance: actuator.change_impedance_setpoint(1.25f, 0.5f, 10.0f, 0.2f); break;
            }
        }
        bytes = transport.sent.back();
    }  // the actuator sends a STOP as it goes
    return bytes;
}

std::vector<uint8_t> streamed_reply(int items) {
    wire::Frame bytes;
    for (int i = 0; i < items; ++i)
        codec::ItemRecord::of(code_of(OrreryActuator::ALL_ITEMS[static_cast<std::size_t>(i)]),
                              0.125f * static_cast<float>(i + 1))
            .encode_into(bytes);
    return bytes;
}

// Runs one message from `sender` to `receiver` to its end, collecting every
// frame either side puts on the bus.
void exchange(can::Node& sender, can::Node& receiver, int kind, std::vector<uint8_t> message, bool brs,
              std::vector<CanFrame>& frames) {
    const can::IsoTpTime now{};
    std::vector<CanFrame> out;
    if (!sender.queue(PLANNED_ADDRESS, kind, std::move(message), now, out))
        throw std::invalid_argument("the planned message cannot be sent");
    std::deque<std::pair<CanFrame, bool>> on_bus;  // frame, from the sender
    for (const CanFrame& frame : out) on_bus.emplace_back(frame, true);
    std::vector<can::ReceivedMessage> received;
    while (!on_bus.empty()) {
        auto [frame, from_sender] = on_bus.front();
        on_bus.pop_front();
        frame.brs = frame.fd && brs;  // the link sets the bit-rate switch
        frames.push_back(frame);
        out.clear();
        (from_sender ? receiver : sender).on_frame(frame, now, out, received);
        for (const CanFrame& answer : out) on_bus.emplace_back(answer, !from_sender);
    }
    if (received.size() != 1) throw std::logic_error("the planned message did not arrive whole");
}

double microseconds(std::chrono::nanoseconds duration) { return static_cast<double>(duration.count()) / 1000.0; }

void validate(const BusPlanRequest& request) {
    validate(request.rates);
    if (request.rates.data != 0 && !request.fd)
        throw std::invalid_argument("a data bit rate needs CAN-FD");
    if (request.actuators < 1 || request.actuators > 16383)
        throw std::invalid_argument("actuators must be 1..16383, not " + std::to_string(request.actuators));
    if (!(request.rate_hz > 0.0) || !std::isfinite(request.rate_hz))
        throw std::invalid_argument("rate must be a positive number of Hz");
    if (request.items < 0 || request.items > static_cast<int>(OrreryActuator::ALL_ITEMS.size()))
        throw std::invalid_argument("items must be 0..48, not " + std::to_string(request.items));
}

}  // namespace

bool planned_command_from_name(const std::string& name, PlannedCommand& command) {
    for (const CommandName& entry : COMMAND_NAMES) {
        if (name == entry.name) {
            command = entry.command;
            return true;
        }
    }
    return false;
}

const char* planned_command_name(PlannedCommand command) {
    for (const CommandName& entry : COMMAND_NAMES) {
        if (entry.command == command) return entry.name;
    }
    return "";
}

BusPlan plan_bus(const BusPlanRequest& request) {
    validate(request);
    can::IsoTpOptions isotp;
    isotp.fd = request.fd;
    can::Node host(can::Role::host, isotp);
    can::Node device(can::Role::device, isotp);
    const bool brs = request.fd && request.rates.data != 0;

    BusPlan plan;
    exchange(host, device, 0, encoded_command(request.command), brs, plan.frames);
    if (request.items > 0) exchange(device, host, wire::REPLY_STREAMED, streamed_reply(request.items), brs, plan.frames);

    for (const CanFrame& frame : plan.frames) {
        plan.actuator_us_nominal += microseconds(can_frame_duration(frame, request.rates, StuffBits::none));
        plan.actuator_us_worst += microseconds(can_frame_duration(frame, request.rates, StuffBits::worst));
        plan.actuator_us_expected += microseconds(can_frame_duration(frame, request.rates, StuffBits::actual));
    }
    const int frames = static_cast<int>(plan.frames.size());
    plan.frames_per_period = frames * request.actuators;
    plan.period_us = 1e6 / request.rate_hz;
    plan.period_us_nominal = plan.actuator_us_nominal * request.actuators;
    plan.period_us_worst = plan.actuator_us_worst * request.actuators;
    plan.period_us_expected = plan.actuator_us_expected * request.actuators;
    plan.load_nominal = plan.period_us_nominal / plan.period_us;
    plan.load_worst = plan.period_us_worst / plan.period_us;
    plan.max_actuators = static_cast<int>(std::floor(plan.period_us / plan.actuator_us_worst));
    return plan;
}

}  // namespace ocp_api
