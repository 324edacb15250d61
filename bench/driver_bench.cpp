// Cost of building and sending commands, and of dispatching streamed replies.
#include <benchmark/benchmark.h>

#include <ocp_api/codec.hpp>
#include <ocp_api/orrery_actuator.hpp>

namespace {

using ocp_api::OrreryActuator;
using Items = OrreryActuator::OCP_Items;

// Keeps only the callback; frames are dropped after their size is read.
class DiscardingTransport : public ocp_api::OCP {
public:
    bool send(int, const std::vector<uint8_t>& frame) override {
        bytes_sent += frame.size();
        return true;
    }
    void setCallback(int, ReceiveCallback cb) override { callback = std::move(cb); }
    void removeCallback(int) override { callback = nullptr; }
    void close() override {}

    std::size_t bytes_sent = 0;
    ReceiveCallback callback;
};

template <typename Command>
void run_command(benchmark::State& state, Command command) {
    DiscardingTransport transport;
    OrreryActuator actuator(transport, 0x21);
    for (auto _ : state) command(actuator);
    benchmark::DoNotOptimize(transport.bytes_sent);
    state.SetItemsProcessed(state.iterations());
}

void BM_Start(benchmark::State& state) {
    run_command(state, [](OrreryActuator& a) { a.start(); });
}
void BM_ChangeSetpoint(benchmark::State& state) {
    run_command(state, [](OrreryActuator& a) { a.change_setpoint(1.5f); });
}
void BM_ChangeSetpointExtended(benchmark::State& state) {
    run_command(state, [](OrreryActuator& a) { a.change_setpoint(1.5f, 0.5f, 0.25f); });
}
void BM_ChangeTorqueSetpoint(benchmark::State& state) {
    run_command(state, [](OrreryActuator& a) { a.change_torque_setpoint(0.5f, 0, 0, 0, 0); });
}
void BM_ChangeSpeedSetpoint(benchmark::State& state) {
    run_command(state, [](OrreryActuator& a) { a.change_speed_setpoint(2.0f, 0, 0, 0, 0); });
}
void BM_ChangePositionSetpoint(benchmark::State& state) {
    run_command(state, [](OrreryActuator& a) { a.change_position_setpoint(1.0f, 0, 0, 0, 0, 0); });
}
void BM_ChangeImpedanceSetpoint(benchmark::State& state) {
    run_command(state, [](OrreryActuator& a) { a.change_impedance_setpoint(1.0f, 0, 4, 0.2f, 0, 0, 0, 0); });
}
void BM_InternalPositionSetpoint(benchmark::State& state) {
    run_command(state, [](OrreryActuator& a) { a.internal_change_position_setpoint(1, 2, 3, 4, 5, 6, 7, 8, 9); });
}
void BM_ChangeMode(benchmark::State& state) {
    run_command(state, [](OrreryActuator& a) { a.change_mode(OrreryActuator::Mode::POSITION); });
}
void BM_SetFeedbackRate(benchmark::State& state) {
    run_command(state, [](OrreryActuator& a) { a.setFeedbackRate(1000); });
}
void BM_SetFeedbackItems4(benchmark::State& state) {
    run_command(state, [](OrreryActuator& a) {
        a.setFeedbackItems({Items::POS_FB_4C, Items::SPD_FB_45, Items::T_FB_56, Items::VBUS_70});
    });
}
void BM_SetParameters9(benchmark::State& state) {
    OrreryActuator::ParameterMap values;
    for (int id = 1; id <= 9; ++id) values[static_cast<OrreryActuator::OCP_Parameters>(id)] = 1.0f;
    run_command(state, [&](OrreryActuator& a) { a.set_parameters(values); });
}

BENCHMARK(BM_Start);
BENCHMARK(BM_ChangeSetpoint);
BENCHMARK(BM_ChangeSetpointExtended);
BENCHMARK(BM_ChangeTorqueSetpoint);
BENCHMARK(BM_ChangeSpeedSetpoint);
BENCHMARK(BM_ChangePositionSetpoint);
BENCHMARK(BM_ChangeImpedanceSetpoint);
BENCHMARK(BM_InternalPositionSetpoint);
BENCHMARK(BM_ChangeMode);
BENCHMARK(BM_SetFeedbackRate);
BENCHMARK(BM_SetFeedbackItems4);
BENCHMARK(BM_SetParameters9);

// A streamed reply with ten item records, through the transport's callback
// into the dispatcher and on to a feedback callback.
void BM_DispatchStreamedReply10Items(benchmark::State& state) {
    DiscardingTransport transport;
    OrreryActuator actuator(transport, 0x21);
    float sink = 0.0f;
    actuator.set_feedback_callback([&](int, OrreryActuator::FeedbackMap items) { sink += items.begin()->second; });
    std::vector<uint8_t> reply;
    const Items items[] = {Items::POS_FB_41, Items::SPD_FB_45, Items::T_FB_49,     Items::POS_FB_4C,
                           Items::T_FB_56,   Items::VBUS_70,   Items::TEMP_AUX_71, Items::TEMP_WINDING_72,
                           Items::ERRORS_90, Items::ITEM_4A};
    for (const Items item : items) ocp_api::codec::ItemRecord::of(ocp_api::code_of(item), 1.0f).encode_into(reply);
    for (auto _ : state) transport.callback(0x21, reply, 0);
    benchmark::DoNotOptimize(sink);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_DispatchStreamedReply10Items);

}  // namespace
