// A per-address table of receive callbacks that keeps the OCP removal promise.
// Transports (the project's and hosts' own) use it to dispatch replies.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "ocp_api/ocp.hpp"

namespace ocp_api {

// Thread-safe. dispatch() runs the callback without holding the table's lock,
// so a callback may call set(), remove() or dispatch() itself.
//
// remove() waits until calls of the removed callback running on other threads
// have returned, so the callback's owner may be destroyed right after it; a
// call made from inside the callback itself is not waited for (it could never
// finish), and the callback is not called again once it returns.
class CallbackRegistry {
public:
    CallbackRegistry() = default;
    CallbackRegistry(const CallbackRegistry&) = delete;
    CallbackRegistry& operator=(const CallbackRegistry&) = delete;

    void set(int address, OCP::ReceiveCallback callback);
    void remove(int address);
    void clear();

    // Calls the callback of `address`, if one is registered; returns whether it
    // did. A callback that throws does not end the receive thread: the
    // exception is caught and counted, and the first one is reported on
    // standard error ("ocp_api: a receive callback for address 0x21 threw: ...").
    bool dispatch(int address, std::vector<uint8_t> bytes, int kind);
    // Exceptions thrown by callbacks so far.
    uint64_t callback_errors() const { return callback_errors_.load(); }

    bool has(int address) const;
    std::size_t size() const;

private:
    struct Slot;
    void note_callback_error(int address, const char* what);
    void wait_for_other_callers(std::unique_lock<std::mutex>& lock, const std::shared_ptr<Slot>& slot);

    mutable std::mutex mutex_;
    std::condition_variable idle_;
    std::map<int, std::shared_ptr<Slot>> slots_;
    int waiting_removers_ = 0;
    std::atomic<uint64_t> callback_errors_{0};
};

}  // namespace ocp_api
