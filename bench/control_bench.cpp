// The group's own share of a control period, without threads or a bus: the
// transport here takes frames and keeps nothing, and each actuator's streamed
// reply is handed in on the benchmark's thread, as a receive thread would.
// Under callgrind the fixed-count variant gives stable instruction counts
// per period (the total divided by its 2000 iterations), with
//   valgrind --tool=callgrind --toggle-collect='*BM_GroupPeriod*'
//   ocp_api_bench --benchmark_filter='BM_GroupPeriod/.*/iterations:2000'
// as one command line.
#include <benchmark/benchmark.h>

#include <ocp_api/actuator_group.hpp>
#include <ocp_api/callback_registry.hpp>
#include <ocp_api/codec.hpp>
#include <ocp_api/wire.hpp>

namespace {

using namespace ocp_api;
using Item = OrreryActuator::OCP_Items;
using Mode = OrreryActuator::Mode;

class NullBus : public OCP {
public:
    bool send(int, const std::vector<uint8_t>& frame) override {
        bytes_ += frame.size();
        return true;
    }
    void setCallback(int address, ReceiveCallback callback) override { registry_.set(address, std::move(callback)); }
    void removeCallback(int address) override { registry_.remove(address); }
    void close() override {}
    void reply(int address, const std::vector<uint8_t>& bytes) { registry_.dispatch(address, bytes, wire::REPLY_STREAMED); }

private:
    CallbackRegistry registry_;
    std::size_t bytes_ = 0;
};

// range(0): actuators; range(1): 1 to hand in one streamed reply per actuator
// per period (the driver's dispatcher runs too), 0 for the loop side alone.
void BM_GroupPeriod(benchmark::State& state) {
    const int actuators = static_cast<int>(state.range(0));
    const bool with_replies = state.range(1) != 0;
    NullBus bus;
    ActuatorGroup group;
    for (int k = 0; k < actuators; ++k) group.add(bus, 0x21 + k);
    group.set_up(GroupSetup{{Item::POS_FB_4C, Item::SPD_FB_45, Item::T_FB_56}, 1000, Mode::IMPEDANCE});
    group.start_all();
    std::vector<uint8_t> reply;
    codec::ItemRecord::of(static_cast<uint8_t>(Item::POS_FB_4C), 0.25f).encode_into(reply);
    codec::ItemRecord::of(static_cast<uint8_t>(Item::SPD_FB_45), -1.0f).encode_into(reply);
    codec::ItemRecord::of(static_cast<uint8_t>(Item::T_FB_56), 0.125f).encode_into(reply);
    GroupSnapshot snapshot;
    float t = 0.0f;
    for (auto _ : state) {
        if (with_replies) {
            for (int k = 0; k < actuators; ++k) bus.reply(0x21 + k, reply);
        }
        group.take_snapshot(snapshot);
        for (std::size_t i = 0; i < snapshot.actuators.size(); ++i)
            group.set_setpoint(i, snapshot.actuators[i].values[0] + 0.001f * t);
        group.send_setpoints();
        group.maintain();
        t += 1.0f;
    }
    state.counters["per_actuator_ns"] = benchmark::Counter(static_cast<double>(state.iterations() * actuators),
                                                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    group.stop_all();
}
BENCHMARK(BM_GroupPeriod)->ArgsProduct({{6, 24}, {0, 1}})->ArgNames({"actuators", "replies"});
BENCHMARK(BM_GroupPeriod)->ArgsProduct({{24}, {0, 1}})->ArgNames({"actuators", "replies"})->Iterations(2000);

}  // namespace
