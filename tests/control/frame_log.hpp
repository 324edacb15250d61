// A transport in front of another that notes the START and STOP frames each
// address was sent, in order, for tests that check who stopped what.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "ocp_api/ocp.hpp"
#include "ocp_api/wire.hpp"

namespace ocp_test {

class StartStopLog : public ocp_api::OCP {
public:
    explicit StartStopLog(ocp_api::OCP& bus) : bus_(bus) {}

    bool send(int address, const std::vector<uint8_t>& frame) override {
        if (frame.size() == 1 && (frame[0] == static_cast<uint8_t>(ocp_api::wire::Command::START) ||
                                  frame[0] == static_cast<uint8_t>(ocp_api::wire::Command::STOP))) {
            std::lock_guard<std::mutex> lock(mutex_);
            commands_[address].push_back(frame[0] == static_cast<uint8_t>(ocp_api::wire::Command::START) ? 'S' : 'x');
        }
        return bus_.send(address, frame);
    }
    void setCallback(int address, ReceiveCallback callback) override { bus_.setCallback(address, std::move(callback)); }
    void removeCallback(int address) override { bus_.removeCallback(address); }
    void close() override { bus_.close(); }

    // "xSx": STOP, START, STOP.
    std::string commands(int address) const {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto found = commands_.find(address);
        return found == commands_.end() ? std::string() : found->second;
    }
    // A STOP came after the last START.
    bool stopped_since_start(int address) const {
        const std::string seen = commands(address);
        const auto start = seen.rfind('S');
        return start != std::string::npos && seen.find('x', start) != std::string::npos;
    }

private:
    ocp_api::OCP& bus_;
    mutable std::mutex mutex_;
    std::map<int, std::string> commands_;
};

}  // namespace ocp_test
