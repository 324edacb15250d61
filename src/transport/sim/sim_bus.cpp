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

#include "ocp_api/codec.hpp"
#include "ocp_api/wire.hpp"
#include "emulation/adapter.hpp"
#include "emulation/device_clock.hpp"
#include "emulation/device_roster.hpp"

namespace ocp_api {

namespace {

constexpr double SECONDS_PER_STEP = detail::DeviceClock::SECONDS_PER_STEP;
// Without anything due the worker still wakes this often to keep the devices'
// physics close to the wall clock.
constexpr std::chrono::milliseconds IDLE_WAKE_PERIOD{20};
constexpr std::chrono::microseconds MAX_REPLY_LATENCY = std::chrono::seconds(60);

void validate(const SimBusOptions& options) {
    const auto refuse = [](const char* option, const char* range, const auto& value) {
        std::ostringstream text;
        text << "SimBus option " << option << " must be " << range << ", not " << value;
        throw std::invalid_argument(text.str());
    };
    if (!detail::DeviceClock::is_valid_time_scale(options.time_scale))
        refuse("time_scale", "between 1e-06 and 1000 (simulated seconds per wall second)", options.time_scale);
    if (options.reply_latency.count() < 0 || options.reply_latency > MAX_REPLY_LATENCY)
        refuse("reply_latency", "between 0 and 60 s (0 to 60000000 us)", options.reply_latency.count());
    // Written so that NaN fails the test.
    if (!(options.loss_rate >= 0.0 && options.loss_rate <= 1.0))
        refuse("loss_rate", "between 0 and 1", options.loss_rate);
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
    wire::CommandClass command_class;
    Clock::time_point queued_at;

    bool is_setpoint_like(uint8_t code) const {
        return command_class == wire::CommandClass::setpoint && frame[0] == code;
    }
    bool yields_to_stop() const {
        return command_class == wire::CommandClass::motion || command_class == wire::CommandClass::setpoint;
    }
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
    : options_((validate(options), options)),
      loss_rng_(options.seed),
      pending_(std::make_unique<Pending>()),
      devices_(std::make_unique<detail::DeviceRoster>(Clock::now(), options.time_scale)) {
    worker_ = std::thread([this] { run(); });
    worker_id_ = worker_.get_id();
}

SimBus::~SimBus() {
    close();
    join_worker();
}

EmulatedActuator& SimBus::add_actuator(int address, uint16_t model_code, uint16_t firmware_word) {
    std::lock_guard<std::mutex> lock(mutex_);
    return devices_->add(*this, address, model_code, firmware_word, "the simulated bus", options_.enforce_limits);
}

int64_t SimBus::device_step() const { return devices_->steps_done(); }

void SimBus::emit_replies(detail::DeviceReplies& replies) {
    const auto now = Clock::now();
    for (auto& reply : replies) queue_reply(reply.address, std::move(reply.bytes), reply.kind, now);
    wake_.notify_all();
}

EmulatedActuator& SimBus::actuator(int address) {
    std::lock_guard<std::mutex> lock(mutex_);
    return devices_->actuator(address);
}

std::size_t SimBus::actuator_count() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return devices_->size();
}

SimBusCounters SimBus::counters() const {
    std::lock_guard<std::mutex> lock(mutex_);
    SimBusCounters counters = counters_;
    counters.callback_errors = callbacks_.callback_errors();
    return counters;
}

double SimBus::sim_time() const {
    // The time the bus is at now, which the worker catches up with on its next
    // wake; read from the clock, so it never lags behind an idle worker.
    return static_cast<double>(devices_->clock().step_at(Clock::now())) * SECONDS_PER_STEP;
}

bool SimBus::send(int address, const std::vector<uint8_t>& frame) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (closed_) return false;
    if (!make_room(address, frame)) return false;
    ++counters_.frames_sent;
    if (draw_loss()) {
        ++counters_.frames_lost;
        return true;  // handed to the bus; the bus lost it
    }
    ++counters_.frames_received;
    Inbound inbound{address, frame, frame.empty() ? wire::CommandClass::ordinary : codec::command_class(frame.front()),
                    Clock::now()};
    // A STOP overtakes every frame still waiting, for any address.
    if (inbound.command_class == wire::CommandClass::safety) {
        pending_->frames.push_front(std::move(inbound));
    } else {
        pending_->frames.push_back(std::move(inbound));
    }
    wake_.notify_all();
    return true;
}

// The CAN transports' queueing rules, on the frames waiting for the worker.
// Returns false when the frame is refused for a full queue.
bool SimBus::make_room(int address, const std::vector<uint8_t>& frame) {
    std::deque<Inbound>& frames = pending_->frames;
    const auto for_address = [address](const Inbound& waiting) { return waiting.address == address; };
    if (frame.empty()) return true;
    const wire::CommandClass command_class = codec::command_class(frame.front());
    if (command_class == wire::CommandClass::safety) {
        const auto cancelled = std::remove_if(frames.begin(), frames.end(), [address](const Inbound& waiting) {
            return waiting.address == address && waiting.yields_to_stop();
        });
        counters_.frames_cancelled += static_cast<uint64_t>(frames.end() - cancelled);
        frames.erase(cancelled, frames.end());
        return true;
    }
    if (command_class == wire::CommandClass::setpoint) {
        const auto older = std::find_if(frames.begin(), frames.end(), [&](const Inbound& waiting) {
            return waiting.address == address && waiting.is_setpoint_like(frame.front());
        });
        if (older != frames.end()) {
            frames.erase(older);
            ++counters_.frames_superseded;
        }
    }
    if (static_cast<std::size_t>(std::count_if(frames.begin(), frames.end(), for_address)) >= options_.queue_limit) {
        ++counters_.queue_full;
        return false;
    }
    return true;
}

void SimBus::setCallback(int address, ReceiveCallback callback) { callbacks_.set(address, std::move(callback)); }

void SimBus::removeCallback(int address) { callbacks_.remove(address); }

void SimBus::close() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!closed_) handle_waiting_stops(Clock::now());
        closed_ = true;
        stopping_ = true;
    }
    // Seen by the worker before each callback: from here on none starts, also
    // when this close() runs inside a callback on the worker itself.
    delivering_.store(false, std::memory_order_release);
    wake_.notify_all();
    // From inside a callback the worker cannot wait for itself: it leaves its
    // loop when the callback returns, and the destructor joins it.
    if (worker_id_ != std::this_thread::get_id()) join_worker();
}

// A STOP sent just before the bus closes must still reach its device, or
// the emulated actuator would be left running: the worker handles no frame
// after close(), so close() hands the waiting STOPs over itself.
void SimBus::handle_waiting_stops(Clock::time_point now) {
    std::deque<Inbound>& frames = pending_->frames;
    for (auto it = frames.begin(); it != frames.end();) {
        if (it->command_class != wire::CommandClass::safety) {
            ++it;
            continue;
        }
        handle_frame(it->address, it->frame, now);
        ++counters_.frames_handled;
        it = frames.erase(it);
    }
}

void SimBus::join_worker() {
    // close() may run on several threads at once; one of them joins.
    std::lock_guard<std::mutex> lock(join_mutex_);
    if (worker_.joinable()) worker_.join();
}

bool SimBus::draw_loss() {
    if (options_.loss_rate <= 0.0) return false;
    return std::uniform_real_distribution<double>(0.0, 1.0)(loss_rng_) < options_.loss_rate;
}

void SimBus::queue_reply(int address, std::vector<uint8_t> bytes, int kind, Clock::time_point produced) {
    ++counters_.replies_sent;
    if (stopping_) {
        ++counters_.replies_discarded;  // the worker is gone or leaving
        return;
    }
    if (draw_loss()) {
        ++counters_.replies_lost;
        return;
    }
    pending_->push_reply({produced + options_.reply_latency, reply_sequence_++, address, std::move(bytes), kind});
}

// Returns true while the devices are still behind the wall clock.
bool SimBus::advance_devices(Clock::time_point now) {
    detail::EmulatedDevice::Replies streamed;
    const bool behind = devices_->advance(now, streamed);
    for (auto& reply : streamed)
        queue_reply(reply.address, std::move(reply.bytes), reply.kind, devices_->clock().time_of_step(reply.step));
    return behind;
}

void SimBus::handle_frame(int address, const std::vector<uint8_t>& frame, Clock::time_point now) {
    detail::EmulatedDevice::Replies replies;
    if (address == wire::ADAPTER_ADDRESS) {
        if (auto answer = detail::adapter_answer(frame))
            queue_reply(address, std::move(*answer), wire::REPLY_STREAMED, now);
        return;
    }
    if (detail::EmulatedDevice* device = devices_->device(address))
        device->handle_frame(frame, devices_->steps_done(), replies);
    for (auto& reply : replies) queue_reply(reply.address, std::move(reply.bytes), reply.kind, now);
}

void SimBus::process_inbound(Clock::time_point now) {
    while (!pending_->frames.empty()) {
        const Inbound inbound = std::move(pending_->frames.front());
        pending_->frames.pop_front();
        if (inbound.command_class == wire::CommandClass::setpoint && now - inbound.queued_at > options_.setpoint_max_age) {
            ++counters_.frames_expired;
            continue;
        }
        handle_frame(inbound.address, inbound.frame, now);
        ++counters_.frames_handled;
    }
}

SimBus::Clock::time_point SimBus::next_wake(Clock::time_point now) const {
    Clock::time_point wake = now + IDLE_WAKE_PERIOD;
    if (!pending_->replies.empty()) wake = std::min(wake, pending_->earliest().due);
    // A streamed reply is due one latency after its tick; waking then, rather
    // than at the tick, emits and delivers it in the same pass.
    if (const auto tick = devices_->next_stream_time()) wake = std::min(wake, *tick + options_.reply_latency);
    return wake;
}

void SimBus::run() {
    std::unique_lock<std::mutex> lock(mutex_);
    std::vector<Reply> due;
    while (!stopping_) {
        ++counters_.worker_wakes;
        const auto now = Clock::now();
        const bool behind = advance_devices(now);
        process_inbound(now);
        while (!pending_->replies.empty() && pending_->earliest().due <= now) due.push_back(pending_->pop_earliest());
        if (!due.empty()) {
            // Callbacks run without the bus's lock: they may send, and the
            // registry keeps its own promise about removal.
            lock.unlock();
            deliver(due);
            lock.lock();
        } else if (behind) {
            // Let the threads waiting for the lock have it before catching up.
            lock.unlock();
            std::this_thread::yield();
            lock.lock();
        } else {
            wake_.wait_until(lock, next_wake(now), [this] { return stopping_ || !pending_->frames.empty(); });
        }
    }
    // What was still on its way when the bus closed is counted, not delivered.
    counters_.replies_discarded += pending_->replies.size();
    pending_->replies.clear();
}

// Hands the due replies to their callbacks, without the bus's lock, and counts
// them. Stops at close(): the replies it did not hand over are discarded.
void SimBus::deliver(std::vector<Reply>& due) {
    uint64_t delivered = 0;
    uint64_t handed = 0;
    for (auto& reply : due) {
        if (!delivering_.load(std::memory_order_acquire)) break;
        delivered += callbacks_.dispatch(reply.address, std::move(reply.bytes), reply.kind);
        ++handed;
    }
    const uint64_t total = due.size();
    due.clear();
    std::lock_guard<std::mutex> lock(mutex_);
    counters_.replies_delivered += delivered;
    counters_.replies_unclaimed += handed - delivered;
    counters_.replies_discarded += total - handed;
}

}  // namespace ocp_api
