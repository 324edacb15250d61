// Records the traffic between ocpctl and the devices as a `candump -L` log:
// every command and reply is cut into the CAN frames it travels in (with
// the flow control a segmented message gets), on the identifiers of the CAN
// mapping, so that `ocpctl dump --log` and the can-utils read it back. On
// the simulated bus these are the frames the messages would be on a classic
// CAN bus.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include <ocp_api/can_mapping.hpp>
#include <ocp_api/ocp.hpp>

namespace ocpctl::scope {

class TrafficTap : public ocp_api::OCP {
public:
    // A recording stops by itself at this size, so that a forgotten one
    // cannot fill the memory.
    static constexpr std::size_t MAX_LOG_BYTES = 64u << 20;

    // `interface` names the bus in the log's lines ("can0", "sim").
    TrafficTap(ocp_api::OCP& bus, std::string interface);

    bool send(int address, const std::vector<uint8_t>& frame) override;
    void setCallback(int address, ReceiveCallback callback) override;
    void removeCallback(int address) override { bus_.removeCallback(address); }
    void close() override { bus_.close(); }

    // Starts a new recording (the previous one is dropped).
    void start();
    void stop();
    bool recording() const { return recording_.load(); }
    // The log so far; complete once stop() has returned.
    std::string log() const;
    std::size_t frames() const;
    bool full() const;

private:
    void record(const ocp_api::can::MappedId& id, const std::vector<uint8_t>& message);

    ocp_api::OCP& bus_;
    const std::string interface_;
    std::atomic<bool> recording_{false};
    mutable std::mutex mutex_;  // guards below
    std::string log_;
    std::size_t frames_ = 0;
    bool full_ = false;
};

}  // namespace ocpctl::scope
