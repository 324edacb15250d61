// The in-process CAN channel: one lock for the channel, one inbox per endpoint.
//
// With timing on, the bus is a small discrete-event simulation run lazily
// under the channel's lock: every send, receive and advance() first carries
// the bus forward to the present (`pump`), finishing the frame on the wire
// when its time has come and starting the next one by arbitration. No thread
// of its own: the endpoints' owners already wait in receive(), and each of
// them waits at most until the bus's next event, so frames arrive on time
// whichever owner happens to be awake.
#include "ocp_api/virtual_can.hpp"

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <random>
#include <stdexcept>
#include <vector>

#include "can/ring_queue.hpp"

namespace ocp_api {

namespace {

using Nanos = std::chrono::nanoseconds;
using SteadyClock = std::chrono::steady_clock;

bool carries_traffic(CanLinkState state) { return state != CanLinkState::bus_off && state != CanLinkState::down; }

// Error counter thresholds of a CAN controller.
constexpr int ERROR_WARNING_LIMIT = 96;
constexpr int ERROR_PASSIVE_LIMIT = 128;
constexpr int BUS_OFF_LIMIT = 255;  // bus-off when the transmit counter exceeds it
// A receive counter above the passive limit drops back into this range on a
// good frame.
constexpr int REC_AFTER_PASSIVE = 119;
// A node leaves bus-off after seeing 128 times 11 recessive bits in a row.
constexpr int BUS_OFF_RECOVERY_SEQUENCES = 128;
constexpr uint32_t RECESSIVE_SEQUENCE_BITS = 11;
// Error flag (6), error delimiter (8) and interframe space (3).
constexpr uint32_t ERROR_FRAME_BITS = 6 + 8 + 3;
// The bits of a frame from the ACK delimiter on.
constexpr uint32_t BITS_AFTER_ACK_SLOT = 1 + 7 + 3;
// The longest receive() wait, so a deadline never overflows the clock.
constexpr Nanos LONGEST_WAIT = std::chrono::hours(24);

}  // namespace

struct VirtualCanChannel::Shared {
    explicit Shared(const VirtualCanOptions& options)
        : queue_limit(options.queue_limit),
          timing(options.timing),
          manual_clock(options.manual_clock),
          tx_queue_limit(options.tx_queue_limit),
          switch_bit_rate(options.timing && options.timing->data != 0 && options.bit_rate_switch),
          bit_error_rate(options.bit_error_rate),
          rng(options.seed),
          origin(SteadyClock::now()) {}

    struct Babbler {
        CanFrame frame;
        Nanos gap{0};
        Nanos next_ready{0};
    };
    struct Transmission {
        enum class Outcome : uint8_t { ok, bit_error, ack_error };
        Endpoint* source = nullptr;  // nullptr: the babbler, or an endpoint closed meanwhile
        bool babbled = false;
        CanFrame frame;
        Nanos end{0};
        Nanos busy{0};
        Outcome outcome = Outcome::ok;
    };

    const std::size_t queue_limit;
    const std::optional<CanBitRates> timing;
    const bool manual_clock;
    const std::size_t tx_queue_limit;
    const bool switch_bit_rate;

    std::mutex mutex;  // guards everything below and every endpoint's inbox and controller
    std::vector<Endpoint*> endpoints;
    CanLinkState state = CanLinkState::active;
    uint64_t carried = 0;
    uint64_t dropped = 0;

    // The bus, with timing.
    double bit_error_rate;
    std::mt19937 rng;
    const SteadyClock::time_point origin;
    Nanos manual_now{0};
    std::optional<Transmission> in_flight;
    Nanos free_at{0};  // when the bus last became idle
    std::optional<Babbler> babbler;
    VirtualCanBusStats stats;

    Nanos now() const {
        return manual_clock ? manual_now : std::chrono::duration_cast<Nanos>(SteadyClock::now() - origin);
    }
    Nanos nominal_bits(uint32_t bits) const { return can_bits_duration({bits, 0, 0}, *timing); }

    void pump(Nanos now);
    std::optional<Nanos> next_event() const;

private:
    bool start_next(Nanos now);
    void retry_alone(Endpoint& endpoint, Nanos now);
    void finish(const Transmission& tx);
    void recover_while_idle(Nanos until);
    bool acknowledged(const Endpoint* source) const;
    Transmission::Outcome draw_outcome(const CanFrameBits& bits, bool acked, uint32_t& error_bit);
    void wake_everyone();
};

class VirtualCanChannel::Endpoint : public CanLink {
public:
    Endpoint(std::shared_ptr<Shared> shared, bool fd) : shared_(std::move(shared)), fd_(fd) {
        std::lock_guard<std::mutex> lock(shared_->mutex);
        shared_->endpoints.push_back(this);
    }

    ~Endpoint() override {
        std::lock_guard<std::mutex> lock(shared_->mutex);
        auto& endpoints = shared_->endpoints;
        endpoints.erase(std::remove(endpoints.begin(), endpoints.end(), this), endpoints.end());
        if (shared_->in_flight && shared_->in_flight->source == this) shared_->in_flight->source = nullptr;
    }

    bool fd() const override { return fd_; }

    SendResult send_frame(const CanFrame& frame) override { return send(frame, false); }
    // Like a controller's high-priority transmit buffer: ahead of every frame
    // waiting in this endpoint's queue (behind the one on the bus now).
    SendResult send_urgent_frame(const CanFrame& frame) override { return send(frame, true); }

    SendResult send(const CanFrame& frame, bool urgent) {
        if ((frame.fd && !fd_) || !is_valid_frame_length(frame.len, frame.fd)) return SendResult::failed;
        std::lock_guard<std::mutex> lock(shared_->mutex);
        if (!carries_traffic(shared_->state)) return SendResult::failed;
        if (shared_->timing) return queue_for_bus(frame, urgent);
        ++shared_->carried;
        for (Endpoint* other : shared_->endpoints) {
            if (other != this) other->deliver(frame);
        }
        return SendResult::sent;
    }

    CanLinkEvent receive(std::chrono::nanoseconds timeout) override {
        std::unique_lock<std::mutex> lock(shared_->mutex);
        const auto deadline = SteadyClock::now() + std::min(std::max(timeout, Nanos{0}), LONGEST_WAIT);
        const bool clocked = shared_->timing && !shared_->manual_clock;
        for (;;) {
            if (clocked) shared_->pump(shared_->now());
            if (woken_ || !inbox_.empty()) break;
            const auto now = SteadyClock::now();
            if (now >= deadline) break;
            auto wake_at = deadline;
            if (clocked) {
                if (const auto event = shared_->next_event()) wake_at = std::min(wake_at, shared_->origin + *event);
            }
            arrived_.wait_until(lock, wake_at);
        }
        if (woken_ || inbox_.empty()) {
            woken_ = false;
            return {};
        }
        CanLinkEvent event = std::move(inbox_.front());
        inbox_.pop_front();
        return event;
    }

    void wake() override {
        std::lock_guard<std::mutex> lock(shared_->mutex);
        woken_ = true;
        arrived_.notify_all();
    }

    // The rest is called with the channel's lock held.

    void push(CanLinkEvent event) {
        inbox_.push_back(std::move(event));
        arrived_.notify_all();
    }
    void notify() { arrived_.notify_all(); }

    // Hands a frame from the bus to this endpoint's owner.
    void deliver(const CanFrame& frame) {
        if (frame.fd && !fd_) return;
        if (inbox_.size() >= shared_->queue_limit) {
            ++shared_->dropped;
            return;
        }
        CanLinkEvent event;
        event.type = CanLinkEvent::Type::frame;
        event.frame = frame;
        push(std::move(event));
    }

    // The controller's state follows its error counters.
    void update_controller_state() {
        CanLinkState state = CanLinkState::active;
        if (bus_off_) {
            state = CanLinkState::bus_off;
        } else if (controller_.transmit_errors >= ERROR_PASSIVE_LIMIT || controller_.receive_errors >= ERROR_PASSIVE_LIMIT) {
            state = CanLinkState::error_passive;
        } else if (controller_.transmit_errors >= ERROR_WARNING_LIMIT || controller_.receive_errors >= ERROR_WARNING_LIMIT) {
            state = CanLinkState::error_warning;
        }
        if (state == controller_.state) return;
        controller_.state = state;
        CanLinkEvent event;
        event.type = CanLinkEvent::Type::state;
        event.state = state;
        push(std::move(event));
    }

    void transmitted_ok() {
        if (controller_.transmit_errors > 0) --controller_.transmit_errors;
        update_controller_state();
    }
    void received_ok() {
        if (controller_.receive_errors > ERROR_PASSIVE_LIMIT - 1) {
            controller_.receive_errors = REC_AFTER_PASSIVE;
        } else if (controller_.receive_errors > 0) {
            --controller_.receive_errors;
        }
        update_controller_state();
    }
    void receive_error() {
        controller_.receive_errors = std::min(controller_.receive_errors + 1, 255);
        update_controller_state();
    }
    // Returns how many queued frames were thrown away on going bus-off.
    std::size_t transmit_error(bool ack_error) {
        // A passive transmitter that saw no acknowledgement does not count it:
        // alone on a bus it would otherwise always end in bus-off.
        if (!(ack_error && controller_.state == CanLinkState::error_passive)) controller_.transmit_errors += 8;
        std::size_t thrown = 0;
        if (controller_.transmit_errors > BUS_OFF_LIMIT) {
            bus_off_ = true;
            recessive_sequences_ = 0;
            thrown = tx_queue_.size();
            tx_queue_.clear();
        }
        update_controller_state();
        return thrown;
    }
    void saw_recessive_sequences(int64_t count) {
        if (!bus_off_) return;
        recessive_sequences_ += count;
        if (recessive_sequences_ < BUS_OFF_RECOVERY_SEQUENCES) return;
        bus_off_ = false;
        controller_.transmit_errors = 0;
        controller_.receive_errors = 0;
        update_controller_state();
    }
    int64_t recessive_sequences_needed() const { return BUS_OFF_RECOVERY_SEQUENCES - recessive_sequences_; }

    bool bus_off() const { return bus_off_; }
    bool on_bus() const { return !bus_off_ && !unplugged_; }
    bool unplugged() const { return unplugged_; }
    void set_unplugged(bool unplugged, Nanos now) {
        unplugged_ = unplugged;
        alone_free_at_ = now;
    }
    // When the unplugged controller's next attempt on its own wire starts.
    Nanos alone_free_at() const { return alone_free_at_; }
    void set_alone_free_at(Nanos at) { alone_free_at_ = at; }
    const CanControllerStatus& controller() const { return controller_; }

    struct Waiting {
        CanFrame frame;
        Nanos queued{0};
    };
    std::deque<Waiting>& tx_queue() { return tx_queue_; }
    const std::deque<Waiting>& tx_queue() const { return tx_queue_; }

private:
    SendResult queue_for_bus(const CanFrame& frame, bool urgent) {
        const Nanos now = shared_->now();
        if (!shared_->manual_clock) shared_->pump(now);
        if (bus_off_) return SendResult::failed;
        if (!urgent && tx_queue_.size() >= shared_->tx_queue_limit) return SendResult::busy;
        // The head may be on the bus now; an urgent frame goes right behind it.
        const bool head_on_bus = shared_->in_flight && shared_->in_flight->source == this;
        const auto at = urgent ? tx_queue_.begin() + (head_on_bus && !tx_queue_.empty() ? 1 : 0) : tx_queue_.end();
        Waiting& waiting = *tx_queue_.insert(at, {frame, now});
        if (shared_->switch_bit_rate && frame.fd) waiting.frame.brs = true;
        shared_->pump(now);
        return SendResult::sent;
    }

    const std::shared_ptr<Shared> shared_;
    const bool fd_;
    std::condition_variable arrived_;
    can::RingQueue<CanLinkEvent> inbox_;  // keeps its storage: a frame in or out allocates nothing
    bool woken_ = false;

    // The controller, with timing.
    std::deque<Waiting> tx_queue_;
    CanControllerStatus controller_;
    bool bus_off_ = false;
    bool unplugged_ = false;
    Nanos alone_free_at_{0};
    int64_t recessive_sequences_ = 0;
};

// --- the timed bus ---------------------------------------------------------

void VirtualCanChannel::Shared::pump(Nanos now) {
    for (Endpoint* endpoint : endpoints) {
        if (endpoint->unplugged()) retry_alone(*endpoint, now);
    }
    for (;;) {
        if (in_flight) {
            if (in_flight->end > now) return;
            const Transmission done = *in_flight;
            in_flight.reset();
            finish(done);
            continue;
        }
        if (!start_next(now)) return;
    }
}

bool VirtualCanChannel::Shared::start_next(Nanos now) {
    // Who has a frame ready, and from when: a frame queued while the bus was
    // busy is ready the moment it becomes free.
    Nanos start = Nanos::max();
    for (Endpoint* endpoint : endpoints) {
        if (!endpoint->on_bus() || endpoint->tx_queue().empty()) continue;
        start = std::min(start, std::max(endpoint->tx_queue().front().queued, free_at));
    }
    if (babbler) start = std::min(start, std::max(babbler->next_ready, free_at));
    if (start > now) {
        recover_while_idle(now);
        return false;
    }
    recover_while_idle(start);

    // Arbitration among all that are ready at `start`: the lowest key wins.
    Endpoint* winner = nullptr;
    bool babbler_wins = false;
    uint64_t best = UINT64_MAX;
    uint64_t contenders = 0;
    for (Endpoint* endpoint : endpoints) {
        if (!endpoint->on_bus() || endpoint->tx_queue().empty()) continue;
        const auto& head = endpoint->tx_queue().front();
        if (std::max(head.queued, free_at) > start) continue;
        ++contenders;
        const uint64_t key = can_arbitration_key(head.frame);
        if (key < best) {
            best = key;
            winner = endpoint;
        }
    }
    if (babbler && std::max(babbler->next_ready, free_at) <= start) {
        ++contenders;
        if (can_arbitration_key(babbler->frame) < best) {
            winner = nullptr;
            babbler_wins = true;
        }
    }
    stats.arbitration_losses += contenders - 1;

    Transmission tx;
    tx.source = winner;
    tx.babbled = babbler_wins;
    tx.frame = babbler_wins ? babbler->frame : winner->tx_queue().front().frame;
    const CanFrameBits bits = can_frame_bits(tx.frame);
    const Nanos whole = can_bits_duration(bits, *timing);
    uint32_t error_bit = 0;
    tx.outcome = draw_outcome(bits, acknowledged(winner), error_bit);
    if (tx.outcome == Transmission::Outcome::ok) {
        tx.busy = whole;
    } else {
        // The frame up to the bit where it failed, then the error frame.
        tx.busy = Nanos(whole.count() * error_bit / bits.total()) + nominal_bits(ERROR_FRAME_BITS);
    }
    tx.end = start + tx.busy;
    in_flight = tx;
    wake_everyone();  // waiting owners learn the bus's next event
    return true;
}

// An unplugged controller sends on a wire of its own: every attempt ends in an
// ACK error, and it retries until it is plugged in again. The shared bus sees
// none of it.
void VirtualCanChannel::Shared::retry_alone(Endpoint& endpoint, Nanos now) {
    if (endpoint.bus_off() || endpoint.tx_queue().empty()) return;
    const auto& head = endpoint.tx_queue().front();
    const CanFrameBits bits = can_frame_bits(head.frame);
    const Nanos whole = can_bits_duration(bits, *timing);
    const Nanos attempt = Nanos(whole.count() * (bits.total() - BITS_AFTER_ACK_SLOT) / bits.total()) +
                          nominal_bits(ERROR_FRAME_BITS);
    Nanos at = std::max(endpoint.alone_free_at(), head.queued);
    while (at + attempt <= now) {
        if (endpoint.controller().state == CanLinkState::error_passive) {
            // Passive: ACK errors no longer count; only time passes.
            at += attempt * ((now - at) / attempt);
            break;
        }
        at += attempt;
        stats.tx_dropped += endpoint.transmit_error(true);
        if (endpoint.bus_off()) break;
    }
    endpoint.set_alone_free_at(at);
}

bool VirtualCanChannel::Shared::acknowledged(const Endpoint* source) const {
    if (source != nullptr && babbler) return true;  // the babbling node acknowledges too
    return std::any_of(endpoints.begin(), endpoints.end(),
                       [source](const Endpoint* other) { return other != source && other->on_bus(); });
}

VirtualCanChannel::Shared::Transmission::Outcome VirtualCanChannel::Shared::draw_outcome(const CanFrameBits& bits,
                                                                                          bool acked,
                                                                                          uint32_t& error_bit) {
    const uint32_t total = bits.total();
    if (bit_error_rate > 0.0) {
        const double frame_error = 1.0 - std::pow(1.0 - bit_error_rate, static_cast<double>(total));
        if (std::uniform_real_distribution<double>(0.0, 1.0)(rng) < frame_error) {
            error_bit = std::uniform_int_distribution<uint32_t>(0, total - BITS_AFTER_ACK_SLOT - 1)(rng);
            return Transmission::Outcome::bit_error;
        }
    }
    if (!acked) {
        error_bit = total - BITS_AFTER_ACK_SLOT;
        return Transmission::Outcome::ack_error;
    }
    return Transmission::Outcome::ok;
}

void VirtualCanChannel::Shared::finish(const Transmission& tx) {
    stats.busy += tx.busy;
    // Every frame and every error frame ends in 11 recessive bits, which is
    // what a node in bus-off counts towards its recovery.
    for (Endpoint* endpoint : endpoints) endpoint->saw_recessive_sequences(1);
    if (tx.outcome == Transmission::Outcome::ok) {
        ++stats.frames;
        ++carried;
        if (tx.babbled) {
            ++stats.babbled_frames;
            if (babbler) babbler->next_ready = tx.end + babbler->gap;
        } else if (tx.source != nullptr) {
            tx.source->tx_queue().pop_front();
            tx.source->transmitted_ok();
        }
        for (Endpoint* endpoint : endpoints) {
            if (endpoint == tx.source || !endpoint->on_bus()) continue;
            endpoint->deliver(tx.frame);
            endpoint->received_ok();
        }
    } else {
        ++stats.error_frames;
        ++stats.retransmissions;  // the frame stays first in its queue and goes again
        const bool ack_error = tx.outcome == Transmission::Outcome::ack_error;
        if (tx.source != nullptr) stats.tx_dropped += tx.source->transmit_error(ack_error);
        if (tx.babbled && babbler) babbler->next_ready = tx.end;
        if (!ack_error) {
            for (Endpoint* endpoint : endpoints) {
                if (endpoint != tx.source && endpoint->on_bus()) endpoint->receive_error();
            }
        }
    }
    free_at = tx.end;
}

void VirtualCanChannel::Shared::recover_while_idle(Nanos until) {
    if (until <= free_at) return;
    const int64_t sequences = (until - free_at) / nominal_bits(RECESSIVE_SEQUENCE_BITS);
    if (sequences == 0) return;
    for (Endpoint* endpoint : endpoints) {
        if (endpoint->bus_off()) endpoint->saw_recessive_sequences(sequences);
    }
    // Counted once: the idle stretch counts from here on.
    free_at += sequences * nominal_bits(RECESSIVE_SEQUENCE_BITS);
}

std::optional<Nanos> VirtualCanChannel::Shared::next_event() const {
    if (in_flight) return in_flight->end;
    std::optional<Nanos> next;
    auto consider = [&next](Nanos at) { next = next ? std::min(*next, at) : at; };
    if (babbler) consider(std::max(babbler->next_ready, free_at));
    for (const Endpoint* endpoint : endpoints) {
        if (endpoint->unplugged() && !endpoint->tx_queue().empty() &&
            endpoint->controller().state != CanLinkState::error_passive)
            consider(std::max(endpoint->alone_free_at(), endpoint->tx_queue().front().queued));
        if (endpoint->bus_off())
            consider(free_at + endpoint->recessive_sequences_needed() * nominal_bits(RECESSIVE_SEQUENCE_BITS));
    }
    return next;
}

void VirtualCanChannel::Shared::wake_everyone() {
    if (manual_clock) return;
    for (Endpoint* endpoint : endpoints) endpoint->notify();
}

// --- the channel ---------------------------------------------------------------

VirtualCanChannel::VirtualCanChannel(std::size_t queue_limit)
    : VirtualCanChannel([queue_limit] {
          VirtualCanOptions options;
          options.queue_limit = queue_limit;
          return options;
      }()) {}

VirtualCanChannel::VirtualCanChannel(const VirtualCanOptions& options) {
    if (options.timing) validate(*options.timing);
    if (!(options.bit_error_rate >= 0.0 && options.bit_error_rate <= 1.0))
        throw std::invalid_argument("bit error rate must be 0..1");
    if (options.tx_queue_limit == 0) throw std::invalid_argument("transmit queue limit must be at least 1");
    shared_ = std::make_shared<Shared>(options);
}

VirtualCanChannel::~VirtualCanChannel() = default;

std::unique_ptr<CanLink> VirtualCanChannel::open(bool fd) { return std::make_unique<Endpoint>(shared_, fd); }

void VirtualCanChannel::set_state(CanLinkState state) {
    std::lock_guard<std::mutex> lock(shared_->mutex);
    if (shared_->state == state) return;
    shared_->state = state;
    for (Endpoint* endpoint : shared_->endpoints) {
        CanLinkEvent event;
        event.type = CanLinkEvent::Type::state;
        event.state = state;
        endpoint->push(std::move(event));
    }
}

uint64_t VirtualCanChannel::frames_carried() const {
    std::lock_guard<std::mutex> lock(shared_->mutex);
    return shared_->carried;
}

uint64_t VirtualCanChannel::frames_dropped() const {
    std::lock_guard<std::mutex> lock(shared_->mutex);
    return shared_->dropped;
}

namespace {
void require_timing(bool timed) {
    if (!timed) throw std::logic_error("the virtual CAN channel has no timing");
}
}  // namespace

bool VirtualCanChannel::timed() const { return shared_->timing.has_value(); }

std::chrono::nanoseconds VirtualCanChannel::now() const {
    require_timing(timed());
    std::lock_guard<std::mutex> lock(shared_->mutex);
    return shared_->now();
}

void VirtualCanChannel::advance(std::chrono::nanoseconds step) {
    require_timing(timed());
    if (!shared_->manual_clock) throw std::logic_error("advance() needs the channel's manual clock");
    std::lock_guard<std::mutex> lock(shared_->mutex);
    shared_->manual_now += std::max(step, Nanos{0});
    shared_->pump(shared_->manual_now);
}

VirtualCanBusStats VirtualCanChannel::bus_stats() const {
    require_timing(timed());
    std::lock_guard<std::mutex> lock(shared_->mutex);
    const Nanos now = shared_->now();
    if (!shared_->manual_clock) shared_->pump(now);
    VirtualCanBusStats stats = shared_->stats;
    stats.elapsed = now;
    return stats;
}

CanControllerStatus VirtualCanChannel::controller(const CanLink& endpoint) const {
    require_timing(timed());
    std::lock_guard<std::mutex> lock(shared_->mutex);
    if (!shared_->manual_clock) shared_->pump(shared_->now());
    for (const Endpoint* e : shared_->endpoints) {
        if (e == &endpoint) return e->controller();
    }
    throw std::invalid_argument("not an endpoint of this channel");
}

void VirtualCanChannel::unplug(const CanLink& endpoint, bool unplugged) {
    require_timing(timed());
    std::lock_guard<std::mutex> lock(shared_->mutex);
    const Nanos now = shared_->now();
    if (!shared_->manual_clock) shared_->pump(now);
    for (Endpoint* e : shared_->endpoints) {
        if (e == &endpoint) {
            e->set_unplugged(unplugged, now);
            return;
        }
    }
    throw std::invalid_argument("not an endpoint of this channel");
}

void VirtualCanChannel::set_bit_error_rate(double rate) {
    require_timing(timed());
    if (!(rate >= 0.0 && rate <= 1.0)) throw std::invalid_argument("bit error rate must be 0..1");
    std::lock_guard<std::mutex> lock(shared_->mutex);
    shared_->bit_error_rate = rate;
}

void VirtualCanChannel::start_babbling(const CanFrame& frame, std::chrono::nanoseconds gap) {
    require_timing(timed());
    if (!is_valid_frame_length(frame.len, frame.fd)) throw std::invalid_argument("invalid frame length");
    std::lock_guard<std::mutex> lock(shared_->mutex);
    const Nanos now = shared_->now();
    if (!shared_->manual_clock) shared_->pump(now);
    shared_->babbler = Shared::Babbler{frame, std::max(gap, Nanos{0}), now};
    shared_->pump(now);
}

void VirtualCanChannel::stop_babbling() {
    require_timing(timed());
    std::lock_guard<std::mutex> lock(shared_->mutex);
    if (!shared_->manual_clock) shared_->pump(shared_->now());
    shared_->babbler.reset();
}

}  // namespace ocp_api
