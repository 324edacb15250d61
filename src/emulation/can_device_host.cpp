// Emulated devices answering on a CAN link: the device side of the mapping,
// with the devices' physics kept in step with the wall clock.
#include "ocp_api/can_device_host.hpp"

#include <algorithm>
#include <cmath>
#include <sstream>
#include <stdexcept>

#include "emulation/device_clock.hpp"
#include "emulation/emulated_device.hpp"
#include "ocp_api/wire.hpp"

namespace ocp_api {

namespace {

using Clock = can::IsoTpClock;

// Without anything due the thread still wakes this often to keep the devices'
// physics close to the wall clock.
constexpr std::chrono::milliseconds IDLE_WAKE_PERIOD{20};

std::string hex_address(int address) {
    std::ostringstream text;
    text << "0x" << std::hex << address;
    return text.str();
}

}  // namespace

CanDeviceHost::CanDeviceHost(std::unique_ptr<CanLink> link, CanDeviceHostOptions options)
    : options_(options),
      link_(link ? std::move(link) : throw std::invalid_argument("CanDeviceHost needs a CAN link")),
      clock_(std::make_unique<detail::DeviceClock>(Clock::now(), options.time_scale)),
      // Frames go only to devices that would answer now: a silent device,
      // one in its boot loader or one restarting sends no flow control either.
      node_(can::Role::device, options.isotp, [this](int address) {
          const EmulatedActuator* device = device_at(address);
          return device != nullptr && device->device_->answering(steps_done_);
      }) {
    if (!(options_.time_scale > 0.0) || !std::isfinite(options_.time_scale))
        throw std::invalid_argument("CanDeviceHost time_scale must be a positive number");
    if (options_.isotp.fd && !link_->fd())
        throw std::invalid_argument("CAN-FD asked of a link that carries only classic CAN");
    worker_ = std::thread([this] { run(); });
}

CanDeviceHost::~CanDeviceHost() {
    close();
    if (worker_.joinable()) worker_.join();
}

void CanDeviceHost::close() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_) return;
        stopping_ = true;
    }
    link_->wake();
    if (worker_.joinable() && worker_.get_id() != std::this_thread::get_id()) worker_.join();
}

EmulatedActuator& CanDeviceHost::add_actuator(int address, uint16_t model_code, uint16_t firmware_word) {
    if (!wire::is_valid_device_address(address))
        throw std::invalid_argument("Invalid address " + hex_address(address) + " for an emulated actuator: must be "
                                    "0x10..0x3ffe");
    std::lock_guard<std::mutex> lock(mutex_);
    if (device_at(address) != nullptr)
        throw std::invalid_argument("Address " + hex_address(address) + " is already taken on this CAN link");
    auto device = std::make_unique<detail::EmulatedDevice>(address, model_code, firmware_word, steps_done_);
    devices_.push_back(std::unique_ptr<EmulatedActuator>(new EmulatedActuator(*this, std::move(device))));
    return *devices_.back();
}

void CanDeviceHost::remove_actuator(int address) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = std::find_if(devices_.begin(), devices_.end(),
                                    [address](const auto& device) { return device->device_->address() == address; });
    if (found == devices_.end()) throw std::out_of_range("No emulated actuator at " + hex_address(address));
    devices_.erase(found);
}

EmulatedActuator& CanDeviceHost::actuator(int address) {
    std::lock_guard<std::mutex> lock(mutex_);
    EmulatedActuator* found = device_at(address);
    if (found == nullptr) throw std::out_of_range("No emulated actuator at " + hex_address(address));
    return *found;
}

std::size_t CanDeviceHost::actuator_count() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return devices_.size();
}

EmulatedActuator* CanDeviceHost::device_at(int address) const {
    for (const auto& device : devices_) {
        if (device->device_->address() == address) return device.get();
    }
    return nullptr;
}

void CanDeviceHost::set_command_observer(CommandObserver observer) {
    auto shared = observer ? std::make_shared<CommandObserver>(std::move(observer)) : nullptr;
    std::lock_guard<std::mutex> lock(mutex_);
    observer_ = std::move(shared);
}

CanDeviceHostCounters CanDeviceHost::counters() const {
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
void CanDeviceHost::emit_replies(detail::DeviceReplies& replies) {
    if (stopping_) return;  // a closed host sends nothing
    std::vector<CanFrame> out;
    queue_replies(replies, Clock::now(), out);
    transmit(out);
    link_->wake();  // a segmented reply now waits for flow control
}

void CanDeviceHost::queue_replies(detail::DeviceReplies& replies, can::IsoTpTime now, std::vector<CanFrame>& out) {
    for (auto& reply : replies) {
        if (node_.queue(reply.address, reply.kind, std::move(reply.bytes), now, out))
            ++counters_.replies_out;
        else
            ++counters_.drops;
    }
    replies.clear();
}

void CanDeviceHost::transmit(const std::vector<CanFrame>& frames) {
    for (const CanFrame& frame : frames) {
        switch (send_frame_retrying(*link_, frame, options_.busy_retry)) {
        case CanLink::SendResult::sent: ++counters_.frames_out; break;
        case CanLink::SendResult::failed: ++counters_.link_errors; break;
        case CanLink::SendResult::busy: ++counters_.drops; break;
        }
    }
}

void CanDeviceHost::advance_devices(can::IsoTpTime now, std::vector<CanFrame>& out) {
    const int64_t target = clock_->step_at(now);
    if (target <= steps_done_) return;
    detail::DeviceReplies streamed;
    for (const auto& device : devices_) device->device_->advance_to(target, streamed);
    steps_done_ = target;
    queue_replies(streamed, now, out);
}

void CanDeviceHost::handle_command(const can::ReceivedMessage& message, can::IsoTpTime now,
                                   std::vector<CanFrame>& out) {
    EmulatedActuator* device = device_at(message.address);
    if (device == nullptr) return;  // removed meanwhile
    ++counters_.commands_in;
    detail::DeviceReplies replies;
    device->device_->handle_frame(message.bytes, steps_done_, replies);
    queue_replies(replies, now, out);
}

can::IsoTpTime CanDeviceHost::next_wake(can::IsoTpTime now) const {
    can::IsoTpTime wake = now + IDLE_WAKE_PERIOD;
    if (const auto deadline = node_.deadline()) wake = std::min(wake, *deadline);
    for (const auto& device : devices_) {
        const int64_t tick = device->device_->next_stream_step();
        if (tick != detail::EmulatedDevice::NEVER) wake = std::min(wake, clock_->time_of_step(tick));
    }
    return wake;
}

void CanDeviceHost::run() {
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
            advance_devices(now, out);
            if (event.type == CanLinkEvent::Type::frame) node_.on_frame(event.frame, now, out, commands);
            for (const auto& command : commands) handle_command(command, now, out);
            node_.on_time(now, out);
            transmit(out);
            out.clear();
            observer = observer_;
            timeout = std::max<std::chrono::nanoseconds>(next_wake(now) - Clock::now(), std::chrono::nanoseconds(0));
        }
        if (observer) {
            for (const auto& command : commands) (*observer)(command.address, command.bytes);
        }
        commands.clear();
    }
}

}  // namespace ocp_api
