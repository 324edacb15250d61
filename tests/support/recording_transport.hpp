// A transport for tests: records every send, every callback registration and
// removal and every close, and lets a test deliver reply buffers to the
// registered callbacks, at once or from another thread after a delay.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "ocp_api/callback_registry.hpp"
#include "ocp_api/ocp.hpp"

namespace ocp_test {

using Bytes = std::vector<uint8_t>;

class RecordingTransport : public ocp_api::OCP {
public:
    struct Sent {
        int address;
        Bytes frame;
    };
    enum class EventKind { Send, SetCallback, RemoveCallback, Close };
    struct Event {
        EventKind kind;
        int address;
        bool operator==(const Event& other) const { return kind == other.kind && address == other.address; }
    };
    // Called after each send, outside the transport's lock: a fake device.
    using Responder = std::function<void(int address, const Bytes& frame)>;

    RecordingTransport() = default;
    ~RecordingTransport() override;

    bool send(int address, const std::vector<uint8_t>& frame) override;
    void setCallback(int address, ReceiveCallback callback) override;
    void removeCallback(int address) override;
    void close() override;

    // Calls the callback registered for `address` on this thread; false when none is.
    bool deliver(int address, Bytes bytes, int kind = 0);
    // Delivers from a new thread after `delay`.
    void deliver_later(int address, Bytes bytes, int kind, std::chrono::milliseconds delay);
    void set_responder(Responder responder);
    // Waits for every deliver_later thread to finish.
    void join_deliveries();

    std::vector<Sent> sent() const;
    std::vector<Bytes> frames() const;  // the frames only, in order
    std::vector<Event> events() const;
    std::size_t close_count() const;
    bool has_callback(int address) const { return registry_.has(address); }
    void clear_records();

private:
    ocp_api::CallbackRegistry registry_;
    mutable std::mutex mutex_;
    std::vector<Sent> sent_;
    std::vector<Event> events_;
    std::size_t closes_ = 0;
    Responder responder_;
    std::vector<std::thread> deliveries_;
};

// Builds a byte vector from bytes and floats: bytes_of({0x04}, 1.5f) etc.
Bytes operator+(Bytes a, const Bytes& b);
Bytes f32(float value);
Bytes u32(uint32_t value);
Bytes u16(uint16_t value);

}  // namespace ocp_test
