// Frames into a simulated bus with two emulated actuators, under a time scale,
// latency and loss chosen by the input. Checks that the bus stays responsive
// (every frame handled, close() prompt), that every reply delivered is made of
// whole records and reaches the callback of its address, that the counters add
// up, and that no callback runs after close() has returned, also when a
// callback closes the bus itself.
//
// Input: three option bytes (time scale, latency, loss), then a sequence of
// frames, each an address selector byte, a length byte and the bytes.
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <thread>

#include "ocp_api/sim_bus.hpp"
#include "ocp_api/wire.hpp"
#include "support/fuzz_input.hpp"
#include "support/records.hpp"

namespace {

using ocp_api::SimBus;
using ocp_api::SimBusOptions;
using ocp_fuzz::require;
using namespace std::chrono_literals;

constexpr int FIRST_DEVICE = 0x21;
constexpr int SECOND_DEVICE = 0x22;
constexpr int NOBODY = 0x30;
constexpr std::size_t MAX_FRAME_BYTES = 64;
constexpr std::size_t MAX_FRAMES = 64;
// Far beyond what a healthy bus needs, short enough to call a wedge a wedge.
constexpr auto RESPONSIVE_BOUND = 2s;

SimBusOptions options_from(ocp_fuzz::FuzzInput& input) {
    constexpr double time_scales[] = {4e-5, 0.01, 1.0, 10.0, 1000.0};
    constexpr std::chrono::microseconds latencies[] = {0us, 200us, 5000us, 10s};
    constexpr double loss_rates[] = {0.0, 0.05, 0.5, 1.0};
    SimBusOptions options;
    options.time_scale = time_scales[input.byte() % 5];
    options.reply_latency = latencies[input.byte() % 4];
    options.loss_rate = loss_rates[input.byte() % 4];
    return options;
}

int address_from(uint8_t selector, ocp_fuzz::FuzzInput& input) {
    switch (selector % 5) {
        case 0: return ocp_api::wire::ADAPTER_ADDRESS;
        case 1: return FIRST_DEVICE;
        case 2: return SECOND_DEVICE;
        case 3: return NOBODY;
        default: return input.u16();
    }
}

// What the host side saw, written from the bus's worker thread.
struct Seen {
    std::atomic<uint64_t> calls{0};
    std::atomic<bool> close_in_callback{false};  // the next callback closes the bus
    std::atomic<bool> closing{false};            // a callback is calling close()
    std::atomic<bool> closed{false};             // close() has returned
};

bool wait_until(const std::function<bool()>& done) {
    const auto deadline = std::chrono::steady_clock::now() + RESPONSIVE_BOUND;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(100us);
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    ocp_fuzz::FuzzInput input(data, size);
    Seen seen;
    uint64_t frames = 0;
    uint64_t refused = 0;
    {
        SimBus bus(options_from(input));
        bus.add_actuator(FIRST_DEVICE);
        bus.add_actuator(SECOND_DEVICE);
        for (const int address : {int{ocp_api::wire::ADAPTER_ADDRESS}, FIRST_DEVICE, SECOND_DEVICE}) {
            bus.setCallback(address, [&seen, &bus, address](int source, std::vector<uint8_t> bytes, int kind) {
                require(!seen.closed.load(), "no callback runs after close() has returned");
                seen.calls.fetch_add(1);
                require(source == address, "a reply reaches the callback of its address");
                require(kind == ocp_api::wire::REPLY_STREAMED || kind == ocp_api::wire::REPLY_REQUESTED,
                        "a reply has one of the two kinds");
                require(ocp_fuzz::is_whole_device_reply(bytes), "every delivered reply is made of whole records");
                if (seen.close_in_callback.exchange(false)) {
                    seen.closing.store(true);
                    bus.close();
                    seen.closed.store(true);
                }
            });
        }

        while (!input.empty() && frames < MAX_FRAMES) {
            const uint8_t selector = input.byte();
            const int address = address_from(selector, input);
            const std::vector<uint8_t> frame = input.bytes(input.byte() % (MAX_FRAME_BYTES + 1));
            if (selector & 0x80) seen.close_in_callback.store(true);
            const bool handed = bus.send(address, frame);
            require(handed || seen.closing.load() || bus.counters().queue_full > refused,
                    "send() succeeds until the bus is closed or the address's queue is full");
            refused = bus.counters().queue_full;
            if (handed) ++frames;
            const auto counters = bus.counters();  // must not block behind the worker
            require(counters.frames_sent == frames, "every send() is counted");
        }
        require(wait_until([&] {
                    const auto counters = bus.counters();
                    return seen.closing.load() || counters.frames_handled + counters.frames_superseded +
                                                                  counters.frames_cancelled + counters.frames_expired ==
                                                              counters.frames_received;
                }),
                "the worker handles every frame it received");

        const auto before_close = std::chrono::steady_clock::now();
        bus.close();
        seen.closed.store(true);
        require(std::chrono::steady_clock::now() - before_close < RESPONSIVE_BOUND, "close() returns promptly");
        const uint64_t calls_at_close = seen.calls.load();

        const auto counters = bus.counters();
        require(counters.frames_sent == counters.frames_received + counters.frames_lost,
                "every frame sent is received or counted lost");
        require(counters.frames_handled + counters.frames_superseded + counters.frames_cancelled +
                        counters.frames_expired <=
                    counters.frames_received,
                "only received frames are handled, replaced, cancelled or expired");
        require(counters.replies_delivered == calls_at_close, "every delivered reply reached a callback");
        require(counters.replies_delivered + counters.replies_unclaimed + counters.replies_lost +
                        counters.replies_discarded ==
                    counters.replies_sent,
                "every reply is delivered, unclaimed, lost or discarded at close");
        require(!bus.send(FIRST_DEVICE, {0x40}), "send() fails after close()");
        require(seen.calls.load() == calls_at_close, "no callback runs after close() has returned");
    }
    return 0;
}
