// Emulated devices answering on a CAN link: the device side of the mapping,
// with the devices' physics kept in step with the wall clock.
#include "ocp_api/can_device_host.hpp"

#include <algorithm>
#include <deque>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "can/can_node.hpp"
#include "emulation/device_roster.hpp"

namespace ocp_api {

namespace {

using Clock = can::IsoTpClock;

// Without anything due the thread still wakes this often to keep the devices'
// physics close to the wall clock.
constexpr std::chrono::milliseconds IDLE_WAKE_PERIOD{20};
constexpr std::chrono::microseconds MAX_REPLY_LATENCY = std::chrono::seconds(1);

const CanDeviceHostOptions& validated(const CanDeviceHostOptions& options) {
    if (!detail::DeviceClock::is_valid_time_scale(options.time_scale)) {
        std::ostringstream text;
        text << "CanDeviceHost time_scale must be between 1e-06 and 1000 (simulated seconds per wall second), not "
             << options.time_scale;
        throw std::invalid_argument(text.str());
    }
    if (options.reply_latency.count() < 0 || options.reply_latency > MAX_REPLY_LATENCY)
        throw std::invalid_argument("CanDeviceHost reply_latency must be 0..1 s");
    return options;
}

}  // namespace

// Everything the host keeps lives here, so the public header needs neither
// the segmentation nor the node. The devices' controls reach the host through
// this object (their owner), which outlives them.
class CanDeviceHost::Impl : private detail::EmulatedDeviceOwner {
public:
    Impl(std::unique_ptr<CanLink> link, CanDeviceHostOptions options);
    ~Impl() override;

    EmulatedActuator& add_actuator(int address, uint16_t model_code, uint16_t firmware_word);
    void remove_actuator(int address);
    EmulatedActuator& actuator(int address);
    std::size_t actuator_count() const;
    void set_command_observer(CommandObserver observer);
    CanDeviceHostCounters counters() const;
    void close();

private:
    std::mutex& device_mutex() override { return mutex_; }
    int64_t device_step() const override;
    void emit_replies(detail::DeviceReplies& replies) override;

    void run();
    bool advance_devices(can::IsoTpTime now, std::vector<CanFrame>& out);
    void handle_command(const can::ReceivedMessage& message, can::IsoTpTime now, std::vector<CanFrame>& out);
    void queue_replies(detail::DeviceReplies& replies, can::IsoTpTime now, std::vector<CanFrame>& out);
    void release_due_answers(can::IsoTpTime now, std::vector<CanFrame>& out);
    void transmit(const std::vector<CanFrame>& frames);
    can::IsoTpTime next_wake(can::IsoTpTime now) const;

    const CanDeviceHostOptions options_;
    const std::unique_ptr<CanLink> link_;

    mutable std::mutex mutex_;  // guards everything below; frames are sent under it, in order
    const std::unique_ptr<detail::DeviceRoster> devices_;
    can::Node node_;
    // Answers to commands, held back until their reply latency has passed.
    struct DelayedAnswer {
        can::IsoTpTime due;
        detail::DeviceReplies replies;
    };
    std::deque<DelayedAnswer> delayed_answers_;  // in order of `due`
    std::shared_ptr<CommandObserver> observer_;
    CanDeviceHostCounters counters_;
    bool stopping_ = false;

    std::thread worker_;  // last: starts after everything above exists
};

CanDeviceHost::Impl::Impl(std::unique_ptr<CanLink> link, CanDeviceHostOptions options)
    : options_(validated(options)),
      link_(link ? std::move(link) : throw std::invalid_argument("CanDeviceHost needs a CAN link")),
      devices_(std::make_unique<detail::DeviceRoster>(Clock::now(), options.time_scale)),
      // Frames go only to devices that would answer now: a silent device,
      // one in its boot loader or one restarting sends no flow control either.
      node_(can::Role::device, options.isotp, [this](int address) {
          const detail::EmulatedDevice* device = devices_->device(address);
          return device != nullptr && device->answering(devices_->steps_done());
      }) {
    if (options_.isotp.fd && !link_->fd())
        throw std::invalid_argument("CAN-FD asked of a link that carries only classic CAN");
    worker_ = std::thread([this] { run(); });
}

CanDeviceHost::Impl::~Impl() {
    close();
    if (worker_.joinable()) worker_.join();
}

void CanDeviceHost::Impl::close() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_) return;
        stopping_ = true;
    }
    link_->wake();
    if (worker_.joinable() && worker_.get_id() != std::this_thread::get_id()) worker_.join();
}

EmulatedActuator& CanDeviceHost::Impl::add_actuator(int address, uint16_t model_code, uint16_t firmware_word) {
    std::lock_guard<std::mutex> lock(mutex_);
    return devices_->add(*this, address, model_code, firmware_word, "this CAN link", options_.enforce_limits);
}

void CanDeviceHost::Impl::remove_actuator(int address) {
    std::lock_guard<std::mutex> lock(mutex_);
    devices_->remove(address);
}

EmulatedActuator& CanDeviceHost::Impl::actuator(int address) {
    std::lock_guard<std::mutex> lock(mutex_);
    return devices_->actuator(address);
}

std::size_t CanDeviceHost::Impl::actuator_count() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return devices_->size();
}

int64_t CanDeviceHost::Impl::device_step() const { return devices_->steps_done(); }

void CanDeviceHost::Impl::set_command_observer(CommandObserver observer) {
    auto shared = observer ? std::make_shared<CommandObserver>(std::move(observer)) : nullptr;
    std::lock_guard<std::mutex> lock(mutex_);
    observer_ = std::move(shared);
}

CanDeviceHostCounters CanDeviceHost::Impl::counters() const {
    std::lock_guard<std::mutex> lock(mutex_);
    CanDeviceHostCounters counters = counters_;
    const can::NodeCounters node = node_.counters();
    counters.frames_in = node.frames_in;
    counters.foreign_frames = node.foreign_frames;
    counters.segmentation_errors = node.isotp.segmentation_errors;
    counters.timeouts = node.isotp.timeouts;
    counters.drops += node.isotp.dropped;
    return counters;
}

// Called with the lock held, by a device's control (an injected error).
void CanDeviceHost::Impl::emit_replies(detail::DeviceReplies& replies) {
    if (stopping_) return;  // a closed host sends nothing
    std::vector<CanFrame> out;
    queue_replies(replies, Clock::now(), out);
    transmit(out);
    link_->wake();  // a segmented reply now waits for flow control
}

void CanDeviceHost::Impl::queue_replies(detail::DeviceReplies& replies, can::IsoTpTime now,
                                        std::vector<CanFrame>& out) {
    for (auto& reply : replies) {
        if (node_.queue(reply.address, reply.kind, std::move(reply.bytes), now, out))
            ++counters_.replies_out;
        else
            ++counters_.drops;
    }
    replies.clear();
}

void CanDeviceHost::Impl::transmit(const std::vector<CanFrame>& frames) {
    for (const CanFrame& frame : frames) {
        switch (send_frame_retrying(*link_, frame, options_.busy_retry)) {
        case CanLink::SendResult::sent: ++counters_.frames_out; break;
        case CanLink::SendResult::failed: ++counters_.link_errors; break;
        case CanLink::SendResult::busy: ++counters_.drops; break;
        }
    }
}

// Returns true while the devices are still behind the wall clock.
bool CanDeviceHost::Impl::advance_devices(can::IsoTpTime now, std::vector<CanFrame>& out) {
    detail::DeviceReplies streamed;
    const bool behind = devices_->advance(now, streamed);
    queue_replies(streamed, now, out);
    return behind;
}

void CanDeviceHost::Impl::handle_command(const can::ReceivedMessage& message, can::IsoTpTime now,
                                         std::vector<CanFrame>& out) {
    detail::EmulatedDevice* device = devices_->device(message.address);
    if (device == nullptr) return;  // removed meanwhile
    ++counters_.commands_in;
    detail::DeviceReplies replies;
    device->handle_frame(message.bytes, devices_->steps_done(), replies);
    if (replies.empty()) return;
    if (options_.reply_latency.count() == 0) {
        queue_replies(replies, now, out);
        return;
    }
    delayed_answers_.push_back({now + options_.reply_latency, std::move(replies)});
}

void CanDeviceHost::Impl::release_due_answers(can::IsoTpTime now, std::vector<CanFrame>& out) {
    while (!delayed_answers_.empty() && delayed_answers_.front().due <= now) {
        queue_replies(delayed_answers_.front().replies, now, out);
        delayed_answers_.pop_front();
    }
}

can::IsoTpTime CanDeviceHost::Impl::next_wake(can::IsoTpTime now) const {
    can::IsoTpTime wake = now + IDLE_WAKE_PERIOD;
    if (const auto deadline = node_.deadline()) wake = std::min(wake, *deadline);
    if (!delayed_answers_.empty()) wake = std::min(wake, delayed_answers_.front().due);
    if (const auto tick = devices_->next_stream_time()) wake = std::min(wake, *tick);
    return wake;
}

void CanDeviceHost::Impl::run() {
    std::vector<can::ReceivedMessage> commands;
    std::vector<CanFrame> out;
    std::chrono::nanoseconds timeout{0};
    for (;;) {
        const CanLinkEvent event = link_->receive(timeout);
        std::shared_ptr<CommandObserver> observer;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (stopping_) return;
            const auto now = Clock::now();
            const bool behind = advance_devices(now, out);
            if (event.type == CanLinkEvent::Type::frame) node_.on_frame(event.frame, now, out, commands);
            for (const auto& command : commands) handle_command(command, now, out);
            release_due_answers(now, out);
            node_.on_time(now, out);
            transmit(out);
            out.clear();
            observer = observer_;
            // Behind the clock, the next pass comes at once; the lock is let
            // go in between, so the host's other methods are not held up.
            timeout = behind ? std::chrono::nanoseconds(0)
                             : std::max<std::chrono::nanoseconds>(next_wake(now) - Clock::now(), std::chrono::nanoseconds(0));
        }
        if (observer) {
            for (const auto& command : commands) (*observer)(command.address, command.bytes);
        }
        commands.clear();
    }
}

// ---------------------------------------------------------------- the public face

CanDeviceHost::CanDeviceHost(std::unique_ptr<CanLink> link, CanDeviceHostOptions options)
    : impl_(std::make_unique<Impl>(std::move(link), options)) {}

CanDeviceHost::~CanDeviceHost() = default;

EmulatedActuator& CanDeviceHost::add_actuator(int address, uint16_t model_code, uint16_t firmware_word) {
    return impl_->add_actuator(address, model_code, firmware_word);
}
void CanDeviceHost::remove_actuator(int address) { impl_->remove_actuator(address); }
EmulatedActuator& CanDeviceHost::actuator(int address) { return impl_->actuator(address); }
std::size_t CanDeviceHost::actuator_count() const { return impl_->actuator_count(); }
void CanDeviceHost::set_command_observer(CommandObserver observer) { impl_->set_command_observer(std::move(observer)); }
CanDeviceHostCounters CanDeviceHost::counters() const { return impl_->counters(); }
void CanDeviceHost::close() { impl_->close(); }

}  // namespace ocp_api
