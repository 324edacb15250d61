#include "support/recording_transport.hpp"

#include "ocp_api/wire.hpp"

namespace ocp_test {

RecordingTransport::~RecordingTransport() { join_deliveries(); }

bool RecordingTransport::send(int address, const std::vector<uint8_t>& frame) {
    Responder responder;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        sent_.push_back({address, frame});
        events_.push_back({EventKind::Send, address});
        responder = responder_;
    }
    if (responder) responder(address, frame);
    return true;
}

void RecordingTransport::setCallback(int address, ReceiveCallback callback) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        events_.push_back({EventKind::SetCallback, address});
    }
    registry_.set(address, std::move(callback));
}

void RecordingTransport::removeCallback(int address) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        events_.push_back({EventKind::RemoveCallback, address});
    }
    registry_.remove(address);
}

void RecordingTransport::close() {
    std::lock_guard<std::mutex> lock(mutex_);
    ++closes_;
    events_.push_back({EventKind::Close, -1});
}

bool RecordingTransport::deliver(int address, Bytes bytes, int kind) {
    return registry_.dispatch(address, std::move(bytes), kind);
}

void RecordingTransport::deliver_later(int address, Bytes bytes, int kind, std::chrono::milliseconds delay) {
    std::thread delivery([this, address, bytes = std::move(bytes), kind, delay]() mutable {
        std::this_thread::sleep_for(delay);
        registry_.dispatch(address, std::move(bytes), kind);
    });
    std::lock_guard<std::mutex> lock(mutex_);
    deliveries_.push_back(std::move(delivery));
}

void RecordingTransport::set_responder(Responder responder) {
    std::lock_guard<std::mutex> lock(mutex_);
    responder_ = std::move(responder);
}

void RecordingTransport::join_deliveries() {
    std::vector<std::thread> running;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        running.swap(deliveries_);
    }
    for (auto& delivery : running) delivery.join();
}

std::vector<RecordingTransport::Sent> RecordingTransport::sent() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return sent_;
}

std::vector<Bytes> RecordingTransport::frames() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<Bytes> frames;
    for (const auto& s : sent_) frames.push_back(s.frame);
    return frames;
}

std::vector<RecordingTransport::Event> RecordingTransport::events() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return events_;
}

std::size_t RecordingTransport::close_count() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return closes_;
}

void RecordingTransport::clear_records() {
    std::lock_guard<std::mutex> lock(mutex_);
    sent_.clear();
    events_.clear();
    closes_ = 0;
}

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

Bytes f32(float value) {
    Bytes bytes;
    ocp_api::append_float(bytes, value);
    return bytes;
}

Bytes u32(uint32_t value) {
    Bytes bytes;
    ocp_api::wire::append_u32(bytes, value);
    return bytes;
}

Bytes u16(uint16_t value) {
    Bytes bytes;
    ocp_api::wire::append_u16(bytes, value);
    return bytes;
}

}  // namespace ocp_test
