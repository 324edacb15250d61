// A simulated CAN bus with emulated devices: an OCP transport that needs no
// adapter and no actuator. Each emulated actuator speaks the wire protocol byte
// for byte and moves by the simulated actuator's physics, so host code runs
// through the same OrreryActuator and OrreryActuatorScanner it uses on a real bus.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "ocp_api/callback_registry.hpp"
#include "ocp_api/emulated_actuator.hpp"
#include "ocp_api/ocp.hpp"

namespace ocp_api {

// The constructor of SimBus throws std::invalid_argument, naming the option and
// its range, for a value outside the range given here.
struct SimBusOptions {
    double time_scale = 1.0;                          // simulated seconds per wall second, 1e-6..1000
    std::chrono::microseconds reply_latency{200};     // between a frame and its reply, 0..60 s
    double loss_rate = 0.0;                           // chance that any one frame or reply is lost, 0..1
    uint32_t seed = 1;                                // of the loss draw, for reproducible runs
    // Commands waiting for the worker, per address; send() refuses more.
    std::size_t queue_limit = 256;
    // A setpoint that waited longer than this for the worker is dropped.
    std::chrono::milliseconds setpoint_max_age{100};
    // Devices added enforce their limits as firmware does (see EmulatedActuator).
    bool enforce_limits = true;
};

struct SimBusCounters {
    uint64_t frames_sent = 0;        // every send() accepted while open
    uint64_t frames_received = 0;    // frames that reached the bus (not lost)
    uint64_t frames_lost = 0;
    uint64_t frames_handled = 0;     // received frames the devices have read
    // Received frames the devices never read, by the queueing rules (see the
    // class comment); frames_handled plus these is frames_received.
    uint64_t frames_superseded = 0;  // setpoints replaced by a newer one of the same command
    uint64_t frames_cancelled = 0;   // START and setpoints overtaken by a STOP
    uint64_t frames_expired = 0;     // setpoints that waited longer than setpoint_max_age
    uint64_t queue_full = 0;         // send() refused: queue_limit commands already waiting for the address
    uint64_t replies_sent = 0;       // replies the devices produced
    uint64_t replies_delivered = 0;  // handed to a registered callback
    uint64_t replies_unclaimed = 0;  // no callback was registered for the address
    uint64_t replies_lost = 0;
    uint64_t replies_discarded = 0;  // still on their way when the bus closed
    uint64_t worker_wakes = 0;       // passes of the worker's loop, for tuning
    uint64_t callback_errors = 0;    // exceptions thrown by receive callbacks (caught; the first reported)
};

// The bus and its worker thread. The worker advances every device's physics in
// step with wall time times time_scale, sends streamed replies on time, and
// delivers every reply to the callback registered for the replying address: it
// is the transport's receive thread, and callbacks run there. send() is safe
// from any thread, callbacks included; frames reach a device in the order they
// were sent, with the queueing rules of the CAN transports: a STOP overtakes
// every frame still waiting for the worker and cancels the START and
// setpoints waiting for its address; a setpoint replaces a waiting one of the
// same command for the same address; at most queue_limit frames wait per
// address. An emulated adapter answers pings at address 0.
//
// The worker steps the devices through at most 0.1 s of simulated time per pass
// and lets other threads have the bus between passes, so send(), counters() and
// close() stay responsive whatever the devices were asked to do; a bus asked
// for more than the machine can compute falls behind the wall clock instead.
//
// As with any transport, destroy the actuators that use the bus before the bus,
// and do not destroy the bus from inside one of its callbacks.
class SimBus : public OCP, private detail::EmulatedDeviceOwner {
public:
    explicit SimBus(SimBusOptions options = {});
    ~SimBus() override;
    SimBus(const SimBus&) = delete;
    SimBus& operator=(const SimBus&) = delete;

    // Adds a device; throws std::invalid_argument for an address outside
    // 0x10..0x3FFE or one a device already has.
    EmulatedActuator& add_actuator(int address, uint16_t model_code = 3, uint16_t firmware_word = 0x0842);
    // The device now at `address`; throws std::out_of_range when there is none.
    EmulatedActuator& actuator(int address);
    std::size_t actuator_count() const;

    SimBusCounters counters() const;
    // Simulated seconds since the bus started.
    double sim_time() const;
    const SimBusOptions& options() const { return options_; }

    bool send(int address, const std::vector<uint8_t>& frame) override;
    void setCallback(int address, ReceiveCallback callback) override;
    void removeCallback(int address) override;
    // Stops the worker; later sends return false. A STOP still waiting for the
    // worker reaches its device first; other waiting frames are dropped. Once close() has returned no
    // callback starts any more, not even for replies already due: called from
    // another thread it returns after the worker has stopped; called from
    // inside a callback, that callback finishes but no other one runs. Replies
    // still on their way are counted in replies_discarded. Safe to call more
    // than once and from several threads.
    void close() override;

private:
    struct Reply;
    struct Inbound;
    struct Pending;

    using Clock = std::chrono::steady_clock;

    std::mutex& device_mutex() override { return mutex_; }
    int64_t device_step() const override;
    void emit_replies(detail::DeviceReplies& replies) override;

    void run();
    void deliver(std::vector<Reply>& due);
    void join_worker();
    bool advance_devices(Clock::time_point now);
    void process_inbound(Clock::time_point now);
    void handle_waiting_stops(Clock::time_point now);
    void handle_frame(int address, const std::vector<uint8_t>& frame, Clock::time_point now);
    void queue_reply(int address, std::vector<uint8_t> bytes, int kind, Clock::time_point due);
    bool draw_loss();
    bool make_room(int address, const std::vector<uint8_t>& frame);
    Clock::time_point next_wake(Clock::time_point now) const;

    const SimBusOptions options_;
    CallbackRegistry callbacks_;

    mutable std::mutex mutex_;  // guards everything below
    std::condition_variable wake_;
    bool stopping_ = false;
    bool closed_ = false;
    std::mt19937 loss_rng_;
    std::unique_ptr<Pending> pending_;
    const std::unique_ptr<detail::DeviceRoster> devices_;
    SimBusCounters counters_;
    uint64_t reply_sequence_ = 0;

    std::atomic<bool> delivering_{true};  // false from close() on: no callback starts
    std::mutex join_mutex_;               // one thread joins the worker

    std::thread worker_;  // last: starts after everything above exists
    // Read by close() on any thread, while another may be joining worker_.
    std::thread::id worker_id_;
};

}  // namespace ocp_api
