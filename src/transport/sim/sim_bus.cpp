// The simulated bus: routes frames to emulated devices, runs their physics in
// step with the wall clock, and delivers their replies on its worker thread.
#include "ocp_api/sim_bus.hpp"

#include <algorithm>
#include <cmath>
#include <deque>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <string>

#include "ocp_api/version.hpp"
#include "ocp_api/wire.hpp"
#include "emulation/emulated_device.hpp"

namespace ocp_api {

namespace {

constexpr double SECONDS_PER_STEP = 1e-4;  // the devices' control period, 100 us
constexpr double NANOSECONDS_PER_STEP = 1e5;
// Without anything due the worker still wakes this often to keep the devices'
// physics close to the wall clock.
constexpr std::chrono::milliseconds IDLE_WAKE_PERIOD{20};

std::string hex_address(int address) {
    std::ostringstream text;
    text << "0x" << std::hex << address;
    return text.str();
}

}  // namespace

// A reply on its way to the host.
struct SimBus::Reply {
    Clock::time_point due;
    uint64_t sequence;  // keeps replies due at the same time in order
    int address;
    std::vector<uint8_t> bytes;
    int kind;
    bool operator>(const Reply& other) const {
        return due != other.due ? due > other.due : sequence > other.sequence;
    }
};

struct SimBus::Inbound {
    int address;
    std::vector<uint8_t> frame;
};

// Frames waiting for the worker, and replies waiting for their due time (a
// min-heap on due time, kept with std::push_heap and std::pop_heap).
struct SimBus::Pending {
    std::deque<Inbound> frames;
    std::vector<Reply> replies;

    void push_reply(Reply reply) {
        replies.push_back(std::move(reply));
        std::push_heap(replies.begin(), replies.end(), std::greater<Reply>());
    }
    const Reply& earliest() const { return replies.front(); }
    Reply pop_earliest() {
        std::pop_heap(replies.begin(), replies.end(), std::greater<Reply>());
        Reply reply = std::move(replies.back());
        replies.pop_back();
        return reply;
    }
};

// --- SimBus ------------------------------------------------------------------

SimBus::SimBus(SimBusOptions options)
    : options_(options), epoch_(Clock::now()), loss_rng_(options.seed), pending_(std::make_unique<Pending>()) {
    if (!(options_.time_scale > 0.0) || !std::isfinite(options_.time_scale))
        throw std::invalid_argument("SimBus time_scale must be a positive number");
    if (!(options_.loss_rate >= 0.0 && options_.loss_rate <= 1.0))
        throw std::invalid_argument("SimBus loss_rate must be between 0 and 1");
    if (options_.reply_latency.count() < 0) throw std::invalid_argument("SimBus reply_latency must not be negative");
    worker_ = std::thread([this] { run(); });
}

SimBus::~SimBus() {
    close();
    if (worker_.joinable()) worker_.join();
}

EmulatedActuator& SimBus::add_actuator(int address, uint16_t model_code, uint16_t firmware_word) {
    if (!wire::is_valid_device_address(address))
        throw std::invalid_argument("Invalid address " + hex_address(address) + " for an emulated actuator: must be "
                                    "0x10..0x3ffe");
    std::lock_guard<std::mutex> lock(mutex_);
    if (device_at(address) != nullptr)
        throw std::invalid_argument("Address " + hex_address(address) + " is already taken on the simulated bus");
    auto device = std::make_unique<detail::EmulatedDevice>(address, model_code, firmware_word, steps_done_);
    devices_.push_back(std::unique_ptr<EmulatedActuator>(new EmulatedActuator(*this, std::move(device))));
    return *devices_.back();
}

void SimBus::emit_replies(detail::DeviceReplies& replies) {
    const auto now = Clock::now();
    for (auto& reply : replies) queue_reply(reply.address, std::move(reply.bytes), reply.kind, now);
    wake_.notify_all();
}

EmulatedActuator& SimBus::actuator(int address) {
    std::lock_guard<std::mutex> lock(mutex_);
    EmulatedActuator* found = device_at(address);
    if (found == nullptr) throw std::out_of_range("No emulated actuator at " + hex_address(address));
    return *found;
}

std::size_t SimBus::actuator_count() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return devices_.size();
}

EmulatedActuator* SimBus::device_at(int address) const {
    for (const auto& device : devices_) {
        if (device->device_->address() == address) return device.get();
    }
    return nullptr;
}

SimBusCounters SimBus::counters() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return counters_;
}

double SimBus::sim_time() const {
    // The time the bus is at now, which the worker catches up with on its next
    // wake; read from the clock, so it never lags behind an idle worker.
    return static_cast<double>(target_step(Clock::now())) * SECONDS_PER_STEP;
}

bool SimBus::send(int address, const std::vector<uint8_t>& frame) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (closed_) return false;
    ++counters_.frames_sent;
    if (draw_loss()) {
        ++counters_.frames_lost;
        return true;  // handed to the bus; the bus lost it
    }
    ++counters_.frames_received;
    pending_->frames.push_back({address, frame});
    wake_.notify_all();
    return true;
}

void SimBus::setCallback(int address, ReceiveCallback callback) { callbacks_.set(address, std::move(callback)); }

void SimBus::removeCallback(int address) { callbacks_.remove(address); }

void SimBus::close() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (closed_) return;
        closed_ = true;
        stopping_ = true;
    }
    wake_.notify_all();
    // From inside a callback the worker cannot wait for itself: it leaves its
    // loop when the callback returns, and the destructor joins it.
    if (worker_.joinable() && worker_.get_id() != std::this_thread::get_id()) worker_.join();
}

bool SimBus::draw_loss() {
    if (options_.loss_rate <= 0.0) return false;
    return std::uniform_real_distribution<double>(0.0, 1.0)(loss_rng_) < options_.loss_rate;
}

int64_t SimBus::target_step(Clock::time_point now) const {
    const double wall_ns = static_cast<double>(std::chrono::duration_cast<std::chrono::nanoseconds>(now - epoch_).count());
    return static_cast<int64_t>(wall_ns * options_.time_scale / NANOSECONDS_PER_STEP);
}

// The first wall instant at which target_step() reaches `step`: rounded up,
// and a nanosecond later, so that waking then finds the step due.
SimBus::Clock::time_point SimBus::wall_time_of_step(int64_t step) const {
    const double wall_ns = std::ceil(static_cast<double>(step) * NANOSECONDS_PER_STEP / options_.time_scale) + 1.0;
    return epoch_ + std::chrono::nanoseconds(static_cast<int64_t>(wall_ns));
}

void SimBus::queue_reply(int address, std::vector<uint8_t> bytes, int kind, Clock::time_point produced) {
    ++counters_.replies_sent;
    if (draw_loss()) {
        ++counters_.replies_lost;
        return;
    }
    pending_->push_reply({produced + options_.reply_latency, reply_sequence_++, address, std::move(bytes), kind});
}

void SimBus::advance_devices(int64_t target) {
    if (target <= steps_done_) return;
    detail::EmulatedDevice::Replies streamed;
    for (const auto& device : devices_) device->device_->advance_to(target, streamed);
    steps_done_ = target;
    for (auto& reply : streamed)
        queue_reply(reply.address, std::move(reply.bytes), reply.kind, wall_time_of_step(reply.step));
}

void SimBus::handle_frame(int address, const std::vector<uint8_t>& frame, Clock::time_point now) {
    detail::EmulatedDevice::Replies replies;
    if (address == wire::ADAPTER_ADDRESS) {
        // The adapter only answers pings, with its model code and the library's version.
        if (!frame.empty() && frame[0] == static_cast<uint8_t>(wire::Command::PING)) {
            std::vector<uint8_t> bytes{static_cast<uint8_t>(wire::RecordCode::PING_REPLY)};
            wire::append_u16(bytes, MODEL_CODE_CAN_ADAPTER);
            wire::append_u16(bytes, wire::firmware_word(VERSION_MAJOR, VERSION_MINOR, VERSION_PATCH));
            queue_reply(address, std::move(bytes), wire::REPLY_STREAMED, now);
        }
        return;
    }
    if (EmulatedActuator* device = device_at(address)) device->device_->handle_frame(frame, steps_done_, replies);
    for (auto& reply : replies) queue_reply(reply.address, std::move(reply.bytes), reply.kind, now);
}

void SimBus::process_inbound(Clock::time_point now) {
    while (!pending_->frames.empty()) {
        const Inbound inbound = std::move(pending_->frames.front());
        pending_->frames.pop_front();
        handle_frame(inbound.address, inbound.frame, now);
        ++counters_.frames_handled;
    }
}

SimBus::Clock::time_point SimBus::next_wake(Clock::time_point now) const {
    Clock::time_point wake = now + IDLE_WAKE_PERIOD;
    if (!pending_->replies.empty()) wake = std::min(wake, pending_->earliest().due);
    // A streamed reply is due one latency after its tick; waking then, rather
    // than at the tick, emits and delivers it in the same pass.
    int64_t next_tick = detail::EmulatedDevice::NEVER;
    for (const auto& device : devices_) next_tick = std::min(next_tick, device->device_->next_stream_step());
    if (next_tick != detail::EmulatedDevice::NEVER)
        wake = std::min(wake, wall_time_of_step(next_tick) + options_.reply_latency);
    return wake;
}

void SimBus::run() {
    std::unique_lock<std::mutex> lock(mutex_);
    std::vector<Reply> due;
    while (!stopping_) {
        ++counters_.worker_wakes;
        const auto now = Clock::now();
        advance_devices(target_step(now));
        process_inbound(now);
        while (!pending_->replies.empty() && pending_->earliest().due <= now) due.push_back(pending_->pop_earliest());
        if (due.empty()) {
            wake_.wait_until(lock, next_wake(now), [this] { return stopping_ || !pending_->frames.empty(); });
            continue;
        }
        // Callbacks run without the bus's lock: they may send, and the
        // registry keeps its own promise about removal.
        lock.unlock();
        uint64_t delivered = 0;
        for (auto& reply : due) delivered += callbacks_.dispatch(reply.address, std::move(reply.bytes), reply.kind);
        const uint64_t total = due.size();
        due.clear();
        lock.lock();
        counters_.replies_delivered += delivered;
        counters_.replies_unclaimed += total - delivered;
    }
}

}  // namespace ocp_api
