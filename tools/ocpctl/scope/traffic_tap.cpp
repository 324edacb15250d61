#include "traffic_tap.hpp"

#include <ocp_api/candump_log.hpp>
#include <ocp_api/can_traffic.hpp>

namespace ocpctl::scope {

namespace {

std::chrono::microseconds wall_clock_now() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
        std::chrono::system_clock::now().time_since_epoch());
}

}  // namespace

TrafficTap::TrafficTap(ocp_api::OCP& bus, std::string interface) : bus_(bus), interface_(std::move(interface)) {}

bool TrafficTap::send(int address, const std::vector<uint8_t>& frame) {
    if (recording_.load()) record({address, ocp_api::can::Direction::to_device, 0}, frame);
    return bus_.send(address, frame);
}

void TrafficTap::setCallback(int address, ReceiveCallback callback) {
    bus_.setCallback(address, [this, callback = std::move(callback)](int source, std::vector<uint8_t> bytes, int kind) {
        if (recording_.load()) record({source, ocp_api::can::Direction::to_host, kind == 0 ? 0 : 1}, bytes);
        callback(source, std::move(bytes), kind);
    });
}

void TrafficTap::start() {
    std::lock_guard<std::mutex> lock(mutex_);
    log_.clear();
    frames_ = 0;
    full_ = false;
    recording_.store(true);
}

void TrafficTap::stop() {
    std::lock_guard<std::mutex> lock(mutex_);
    recording_.store(false);
}

std::string TrafficTap::log() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return log_;
}

std::size_t TrafficTap::frames() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return frames_;
}

bool TrafficTap::full() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return full_;
}

void TrafficTap::record(const ocp_api::can::MappedId& id, const std::vector<uint8_t>& message) {
    if (id.address < 0 || id.address > ocp_api::can::MAX_ADDRESS || message.empty()) return;
    const std::vector<ocp_api::CanFrame> frames = ocp_api::can::frames_of_message(id, message);
    if (frames.empty()) return;
    ocp_api::LoggedFrame logged;
    logged.timestamp = wall_clock_now();
    logged.interface = interface_;
    std::lock_guard<std::mutex> lock(mutex_);
    if (!recording_.load()) return;
    for (const auto& frame : frames) {
        logged.frame = frame;
        log_ += ocp_api::format_candump_line(logged);
        log_ += '\n';
        ++frames_;
    }
    if (log_.size() >= MAX_LOG_BYTES) {
        full_ = true;
        recording_.store(false);
    }
}

}  // namespace ocpctl::scope
