// The host side of the CAN mapping over any CanLink: one receive thread
// reassembles replies, paces segmented commands and runs the callbacks.
#include "ocp_api/can_bus.hpp"

#include <algorithm>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "can/can_node.hpp"
#include "ocp_api/callback_registry.hpp"
#include "emulation/adapter.hpp"
#include "ocp_api/codec.hpp"
#include "ocp_api/wire.hpp"

namespace ocp_api {

namespace {

using Clock = can::IsoTpClock;

// With nothing due the receive thread still wakes this often; wake() cuts any
// wait short, so this only bounds how stale a missed wake could leave it.
constexpr std::chrono::milliseconds IDLE_WAIT{200};

bool stops_traffic(CanLinkState state) { return state == CanLinkState::bus_off || state == CanLinkState::down; }

bool is_error_state(CanLinkState state) { return state != CanLinkState::active; }

can::MessageClass message_class_of(const std::vector<uint8_t>& frame) {
    if (frame.empty()) return can::MessageClass::ordinary;
    switch (codec::command_class(frame[0])) {
    case wire::CommandClass::safety:
        return can::MessageClass::safety;
    case wire::CommandClass::motion:
        return can::MessageClass::motion;
    case wire::CommandClass::setpoint:
        return can::MessageClass::setpoint;
    case wire::CommandClass::ordinary:
        break;
    }
    return can::MessageClass::ordinary;
}

}  // namespace

// Everything the bus keeps lives here, so the public header needs neither
// the segmentation nor the node: both are internals of the CAN mapping.
class CanBus::Impl {
public:
    Impl(std::unique_ptr<CanLink> link, CanBusOptions options);
    ~Impl();

    bool send(int address, const std::vector<uint8_t>& frame);
    void setCallback(int address, ReceiveCallback callback);
    void removeCallback(int address);
    void close();
    void set_state_callback(StateCallback callback);
    CanLinkState link_state() const;
    CanBusCounters counters() const;
    bool fd() const { return options_.isotp.fd; }

private:
    void run();
    std::shared_ptr<StateCallback> note_state(CanLinkState state);
    void transmit(const std::vector<CanFrame>& frames);
    bool transmit_one(const CanFrame& frame, bool urgent = false);
    bool answer_locally(int address, const std::vector<uint8_t>& frame);
    std::chrono::nanoseconds time_until_deadline() const;
    void deliver(std::vector<can::ReceivedMessage>& messages);

    const CanBusOptions options_;
    const std::unique_ptr<CanLink> link_;
    CallbackRegistry callbacks_;

    mutable std::mutex mutex_;  // guards everything below; frames are sent under it, in order
    can::Node node_;
    std::vector<CanFrame> send_frames_;  // reused by send(), so a command allocates nothing
    std::deque<can::ReceivedMessage> local_replies_;  // the adapter's answers, for the receive thread
    CanBusCounters counters_;
    CanLinkState state_ = CanLinkState::active;
    std::shared_ptr<StateCallback> state_callback_;
    bool closed_ = false;
    bool stopping_ = false;

    std::thread receiver_;  // last: starts after everything above exists
};

CanBus::Impl::Impl(std::unique_ptr<CanLink> link, CanBusOptions options)
    : options_(options),
      link_(link ? std::move(link) : throw std::invalid_argument("CanBus needs a CAN link")),
      node_(can::Role::host, options.isotp) {
    if (options_.isotp.fd && !link_->fd()) throw std::invalid_argument("CAN-FD asked of a link that carries only classic CAN");
    receiver_ = std::thread([this] { run(); });
}

CanBus::Impl::~Impl() {
    close();
    if (receiver_.joinable()) receiver_.join();
}

bool CanBus::Impl::send(int address, const std::vector<uint8_t>& frame) {
    if (address == wire::ADAPTER_ADDRESS) return answer_locally(address, frame);
    std::lock_guard<std::mutex> lock(mutex_);
    if (closed_ || stops_traffic(state_)) return false;
    // Frames go to the link under the lock, as they are produced: a STOP's
    // single frame is the next one the link gets.
    send_frames_.clear();
    const can::MessageClass message_class = message_class_of(frame);
    const bool queued = node_.send_at_once(address, 0, frame.data(), frame.size(), send_frames_) ||
                        node_.queue(address, 0, frame.data(), frame.size(), message_class, Clock::now(), send_frames_);
    // A STOP's single frame comes first out of the node; it also goes ahead of
    // whatever the link itself still holds.
    bool handed_over = true;
    for (std::size_t i = 0; i < send_frames_.size(); ++i)
        handed_over &= transmit_one(send_frames_[i], i == 0 && message_class == can::MessageClass::safety);
    // A segmented command now waits for flow control: the receive thread must
    // see its new deadline.
    if (node_.deadline()) link_->wake();
    return queued && handed_over;
}

// The adapter at address 0 is this transport itself: it answers a PING with
// its own reply, delivered on the receive thread like any other.
bool CanBus::Impl::answer_locally(int address, const std::vector<uint8_t>& frame) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (closed_) return false;
    if (auto answer = detail::adapter_answer(frame)) {
        local_replies_.push_back({address, wire::REPLY_STREAMED, std::move(*answer)});
        link_->wake();
    }
    return true;
}

void CanBus::Impl::setCallback(int address, ReceiveCallback callback) { callbacks_.set(address, std::move(callback)); }

void CanBus::Impl::removeCallback(int address) { callbacks_.remove(address); }

void CanBus::Impl::close() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (closed_) return;
        closed_ = true;
        stopping_ = true;
    }
    link_->wake();
    // From inside a callback the thread cannot wait for itself: it leaves its
    // loop when the callback returns, and the destructor joins it.
    if (receiver_.joinable() && receiver_.get_id() != std::this_thread::get_id()) receiver_.join();
}

void CanBus::Impl::set_state_callback(StateCallback callback) {
    auto shared = callback ? std::make_shared<StateCallback>(std::move(callback)) : nullptr;
    std::lock_guard<std::mutex> lock(mutex_);
    state_callback_ = std::move(shared);
}

CanLinkState CanBus::Impl::link_state() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return state_;
}

CanBusCounters CanBus::Impl::counters() const {
    std::lock_guard<std::mutex> lock(mutex_);
    CanBusCounters counters = counters_;
    const can::NodeCounters node = node_.counters();
    counters.frames_in = node.frames_in;
    counters.foreign_frames = node.foreign_frames;
    counters.messages_in = node.isotp.messages_in;
    counters.messages_out = node.isotp.messages_out;
    counters.segmentation_errors = node.isotp.segmentation_errors;
    counters.timeouts = node.isotp.timeouts;
    counters.drops += node.isotp.dropped;
    counters.callback_errors = callbacks_.callback_errors();
    counters.superseded = node.isotp.superseded;
    counters.expired = node.isotp.expired;
    counters.cancelled = node.isotp.cancelled;
    counters.preempted = node.isotp.preempted;
    counters.queue_full = node.isotp.queue_full;
    counters.receptions_refused = node.isotp.receptions_refused;
    counters.receptions_evicted = node.isotp.receptions_evicted;
    return counters;
}

// Called with the lock held. A frame the adapter still cannot take after a
// short retry is dropped (its message is then incomplete, and the device
// drops it on its time-out).
bool CanBus::Impl::transmit_one(const CanFrame& frame, bool urgent) {
    switch (send_frame_retrying(*link_, frame, options_.busy_retry, urgent)) {
    case CanLink::SendResult::sent:
        ++counters_.frames_out;
        return true;
    case CanLink::SendResult::failed:
        ++counters_.link_errors;
        return false;
    case CanLink::SendResult::busy:
        ++counters_.drops;
        return false;
    }
    return false;
}

void CanBus::Impl::transmit(const std::vector<CanFrame>& frames) {
    for (const CanFrame& frame : frames) transmit_one(frame);
}

// Called with the lock held: how long the next wait on the link may last. A
// deadline set after this (a segmented send) comes with a wake().
std::chrono::nanoseconds CanBus::Impl::time_until_deadline() const {
    const std::optional<can::IsoTpTime> deadline = node_.deadline();
    if (!deadline) return IDLE_WAIT;
    return std::clamp<std::chrono::nanoseconds>(*deadline - Clock::now(), std::chrono::nanoseconds(0), IDLE_WAIT);
}

// Called with the lock held; returns the state callback to run, if any.
std::shared_ptr<CanBus::StateCallback> CanBus::Impl::note_state(CanLinkState state) {
    if (state == state_) return nullptr;
    if (stops_traffic(state_) && !stops_traffic(state)) ++counters_.restarts;
    if (is_error_state(state)) ++counters_.link_errors;
    // Half-sent commands cannot finish across bus-off or a downed interface.
    if (stops_traffic(state)) node_.abandon_sending();
    state_ = state;
    return state_callback_;
}

void CanBus::Impl::run() {
    std::vector<can::ReceivedMessage> messages;
    std::vector<CanFrame> out;
    std::chrono::nanoseconds timeout = IDLE_WAIT;
    for (;;) {
        const CanLinkEvent event = link_->receive(timeout);
        std::shared_ptr<StateCallback> state_callback;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (stopping_) return;
            const auto now = Clock::now();
            if (event.type == CanLinkEvent::Type::frame) node_.on_frame(event.frame, now, out, messages);
            if (event.type == CanLinkEvent::Type::state) state_callback = note_state(event.state);
            node_.on_time(now, out);
            transmit(out);
            out.clear();
            while (!local_replies_.empty()) {
                messages.push_back(std::move(local_replies_.front()));
                local_replies_.pop_front();
            }
            timeout = time_until_deadline();
        }
        // Callbacks run without the bus's lock: they may send, and the
        // registry keeps its own promise about removal.
        if (state_callback) (*state_callback)(event.state);
        deliver(messages);
        messages.clear();
    }
}

void CanBus::Impl::deliver(std::vector<can::ReceivedMessage>& messages) {
    uint64_t unclaimed = 0;
    for (auto& message : messages)
        unclaimed += !callbacks_.dispatch(message.address, std::move(message.bytes), message.kind);
    if (unclaimed == 0) return;
    std::lock_guard<std::mutex> lock(mutex_);
    counters_.replies_unclaimed += unclaimed;
}

// ---------------------------------------------------------------- the public face

CanBus::CanBus(std::unique_ptr<CanLink> link, CanBusOptions options)
    : impl_(std::make_unique<Impl>(std::move(link), options)) {}

CanBus::~CanBus() = default;

bool CanBus::send(int address, const std::vector<uint8_t>& frame) { return impl_->send(address, frame); }
void CanBus::setCallback(int address, ReceiveCallback callback) { impl_->setCallback(address, std::move(callback)); }
void CanBus::removeCallback(int address) { impl_->removeCallback(address); }
void CanBus::close() { impl_->close(); }
void CanBus::set_state_callback(StateCallback callback) { impl_->set_state_callback(std::move(callback)); }
CanLinkState CanBus::link_state() const { return impl_->link_state(); }
CanBusCounters CanBus::counters() const { return impl_->counters(); }
bool CanBus::fd() const { return impl_->fd(); }

}  // namespace ocp_api
